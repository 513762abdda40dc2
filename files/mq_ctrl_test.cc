// MQCtrl: the pending list, its copy in the store across a stop and a start, and the
// monitor's rounds: files open in a session are skipped, files gone from a folder that is
// there lose their caches, files on a volume that is not mounted wait, and the open of a
// file being moved waits for the move.
#include "files/mq_ctrl.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "log/log_capture.h"
#include "platform/access_reg.h"
#include "platform/env.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using namespace std::chrono_literals;

constexpr char kMQTemp[] = "Software\\Halvern\\Common\\MQTemp";

MonitorOptions NoThread() {
  return MonitorOptions{10000ms, false};
}

std::string Made(const std::string& name) {
  const std::string path = test::TestPath(name);
  std::ofstream(path).put('x');
  return path;
}

std::vector<std::string> StoredPaths() {
  std::vector<std::string> paths;
  for (const SavedPendingFile& f : SavedPendingFiles()) paths.push_back(f.path);
  return paths;
}

// A volume that ignores case, and a folder that is not there (a volume not mounted).
class FakeVolume : public Env {
 public:
  std::string case_folding_folder;
  std::string unmounted_folder;
  std::string FileSystemName(const std::string& path) override {
    return path.rfind(case_folding_folder, 0) == 0 ? "FAT32" : Env::FileSystemName(path);
  }
  bool IsPathPresent(const std::string& path) override {
    if (!unmounted_folder.empty() && path.rfind(unmounted_folder, 0) == 0) return false;
    if (case_folding_folder.empty() || path.rfind(case_folding_folder, 0) != 0)
      return Env::IsPathPresent(path);
    // As such a volume answers: any spelling of a name that is there.
    const std::filesystem::path p(path);
    for (const auto& entry : std::filesystem::directory_iterator(p.parent_path()))
      if (strcasecmp(entry.path().filename().c_str(), p.filename().c_str()) == 0) return true;
    return false;
  }
};

struct ScopedEnv {
  explicit ScopedEnv(Env* env) { SetEnvForTesting(env); }
  ~ScopedEnv() { SetEnvForTesting(nullptr); }
};

TEST(MQCtrlTest, PendingListKeepsOrderAndEachNameOnce) {
  MQCtrl ctrl(NoThread());
  EXPECT_TRUE(ctrl.PendingFiles().empty());
  EXPECT_EQ(ctrl.AddPendingFile(Made("b.mpg")), 1);
  EXPECT_EQ(ctrl.AddPendingFile(Made("a.mpg")), 1);
  EXPECT_EQ(ctrl.AddPendingFile(test::TestPath("b.mpg")), 1);
  auto list = ctrl.PendingFiles();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0], test::TestPath("b.mpg"));
  EXPECT_TRUE(ctrl.IsPendingFile(test::TestDir() + "/./a.mpg"));
  EXPECT_FALSE(ctrl.IsPendingFile(test::TestPath("c.mpg"))) << "not listed: its write is done";
}

TEST(MQCtrlTest, IsTheOpenFileTable) {
  MQCtrl ctrl(NoThread());
  EXPECT_EQ(ctrl.QueryAllMemory(), 16424);
  EXPECT_EQ(ctrl.OpenFile(test::TestPath("x.mpg"), 1, 0, 0, nullptr, 0, 0, -1), 0);
  EXPECT_EQ(ctrl.QueryFileCount(), 1);
}

TEST(MQCtrlTest, AddingAPathThatDoesNotExistAnswersZeroAndWritesNothing) {
  MQCtrl ctrl(NoThread());
  EXPECT_EQ(ctrl.AddPendingFile(test::TestPath("missing.ts")), 0);
  EXPECT_TRUE(ctrl.PendingFiles().empty());
  EXPECT_TRUE(StoredPaths().empty());
}

TEST(MQCtrlTest, TheSamePathInOtherCapitalsOnAVolumeThatIgnoresCaseIsListedOnce) {
  FakeVolume volume;
  volume.case_folding_folder = test::TestDir();
  ScopedEnv env(&volume);
  MQCtrl ctrl(NoThread());
  const std::string path = Made("Clip.ts");
  EXPECT_EQ(ctrl.AddPendingFile(path), 1);
  EXPECT_EQ(ctrl.AddPendingFile(test::TestPath("CLIP.TS")), 1);
  EXPECT_EQ(ctrl.PendingFiles(), std::vector<std::string>{path});
}

