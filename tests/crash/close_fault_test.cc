// A close that keeps tags in the cache and the move that follows, cut at every write,
// fsync, truncate and rename: whatever the close answered must hold after a restart.
// S_OK means every sample comes back; a failure or a dead server promised nothing, and
// the file is then as it was or whole with its tags. Nothing may be left behind.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>

#include "crash_fixture.h"

namespace marquel::test {
namespace {

// The short form tries points among the last kShortRange of a session, where the close's
// cache write and the move lie; the full form tries every point from the server's start.
constexpr uint64_t kShortRange = 16;
constexpr uint64_t kShortTries = kSanitized ? 2 : 4;

struct Tally {
  int runs = 0;
  int before_close = 0;  // the fault struck before the close: an open or insert failed
  int told_safe = 0;     // the close answered S_OK
  std::vector<std::string> violations;
};

// What the client saw of one session: open, insert, close and the move.
struct Outcome {
  bool started = false;
  bool inserted = false;  // every insert answered S_OK
  HRESULT close = E_FAIL;
};

class CloseFaults : public CrashFixture, public testing::WithParamInterface<CrashMedium> {
 protected:
  // A server with `fault` (and `count_file`): opens the medium, inserts the tags and, with
  // `close`, closes it without bWriteToCache and waits for the move. Then stops it.
  Outcome Session(const std::string& fault, const std::string& count_file, bool close) {
    Outcome out;
    pid_t pid = StartServer(fault, count_file, kRoundMs, Log("session"));
    if (pid <= 0) return out;
    out.started = true;
    {
      auto client = CreateMarquelClient();
      int32_t h = -1;
      if (client != nullptr && client->InitialFile(media_.c_str(), 0, 0, &h) == S_OK) {
        out.inserted = InsertTags(*client, h, tags_).empty();
        if (close) out.close = client->CloseFile(h, 0);
      }
    }
    if (close && ProcessAlive(pid)) WaitForMove(pid);
    if (ProcessAlive(pid)) {
      StopServerProcess(pid);
    } else {
      int status = 0;
      WaitForExit(pid, kLong, &status);
    }
    return out;
  }

  // One run with `fault`; appends violations.
  void RunOnce(uint64_t n, const char* mode, Tally* tally) {
    std::vector<std::string>* bad = &tally->violations;
    const std::string label =
        std::string(GetParam().source) + " point " + std::to_string(n) + ":" + mode;
    RestoreHome(snapshot_, kCrashState, home_);
    const Outcome out = Session(std::to_string(n) + ":" + mode, "", true);
    // A failed insert was answered as one; the close after it promises nothing either.
    const bool safe = out.inserted && out.close == S_OK;
    ++tally->runs;
    tally->before_close += out.started && out.inserted ? 0 : 1;
    tally->told_safe += safe ? 1 : 0;
    pid_t clean = StartServer("", "", kRoundMs, Log("clean"));
    if (clean <= 0) {
      bad->push_back(label + ": the clean server did not start");
      return;
    }
    if (!WaitForMove(clean)) bad->push_back(label + ": the clean server did not finish");
    const std::vector<uint8_t> now = FileBytes(media_);
    if (FirstDifference(now, original_) < clean_prefix_)
      bad->push_back(label + ": bytes before the merge start changed");
    const std::string odd = OddFiles(clean, clean_files_, safe);
    if (!odd.empty()) bad->push_back(label + ": files left behind (+) or missing (-):" + odd);
    CheckNoRollBackRecord(label, bad);
    auto client = CreateMarquelClient();
    int32_t from_file = -1;
    // A close that failed promised nothing: its tags may be gone, but never in part. After
    // a failed insert only what the client was told was kept may come back: the file must
    // still open and read.
    for (const std::string& v : CheckTagsThroughBus(*client, media_, tags_, &from_file, !safe)) {
      const bool sample = v.rfind("tag ", 0) == 0 || v.rfind("raw tag ", 0) == 0;
      if (out.inserted || !sample)
        bad->push_back(label + (safe ? " (closed with S_OK): " : ": ") + v);
    }
    if (now != original_ && from_file != 1)
      bad->push_back(label + ": the file changed but its tags are not read from it");
    StopServerProcess(clean);
  }
};

TEST_P(CloseFaults, WhatACloseAnsweredHoldsAfterEveryCutWriteSyncRenameAndTruncate) {
  MakeWorld(GetParam());
  if (HasFatalFailure()) return;
  SaveHome(home_, kCrashState, snapshot_);
  // Every point of a clean session: start, open, inserts, the close and the move.
  const std::string count_file = home_ + "-count";
  Session("", count_file, true);
  const uint64_t all = std::strtoull(ReadFile(count_file).c_str(), nullptr, 10);
  ASSERT_GT(all, 0u);
  clean_result_ = FileBytes(media_);
  ASSERT_NE(clean_result_, original_) << "the clean run moves the tags into the file";
  clean_prefix_ = FirstDifference(clean_result_, original_);
  pid_t pid = StartServer("", "", kRoundMs, Log("checking"));
  ASSERT_GT(pid, 0);
  clean_files_ = StateFiles(pid);
  std::vector<std::string> bad;
  CheckFinal("clean run", pid, &bad);
  EXPECT_TRUE(bad.empty()) << bad.front();
  ASSERT_TRUE(StopServerProcess(pid));

  const uint64_t first = LongRun() || all <= kShortRange ? 1 : all - kShortRange + 1;
  Tally tally;
  tally.violations = bad;
  const auto start = std::chrono::steady_clock::now();
  for (uint64_t i : ChosenPoints(all - first + 1, kShortTries)) {
    RunOnce(first + i - 1, "kill", &tally);
    RunOnce(first + i - 1, "fail", &tally);
  }
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
          .count();
  std::printf(
      "%s: %llu points in a clean session, from %llu tried; %d runs in %llds, %d struck "
      "before the close, S_OK in %d; %zu violations\n",
      GetParam().source, static_cast<unsigned long long>(all),
      static_cast<unsigned long long>(first), tally.runs, static_cast<long long>(seconds),
      tally.before_close, tally.told_safe, tally.violations.size());
  for (const std::string& v : tally.violations) ADD_FAILURE() << v;
}

INSTANTIATE_TEST_SUITE_P(Media, CloseFaults,
                         testing::Values(CrashMedium{"mpeg2ps.mpg", 1, 1, 0},
                                         CrashMedium{"ts188.ts", 1, 1, 0},
                                         CrashMedium{"ts2prog.ts", 1, 2, 0}),
                         MediumName);

}  // namespace
}  // namespace marquel::test
