// A server killed (SIGKILL) at several points of the close of a file with many samples:
// the next server's start leaves no record file of the dead one and no cache file that no
// entry names, and the file's samples come back wholly as before the close or wholly as
// the close was to write them.
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int32_t kTag = 19;  // 16-bit plain values
constexpr int32_t kSamples = 600000;

// Round r's samples: the same time codes each round, values that differ between rounds.
std::vector<MarquelOneTag> RoundSamples(int32_t round) {
  std::vector<MarquelOneTag> tags(kSamples);
  for (int32_t i = 0; i < kSamples; ++i) {
    tags[i].llTimeCode = int64_t{i} * 3600;
    tags[i].value = (i * 7 + round * 101) & 0xFFFF;
  }
  return tags;
}

// The round whose samples the file holds, or -1 when it holds anything else (a mix, a
// part, nothing).
int32_t StoredRound(IMarquelClient& c, int32_t h, std::initializer_list<int32_t> rounds) {
  int32_t n = 0;
  if (c.QueryOneTagSize(h, kTag, &n) != S_OK || n != kSamples) return -1;
  std::vector<MarquelOneTag> got(kSamples);
  if (c.GetDataAll(h, kTag, n, got.data()) != S_OK) return -1;
  for (int32_t round : rounds) {
    std::vector<MarquelOneTag> want = RoundSamples(round);
    bool same = true;
    for (int32_t i = 0; same && i < kSamples; ++i)
      same = got[i].llTimeCode == want[i].llTimeCode && got[i].value == want[i].value;
    if (same) return round;
  }
  return -1;
}

std::set<std::string> Names(const std::string& folder) {
  std::set<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (struct dirent* e = readdir(dir)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.insert(name);
    }
    closedir(dir);
  }
  return names;
}

std::string CacheFolder() {
  return std::string(getenv("XDG_DATA_HOME")) + "/Halvern/MQInfo";
}

std::string TempRoot() {
  return std::string(getenv("TMPDIR")) + "/marquel-" + std::to_string(getuid());
}

// The cache files of the cache folder that no entry names.
std::set<std::string> UnnamedCacheFiles() {
  std::string listing;
  EXPECT_EQ(RunProgram({MarquelctlPath(), "cache", "list", "--json"}, &listing), 0);
  std::set<std::string> named;
  const nlohmann::json entries = nlohmann::json::parse(listing)["entries"];
  for (const auto& entry : entries) {
    for (const auto& file : entry["cache_files"]) {
      named.insert(std::filesystem::path(file["path"].get<std::string>()).filename());
    }
  }
  std::set<std::string> unnamed;
  for (const std::string& name : Names(CacheFolder())) {
    if (name.rfind("MQ", 0) == 0 && named.count(name) == 0) unnamed.insert(name);
  }
  return unnamed;
}

// Where in the close the server is killed.
struct KillPoint {
  double fraction;   // of a whole close's time, after the call is sent
  bool at_new_file;  // instead: as soon as the close's new cache file appears
};

