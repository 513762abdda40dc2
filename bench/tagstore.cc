// Tag store benchmark: inserts, period reads, period copies and memory of one tag, through
// the open-file table, against SQLite (a table with an index on time) and std::map doing
// the same work in the same run.
//
// Prints one line per figure:
//   BENCH <name> <value> <unit> ratio=<r> goal=<g> <pass|short>
// Rates compare with SQLite (ratio = ours / SQLite, goal = the least ratio). The period
// copy compares a copy into the middle of a large tag with the same copy appended at its
// end (ratio = middle / end, goal "<=3"). Peak memory is measured in a child process
// (ratio = MB / 64, goal "<=1"). Lines starting with "#" give the baselines.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "files/marquel_files.h"
#include "tagstore_baselines.h"

extern char** environ;

namespace marquel::bench {
namespace {

constexpr int32_t kTag = 16;
constexpr int64_t kStep = 1000;  // time between samples of the large tags

std::vector<int64_t> InOrderTimes(int64_t n, int64_t step) {
  std::vector<int64_t> t(static_cast<size_t>(n));
  for (int64_t i = 0; i < n; ++i) t[static_cast<size_t>(i)] = i * step;
  return t;
}

void Report(const char* name, double value, const char* unit, double ratio, double goal,
            bool atMost) {
  bool pass = atMost ? ratio <= goal : ratio >= goal;
  std::printf("BENCH %s %.3f %s ratio=%.3f goal=%s%g %s\n", name, value, unit, ratio,
              atMost ? "<=" : "", goal, pass ? "pass" : "short");
  std::fflush(stdout);
}

int32_t OpenTable(MarquelFiles& table, const std::string& dir, const std::string& name) {
  // Missing files opened with a type (1) start empty, as a recording does.
  return table.OpenFile(dir + "/" + name, 1, 0, 0, nullptr, 0, 0, -1);
}

double InsertAll(MarquelFiles& table, int32_t h, const std::vector<int64_t>& times) {
  auto start = std::chrono::steady_clock::now();
  for (int64_t t : times) {
    table.InsertOne(h, 0, kTag, MakePlainSample(t, static_cast<int32_t>(t & 0x7fffffff)));
  }
  return Seconds(start);
}

void Inserts(const std::string& dir, const char* name, const std::vector<int64_t>& times,
             double goal) {
  MarquelFiles table;
  int32_t h = OpenTable(table, dir, std::string(name) + ".mpg");
  double ours = InsertAll(table, h, times);
  if (table.QueryOneTagSize(h, 0, kTag) != static_cast<int64_t>(times.size()))
    std::printf("# %s: wrong count\n", name);
  SqliteTag sqlite(dir + "/" + name + ".db");
  double lite = sqlite.Insert(times);
  std::map<int64_t, int32_t> map;
  double mapped = MapInsert(times, &map);
  double n = static_cast<double>(times.size());
  std::printf("# %s baselines: sqlite %.0f rows/s, std::map %.0f rows/s\n", name, n / lite,
              n / mapped);
  Report(name, n / ours, "rows/s", lite / ours, goal, false);
}

void PeriodRead(const std::string& dir) {
  MarquelFiles table;
  const int64_t total = 1000000;
  const int64_t want = 100000;
  auto times = InOrderTimes(total, kStep);
  int32_t h = OpenTable(table, dir, "period.mpg");
  InsertAll(table, h, times);
  SqliteTag sqlite(dir + "/period.db");
  sqlite.Insert(times);
  std::map<int64_t, int32_t> map;
  MapInsert(times, &map);
  const int64_t from = 450000 * kStep;
  const int64_t to = from + want * kStep;
  std::vector<SampleRecord> out(static_cast<size_t>(want));
  std::vector<std::pair<int64_t, int32_t>> rows;
  double ours = 1e9, lite = 1e9, mapped = 1e9;
  for (int round = 0; round < 3; ++round) {
    auto start = std::chrono::steady_clock::now();
    int64_t got = table.GetDataPeriod(h, 0, kTag, from, to, out.data(), want);
    ours = std::min(ours, Seconds(start));
    if (got != want) std::printf("# period read: got %lld\n", static_cast<long long>(got));
    lite = std::min(lite, sqlite.Range(from, to, &rows));
    mapped = std::min(mapped, MapRange(map, from, to, &rows));
  }
  std::printf("# period_read baselines: sqlite %.0f samples/s, std::map %.0f samples/s\n",
              want / lite, want / mapped);
  Report("tagstore_period_read", want / ours, "samples/s", lite / ours, 1, false);
}

// Copies 100,000 samples into the middle of a 1,000,000-sample tag of another file, and
// the same samples to the end of another such tag. Best of three rounds, each on a fresh
// table, so that a busy machine disturbs the ratio less.
void PeriodCopy(const std::string& dir) {
  const int64_t big = 1000000;
  const int64_t copied = 100000;
  auto bigTimes = InOrderTimes(big, kStep);
  auto sourceTimes = InOrderTimes(copied, kStep);
  // Into the middle, between the target's own samples; and after the target's last one.
  const int64_t middleStart = big / 2 * kStep + kStep / 2;
  const int64_t endStart = big * kStep;
  double intoMiddle = 1e9, atEnd = 1e9;
  for (int round = 0; round < 3; ++round) {
    MarquelFiles table;
    std::string suffix = std::to_string(round) + ".mpg";
    int32_t source = OpenTable(table, dir, "copy-source" + suffix);
    int32_t middle = OpenTable(table, dir, "copy-middle" + suffix);
    int32_t end = OpenTable(table, dir, "copy-end" + suffix);
    InsertAll(table, source, sourceTimes);
    InsertAll(table, middle, bigTimes);
    InsertAll(table, end, bigTimes);
    auto start = std::chrono::steady_clock::now();
    table.CopyDataPeriodForOneTag(middle, source, kTag, middleStart, 0, -1, 1, 1);
    intoMiddle = std::min(intoMiddle, Seconds(start));
    start = std::chrono::steady_clock::now();
    table.CopyDataPeriodForOneTag(end, source, kTag, endStart, 0, -1, 1, 1);
    atEnd = std::min(atEnd, Seconds(start));
    if (table.QueryOneTagSize(middle, 0, kTag) != big + copied ||
        table.QueryOneTagSize(end, 0, kTag) != big + copied)
      std::printf("# period copy: wrong counts\n");
  }
  std::printf("# period_copy baseline: appending at the end %.3f ms\n", atEnd * 1000);
  Report("tagstore_period_copy_middle", intoMiddle * 1000, "ms", intoMiddle / atEnd, 3, true);
}

// The child's work: one tag of 10,000,000 samples, then the peak resident size.
int RssChild(const std::string& dir) {
  MarquelFiles table;
  int32_t h = OpenTable(table, dir, "rss.mpg");
  const int64_t n = 10000000;
  for (int64_t i = 0; i < n; ++i) table.InsertOne(h, 0, kTag, MakePlainSample(i * kStep, 1));
  if (table.QueryOneTagSize(h, 0, kTag) != n) return 2;
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) {
      std::printf("%lld\n", std::atoll(line.c_str() + 6));
      return 0;
    }
  }
  return 3;
}

