// The fault points: numbering, kill, fail and the count written at exit.
#include "platform/fault_points.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/files.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

FileHandle Create(const std::string& path) {
  return OpenFileHandle(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                        FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
}

std::string Contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Six points, one of each kind: write, positioned write, truncate, fsync, folder fsync,
// rename. Returns the number of the first point that failed, or 0.
int PassSixPoints(const std::string& dir) {
  const std::string path = dir + "/f.bin";
  FileHandle h = Create(path);
  if (h == kInvalidFileHandle) return -1;
  uint32_t done = 0;
  int failed = 0;
  if (!WriteFile(h, "abcdef", 6, &done)) failed = 1;
  if (!failed && !WriteAllAt(h, 6, "gh", 2)) failed = 2;
  if (!failed && (SeekFile(h, 7, FILE_BEGIN) != 7 || !SetEndOfFile(h))) failed = 3;
  if (!failed && !SyncFileHandle(h)) failed = 4;
  CloseFileHandle(h);
  if (!failed && !SyncFolder(dir)) failed = 5;
  if (!failed && !RenameFile(path, dir + "/g.bin")) failed = 6;
  return failed;
}

class FaultPoints : public ::testing::Test {
 protected:
  void TearDown() override { ConfigureFaultPoints("", ""); }
};

TEST_F(FaultPoints, UnarmedPointsLetEveryCallActAndCountNothing) {
  ConfigureFaultPoints("", "");
  EXPECT_EQ(PassSixPoints(test::TestDir()), 0);
  EXPECT_EQ(FaultPointsPassed(), 0u);
  EXPECT_EQ(Contents(test::TestPath("g.bin")), "abcdefg");
}

TEST_F(FaultPoints, EachWriteSyncTruncateAndRenameIsOnePoint) {
  ConfigureFaultPoints("", test::TestPath("count"));
  EXPECT_EQ(PassSixPoints(test::TestDir()), 0);
  EXPECT_EQ(FaultPointsPassed(), 6u);
}

TEST_F(FaultPoints, AFailingPointFailsWithEioAndDoesNothing) {
  for (int n = 1; n <= 6; ++n) {
    test::MakeFreshHome("fail" + std::to_string(n));
    ConfigureFaultPoints(std::to_string(n) + ":fail", "");
    errno = 0;
    EXPECT_EQ(PassSixPoints(test::TestDir()), n);
    EXPECT_EQ(errno, EIO) << n;
  }
  // The write failed: the file holds nothing. The rename failed: the old name stays.
  test::MakeFreshHome("fail-write");
  ConfigureFaultPoints("1:fail", "");
  PassSixPoints(test::TestDir());
  EXPECT_EQ(Contents(test::TestPath("f.bin")), "");
  test::MakeFreshHome("fail-rename");
  ConfigureFaultPoints("6:fail", "");
  PassSixPoints(test::TestDir());
  EXPECT_EQ(Contents(test::TestPath("f.bin")), "abcdefg");
  EXPECT_EQ(access(test::TestPath("g.bin").c_str(), F_OK), -1);
}

TEST_F(FaultPoints, AKillingPointEndsTheProcessBeforeItActs) {
  const std::string dir = test::TestDir();
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ConfigureFaultPoints("2:kill", "");
    PassSixPoints(dir);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  // The first write landed; the second (at offset 6) never did.
  EXPECT_EQ(Contents(dir + "/f.bin"), "abcdef");
}

TEST_F(FaultPoints, ANormalExitWritesTheCountWithoutPassingAPoint) {
  const std::string dir = test::TestDir();
  const std::string count = dir + "/count";
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ConfigureFaultPoints("", count);
    PassSixPoints(dir);
    std::exit(0);  // runs the exit handlers
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(Contents(count), "6\n");
}

TEST_F(FaultPoints, AMalformedSettingArmsNoFault) {
  for (const char* at : {"0:kill", "3", ":fail", "x:fail", "3:maybe", "3:failx"}) {
    ConfigureFaultPoints(at, "");
    EXPECT_EQ(PassSixPoints(test::TestDir()), 0) << at;
  }
}

}  // namespace
}  // namespace marquel
