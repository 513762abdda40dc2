// The moves of cached tags into media files, cut at every write, fsync, truncate and
// rename: the server is killed at a point, or the point fails, and a clean server must
// then leave the file whole with every tag, the bytes before the merge untouched and
// nothing behind. MARQUEL_CRASH_POINTS=all tries every point; otherwise about 40 points
// spread evenly over the range are tried.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "bus_fixture.h"
#include "crash_harness.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using namespace std::chrono_literals;

// The folders a run may change; the rest of the home (the bus's files) is the harness's.
const std::vector<std::string> kState = {"data", "config", "cache", "tmp", "machine", "media"};
constexpr int kRoundMs = 100;
constexpr auto kRunLimit = 20s;

// The points to try among 1..count.
std::vector<uint64_t> ChosenPoints(uint64_t count) {
  const char* wanted = std::getenv("MARQUEL_CRASH_POINTS");
  uint64_t tries = 40;
  if (wanted != nullptr && std::string(wanted) == "all") tries = count;
  if (wanted != nullptr && std::atoi(wanted) > 0) tries = static_cast<uint64_t>(std::atoi(wanted));
  std::vector<uint64_t> points;
  if (count == 0) return points;
  tries = std::min(tries, count);
  for (uint64_t i = 0; i < tries; ++i) {
    uint64_t n = tries == 1 ? 1 : 1 + i * (count - 1) / (tries - 1);
    if (points.empty() || points.back() != n) points.push_back(n);
  }
  return points;
}

struct Tally {
  int runs = 0;
  int left_original = 0;  // the faulty server left the file as it was
  int left_moved = 0;     // it finished the move itself
  int left_cut = 0;       // it left a cut-short file for the roll-back at start
  std::vector<std::string> violations;
};

class CrashHarness : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    home_ = TestDir();
    snapshot_ = home_ + "-saved";
    // Registered, so that the server finds its settings, but without the activation file:
    // a call while no server runs must not start one without the fault.
    ASSERT_EQ(RunProgram({Marquel64Path(), "-RegServer"}), 0);
    std::filesystem::remove_all(home_ + "/data/dbus-1/services");
    ASSERT_TRUE(bus_.Start());
    if (std::getenv("MARQUEL_CRASH_SERVER_LOG") != nullptr) LogToFile();
    std::filesystem::create_directories(home_ + "/media");
    media_ = home_ + "/media/clip" + std::filesystem::path(GetParam()).extension().string();
    std::filesystem::copy_file(std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + GetParam(), media_);
    original_ = FileBytes(media_);
    tags_ = SampleTags();
  }
  void TearDown() override {
    client_.reset();
    bus_.Stop();
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    std::filesystem::remove_all(snapshot_);
  }

  // Tags the copy through the bus, closes it so that its move is pending, and stops.
  void Prepare() {
    pid_t pid = StartServer("", "", 600000, Log("prepare"));
    ASSERT_GT(pid, 0);
    client_ = CreateMarquelClient();
    ASSERT_NE(client_, nullptr);
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(media_.c_str(), 0, 0, &h), S_OK);
    for (auto& [tag, samples] : tags_.plain) {
      ASSERT_EQ(client_->InsertDataPeriod2(h, 0, tag, samples.data(),
                                           static_cast<int32_t>(samples.size())),
                S_OK);
    }
    for (auto& [tag, samples] : tags_.raw) {
      for (auto& [time, bytes] : samples) {
        ASSERT_EQ(client_->InsertRawDataOne2(h, 0, tag, time, static_cast<int32_t>(bytes.size()),
                                             bytes.data()),
                  S_OK);
      }
    }
    ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
    ASSERT_EQ(MoveDone(*client_, media_), 0) << "the move waits for the next round";
    client_.reset();
    ASSERT_TRUE(StopServerProcess(pid));
    SaveHome(home_, kState, snapshot_);
  }

  // Makes the servers log into one file beside the home (the log's writes pass points
  // too, so the counts then differ from a run without it).
  void LogToFile() {
    const std::string key = "Software\\Halvern\\Common\\Marquel";
    for (const std::vector<std::string>& value :
         {std::vector<std::string>{"DumpMQInfo2", "--dword", "1"},
          std::vector<std::string>{"DumpToFile", "--dword", "1"},
          std::vector<std::string>{"DumpFileName", "--string", Log("server")}}) {
      std::vector<std::string> argv = {MarquelctlPath(), "reg", "set", "--machine", key};
      argv.insert(argv.end(), value.begin(), value.end());
      ASSERT_EQ(RunProgram(argv), 0);
    }
  }

  std::string Log(const std::string& what) { return home_ + "-" + what + ".log"; }

  // Waits until the move of the medium is done, or the server `pid` died, or the time is
  // up; true when done.
  bool WaitForMove(pid_t pid) {
    auto client = CreateMarquelClient();
    if (client == nullptr) return false;
    bool done = false;
    WaitUntil(
        [&] {
          if (!ProcessAlive(pid)) return true;
          done = MoveDone(*client, media_) == 1;
          return done;
        },
        kRunLimit);
    return done;
  }

  // The files of the state folders but those of the running server `pid` itself: its own
  // temporary folder and the store's journal files, which come and go with it.
  std::vector<std::string> StateFiles(pid_t pid) {
    const std::string own = "/" + std::to_string(pid) + "/";
    std::vector<std::string> files;
    for (const std::string& f : ListFiles(home_, kState)) {
      const bool journal = f.size() > 4 && (f.compare(f.size() - 4, 4, "-wal") == 0 ||
                                            f.compare(f.size() - 4, 4, "-shm") == 0);
      if (!journal && !(f.rfind("tmp/", 0) == 0 && f.find(own) != std::string::npos))
        files.push_back(f);
    }
    return files;
  }

  // The checks after the clean server `pid` finished the move; appends violations with
  // `label`.
  void CheckFinal(const std::string& label, pid_t pid, std::vector<std::string>* bad) {
    const std::vector<uint8_t> now = FileBytes(media_);
    const bool original = now == original_;
    if (!clean_result_.empty() && FirstDifference(now, original_) < clean_prefix_)
      bad->push_back(label + ": bytes before the merge start changed");
    if (!clean_files_.empty()) {
      const std::vector<std::string> files = StateFiles(pid);
      std::string odd;
      for (const std::string& f : files)
        if (!std::binary_search(clean_files_.begin(), clean_files_.end(), f)) odd += " +" + f;
      for (const std::string& f : clean_files_)
        if (!std::binary_search(files.begin(), files.end(), f)) odd += " -" + f;
      if (!odd.empty()) bad->push_back(label + ": files left behind (+) or missing (-):" + odd);
    }
    // The records live in the user's store; the machine's must not hold one either.
    const int records = RollBackRecords(home_ + "/data/Halvern/registry.db");
    if (records != 0)
      bad->push_back(label + (records < 0 ? ": the user's store cannot be read"
                                          : ": a roll-back record remains"));
    if (RollBackRecords(home_ + "/machine/registry.db") > 0)
      bad->push_back(label + ": a roll-back record remains in the machine's store");
    auto client = CreateMarquelClient();
    int32_t from_file = -1;
    for (const std::string& v : CheckTagsThroughBus(*client, media_, tags_, &from_file))
      bad->push_back(label + ": " + v);
    if (!original && from_file != 1)
      bad->push_back(label + ": the file changed but its tags are not read from it");
  }

  // One run: a server with `fault`, then a clean one.
  void RunOnce(uint64_t n, const char* mode, Tally* tally) {
    const std::string label = std::string(GetParam()) + " point " + std::to_string(n) + ":" + mode;
    RestoreHome(snapshot_, kState, home_);
    pid_t faulty = StartServer(std::to_string(n) + ":" + mode, "", kRoundMs, Log("faulty"));
    if (faulty > 0) {
      WaitForMove(faulty);
      int status = 0;
      if (ProcessAlive(faulty)) {
        StopServerProcess(faulty);
      } else {
        WaitForExit(faulty, kLong, &status);
      }
    }
    const std::vector<uint8_t> left = FileBytes(media_);
    ++tally->runs;
    if (left == original_) {
      ++tally->left_original;
    } else if (left == clean_result_) {
      ++tally->left_moved;
    } else {
      ++tally->left_cut;
    }
    pid_t clean = StartServer("", "", kRoundMs, Log("clean"));
    if (clean <= 0) {
      tally->violations.push_back(label + ": the clean server did not start");
      return;
    }
    if (!WaitForMove(clean)) {
      tally->violations.push_back(label + ": the clean server did not finish the move");
    } else {
      CheckFinal(label, clean, &tally->violations);
    }
    StopServerProcess(clean);
  }

  PrivateBus bus_;
  std::unique_ptr<IMarquelClient> client_;
  std::string home_, snapshot_, media_;
  std::vector<uint8_t> original_, clean_result_;
  size_t clean_prefix_ = 0;
  std::vector<std::string> clean_files_;
  TagSet tags_;
};