void PeakRss(const std::string& self, const std::string& dir) {
  std::string out = dir + "/rss.txt";
  pid_t pid = 0;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::string flag = "--rss-child";
  char* argv[] = {const_cast<char*>(self.c_str()), flag.data(), const_cast<char*>(dir.c_str()),
                  nullptr};
  int status = -1;
  if (posix_spawn(&pid, self.c_str(), &actions, nullptr, argv, environ) != 0 ||
      waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::printf("# peak rss: the child failed\n");
  }
  posix_spawn_file_actions_destroy(&actions);
  long long kb = 0;
  std::ifstream(out) >> kb;
  double mb = kb / 1024.0;
  Report("tagstore_peak_rss_10m", mb, "MB", mb / 64, 1, true);
}

std::string MakeWorkDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/tagstore-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
  return pattern;
}

}  // namespace
}  // namespace marquel::bench

int main(int argc, char** argv) {
  using namespace marquel::bench;
  if (argc == 3 && std::string(argv[1]) == "--rss-child") return RssChild(argv[2]);
  try {
    std::string dir = MakeWorkDir();
    // Everything the store writes stays in the work folder: record files go to the
    // temporary folder, and no user data or store is touched (tables are dropped, not
    // closed, so nothing is written to caches either).
    for (const char* var : {"TMPDIR", "HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME",
                            "XDG_RUNTIME_DIR"}) {
      setenv(var, dir.c_str(), 1);
    }
    setenv("MARQUEL_MACHINE_STORE", (dir + "/machine.db").c_str(), 1);
    auto inOrder = InOrderTimes(1000000, kStep);
    Inserts(dir, "tagstore_inorder_insert", inOrder, 2);
    auto shuffled = inOrder;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937_64(42));
    Inserts(dir, "tagstore_random_insert", shuffled, 1);
    PeriodRead(dir);
    PeriodCopy(dir);
    PeakRss(std::filesystem::canonical("/proc/self/exe").string(), dir);
    std::filesystem::remove_all(dir);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tagstore: %s\n", e.what());
    return 1;
  }
  return 0;
}
