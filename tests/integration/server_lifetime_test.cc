// The server's lifetime: activation, idle end, service mode, stop signal, second copy,
// registration switches, and the loss of the bus.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "bus_fixture.h"
#include "marquel/version.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using ServerLifetime = BusTest;
using std::chrono::milliseconds;

std::string ActivationFile() {
  return TestDir() + "/data/dbus-1/services/com.halvern.Marquel64.service";
}

bool Running(pid_t pid) {
  return ProcessAlive(pid);
}

// "RegServer" leaves no "LocalService": the activated server is a plain one and ends
// after its last client has gone (here with a grace of 300 ms).
TEST_F(ServerLifetime, AnActivatedPlainServerEndsAfterItsLastClient) {
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);  // starts the server
  pid_t pid = ServerPid();
  ASSERT_GT(pid, 0);
  std::this_thread::sleep_for(milliseconds(800));
  EXPECT_TRUE(Running(pid)) << "a connected client keeps the server";
  client_.reset();
  EXPECT_TRUE(WaitUntil([&] { return !Running(pid); }, kLong));
  EXPECT_EQ(ServerPid(), -1);
}

// A second client arriving within the grace keeps the server alive.
TEST_F(ServerLifetime, ANewClientWithinTheGraceKeepsTheServer) {
  setenv("MARQUEL_IDLE_GRACE_MS", "3000", 1);
  StopServer();
  bus_.Stop();
  ASSERT_TRUE(bus_.Start());
  client_ = Connect();
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
  pid_t pid = ServerPid();
  client_.reset();
  std::this_thread::sleep_for(milliseconds(500));
  client_ = Connect();
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
  EXPECT_EQ(ServerPid(), pid);
}

// "Service" sets "LocalService": the server runs until SIGTERM, whether or not clients
// are connected, and logs "Service started" and "Service stopped" on standard error.
TEST_F(ServerLifetime, AServiceStaysUpUntilStoppedAndLogsItsStartAndStop) {
  client_.reset();
  StopServer();
  ASSERT_EQ(RunProgram({Marquel64Path(), "-Service"}), 0);
  std::string log = TestPath("service.log");
  Child server = Spawn({Marquel64Path()}, log);
  ASSERT_TRUE(WaitUntil([&] { return ServerPid() == server.pid; }, kLong));
  client_ = Connect();
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("a.mpg").c_str(), 0, 0, &h), S_OK);
  client_.reset();
  std::this_thread::sleep_for(milliseconds(1000));
  EXPECT_TRUE(Running(server.pid)) << "a service does not end without clients";
  // The stop signal while a client is connected ends the loop in order.
  client_ = Connect();
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
  kill(server.pid, SIGTERM);
  int status = -1;
  ASSERT_TRUE(WaitForExit(server.pid, kLong, &status));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(log), "Service started\nService stopped\n");
}

// A plain server writes "Service started" on standard output and, stopped by SIGTERM,
// ends with status 0.
TEST_F(ServerLifetime, APlainServerStoppedBySigterm) {
  client_.reset();
  StopServer();
  std::string log = TestPath("plain.log");
  Child server = Spawn({Marquel64Path()}, log);
  ASSERT_TRUE(WaitUntil([&] { return ServerPid() == server.pid; }, kLong));
  kill(server.pid, SIGTERM);
  int status = -1;
  ASSERT_TRUE(WaitForExit(server.pid, kLong, &status));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(log), "Service started\n");
}

TEST_F(ServerLifetime, ASecondCopyExitsAtOnceWithZero) {
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
  pid_t pid = ServerPid();
  ASSERT_GT(pid, 0);
  std::string output;
  EXPECT_EQ(RunProgram({Marquel64Path()}, &output), 0);
  EXPECT_EQ(output, "");
  EXPECT_EQ(ServerPid(), pid);
}

// The registration switches touch only files and the store, so they work while a server
// runs (the server itself stays the only one), and each says in one line what it did.
TEST_F(ServerLifetime, RegistrationWhileTheServerRunsWritesAndRemovesTheActivationFile) {
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
  pid_t pid = ServerPid();
  ASSERT_GT(pid, 0);
  std::filesystem::remove(ActivationFile());
  std::string out;
  EXPECT_EQ(RunProgram({Marquel64Path(), "-RegServer"}, &out), 0);
  EXPECT_TRUE(std::filesystem::exists(ActivationFile()));
  EXPECT_NE(out.find("wrote " + ActivationFile()), std::string::npos) << out;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
  EXPECT_EQ(RunProgram({Marquel64Path(), "-UnregServer"}, &out), 0);
  EXPECT_FALSE(std::filesystem::exists(ActivationFile()));
  EXPECT_NE(out.find("removed "), std::string::npos) << out;
  EXPECT_NE(out.find(ActivationFile()), std::string::npos) << out;
  EXPECT_EQ(ServerPid(), pid);
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
}

