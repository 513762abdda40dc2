// CMQInterface: IMarquelTool and IMarquelEx.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "api/mq_interface.h"
#include "log/log_capture.h"
#include "mq_interface_test_util.h"

namespace marquel {
namespace {

using test::MediaFile;

TEST(CMQInterfaceEx, ExecuteCmdOneWritesTwentyAndFour) {
  CMQInterface mq;
  uint8_t out[8] = {0};
  int32_t length = 8;
  EXPECT_EQ(mq.ExecuteCmd(1, nullptr, 0, 0, out, sizeof out, &length), S_OK);
  int32_t value = 0;
  std::memcpy(&value, out, 4);
  EXPECT_EQ(value, 20);
  EXPECT_EQ(length, 4);
}

// The output length is not compared with 4 first: S_OK and 4 even for a 2-byte buffer,
// but only the 2 bytes that exist are written.
TEST(CMQInterfaceEx, ExecuteCmdOneWithAShortBufferWritesOnlyWhatFits) {
  CMQInterface mq;
  uint8_t out[4] = {0xAA, 0xAA, 0xAA, 0xAA};
  int32_t length = 2;
  EXPECT_EQ(mq.ExecuteCmd(1, nullptr, 0, 0, out, 2, &length), S_OK);
  EXPECT_EQ(length, 4);
  EXPECT_EQ(out[0], 20);
  EXPECT_EQ(out[2], 0xAA);
}

TEST(CMQInterfaceEx, ExecuteCmdChecks) {
  CMQInterface mq;
  uint8_t in[4] = {0};
  uint8_t out[4] = {0};
  int32_t length = 4;
  EXPECT_EQ(mq.ExecuteCmd(7, nullptr, 0, 0, out, 4, &length), S_FALSE);
  EXPECT_EQ(mq.ExecuteCmd(1, in, 4, -1, out, 4, &length), E_FAIL);
  EXPECT_EQ(mq.ExecuteCmd(1, nullptr, 0, 4, out, 4, &length), E_FAIL);  // unreadable
  EXPECT_EQ(mq.ExecuteCmd(1, in, 2, 4, out, 4, &length), E_FAIL);       // shorter than said
  length = -1;
  EXPECT_EQ(mq.ExecuteCmd(1, nullptr, 0, 0, out, 4, &length), E_FAIL);
  length = 4;
  EXPECT_EQ(mq.ExecuteCmd(1, nullptr, 0, 0, nullptr, 0, &length), E_FAIL);  // unwritable
  EXPECT_EQ(mq.ExecuteCmd(1, nullptr, 0, 0, out, 4, nullptr), E_FAIL);
}

TEST(CMQInterfaceEx, ExecuteCmdZeroAsksIsWriteToFileDone) {
  auto ctrl = std::make_unique<test::ScriptedCtrl>();
  ctrl->close_result = MQ_AUTOPROCESSFAIL;
  CMQInterface mq(std::move(ctrl));
  std::string name = MediaFile("a.ts");
  uint8_t out[4] = {9, 9, 9, 9};
  int32_t length = 4;
  const auto* text = reinterpret_cast<const uint8_t*>(name.c_str());
  EXPECT_EQ(mq.ExecuteCmd(0, text, name.size(), name.size(), out, 4, &length), S_OK);
  int32_t done = 0;
  std::memcpy(&done, out, 4);
  EXPECT_EQ(done, 1);
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(name, 0, 0, &h), S_OK);
  ASSERT_EQ(mq.CloseFile(h, 0), S_OK);
  EXPECT_EQ(mq.ExecuteCmd(0, text, name.size(), name.size(), out, 4, &length), S_OK);
  std::memcpy(&done, out, 4);
  EXPECT_EQ(done, 0);
  EXPECT_EQ(length, 4);
}

TEST(CMQInterfaceTool, QueryOrgFileSizeAndMTime) {
  CMQInterface mq;
  std::string name = MediaFile("a.mpg");
  uint64_t size = 0, mtime = 0;
  EXPECT_EQ(mq.QueryOrgFileSizeAndMTime(name, &size, &mtime), S_OK);
  EXPECT_EQ(size, 1u);
  EXPECT_GT(mtime, 0u);
  EXPECT_EQ(mq.QueryOrgFileSizeAndMTime(name, nullptr, nullptr), S_OK);
  EXPECT_EQ(mq.QueryOrgFileSizeAndMTime(test::TestPath("missing.mpg"), &size, &mtime), E_FAIL);
  EXPECT_EQ(mq.Controller().QueryFileCount(), 0);  // the session was its own
}

// A file without a cache entry: the rename has nothing to carry over and succeeds; the
// move has nothing to move, which is S_FALSE (S_OK would say the tags are in the file).
TEST(CMQInterfaceTool, CacheOperationsWithoutAnEntry) {
  CMQInterface mq;
  std::string name = MediaFile("a.mpg");
  EXPECT_EQ(mq.CacheRename(name, test::TestPath("b.mpg"), 0), S_OK);
  EXPECT_EQ(mq.MoveCacheDataToOrgFile(name), S_FALSE);
  EXPECT_EQ(mq.MoveCacheDataToOrgFile(test::TestPath("missing.mpg")), E_FAIL);
}

// The tool's lines follow the log's switch as every other line does: with "log to file"
// on, they go into the file and none to the debug output.
TEST(CMQInterfaceTool, ItsLogLinesGoToTheFileWhenTheLogIsToAFile) {
  CMQInterface mq;
  log::LogCapture debug_output;
  log::Settings settings;
  settings.enabled = 1;
  settings.to_file = 1;
  settings.file_name = test::TestPath("mq.log");
  log::ApplySettings(settings);
  std::string name = MediaFile("a.mpg");
  uint64_t size = 0, mtime = 0;
  mq.QueryOrgFileSizeAndMTime(name, &size, &mtime);
  mq.CacheRename(name, test::TestPath("b.mpg"), 0);
  mq.MoveCacheDataToOrgFile(name);
  EXPECT_TRUE(debug_output.Lines().empty());
  std::stringstream file;
  file << std::ifstream(settings.file_name).rdbuf();
  for (const char* line : {"CMQInterface::QueryOrgFileSizeAndMTime\n",
                           "CMQInterface::CacheRename\n", "CMQInterface::MoveCacheDataToOrgFile("})
    EXPECT_NE(file.str().find(line), std::string::npos) << line;
}

}  // namespace
}  // namespace marquel