TEST(MQCtrlTest, TheListIsMarkedInTheStoreBeforeItTakesAFile) {
  MQCtrl ctrl(NoThread());
  const std::string path = Made("marked.ts");
  ASSERT_EQ(ctrl.AddPendingFile(path), 1);
  EXPECT_EQ(StoredPaths(), std::vector<std::string>{path}) << "a crash now still finds it";
}

TEST(MQCtrlTest, TwoFilesLeftAtAStopComeBackAtTheNextStartAndKeepTheirKeysWhilePending) {
  const std::string a = Made("one.ts"), b = Made("two.mpg");
  {
    MQCtrl ctrl(NoThread());
    ASSERT_EQ(ctrl.AddPendingFile(a), 1);
    ASSERT_EQ(ctrl.AddPendingFile(b), 1);
    log::LogCapture log;
    EXPECT_EQ(ctrl.Stop(), 1);
    EXPECT_TRUE(log.Has("MQCtrl: move 2 files to HKCU\\Software\\Halvern\\Common\\MQTemp"));
    EXPECT_TRUE(ctrl.PendingFiles().empty());
  }
  EXPECT_EQ(StoredPaths(), (std::vector<std::string>{a, b}));
  MQCtrl next(NoThread());
  log::LogCapture log;
  EXPECT_EQ(next.Start(), 1);
  EXPECT_EQ(next.PendingFiles(), (std::vector<std::string>{a, b}));
  EXPECT_TRUE(log.Has("MQCtrl: Add '" + a + "' to move to cache list"));
  EXPECT_EQ(StoredPaths(), (std::vector<std::string>{a, b}))
      << "a server killed before its first round ends finds them again";
}

TEST(MQCtrlTest, AStartDropsTheKeyOfAListedFileThatWasDeleted) {
  const std::string kept = Made("kept.ts"), gone = Made("gone.ts");
  {
    MQCtrl ctrl(NoThread());
    ASSERT_EQ(ctrl.AddPendingFile(kept), 1);
    ASSERT_EQ(ctrl.AddPendingFile(gone), 1);
    ctrl.Stop();
  }
  std::remove(gone.c_str());
  MQCtrl next(NoThread());
  EXPECT_EQ(next.Start(), 1);
  EXPECT_EQ(next.PendingFiles(), std::vector<std::string>{kept});
  EXPECT_EQ(StoredPaths(), std::vector<std::string>{kept});
}

TEST(MQCtrlTest, AFileOpenInASessionIsSkippedAndMovedInALaterRound) {
  MQCtrl ctrl(NoThread());
  const std::string path = Made("open.mpg");
  const int32_t h = ctrl.OpenFile(path, 0, 0, 0, nullptr, 0, 0, -1);
  ASSERT_GE(h, 0);
  ASSERT_EQ(ctrl.AddPendingFile(path), 1);
  log::LogCapture log;
  EXPECT_EQ(ctrl.RunRound(), 1u);
  EXPECT_TRUE(log.Has("MQCtrl: '" + path + "' stil open, skip"));
  EXPECT_EQ(StoredPaths(), std::vector<std::string>{path}) << "the store mirrors the list";
  ctrl.CloseFile(h, 1);
  log.Clear();
  EXPECT_EQ(ctrl.RunRound(), 0u) << "nothing cached to move: done with it";
  EXPECT_TRUE(log.Has("MQCtrl: MoveCacheDataToOrgFile(" + path + ")"));
  EXPECT_TRUE(ctrl.IsPendingFile(path) == false);
  EXPECT_TRUE(StoredPaths().empty());
}

TEST(MQCtrlTest, AFileDeletedFromItsFolderLeavesTheList) {
  MQCtrl ctrl(NoThread());
  const std::string path = Made("deleted.ts");
  ASSERT_EQ(ctrl.AddPendingFile(path), 1);
  std::remove(path.c_str());
  log::LogCapture log;
  EXPECT_EQ(ctrl.RunRound(), 0u);
  EXPECT_TRUE(log.Has("ForceDeleteCacheData(" + path + ")"));
}

