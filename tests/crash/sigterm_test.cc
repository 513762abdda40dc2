// A server stopped with SIGTERM while the close monitor rewrites a large file: the stop
// lets the move finish or roll back, so the file is never left half-written without a
// roll-back record, and after a restart it is whole with every tag.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <thread>

#include "crash_fixture.h"

namespace marquel::test {
namespace {

using namespace std::chrono_literals;

class StopDuringMove : public CrashFixture, public testing::WithParamInterface<CrashMedium> {
 protected:
  // Whether the move of the medium has begun to touch it: a roll-back record exists, which
  // the move writes just before its rewrite.
  bool Rewriting() { return RollBackRecords(home_ + "/data/Halvern/registry.db") > 0; }
};

TEST_P(StopDuringMove, ASigtermWhileTheFileIsRewrittenEndsWithItWholeOrRecordedForRollBack) {
  MakeWorld(GetParam());
  if (HasFatalFailure()) return;
  TagAndClose();
  if (HasFatalFailure()) return;
  CleanMove(nullptr);
  if (HasFatalFailure()) return;

  std::vector<std::string> bad;
  int caught = 0, moved = 0, original = 0, recorded = 0;
  // The stop comes at once, or a little later into the rewrite.
  std::vector<std::chrono::milliseconds> delays = {0ms, 20ms};
  if (LongRun()) delays = {0ms, 5ms, 20ms, 60ms, 150ms};
  for (auto delay : delays) {
    const std::string label =
        std::string(GetParam().source) + " stopped " + std::to_string(delay.count()) + " ms in";
    RestoreHome(snapshot_, kCrashState, home_);
    pid_t pid = StartServer("", "", kRoundMs, Log("stopped"));
    ASSERT_GT(pid, 0);
    WaitUntil([&] { return Rewriting() || !ProcessAlive(pid); }, 30s);
    std::this_thread::sleep_for(delay);
    // Caught in the rewrite when its record is still there just before the signal.
    caught += Rewriting() ? 1 : 0;
    kill(pid, SIGTERM);
    int status = 0;
    ASSERT_TRUE(WaitForExit(pid, kLong, &status)) << label << ": the server did not stop";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << label;
    const std::vector<uint8_t> left = FileBytes(media_);
    if (left == clean_result_) {
      ++moved;
    } else if (left == original_) {
      ++original;
    } else if (Rewriting()) {
      ++recorded;
    } else {
      bad.push_back(label + ": the file is half-written and no roll-back record says so");
    }
    pid = StartServer("", "", kRoundMs, Log("after-stop"));
    ASSERT_GT(pid, 0);
    if (!WaitForMove(pid)) {
      bad.push_back(label + ": the restarted server did not finish the move");
    } else {
      CheckFinal(label, pid, &bad);
    }
    ASSERT_TRUE(StopServerProcess(pid));
  }
  std::printf(
      "%s: the record was there just before the stop %d of %zu times; left moved %d, as it was %d, "
      "recorded for roll-back %d; %zu violations\n",
      GetParam().source, caught, delays.size(), moved, original, recorded, bad.size());
  EXPECT_GT(caught, 0) << "no stop came during a rewrite";
  for (const std::string& v : bad) ADD_FAILURE() << v;
}

INSTANTIATE_TEST_SUITE_P(Media, StopDuringMove,
                         testing::Values(CrashMedium{"mpeg2ps.mpg", 60, 1, 6 << 20},
                                         CrashMedium{"ts188.ts", 100, 1, 4 << 20}),
                         MediumName);

}  // namespace
}  // namespace marquel::test
