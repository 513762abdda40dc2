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
// Lines starting with "#" give the baselines. The run happens in a private world
// (bus_world.h).
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

#include "bus_world.h"
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
  benchworld::World world;
  if (!benchworld::MakeWorld(&world, ServeNoop)) {
    std::fprintf(stderr, "ipc: cannot set up the private bus\n");
    benchworld::EndWorld(&world);
    return 1;
  }
  int status = Bench();
  if (status != 0) std::fprintf(stderr, "ipc: a call failed (%d)\n", status);
  benchworld::EndWorld(&world);
  return status;
}
