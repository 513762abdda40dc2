// Bus benchmark: calls to the server through the client library and a private
// dbus-daemon, against a raw sd-bus no-op method served through the same daemon.
//
// Prints one line per figure:
//   BENCH <name> <value> <unit> ratio=<r> goal=<g> <pass|short>
//   insert_one_roundtrip   InsertDataOne calls per second; ratio against the no-op round
//                          trip of the same signature, measured in the same run (goal 0.8)
//   insert_period_1m       InsertDataPeriod of 1,000,000 samples, end to end; ratio against
//                          2,000,000 samples/s (goal 1)
//   get_all_1m             GetDataAll of 1,000,000 samples; ratio against 2,000,000 samples/s
// Lines starting with "#" give the baselines. The run makes a home of its own under
// $TMPDIR (XDG folders, store), registers the built marquel64 there for activation, and
// starts its own dbus-daemon; everything is removed at the end.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "marquel/marquel_client.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kNoopName = "com.halvern.BenchNoop";
constexpr const char* kNoopPath = "/com/halvern/BenchNoop";
constexpr const char* kNoopInterface = "com.halvern.BenchNoop";
constexpr int32_t kTag = 40;

void Report(const char* name, double value, const char* unit, double ratio, double goal) {
  std::printf("BENCH %s %.1f %s ratio=%.3f goal=%g %s\n", name, value, unit, ratio, goal,
              ratio >= goal ? "pass" : "short");
  std::fflush(stdout);
}

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

// --- The no-op server: one method with InsertDataOne's signature, answering 0 --------

int Noop(sd_bus_message* m, void*, sd_bus_error*) {
  int32_t h, tag, value;
  int64_t time;
  sd_bus_message_read(m, "iixi", &h, &tag, &time, &value);
  return sd_bus_reply_method_return(m, "i", 0);
}

const sd_bus_vtable kNoopTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("InsertDataOne", "iixi", "i", Noop, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

[[noreturn]] void ServeNoop() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0 ||
      sd_bus_add_object_vtable(bus, nullptr, kNoopPath, kNoopInterface, kNoopTable, nullptr) < 0 ||
      sd_bus_request_name(bus, kNoopName, 0) < 0)
    _exit(1);
  for (;;) {
    int r = sd_bus_process(bus, nullptr);
    if (r < 0) _exit(0);
    if (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) _exit(0);
  }
}

// --- The private world -------------------------------------------------------------

struct World {
  std::string root;
  pid_t daemon = -1;
  pid_t noop = -1;
};

bool Run(const std::vector<std::string>& argv) {
  pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool MakeWorld(World* w) {
  const char* tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/marquel-ipc-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) return false;
  w->root = pattern;
  for (const char* dir : {"/data", "/run", "/tmp", "/machine"})
    std::filesystem::create_directories(w->root + dir);
  chmod((w->root + "/run").c_str(), 0700);
  setenv("HOME", w->root.c_str(), 1);
  setenv("XDG_DATA_HOME", (w->root + "/data").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (w->root + "/run").c_str(), 1);
  setenv("TMPDIR", (w->root + "/tmp").c_str(), 1);
  setenv("MARQUEL_MACHINE_STORE", (w->root + "/machine/registry.db").c_str(), 1);
  if (!Run({MARQUEL64_PATH, "-RegServer"})) return false;
  std::string config = w->root + "/bus.conf";
  std::ofstream(config) << "<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>"
                           "<auth>EXTERNAL</auth><standard_session_servicedirs/>"
                           "<policy context=\"default\"><allow user=\"*\"/>"
                           "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
                           "<limit name=\"max_message_size\">1000000000</limit>"
                           "<limit name=\"max_incoming_bytes\">1000000000</limit>"
                           "<limit name=\"max_outgoing_bytes\">1000000000</limit></busconfig>";
  int fds[2];
  if (pipe(fds) != 0) return false;
  w->daemon = fork();
  if (w->daemon == 0) {
    close(fds[0]);
    // The daemon and the server it starts keep quiet: only BENCH lines go to the output.
    int null_fd = open("/dev/null", O_RDWR);
    dup2(null_fd, 1);
    dup2(null_fd, 2);
    std::string conf = "--config-file=" + config;
    std::string print = "--print-address=" + std::to_string(fds[1]);
    execlp("dbus-daemon", "dbus-daemon", conf.c_str(), "--nofork", print.c_str(), nullptr);
    _exit(127);
  }
  close(fds[1]);
  char buffer[512];
  ssize_t n = read(fds[0], buffer, sizeof buffer - 1);
  close(fds[0]);
  if (n <= 0) return false;
  buffer[n] = '\0';
  std::string address(buffer);
  address.erase(address.find('\n'));
  setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  w->noop = fork();
  if (w->noop == 0) ServeNoop();
  return true;
}