class KilledClose : public BusTest, public testing::WithParamInterface<const char*> {
 protected:
  // Polls the cache folder until a file not in `before` appears; false after 20 s.
  static bool WaitForNewCacheFile(const std::set<std::string>& before) {
    auto end = steady_clock::now() + std::chrono::seconds(20);
    while (steady_clock::now() < end) {
      for (const std::string& name : Names(CacheFolder()))
        if (before.count(name) == 0) return true;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return false;
  }

  // Inserts round r's samples into an open file, starts its close and kills the server at
  // `point`. Returns the pid of the killed server.
  pid_t CloseAndKill(IMarquelClient& c, int32_t h, int32_t round, const KillPoint& point,
                     milliseconds wholeClose) {
    std::vector<MarquelOneTag> tags = RoundSamples(round);
    EXPECT_EQ(c.InsertDataPeriod(h, kTag, tags.data(), kSamples), S_OK);
    const pid_t server = ServerPid();
    const std::set<std::string> before = Names(CacheFolder());
    auto closing = std::async(std::launch::async, [&c, h] { return c.CloseFile(h, 0); });
    if (point.at_new_file) {
      EXPECT_TRUE(WaitForNewCacheFile(before));
    } else {
      std::this_thread::sleep_for(
          milliseconds(static_cast<int64_t>(point.fraction * wholeClose.count())));
    }
    kill(server, SIGKILL);
    EXPECT_TRUE(WaitUntil([server] { return !ProcessAlive(server); }, kLong));
    EXPECT_EQ(closing.wait_for(kLong), std::future_status::ready);
    return server;
  }
};

TEST_P(KilledClose, TheNextStartLeavesNoOrphanAndTheDataIsWhollyOldOrWhollyNew) {
  const std::string source = GetParam();
  const std::string path = TestPath("clip" + std::filesystem::path(source).extension().string());
  std::filesystem::copy_file(std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + source, path);
  // Round 0 closes whole, and gives the time a whole close takes.
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  std::vector<MarquelOneTag> first = RoundSamples(0);
  ASSERT_EQ(client_->InsertDataPeriod(h, kTag, first.data(), kSamples), S_OK);
  const auto started = steady_clock::now();
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  const auto whole = std::chrono::duration_cast<milliseconds>(steady_clock::now() - started);
  client_.reset();

  const KillPoint points[] = {{0.0, false}, {0.3, false}, {0.6, false},
                              {0.9, false}, {0.0, true},  {3.0, false}};
  int32_t stored = 0;
  int32_t round = 0;
  int32_t rounds_with_orphans = 0;  // kills between a new cache file and its entry
  int32_t rounds_with_new_data = 0;
  int32_t rounds_with_record_files = 0;  // the killed server's folder held files
  for (const KillPoint& point : points) {
    ++round;
    SCOPED_TRACE("round " + std::to_string(round) + ", close of " + std::to_string(whole.count()) +
                 " ms");
    auto c = Connect();
    ASSERT_EQ(c->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    ASSERT_EQ(StoredRound(*c, h, {stored}), stored);
    const pid_t killed = CloseAndKill(*c, h, round, point, whole);
    c.reset();
    const std::string dead_folder = TempRoot() + "/" + std::to_string(killed);
    // A kill right as the close starts may find the samples still in memory (the tag
    // store keeps a budget of them there), so not every round leaves record files.
    if (!Names(dead_folder).empty()) ++rounds_with_record_files;
    if (!UnnamedCacheFiles().empty()) ++rounds_with_orphans;

    auto fresh = Connect();
    int32_t memory = 0;
    ASSERT_EQ(fresh->QueryAllMemory(&memory), S_OK);  // a new server has started
    EXPECT_FALSE(std::filesystem::exists(dead_folder));
    for (const std::string& name : Names(TempRoot())) {
      EXPECT_TRUE(ProcessAlive(std::stoi(name))) << "a folder of an ended process: " << name;
    }
    EXPECT_EQ(UnnamedCacheFiles(), std::set<std::string>{});
    ASSERT_EQ(fresh->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    const int32_t now = StoredRound(*fresh, h, {stored, round});
    EXPECT_NE(now, -1) << "neither wholly the samples before the close nor wholly the new ones";
    if (now != -1) stored = now;
    if (now == round) ++rounds_with_new_data;
    ASSERT_EQ(fresh->CloseFile(h, 0), S_OK);  // nothing changed: a whole close
  }
  EXPECT_GE(rounds_with_record_files, 1) << "no kill left record files to clean up";
  // The kill as the new cache file appears always lands before the store names it.
  EXPECT_GE(rounds_with_orphans, 1);
  EXPECT_GE(rounds_with_new_data, 1) << "the last kill comes after the close";
  std::cout << "kills leaving record files: " << rounds_with_record_files
            << ", kills leaving an unnamed cache file: " << rounds_with_orphans
            << ", rounds whose close got through: " << rounds_with_new_data << "\n";
}

INSTANTIATE_TEST_SUITE_P(Formats, KilledClose, testing::Values("avi.avi", "mpeg1.mpg"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           std::string name = info.param;
                           return name.substr(0, name.find('.'));
                         });

}  // namespace
}  // namespace marquel::test