TEST(MQCtrlTest, AFileOnAVolumeThatIsNotMountedStaysForALaterRound) {
  FakeVolume volume;
  volume.unmounted_folder = test::TestPath("usb");
  ScopedEnv env(&volume);
  MQCtrl ctrl(NoThread());
  const std::string folder = test::TestPath("usb");
  std::filesystem::create_directory(folder);
  const std::string path = folder + "/rec.ts";
  std::ofstream(path).put('x');
  volume.unmounted_folder.clear();
  ASSERT_EQ(ctrl.AddPendingFile(path), 1);
  volume.unmounted_folder = folder;  // unplugged
  log::LogCapture log;
  EXPECT_EQ(ctrl.RunRound(), 1u);
  EXPECT_FALSE(log.Has("ForceDeleteCacheData"));
  EXPECT_TRUE(log.Has("kept for a later round"));
  EXPECT_TRUE(ctrl.IsPendingFile(path));
}

TEST(MQCtrlTest, AnOpenOfAFileBeingMovedWaitsForTheMove) {
  MQCtrl ctrl(NoThread());
  const std::string path = Made("moving.mpg");
  ASSERT_TRUE(ctrl.ClaimClosedFile(path));
  std::atomic<bool> opened{false};
  std::thread client([&] {
    ctrl.OpenFile(path, 0, 0, 0, nullptr, 0, 0, -1);
    opened = true;
  });
  std::this_thread::sleep_for(200ms);
  EXPECT_FALSE(opened.load()) << "the open waits while the file is rewritten";
  ctrl.ReleaseFile(path);
  client.join();
  EXPECT_TRUE(opened.load());
  EXPECT_FALSE(ctrl.ClaimClosedFile(path)) << "an open file is not taken for a move";
}

TEST(MQCtrlTest, ARenamedListedFileIsListedAndKeptInTheStoreUnderItsNewName) {
  MQCtrl ctrl(NoThread());
  const std::string from = Made("take1.mpg");
  ASSERT_EQ(ctrl.AddPendingFile(from), 1);
  const std::string to = test::TestPath("final.mpg");
  ASSERT_EQ(std::rename(from.c_str(), to.c_str()), 0);
  EXPECT_TRUE(ctrl.RenamePendingFile(from, to));
  EXPECT_EQ(ctrl.PendingFiles(), std::vector<std::string>{to});
  EXPECT_EQ(StoredPaths(), std::vector<std::string>{to});
  EXPECT_FALSE(ctrl.RenamePendingFile(from, to)) << "the old name is not listed any more";
}

TEST(MQCtrlTest, ARenameOntoAnotherListedFileLeavesOneEntry) {
  MQCtrl ctrl(NoThread());
  const std::string from = Made("new_take.mpg");
  const std::string to = Made("old_take.mpg");
  ASSERT_EQ(ctrl.AddPendingFile(from), 1);
  ASSERT_EQ(ctrl.AddPendingFile(to), 1);
  ASSERT_EQ(std::rename(from.c_str(), to.c_str()), 0);
  EXPECT_TRUE(ctrl.RenamePendingFile(from, to));
  EXPECT_EQ(ctrl.PendingFiles(), std::vector<std::string>{to});
}

TEST(MQCtrlTest, ARoundWritesAgainTheKeyOfAListedFileTheStoreLost) {
  MQCtrl ctrl(NoThread());
  const std::string path = Made("kept_open.mpg");
  const int32_t h = ctrl.OpenFile(path, 0, 0, 0, nullptr, 0, 0, -1);
  ASSERT_GE(h, 0);
  ASSERT_EQ(ctrl.AddPendingFile(path), 1);
  const std::string key = std::string(kMQTemp) + "\\" + SavedPendingFiles().at(0).key_name;
  ASSERT_TRUE(AccessReg().DeleteKey(HKEY_CURRENT_USER, key.c_str()));
  ASSERT_TRUE(StoredPaths().empty());
  EXPECT_EQ(ctrl.RunRound(), 1u) << "open: skipped";
  EXPECT_EQ(StoredPaths(), std::vector<std::string>{path});
  ctrl.CloseFile(h, 1);
}

TEST(MQCtrlTest, TheMonitorThreadWorksTheListOffAndStopWaitsForIt) {
  MQCtrl ctrl(MonitorOptions{20ms, true});
  ASSERT_EQ(ctrl.Start(), 1);
  const std::string path = Made("later.mpg");
  ASSERT_EQ(ctrl.AddPendingFile(path), 1);
  for (int i = 0; i < 250 && ctrl.IsPendingFile(path); ++i) std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(ctrl.IsPendingFile(path)) << "nothing was cached, so the round is done with it";
  EXPECT_EQ(ctrl.Stop(), 1);
}

}  // namespace
}  // namespace marquel
