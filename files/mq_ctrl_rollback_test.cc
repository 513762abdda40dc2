// MQCtrl and the merges a killed server left half done: the start takes their records
// (deleting the keys, as it takes the saved list) and carries each in its file's entry;
// the first round rolls the file back from the carried record, then moves its tags.
#include <gtest/gtest.h>

#include <ctime>
#include <fstream>

#include "files/mq_ctrl.h"
#include "log/log_capture.h"
#include "persist/cache_sweep.h"
#include "platform/access_reg.h"
#include "platform/fault_points.h"
#include "platform/files.h"
#include "testsupport/fresh_home.h"
#include "testsupport/unfinished_merge.h"

namespace marquel {
namespace {

using namespace std::chrono_literals;

constexpr char kRollBackRoot[] = "Software\\Halvern\\Marquel\\RollBack";

MonitorOptions NoThread() {
  return MonitorOptions{10000ms, false};
}

bool KeyThere(const char* key) {
  AccessReg reg;
  return reg.Open(HKEY_CURRENT_USER, key);
}

const std::string kWritten(9000, 'x');

TEST(MQCtrlRollBack, TheStartTakesTheRecordsLogsThemAndDeletesTheirKeys) {
  test::UnfinishedMerge m;
  m.Make();
  log::LogCapture log;
  MQCtrl ctrl(NoThread());
  ASSERT_EQ(ctrl.Start(), 1);
  EXPECT_TRUE(log.HasMessage("MQCtrl: check HKCU\\Software\\Halvern\\Marquel\\RollBack"));
  EXPECT_TRUE(log.HasMessage("MQCtrl: Add '" + m.media + "' to unfinish file list"));
  EXPECT_FALSE(m.RecordThere());
  EXPECT_FALSE(KeyThere(kRollBackRoot)) << "the root key goes with its sub-keys";
  EXPECT_TRUE(ctrl.IsRollBackPending(m.media));
  EXPECT_EQ(m.MediaBytes(), m.old_bytes.substr(0, 1000) + kWritten) << "not before the round";
}

TEST(MQCtrlRollBack, TheFirstRoundRestoresTheFileFromTheCarriedRecordThenMovesIt) {
  test::UnfinishedMerge m;
  m.Make();
  MQCtrl ctrl(NoThread());
  ASSERT_EQ(ctrl.Start(), 1);
  log::LogCapture log;
  EXPECT_EQ(ctrl.RunRound(), 0u) << "nothing cached: the move is done with it";
  EXPECT_EQ(m.MediaBytes(), m.old_bytes) << "back to its old bytes and its old length";
  EXPECT_FALSE(FileExists(m.packs)) << "the backups go once the file is synced";
  EXPECT_FALSE(FileExists(m.tail));
  EXPECT_TRUE(log.HasMessage("MQCtrl: RollBackToOrg(" + m.media + ")"));
  EXPECT_TRUE(log.HasMessage("MQCtrl: RollBackToOrg() OK"));
  EXPECT_TRUE(log.HasMessage("MQCtrl: MoveCacheDataToOrgFile(" + m.media + ")"));
  EXPECT_FALSE(ctrl.IsPendingFile(m.media));
}

TEST(MQCtrlRollBack, AServerKilledBeforeItsFirstRoundStillRollsTheFileBackAtTheNextStart) {
  test::UnfinishedMerge m;
  m.Make();
  {
    MQCtrl killed(NoThread());
    ASSERT_EQ(killed.Start(), 1);
    // No round and no Stop: as a SIGKILL leaves it.
  }
  ASSERT_FALSE(m.RecordThere());
  RemoveOrphanCacheFiles();  // the next start's sweep
  EXPECT_TRUE(FileExists(m.packs)) << "the carried record still names the backups";
  MQCtrl next(NoThread());
  ASSERT_EQ(next.Start(), 1);
  EXPECT_TRUE(next.IsRollBackPending(m.media));
  next.RunRound();
  EXPECT_EQ(m.MediaBytes(), m.old_bytes);
  EXPECT_FALSE(FileExists(m.packs));
}

TEST(MQCtrlRollBack, AFileChangedByAnotherProgramSinceIsLeftAloneWithItsBackups) {
  test::UnfinishedMerge m;
  m.Make();
  const int64_t now = static_cast<int64_t>(time(nullptr));
  m.SetState(6000, now - 100, now - 50, 12000);
  std::ofstream(m.media, std::ios::app | std::ios::binary) << std::string(20000, 'r');
  const std::string edited = m.MediaBytes();  // a recorder went on writing it
  MQCtrl ctrl(NoThread());
  ASSERT_EQ(ctrl.Start(), 1);
  log::LogCapture log;
  ctrl.RunRound();
  EXPECT_EQ(m.MediaBytes(), edited) << "no old byte is copied into it";
  EXPECT_TRUE(log.Has("the file was changed by another program since"));
  EXPECT_TRUE(FileExists(m.packs)) << "the only copy of the old bytes stays";
  EXPECT_TRUE(FileExists(m.tail));
  EXPECT_TRUE(m.RecordThere()) << "filed again, so the backups stay named";
  EXPECT_FALSE(ctrl.IsRollBackPending(m.media));
}

TEST(MQCtrlRollBack, AFileWhoseTimeWentBackSinceTheWritingBeganIsLeftAlone) {
  test::UnfinishedMerge m;
  m.Make();
  const int64_t now = static_cast<int64_t>(time(nullptr));
  m.SetState(6000, now - 100, now + 3600, 12000);  // written after the file's time now
  const std::string before = m.MediaBytes();
  MQCtrl ctrl(NoThread());
  ASSERT_EQ(ctrl.Start(), 1);
  ctrl.RunRound();
  EXPECT_EQ(m.MediaBytes(), before);
  EXPECT_TRUE(FileExists(m.packs));
}

TEST(MQCtrlRollBack, AFileAsTheWriterLeftItWithinItsRecordIsRestored) {
  test::UnfinishedMerge m;
  m.Make();
  const int64_t now = static_cast<int64_t>(time(nullptr));
  m.SetState(6000, now - 100, now - 1, 12000);
  MQCtrl ctrl(NoThread());
  ASSERT_EQ(ctrl.Start(), 1);
  ctrl.RunRound();
  EXPECT_EQ(m.MediaBytes(), m.old_bytes);
}

TEST(MQCtrlRollBack, ARecordOfAFileDeletedFromItsFolderGoesWithItsBackups) {
  test::UnfinishedMerge m;
  m.Make();
  ASSERT_TRUE(RemoveFile(m.media));
  MQCtrl ctrl(NoThread());
  ASSERT_EQ(ctrl.Start(), 1);
  EXPECT_FALSE(ctrl.IsPendingFile(m.media));
  EXPECT_FALSE(m.RecordThere());
  EXPECT_FALSE(FileExists(m.packs));
  EXPECT_FALSE(FileExists(m.tail));
}

TEST(MQCtrlRollBack, ACopyThatFailsKeepsTheFlagAndTheMoveWaits) {
  test::UnfinishedMerge m;
  m.Make();
  MQCtrl ctrl(NoThread());
  ASSERT_EQ(ctrl.Start(), 1);
  ConfigureFaultPoints("1:fail", "");  // the copy's first write fails
  log::LogCapture log;
  EXPECT_EQ(ctrl.RunRound(), 1u);
  ConfigureFaultPoints("", "");
  EXPECT_TRUE(log.Has("failed; the file waits for the next round"));
  EXPECT_FALSE(log.Has("MoveCacheDataToOrgFile")) << "never into a file of mixed bytes";
  EXPECT_TRUE(ctrl.IsRollBackPending(m.media));
  EXPECT_TRUE(FileExists(m.packs));
  ctrl.RunRound();
  EXPECT_EQ(m.MediaBytes(), m.old_bytes);
}

TEST(MQCtrlRollBack, EachWriteTruncateAndSyncOfTheRestoreFailingInTurnKeepsTheBackups) {
  uint64_t points = 0;
  {
    test::UnfinishedMerge clean;
    clean.Make();
    MQCtrl ctrl(NoThread());
    ASSERT_EQ(ctrl.Start(), 1);
    ConfigureFaultPoints("1000000:fail", "");  // armed far off: the points are counted
    ctrl.RunRound();
    points = FaultPointsPassed();
    ConfigureFaultPoints("", "");
    ASSERT_EQ(clean.MediaBytes(), clean.old_bytes);
  }
  ASSERT_GE(points, 3u) << "the copies, the cut and the sync";
  for (uint64_t n = 1; n <= points; ++n) {
    test::UnfinishedMerge m;
    m.Make();
    MQCtrl ctrl(NoThread());
    ASSERT_EQ(ctrl.Start(), 1);
    ConfigureFaultPoints(std::to_string(n) + ":fail", "");
    ctrl.RunRound();
    ConfigureFaultPoints("", "");
    EXPECT_TRUE(ctrl.IsRollBackPending(m.media)) << "point " << n;
    EXPECT_TRUE(FileExists(m.packs) && FileExists(m.tail)) << "point " << n << ": a restore "
                                                             "not known to be on disk keeps them";
    ctrl.RunRound();
    EXPECT_EQ(m.MediaBytes(), m.old_bytes) << "point " << n;
    EXPECT_FALSE(FileExists(m.packs)) << "point " << n;
  }
}

}  // namespace
}  // namespace marquel
