// MQCtrl::WorkingFile: the file the monitor's round is moving, for the server's status.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "files/mq_ctrl.h"
#include "log/log.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

MQCtrl* g_ctrl = nullptr;
std::vector<std::string> g_working_during_move;

// Called from inside the move (its log line), where the round works on the file.
void WatchingSink(const char* line, size_t length) {
  if (std::string(line, length).find("MoveCacheDataToOrgFile(") != std::string::npos)
    g_working_during_move.push_back(g_ctrl->WorkingFile());
}

TEST(MQCtrlWorkingFile, NamesTheFileWhileTheRoundMovesItAndNothingOtherwise) {
  MQCtrl ctrl(MonitorOptions{std::chrono::milliseconds(10000), false});
  const std::string path = test::TestPath("clip.mpg");
  std::ofstream(path).put('x');
  ASSERT_EQ(ctrl.AddPendingFile(path), 1);
  EXPECT_EQ(ctrl.WorkingFile(), "");
  g_ctrl = &ctrl;
  const log::Settings saved = log::CurrentSettings();
  log::DebugSink previous = log::SetDebugSink(&WatchingSink);
  log::Settings on;
  on.enabled = 1;
  log::ApplySettings(on);
  ctrl.RunRound();
  log::ApplySettings(saved);
  log::SetDebugSink(previous);
  g_ctrl = nullptr;
  ASSERT_FALSE(g_working_during_move.empty());
  for (const std::string& working : g_working_during_move) EXPECT_EQ(working, path);
  EXPECT_EQ(ctrl.WorkingFile(), "");
}

}  // namespace
}  // namespace marquel
