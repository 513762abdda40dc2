// Several clients: one shared table, per-client release of opens, callers of another user,
// and file names relative to a client's working directory.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <thread>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using ClientSessions = BusTest;

// Starts marquel_test_client holding `file` open; returns the child and the handle it got.
Child HoldOpen(const std::string& file, int32_t* handle, uid_t uid = static_cast<uid_t>(-1)) {
  std::string log = TestPath("holder-" + std::to_string(rand()) + ".out");
  Child child = Spawn({TestClientPath(), "open", file}, log, uid);
  int hr = -1;
  *handle = -1;
  WaitUntil([&] { return sscanf(ReadFile(log).c_str(), "%d %d", &hr, handle) == 2; }, kLong);
  return child;
}

int32_t FileCount(IMarquelClient& client) {
  int32_t count = 0;
  return client.QueryFileCount(&count) == S_OK ? count : 0;
}

TEST_F(ClientSessions, TwoProcessesShareOneHandleWithCountTwo) {
  std::string file = MediaFile("shared.mpg");
  int32_t mine = -1, theirs = -1;
  ASSERT_EQ(client_->InitialFile(file.c_str(), 0, 0, &mine), S_OK);
  Child other = HoldOpen(file, &theirs);
  EXPECT_EQ(theirs, mine);
  EXPECT_EQ(FileCount(*client_), 1);
  // Two references: the first close leaves the file open, the second closes it.
  EXPECT_EQ(client_->CloseFile(mine, 0), S_OK);
  EXPECT_EQ(FileCount(*client_), 1);
  EXPECT_EQ(client_->CloseFile(mine, 0), S_OK);
  EXPECT_EQ(FileCount(*client_), 0);
  close(other.stdin_fd);
  int status = -1;
  EXPECT_TRUE(WaitForExit(other.pid, kLong, &status));
  EXPECT_EQ(status, 0);
}

// A client that dies holding an open gives it back as CloseFile(handle, 0) would.
TEST_F(ClientSessions, AClientKilledWhileHoldingAnOpenHasItReleased) {
  std::string file = MediaFile("held.mpg");
  int32_t theirs = -1;
  Child other = HoldOpen(file, &theirs);
  ASSERT_EQ(theirs, 0);
  EXPECT_EQ(FileCount(*client_), 1);
  kill(other.pid, SIGKILL);
  int status = -1;
  EXPECT_TRUE(WaitForExit(other.pid, kLong, &status));
  EXPECT_TRUE(WaitUntil([&] { return FileCount(*client_) == 0; }, kLong));
}

// The released client's open was of a session that has gone since; the slot now holds
// another file, which stays open.
TEST_F(ClientSessions, AReleaseNeverTouchesASlotReusedSince) {
  int32_t theirs = -1;
  Child other = HoldOpen(MediaFile("first.mpg"), &theirs);
  ASSERT_EQ(theirs, 0);
  ASSERT_EQ(client_->CloseFile(0, 0), S_OK);  // closes the other client's open
  int32_t mine = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("second.mpg").c_str(), 0, 0, &mine), S_OK);
  ASSERT_EQ(mine, 0);
  kill(other.pid, SIGKILL);
  WaitForExit(other.pid, kLong, nullptr);
  // Give the server time to see the departure, then check the new file is still open.
  int32_t again = -1;
  Child probe = HoldOpen(MediaFile("probe.mpg"), &again);
  close(probe.stdin_fd);
  WaitForExit(probe.pid, kLong, nullptr);
  EXPECT_TRUE(WaitUntil([&] { return FileCount(*client_) == 1; }, kLong));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(FileCount(*client_), 1);
  int32_t handles[2] = {-1, -1};
  EXPECT_EQ(client_->QueryAllFileHandles(1, handles), S_OK);
  EXPECT_EQ(handles[0], 0);
}

// The process's own outstanding opens are released when its connection ends normally too.
TEST_F(ClientSessions, AClientThatExitsWithoutClosingHasItsOpensReleased) {
  int32_t theirs = -1;
  Child other = HoldOpen(MediaFile("a.mpg"), &theirs);
  ASSERT_GE(theirs, 0);
  close(other.stdin_fd);
  WaitForExit(other.pid, kLong, nullptr);
  EXPECT_TRUE(WaitUntil([&] { return FileCount(*client_) == 0; }, kLong));
}

// The server refuses callers of another user: the bus says AccessDenied, which the
// library reports as E_ACCESSDENIED. Needs root to run the caller as another user.
TEST_F(ClientSessions, ACallerOfAnotherUserIsRefused) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to run a client as another user";
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);  // the server runs as this user
  std::filesystem::permissions(TestDir(), std::filesystem::perms::all,
                               std::filesystem::perm_options::add);
  std::string log = TestPath("stranger.out");
  Child stranger = Spawn({TestClientPath(), "count"}, log, 65534);
  close(stranger.stdin_fd);
  int status = -1;
  ASSERT_TRUE(WaitForExit(stranger.pid, kLong, &status));
  ASSERT_EQ(status, 0) << ReadFile(log);
  int hr = 0, value = 0;
  ASSERT_EQ(sscanf(ReadFile(log).c_str(), "%d %d", &hr, &value), 2) << ReadFile(log);
  EXPECT_EQ(hr, E_ACCESSDENIED);
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);  // and the server serves on
}

// The library makes a relative name absolute against the caller's working directory.
TEST_F(ClientSessions, RelativeNamesFromTheLibraryAreMadeAbsolute) {
  MediaFile("local.mpg");
  char saved[4096];
  ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
  ASSERT_EQ(chdir(TestDir().c_str()), 0);
  int32_t h = -1, again = -1;
  EXPECT_EQ(client_->InitialFile("local.mpg", 0, 0, &h), S_OK);
  EXPECT_EQ(client_->InitialFile((TestDir() + "/local.mpg").c_str(), 0, 0, &again), S_OK);
  EXPECT_EQ(again, h);
  EXPECT_EQ(chdir(saved), 0);
}

// A caller that sends a relative name itself gets E_INVALIDARG.
TEST_F(ClientSessions, RelativeNamesOnTheBusAreInvalid) {
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = RawProxy(*connection);
  int32_t hr = 0, handle = 0;
  proxy->callMethod("InitialFile")
      .onInterface("com.halvern.Marquel.IMQInterface")
      .withArguments(std::string("clip.mpg"), int32_t{0}, int32_t{0})
      .storeResultsTo(hr, handle);
  EXPECT_EQ(hr, E_INVALIDARG);
  EXPECT_EQ(handle, -1);
  int32_t done = 0;
  proxy->callMethod("IsWriteToFileDone")
      .onInterface("com.halvern.Marquel.IMarquelEx")
      .withArguments(std::string("./clip.mpg"))
      .storeResultsTo(hr, done);
  EXPECT_EQ(hr, E_INVALIDARG);
  proxy->callMethod("MoveCacheDataToOrgFile")
      .onInterface("com.halvern.Marquel.IMarquelTool")
      .withArguments(std::string("clip.mpg"))
      .storeResultsTo(hr);
  EXPECT_EQ(hr, E_INVALIDARG);
}

}  // namespace
}  // namespace marquel::test