void EndWorld(World* w) {
  for (pid_t pid : {w->noop, w->daemon}) {
    if (pid > 0) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
  }
  std::error_code ec;
  if (!w->root.empty()) std::filesystem::remove_all(w->root, ec);
}

// --- The figures -------------------------------------------------------------------

// Calls per second of the no-op through one kept connection (as the library calls).
double NoopRate(sd_bus* bus, int calls) {
  auto start = Clock::now();
  for (int i = 0; i < calls; ++i) {
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(bus, kNoopName, kNoopPath, kNoopInterface, "InsertDataOne", nullptr,
                           &reply, "iixi", 0, kTag, int64_t{i}, i) < 0)
      return 0;
    sd_bus_message_unref(reply);
  }
  return calls / Seconds(start);
}

double InsertOneRate(marquel::IMarquelClient& client, int32_t h, int calls, int64_t base) {
  auto start = Clock::now();
  for (int i = 0; i < calls; ++i)
    if (client.InsertDataOne(h, kTag, base + i, i) != marquel::S_OK) return 0;
  return calls / Seconds(start);
}

int Bench() {
  std::string error;
  auto client = marquel::CreateMarquelClient(&error);
  if (!client) {
    std::fprintf(stderr, "ipc: %s\n", error.c_str());
    return 4;
  }
  std::string file = std::string(getenv("TMPDIR")) + "/bench.mpg";
  std::ofstream(file) << '\0';
  int32_t h = -1;
  if (client->InitialFile(file.c_str(), 0, 0, &h) != marquel::S_OK) return 2;
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) return 3;
  // The no-op server may still be taking its name.
  for (int i = 0; i < 500 && NoopRate(bus, 1) == 0; ++i) usleep(10000);
  NoopRate(bus, 2000);  // warm up both paths
  InsertOneRate(*client, h, 2000, 0);

  // Alternate short blocks so that both see the same load from other processes on the
  // machine; keep the best block of each.
  const int kBlock = 1000;
  double noop = 0, insert = 0;
  for (int round = 0; round < 30; ++round) {
    noop = std::max(noop, NoopRate(bus, kBlock));
    insert = std::max(insert, InsertOneRate(*client, h, kBlock, int64_t{round + 1} * 1000000));
  }
  std::printf("# noop_roundtrip %.1f calls/s (raw sd-bus method, same daemon, same signature)\n",
              noop);
  Report("insert_one_roundtrip", insert, "calls/s", noop > 0 ? insert / noop : 0, 0.8);

  const int32_t n = 1000000;
  std::vector<marquel::MarquelOneTag> samples(n);
  for (int32_t i = 0; i < n; ++i) samples[i] = marquel::MarquelOneTag{int64_t{i} * 400000, i};
  const double kGoalRate = 2000000;
  std::printf("# goal_rate %.0f samples/s\n", kGoalRate);
  auto start = Clock::now();
  if (client->InsertDataPeriod(h, kTag + 1, samples.data(), n) != marquel::S_OK) return 1;
  double rate = n / Seconds(start);
  Report("insert_period_1m", rate, "samples/s", rate / kGoalRate, 1.0);

  std::vector<marquel::MarquelOneTag> out(n);
  double best = 0;
  for (int round = 0; round < 3; ++round) {
    start = Clock::now();
    if (client->GetDataAll(h, kTag + 1, n, out.data()) != marquel::S_OK) return 1;
    best = std::max(best, n / Seconds(start));
  }
  if (out[n - 1].value != n - 1) return 1;
  Report("get_all_1m", best, "samples/s", best / kGoalRate, 1.0);
  client->CloseFile(h, 0);
  sd_bus_unref(bus);
  return 0;
}

}  // namespace

int main() {
  World world;
  if (!MakeWorld(&world)) {
    std::fprintf(stderr, "ipc: cannot set up the private bus\n");
    EndWorld(&world);
    return 1;
  }
  int status = Bench();
  if (status != 0) std::fprintf(stderr, "ipc: a call failed (%d)\n", status);
  EndWorld(&world);
  return status;
}
