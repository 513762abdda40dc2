// The crash tests' common fixture: a fresh home on a private bus with a medium to move
// tags into, the servers' logs beside it, and the checks of what a user finds after a
// clean server has finished the move.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "crash_harness.h"

namespace marquel::test {

// The folders a run may change; the rest of the home (the bus's files) is the harness's.
extern const std::vector<std::string> kCrashState;

// Whether this build runs under AddressSanitizer, where every server is several times
// slower and the short form tries fewer points.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Whether MARQUEL_CRASH_POINTS asks for more than the short form: the long media and the
// points it names.
bool LongRun();

// How many points of `count` a short run tries by default; MARQUEL_CRASH_POINTS=all
// tries every point and MARQUEL_CRASH_POINTS=<n> n of them.
std::vector<uint64_t> ChosenPoints(uint64_t count, uint64_t short_tries);

// A test's name for a medium: its file name with "_" for ".".
std::string MediumName(const testing::TestParamInfo<CrashMedium>& info);

class CrashFixture : public testing::Test {
 protected:
  static constexpr int kRoundMs = 100;

  void TearDown() override;

  // Registers the server, starts the bus and copies `medium` into the home.
  void MakeWorld(const CrashMedium& medium);
  // Tags the medium through a server of its own and closes it, so that its move is
  // pending; the server is stopped then and the home saved in snapshot_ (replacing what
  // was saved there).
  void TagAndClose();

  std::string Log(const std::string& what) const { return home_ + "-" + what + ".log"; }
  // Waits until the move of the medium is done, or the server `pid` died, or the time is
  // up; true when done.
  bool WaitForMove(pid_t pid);
  // The files of the state folders but those of the running server `pid` itself.
  std::vector<std::string> StateFiles(pid_t pid);
  // The files of StateFiles(pid) that `expected` lacks (+) and that it has but are
  // missing (-), as text; "" when they are the same.
  std::string OddFiles(pid_t pid, const std::vector<std::string>& expected,
                       bool missing_too = true);
  // Violations of the store: a roll-back record in either store.
  void CheckNoRollBackRecord(const std::string& label, std::vector<std::string>* bad);
  // A clean run of the move: its count of points (when `count` is not null), its result
  // and the files it leaves.
  void CleanMove(uint64_t* count);
  // The checks after the clean server `pid` finished the move; appends violations.
  void CheckFinal(const std::string& label, pid_t pid, std::vector<std::string>* bad);

  PrivateBus bus_;
  std::string home_, snapshot_, media_;
  std::vector<uint8_t> original_, clean_result_;
  size_t clean_prefix_ = 0;
  std::vector<std::string> clean_files_;
  TagSet tags_;
};

}  // namespace marquel::test
