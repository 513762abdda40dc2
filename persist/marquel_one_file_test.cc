// The session skeleton: programs, PMT PIDs, tag selection and the open of a missing file.
#include "persist/marquel_one_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "log/log.h"
#include "persist/result_codes.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

std::vector<std::string>& Captured() {
  static std::vector<std::string> lines;
  return lines;
}
void Capture(const char* line, size_t n) {
  Captured().emplace_back(line, n);
}

TEST(MarquelOneFileTest, MissingFileWithoutATypeFails) {
  MarquelOneFile f;
  f.SetFileName(test::TestPath("missing.mpg"));
  EXPECT_EQ(f.Open(0, 1, 0), -1);
  EXPECT_EQ(f.ProgramCount(), 1) << "program 0 is made first";
}

TEST(MarquelOneFileTest, MissingFileWithANumberThatIsNoFormatFails) {
  MarquelOneFile f;
  f.SetFileName(test::TestPath("missing.bin"));
  EXPECT_EQ(f.Open(-2, 1, 0), -1);
  EXPECT_EQ(f.Open(27, 1, 0), -1) << "no cache would keep its tags";
  EXPECT_EQ(f.Open(26, 1, 0), 1);
  EXPECT_EQ(f.FileType(), 26);
}

TEST(MarquelOneFileTest, MissingFileWithATypeTakesIt) {
  MarquelOneFile f;
  f.SetFileName(test::TestPath("recording.ts"));
  EXPECT_EQ(f.Open(10, 1, 0), 1);
  EXPECT_EQ(f.FileType(), 10);
  EXPECT_EQ(f.MQStartAddress(), -1);
  EXPECT_EQ(f.OriginalSize(), 0u);
  EXPECT_EQ(f.OriginalMTime(), 0);
  EXPECT_EQ(f.m_bMQExisted, 0);
  ASSERT_NE(f.Program(0), nullptr);
  EXPECT_EQ(f.Program(0)->PMTPID(), 0);
  EXPECT_EQ(f.Open(10, 1, 0), 1);
  EXPECT_EQ(f.ProgramCount(), 1) << "a second open keeps program 0";
}

TEST(MarquelOneFileTest, UnreadableFileIsLoggedAndFails) {
  // A socket exists on disk but cannot be opened as a file, even by root.
  std::string path = test::TestPath("socket.mpg");
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof addr.sun_path);
  strcpy(addr.sun_path, path.c_str());
  ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  log::Settings saved = log::CurrentSettings();
  log::DebugSink previous = log::SetDebugSink(&Capture);
  log::Settings on;
  on.enabled = 1;
  log::ApplySettings(on);
  Captured().clear();
  MarquelOneFile f;
  f.SetHandle(4);
  f.SetFileName(path);
  EXPECT_EQ(f.Open(3, 1, 0), -1);
  log::ApplySettings(saved);
  log::SetDebugSink(previous);
  close(sock);
  ASSERT_EQ(Captured().size(), 1u);
  EXPECT_NE(Captured()[0].find("[4] can not read " + path), std::string::npos);
}

TEST(MarquelOneFileTest, InsertNewProgramUpToEight) {
  MarquelOneFile f;
  f.SetFileName(test::TestPath("a.ts"));
  f.Open(10, 1, 0);
  int32_t index = -1;
  EXPECT_EQ(f.InsertNewProgram(0, &index), 1);
  EXPECT_EQ(index, 0) << "an existing PMT PID reports its program";
  for (int32_t pid = 101; pid <= 107; ++pid) {
    EXPECT_EQ(f.InsertNewProgram(pid, &index), 1);
    EXPECT_EQ(index, pid - 100);
  }
  EXPECT_EQ(f.ProgramCount(), 8);
  EXPECT_EQ(f.InsertNewProgram(200, &index), -1);
  EXPECT_EQ(f.InsertNewProgram(105, &index), 1);
  EXPECT_EQ(index, 5);
  EXPECT_EQ(f.InsertNewProgram(300, nullptr), -1);
  EXPECT_EQ(f.Program(8), nullptr);
  EXPECT_EQ(f.Program(-1), nullptr);
}

TEST(MarquelOneFileTest, PMTPIDListAndSet) {
  MarquelOneFile f;
  f.SetFileName(test::TestPath("a.ts"));
  f.Open(10, 1, 0);
  int32_t index;
  f.InsertNewProgram(256, &index);
  int32_t pids[3] = {-1, -1, -1};
  EXPECT_EQ(f.GetPMTPIDs(3, pids), -1) << "the count must be the program count";
  EXPECT_EQ(pids[0], -1);
  EXPECT_EQ(f.GetPMTPIDs(2, pids), 1);
  EXPECT_EQ(pids[0], 0);
  EXPECT_EQ(pids[1], 256);
  EXPECT_EQ(f.GetPMTPIDs(2, nullptr), -1);
  EXPECT_EQ(f.SetPMTPID(1, 300), 1);
  EXPECT_EQ(f.SetPMTPID(2, 300), -1);
  EXPECT_EQ(f.FindProgram(300), 1);
}

TEST(MarquelOneFileTest, TagSelection) {
  MarquelOneFile f;
  EXPECT_TRUE(f.AcceptsTag(9));
  int32_t tags[2] = {3, 9};
  EXPECT_TRUE(f.TagSelectionDiffers(0, 2, tags));
  f.SetTagSelection(0, 2, tags);
  EXPECT_FALSE(f.TagSelectionDiffers(0, 2, tags));
  EXPECT_TRUE(f.TagSelectionDiffers(1, 2, tags));
  EXPECT_TRUE(f.TagSelectionDiffers(0, 1, tags));
  EXPECT_TRUE(f.TagSelectionDiffers(0, 0, nullptr));
  EXPECT_TRUE(f.AcceptsTag(4)) << "a writable session loads every tag";
  f.SetTagSelection(1, 2, tags);
  EXPECT_TRUE(f.ReadOnly());
  EXPECT_TRUE(f.AcceptsTag(9));
  EXPECT_FALSE(f.AcceptsTag(4));
  f.SetFileName(test::TestPath("x.mpg"));
  f.Open(1, 1, 0);
  EXPECT_FALSE(f.Program(0)->AcceptsTag(4)) << "programs ask the session";
  f.SetTagSelection(1, 5, nullptr);
  EXPECT_TRUE(f.AcceptsTag(4)) << "a null list selects every tag";
}

TEST(MarquelOneFileTest, ReferenceCountAndResultTexts) {
  MarquelOneFile f;
  EXPECT_EQ(f.AddRef(), 1);
  EXPECT_EQ(f.AddRef(), 2);
  EXPECT_EQ(f.Release(), 1);
  EXPECT_EQ(f.RefCount(), 1);
  EXPECT_STREQ(ResultText(MQ_AUTOPROCESSFAIL), "MQ_AUTOPROCESSFAIL");
  EXPECT_STREQ(ResultText(0), "0");
}

}  // namespace
}  // namespace marquel
