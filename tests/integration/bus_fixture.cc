// The integration tests' world: a private session bus per test and process helpers.
#include "bus_fixture.h"

#include <filesystem>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

// The standard session configuration, with any user allowed to connect (so that a caller of another
// user reaches the server, which must refuse it itself).
std::string BusConfig() {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n"
         "  <type>session</type>\n"
         "  <keep_umask/>\n"
         // An abstract socket: no file, and no limit from the length of the test's folder.
         "  <listen>unix:tmpdir=/tmp</listen>\n"
         "  <auth>EXTERNAL</auth>\n"
         "  <standard_session_servicedirs/>\n"
         "  <policy context=\"default\">\n"
         "    <allow user=\"*\"/>\n"
         "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
         "    <allow eavesdrop=\"true\"/>\n"
         "    <allow own=\"*\"/>\n"
         "  </policy>\n"
         "  <limit name=\"max_message_size\">1000000000</limit>\n"
         "  <limit name=\"max_incoming_bytes\">1000000000</limit>\n"
         "  <limit name=\"max_outgoing_bytes\">1000000000</limit>\n"
         "  <limit name=\"service_start_timeout\">120000</limit>\n"
         "</busconfig>\n";
}

int DecodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

bool PrivateBus::Start() {
  std::string config = TestPath("bus.conf");
  std::ofstream(config) << BusConfig();
  int fds[2];
  if (pipe(fds) != 0) return false;
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::string print = "--print-address=" + std::to_string(fds[1]);
    std::string conf = "--config-file=" + config;
    int null_fd = open("/dev/null", O_RDWR);
    dup2(null_fd, 0);
    dup2(null_fd, 2);  // the daemon complains about fd limits it may not raise
    execlp("dbus-daemon", "dbus-daemon", conf.c_str(), "--nofork", print.c_str(), nullptr);
    _exit(127);
  }
  close(fds[1]);
  char buffer[512];
  std::string address;
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof buffer)) > 0) {
    address.append(buffer, n);
    if (address.find('\n') != std::string::npos) break;
  }
  close(fds[0]);
  if (address.empty()) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return false;
  }
  address.erase(address.find('\n'));
  pid_ = pid;
  address_ = address;
  setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
  return true;
}

void PrivateBus::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status;
  if (!WaitForExit(pid_, std::chrono::milliseconds(5000), &status)) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
}

Child Spawn(const std::vector<std::string>& argv, const std::string& log_path, uid_t uid) {
  Child child;
  child.log_path = log_path;
  int fds[2];
  if (pipe(fds) != 0) return child;
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[1]);
    dup2(fds[0], 0);
    if (!log_path.empty()) {
      int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
      dup2(log, 1);
      dup2(log, 2);
    }
    if (uid != static_cast<uid_t>(-1) && (setgid(uid) != 0 || setuid(uid) != 0)) _exit(126);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(fds[0]);
  child.pid = pid;
  child.stdin_fd = fds[1];
  return child;
}