TEST_P(CrashHarness, EveryCutMoveEndsWholeWithEveryTagAndNothingLeftBehind) {
  Prepare();
  if (HasFatalFailure()) return;
  // The clean run: it counts the points of the move alone (stopped once the move is done)
  // and gives the result the other runs are held to.
  const std::string count_file = home_ + "-count";
  pid_t pid = StartServer("", count_file, kRoundMs, Log("counting"));
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(WaitForMove(pid));
  ASSERT_TRUE(StopServerProcess(pid));
  const uint64_t count = std::strtoull(ReadFile(count_file).c_str(), nullptr, 10);
  ASSERT_GT(count, 0u) << "the clean run passed no point";
  clean_result_ = FileBytes(media_);
  ASSERT_NE(clean_result_, original_) << "the clean run moves the tags into the file";
  clean_prefix_ = FirstDifference(clean_result_, original_);
  pid = StartServer("", "", kRoundMs, Log("checking"));
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(WaitForMove(pid));
  clean_files_ = StateFiles(pid);
  std::vector<std::string> bad;
  CheckFinal("clean run", pid, &bad);
  EXPECT_TRUE(bad.empty()) << bad.front();
  ASSERT_TRUE(StopServerProcess(pid));

  Tally tally;
  const std::vector<uint64_t> points = ChosenPoints(count);
  for (uint64_t n : points) {
    RunOnce(n, "kill", &tally);
    RunOnce(n, "fail", &tally);
  }
  std::printf(
      "%s: %llu points in a clean run, %zu tried, %d runs (kill and fail); the faulty server "
      "left the file as it was %d times, moved %d times, cut short %d times; %zu violations\n",
      GetParam(), static_cast<unsigned long long>(count), points.size(), tally.runs,
      tally.left_original, tally.left_moved, tally.left_cut, tally.violations.size());
  for (const std::string& v : tally.violations) ADD_FAILURE() << v;
}

INSTANTIATE_TEST_SUITE_P(Media, CrashHarness,
                         testing::Values("mpeg2ps.mpg", "ts188.ts", "m2ts192.ts"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           std::string name = info.param;
                           for (char& c : name)
                             if (c == '.') c = '_';
                           return name;
                         });

}  // namespace
}  // namespace marquel::test
