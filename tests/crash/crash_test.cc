// The moves of cached tags into media files, cut at every write, fsync, truncate and
// rename: the server is killed at a point, or the point fails, and a clean server must
// then leave the file whole with every tag, the bytes before the merge untouched and
// nothing behind. MARQUEL_CRASH_POINTS=all tries every point; otherwise a few points
// spread evenly over each medium's range are tried.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>

#include "crash_fixture.h"

namespace marquel::test {
namespace {

// Points per medium in the short form, which moves a few samples into each clip as it
// is (six media, each point killed and failed); under the sanitizers, where every server
// is several times slower, fewer.
constexpr uint64_t kShortTries = kSanitized ? 1 : 3;

struct Tally {
  int runs = 0;
  int left_original = 0;  // the faulty server left the file as it was
  int left_moved = 0;     // it finished the move itself
  int left_cut = 0;       // it left a cut-short file for the roll-back
  std::vector<std::string> violations;
};

class CrashHarness : public CrashFixture, public testing::WithParamInterface<CrashMedium> {
 protected:
  // One run: a server with `fault`, then a clean one.
  void RunOnce(uint64_t n, const char* mode, Tally* tally) {
    const std::string label =
        std::string(GetParam().source) + " point " + std::to_string(n) + ":" + mode;
    RestoreHome(snapshot_, kCrashState, home_);
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
};

TEST_P(CrashHarness, EveryCutMoveEndsWholeWithEveryTagAndNothingLeftBehind) {
  CrashMedium medium = GetParam();
  if (!LongRun()) {
    medium.copies = 1;
    medium.bulk_bytes = 0;
  }
  MakeWorld(medium);
  if (HasFatalFailure()) return;
  TagAndClose();
  if (HasFatalFailure()) return;
  // The clean run counts the points of the move alone (stopped once the move is done)
  // and gives the result the other runs are held to.
  uint64_t count = 0;
  CleanMove(&count);
  if (HasFatalFailure()) return;

  Tally tally;
  const std::vector<uint64_t> points = ChosenPoints(count, kShortTries);
  const auto start = std::chrono::steady_clock::now();
  for (uint64_t n : points) {
    RunOnce(n, "kill", &tally);
    RunOnce(n, "fail", &tally);
  }
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
          .count();
  std::printf(
      "%s x%d: %llu points in a clean run, %zu tried, %d runs (kill and fail) in %llds; the "
      "faulty server left the file as it was %d times, moved %d times, cut short %d times; "
      "%zu violations\n",
      medium.source, medium.copies, static_cast<unsigned long long>(count), points.size(),
      tally.runs, static_cast<long long>(seconds), tally.left_original, tally.left_moved,
      tally.left_cut, tally.violations.size());
  for (const std::string& v : tally.violations) ADD_FAILURE() << v;
}

// In a long run: long streams (the clip repeated) with several MB of raw samples, so that
// the move's backups and rewrite take many 1 MiB writes. The transport streams need the
// length: a move whose data would take over more than half of the file is refused.
INSTANTIATE_TEST_SUITE_P(Media, CrashHarness,
                         testing::Values(CrashMedium{"mpeg2ps.mpg", 60, 1, 6 << 20},
                                         CrashMedium{"svcd.mpg", 40, 1, 6 << 20},
                                         CrashMedium{"ts188.ts", 100, 1, 4 << 20},
                                         CrashMedium{"m2ts192.ts", 100, 1, 4 << 20},
                                         CrashMedium{"ts204.ts", 100, 1, 4 << 20},
                                         CrashMedium{"ts2prog.ts", 50, 2, 2 << 20}),
                         MediumName);

}  // namespace
}  // namespace marquel::test