bool WaitForExit(pid_t pid, std::chrono::milliseconds timeout, int* status) {
  auto end = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int raw = 0;
    pid_t r = waitpid(pid, &raw, WNOHANG);
    if (r == pid) {
      if (status) *status = DecodeStatus(raw);
      return true;
    }
    if (r < 0) return false;
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

int RunProgram(const std::vector<std::string>& argv, std::string* output) {
  std::string log = TestPath("run-" + std::to_string(rand()) + ".out");
  Child child = Spawn(argv, log);
  if (child.pid < 0) return -1;
  close(child.stdin_fd);
  int status = -1;
  if (!WaitForExit(child.pid, std::chrono::milliseconds(120000), &status)) {
    kill(child.pid, SIGKILL);
    waitpid(child.pid, nullptr, 0);
    return -1;
  }
  if (output) *output = ReadFile(log);
  unlink(log.c_str());
  return status;
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto end = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

bool ProcessAlive(pid_t pid) {
  if (pid <= 0 || kill(pid, 0) != 0) return false;
  std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t close_paren = stat.rfind(')');
  return close_paren != std::string::npos && close_paren + 2 < stat.size() &&
         stat[close_paren + 2] != 'Z';
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

int64_t StatusKiB(pid_t pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(field + ":", 0) != 0) continue;
    std::istringstream fields(line.substr(field.size() + 1));
    int64_t kib = -1;
    fields >> kib;
    return kib;
  }
  return -1;
}

pid_t ServerPid() {
  try {
    auto connection = sdbus::createSessionBusConnection();
    auto proxy = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    uint32_t pid = 0;
    proxy->callMethod("GetConnectionUnixProcessID")
        .onInterface("org.freedesktop.DBus")
        .withArguments(std::string(kMarquelBusName))
        .storeResultsTo(pid);
    return static_cast<pid_t>(pid);
  } catch (const sdbus::Error&) {
    return -1;
  }
}

std::unique_ptr<sdbus::IProxy> RawProxy(sdbus::IConnection& connection) {
  return sdbus::createProxy(connection, kMarquelBusName, kMarquelObjectPath);
}

const char* Marquel64Path() {
  return MARQUEL64_PATH;
}
const char* MarquelctlPath() {
  return MARQUELCTL_PATH;
}
const char* TestClientPath() {
  return TEST_CLIENT_PATH;
}

void BusTest::SetUp() {
  setenv("MARQUEL_IDLE_GRACE_MS", "300", 1);
  // The close monitor makes its first round at the start, then waits this long; tests of
  // the monitor ask for short rounds.
  setenv("MARQUEL_MONITOR_INTERVAL_MS", std::to_string(monitor_interval_ms_).c_str(), 1);
  ASSERT_EQ(RunProgram({Marquel64Path(), "-RegServer"}), 0);
  ASSERT_TRUE(bus_.Start());
  client_ = Connect();
  ASSERT_NE(client_, nullptr);
}

void BusTest::TearDown() {
  client_.reset();
  StopServer();
  bus_.Stop();
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

std::unique_ptr<IMarquelClient> BusTest::Connect() {
  std::string error;
  auto client = CreateMarquelClient(&error);
  EXPECT_NE(client, nullptr) << error;
  return client;
}

std::string BusTest::MediaFile(const std::string& name, size_t bytes) {
  std::string path = TestPath(name);
  std::ofstream out(path, std::ios::binary);
  out << std::string(bytes, '\0');
  return path;
}

void BusTest::StopServer() {
  pid_t pid = ServerPid();
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  WaitUntil([&] { return !ProcessAlive(pid); }, std::chrono::milliseconds(10000));
}

void BusTest::LogToFile(const std::string& path) {
  client_.reset();
  StopServer();
  const std::string key = "Software\\Halvern\\Common\\Marquel";
  for (const std::vector<std::string>& value :
       {std::vector<std::string>{"DumpMQInfo2", "--dword", "1"},
        std::vector<std::string>{"DumpToFile", "--dword", "1"},
        std::vector<std::string>{"DumpFileName", "--string", path}}) {
    std::vector<std::string> argv = {MarquelctlPath(), "reg", "set", "--machine", key};
    argv.insert(argv.end(), value.begin(), value.end());
    ASSERT_EQ(RunProgram(argv), 0);
  }
  client_ = Connect();
}

std::string CopyTestMedia(const std::string& source, const std::string& as) {
  const std::string path = TestPath(as);
  std::filesystem::copy_file(std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + source, path);
  return path;
}

std::string TaggedCopy(IMarquelClient& client, const std::string& source, const std::string& as) {
  const std::string path = CopyTestMedia(source, as);
  int32_t h = -1;
  EXPECT_EQ(client.InitialFile(path.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(client.InsertDataOne2(h, 0, 16, 100000, 7), S_OK);
  EXPECT_EQ(client.InsertDataOne2(h, 0, 16, 500000, 9), S_OK);
  EXPECT_EQ(client.CloseFile(h, 0), S_OK);
  return path;
}

bool WaitForMoveDone(IMarquelClient& client, const std::string& path) {
  for (int i = 0; i < 200; ++i) {
    int32_t done = 0;
    if (client.IsWriteToFileDone(path.c_str(), &done) != S_OK) return false;
    if (done == 1) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

std::vector<std::pair<int64_t, int32_t>> PlainPairs(IMarquelClient& client, int32_t handle,
                                                    int32_t tag) {
  int32_t n = 0;
  std::vector<std::pair<int64_t, int32_t>> got;
  if (client.QueryOneTagSize2(handle, 0, tag, &n) != S_OK || n <= 0) return got;
  std::vector<MarquelOneTag> tags(static_cast<size_t>(n));
  if (client.GetDataAll2(handle, 0, tag, n, tags.data()) != S_OK) return got;
  for (const MarquelOneTag& t : tags) got.emplace_back(t.llTimeCode, t.value);
  return got;
}

}  // namespace marquel::test
