// The server's log as a user meets it: switched on in the user's own store while the
// server runs, and the debug lines of a server the bus started kept in the state file.
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using ServiceLog = BusTest;

// Sets a value of the settings key in the user's store, as a user would.
void SetUserValue(const std::string& name, const std::string& type, const std::string& value) {
  ASSERT_EQ(RunProgram({MarquelctlPath(), "reg", "set", "Software\\Halvern\\Common\\Marquel", name,
                        type, value}),
            0);
}

// Opens and closes a file, which the server logs.
void OpenAndClose(IMarquelClient& client, const std::string& path) {
  int32_t h = -1;
  ASSERT_EQ(client.InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client.CloseFile(h, 1), S_OK);
}

TEST_F(ServiceLog, ALogSwitchedOnInTheUsersStoreIsPickedUpWithoutARestart) {
  const std::string media = MediaFile("clip.avi", 4096);
  OpenAndClose(*client_, media);
  const pid_t pid = ServerPid();
  ASSERT_GT(pid, 0);
  const std::string log = TestPath("user.log");
  SetUserValue("DumpFileName", "--string", log);
  SetUserValue("DumpToFile", "--dword", "1");
  SetUserValue("DumpMQInfo2", "--dword", "1");
  EXPECT_TRUE(WaitUntil(
      [&] {
        OpenAndClose(*client_, media);
        return !ReadFile(log).empty();
      },
      std::chrono::milliseconds(8000)));
  EXPECT_EQ(ServerPid(), pid);
  // And off again, the same way.
  SetUserValue("DumpMQInfo2", "--dword", "0");
  std::this_thread::sleep_for(std::chrono::seconds(3));
  OpenAndClose(*client_, media);
  const size_t size = ReadFile(log).size();
  OpenAndClose(*client_, media);
  EXPECT_EQ(ReadFile(log).size(), size);
}

// A server started by the bus without systemd has no terminal; its debug lines go to
// $XDG_STATE_HOME/marquel/marquel64.log rather than into the void.
TEST_F(ServiceLog, AnActivatedServerWritesItsDebugLinesToTheStateFile) {
  client_.reset();
  StopServer();
  SetUserValue("DumpMQInfo2", "--dword", "1");
  client_ = Connect();
  const std::string media = MediaFile("clip.avi", 4096);
  OpenAndClose(*client_, media);
  const std::string state = TestPath("state/marquel/marquel64.log");
  EXPECT_TRUE(WaitUntil([&] { return ReadFile(state).find("[Marquel2.0]") != std::string::npos; },
                        std::chrono::milliseconds(5000)));
}

}  // namespace
}  // namespace marquel::test
