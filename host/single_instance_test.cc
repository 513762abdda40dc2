// The lock that keeps a second copy of the server from running.
#include "single_instance.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "testsupport/fresh_home.h"

namespace marquel::host {
namespace {

TEST(SingleInstance, TheLockFileIsInTheRuntimeDirectory) {
  EXPECT_EQ(LockFilePath(), test::TestDir() + "/run/marquel64.lock");
}

TEST(SingleInstance, ASecondLockIsRefusedUntilTheFirstIsGone) {
  auto first = std::make_unique<SingleInstanceLock>();
  EXPECT_EQ(first->Acquire(), SingleInstanceLock::Result::kAcquired);
  SingleInstanceLock second;
  EXPECT_EQ(second.Acquire(), SingleInstanceLock::Result::kHeldElsewhere);
  first.reset();
  EXPECT_EQ(second.Acquire(), SingleInstanceLock::Result::kAcquired);
}

TEST(SingleInstance, WithoutARuntimeDirectoryTheTemporaryFolderServes) {
  unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(LockFilePath().rfind(test::TestDir() + "/tmp/marquel64-", 0), 0u);
  SingleInstanceLock lock;
  EXPECT_EQ(lock.Acquire(), SingleInstanceLock::Result::kAcquired);
}

TEST(SingleInstance, AnUnusableFolderIsReported) {
  setenv("XDG_RUNTIME_DIR", (test::TestDir() + "/no/such/dir").c_str(), 1);
  SingleInstanceLock lock;
  std::string error;
  EXPECT_EQ(lock.Acquire(&error), SingleInstanceLock::Result::kUnavailable);
  EXPECT_NE(error.find("no/such/dir"), std::string::npos);
}

}  // namespace
}  // namespace marquel::host