// The name alone also keeps a second server out (a lock file in another runtime folder
// does not help it).
TEST_F(ServerLifetime, TheBusNameKeepsASecondServerOut) {
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);
  pid_t pid = ServerPid();
  std::string other = TestPath("other-run");
  std::filesystem::create_directories(other);
  std::string saved = getenv("XDG_RUNTIME_DIR");
  setenv("XDG_RUNTIME_DIR", other.c_str(), 1);
  int status = RunProgram({Marquel64Path()});
  setenv("XDG_RUNTIME_DIR", saved.c_str(), 1);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ServerPid(), pid);
}

TEST_F(ServerLifetime, ServiceThenUnregServerRemovesTheServiceAndLocalService) {
  client_.reset();
  StopServer();
  ASSERT_EQ(RunProgram({Marquel64Path(), "-Service"}), 0);
  std::string unit = TestDir() + "/data/systemd/user/marquel64.service";
  EXPECT_TRUE(std::filesystem::exists(unit));
  EXPECT_NE(ReadFile(ActivationFile()).find("SystemdService=marquel64.service"), std::string::npos);
  ASSERT_EQ(RunProgram({Marquel64Path(), "/unregserver"}), 0);
  EXPECT_FALSE(std::filesystem::exists(unit));
  EXPECT_FALSE(std::filesystem::exists(ActivationFile()));
  // Without its application key the server does not run: it ends with the store's
  // "not found" code.
  EXPECT_EQ(RunProgram({Marquel64Path()}), 2);
}

// A command line that holds no switch it knows (or a switch with more text) prints the
// usage and ends with 2; it starts no server.
TEST_F(ServerLifetime, AnUnknownSwitchPrintsTheUsageAndExitsWith2) {
  client_.reset();
  StopServer();
  for (const char* arg : {"-Bogus", "--verbose", "please"}) {
    std::string log = TestPath("usage.log");
    Child run = Spawn({Marquel64Path(), arg}, log);
    int status = -1;
    ASSERT_TRUE(WaitForExit(run.pid, kLong, &status)) << arg;
    EXPECT_EQ(status, 2) << arg;
    EXPECT_NE(ReadFile(log).find("Usage: marquel64"), std::string::npos) << arg;
  }
  Child run = Spawn({Marquel64Path(), "-RegServer", "please"});
  int status = -1;
  ASSERT_TRUE(WaitForExit(run.pid, kLong, &status));
  EXPECT_EQ(status, 2);
  EXPECT_EQ(ServerPid(), -1);
}

// "--version" prints the project's version, the same one marquelctl prints.
TEST_F(ServerLifetime, VersionPrintsTheProjectVersionAndStartsNothing) {
  client_.reset();
  StopServer();
  std::string out;
  EXPECT_EQ(RunProgram({Marquel64Path(), "--version"}, &out), 0);
  EXPECT_EQ(out, std::string("marquel64 ") + MARQUEL_VERSION + "\n");
  EXPECT_EQ(ServerPid(), -1);
}

// "--help" prints the usage and exits with 0 without starting a server or registering.
TEST_F(ServerLifetime, HelpPrintsTheUsageAndStartsNothing) {
  client_.reset();
  StopServer();
  std::error_code ec;
  std::filesystem::remove(ActivationFile(), ec);
  std::string out;
  EXPECT_EQ(RunProgram({Marquel64Path(), "--help"}, &out), 0);
  EXPECT_NE(out.find("Usage: marquel64"), std::string::npos);
  EXPECT_NE(out.find("-RegServer"), std::string::npos);
  EXPECT_EQ(ServerPid(), -1);
  EXPECT_FALSE(std::filesystem::exists(ActivationFile()));
}

// The bus going away ends the server cleanly (the loop's disconnect error is caught).
TEST_F(ServerLifetime, LosingTheBusEndsTheServerCleanly) {
  client_.reset();
  StopServer();
  setenv("MARQUEL_IDLE_GRACE_MS", "600000", 1);
  std::string log = TestPath("server.log");
  Child server = Spawn({Marquel64Path()}, log);
  ASSERT_TRUE(WaitUntil([&] { return ServerPid() == server.pid; }, kLong));
  bus_.Stop();
  int status = -1;
  ASSERT_TRUE(WaitForExit(server.pid, kLong, &status));
  EXPECT_EQ(status, 0);
  EXPECT_NE(ReadFile(log).find("bus connection lost"), std::string::npos);
}

}  // namespace
}  // namespace marquel::test
