// The integration tests' world: a private session bus per test, the server registered for
// activation in the test's own home, and helpers to run and watch processes.
//
// Every test gets a fresh home from the test main (XDG_DATA_HOME, XDG_RUNTIME_DIR, the
// store ...). BusTest registers the built marquel64 there ("-RegServer" writes the
// activation file into $XDG_DATA_HOME/dbus-1/services), then starts a dbus-daemon of the
// session type whose service folders follow that XDG_DATA_HOME, and points
// DBUS_SESSION_BUS_ADDRESS at it. The first call through the client library starts the
// server by activation. At the end the server is stopped and the daemon killed.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "marquel/marquel_client.h"

namespace marquel::test {

// A dbus-daemon of the session type for one test.
class PrivateBus {
 public:
  ~PrivateBus() { Stop(); }
  // Starts the daemon with the environment as it is now and exports its address.
  bool Start();
  // Kills the daemon (the server, if running, loses its bus).
  void Stop();
  pid_t Pid() const { return pid_; }
  const std::string& Address() const { return address_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

// A process started by a test. Its standard output and error go to `log_path` when given;
// its standard input is a pipe the test can close.
struct Child {
  pid_t pid = -1;
  int stdin_fd = -1;
  std::string log_path;
};

// Starts argv[0] (a path) with argv. `uid`, when not -1, is the user to run as (root only).
Child Spawn(const std::vector<std::string>& argv, const std::string& log_path = "",
            uid_t uid = static_cast<uid_t>(-1));
// Waits for a process to end; true with *status (exit code, or 128 + signal) when it did
// within the time.
bool WaitForExit(pid_t pid, std::chrono::milliseconds timeout, int* status);
// Runs a program to its end and returns its exit code (-1 on failure); its standard
// output goes to *output when given.
int RunProgram(const std::vector<std::string>& argv, std::string* output = nullptr);
// Polls `condition` until it holds or the time is up.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);
// Whether a process exists and has not ended (a zombie has ended).
bool ProcessAlive(pid_t pid);
// The text of a file ("" when missing).
std::string ReadFile(const std::string& path);
// A copy of the ffmpeg-made test media file `source` in the test's folder as `as`; its
// path.
std::string CopyTestMedia(const std::string& source, const std::string& as);
// CopyTestMedia, then tag 16 of program 0 takes 7 at 100000 and 9 at 500000 and the file
// is closed with bWriteToCache 0 (a program stream or transport stream then waits for its
// move). Its path.
std::string TaggedCopy(IMarquelClient& client, const std::string& source, const std::string& as);
// The (time code, value) pairs of a plain tag of program 0 of an open file; none when
// the tag holds nothing or a call fails.
std::vector<std::pair<int64_t, int32_t>> PlainPairs(IMarquelClient& client, int32_t handle,
                                                    int32_t tag);

// Polls IsWriteToFileDone for the file until it answers 1 (true), a call fails, or 20 s
// have passed (false).
bool WaitForMoveDone(IMarquelClient& client, const std::string& path);

// The pid of the process that owns the server's bus name now, or -1.
pid_t ServerPid();
// A figure of /proc/<pid>/status in KiB (VmHWM, VmRSS), or -1.
int64_t StatusKiB(pid_t pid, const std::string& field);
// Sends one call to the server with the sdbus-c++ dynamic API (no client library in
// between), for arguments the library would never send.
std::unique_ptr<sdbus::IProxy> RawProxy(sdbus::IConnection& connection);

// Paths of the built programs.
const char* Marquel64Path();
const char* MarquelctlPath();
const char* TestClientPath();

constexpr std::chrono::milliseconds kLong{20000};

class BusTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A client connected to the private bus (the server starts on its first call).
  std::unique_ptr<IMarquelClient> Connect();
  // A file of `bytes` zero bytes in the test's folder; returns its absolute path.
  std::string MediaFile(const std::string& name, size_t bytes = 1);
  // Stops the server with SIGTERM, if one runs, and waits for it.
  void StopServer();
  // Turns the server's log on into `path` in the machine store and starts the server
  // again (through a new client_), since the log settings are read at start-up.
  void LogToFile(const std::string& path);

  PrivateBus bus_;
  std::unique_ptr<IMarquelClient> client_;
  // Time between two rounds of the server's close monitor (set before SetUp runs). The
  // default keeps rounds out of the way of tests that look at pending moves.
  int monitor_interval_ms_ = 600000;
};

}  // namespace marquel::test
