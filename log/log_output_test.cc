#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "log/log.h"
#include "log_test_util.h"
#include "testsupport/fresh_home.h"

namespace marquel::log {
namespace {

const std::string kPrefix = "[Marquel2.0] ";

int g_argument_calls = 0;
int CountedArgument() {
  return ++g_argument_calls;
}

using DebugOutputTest = LogTest;
using FileOutputTest = LogTest;
using AlertTest = LogTest;

TEST_F(DebugOutputTest, WideMessageGetsPrefixAndLineFeed) {
  ApplySettings({1, 0, ""});
  MQ_LOGW(L"abc");
  ASSERT_EQ(lines().size(), 1u);
  EXPECT_EQ(lines()[0], "[Marquel2.0] abc\n");
}

TEST_F(DebugOutputTest, MessageEndingInLineFeedGetsNoSecondOne) {
  ApplySettings({1, 0, ""});
  MQ_LOGW(L"abc\n");
  MQ_LOG("abc\n");
  ASSERT_EQ(lines().size(), 2u);
  EXPECT_EQ(lines()[0], "[Marquel2.0] abc\n");
  EXPECT_EQ(lines()[1], "[Marquel2.0] abc\n");
}

TEST_F(DebugOutputTest, NarrowFormatAndArguments) {
  ApplySettings({1, 0, ""});
  MQ_LOG("[%d] CloseFile %s ref %d", 7, "a.mpg", 2);
  MQ_LOG("%s", "");
  ASSERT_EQ(lines().size(), 2u);
  EXPECT_EQ(lines()[0], "[Marquel2.0] [7] CloseFile a.mpg ref 2\n");
  EXPECT_EQ(lines()[1], "[Marquel2.0] \n");
}

TEST_F(DebugOutputTest, EntryPointsReturnTheFormattedCount) {
  EXPECT_EQ(DebugPrint("%s-%d", "ab", 12), 5);
  EXPECT_EQ(DebugPrintW(L"%ls!", L"xyz"), 4);
  // The entry points do not test the setting themselves; the macros do.
  EXPECT_EQ(lines().size(), 2u);
}

TEST_F(DebugOutputTest, WideTextIsWrittenAsUtf8) {
  DebugPrintW(L"caf\u00e9 %ls %s", L"\u65e5\U0001F600", "na\u00efve");
  ASSERT_EQ(lines().size(), 1u);
  EXPECT_EQ(lines()[0], kPrefix + "caf\xC3\xA9 \xE6\x97\xA5\xF0\x9F\x98\x80 na\xC3\xAFve\n");
  // A wide argument in a narrow format converts as UTF-8 too.
  DebugPrint("%ls", L"\u00e9");
  EXPECT_EQ(lines()[1], kPrefix + "\xC3\xA9\n");
}

TEST_F(DebugOutputTest, UnconvertibleArgumentWritesNothing) {
  EXPECT_EQ(DebugPrint("%ls", L"\xD800"), -1);
  EXPECT_TRUE(lines().empty());
}

TEST_F(DebugOutputTest, LongNarrowMessageIsCut) {
  const std::string big(10000, 'x');
  EXPECT_EQ(DebugPrint("%s", big.c_str()), 4095);
  ASSERT_EQ(lines().size(), 1u);
  EXPECT_EQ(lines()[0], kPrefix + std::string(4095, 'x') + "\n");
}

TEST_F(DebugOutputTest, LongWideMessageIsCut) {
  const std::wstring big(10000, L'\u00e9');
  EXPECT_EQ(DebugPrintW(L"%ls", big.c_str()), 4095);
  ASSERT_EQ(lines().size(), 1u);
  std::string expected = kPrefix;
  for (int i = 0; i < 4095; ++i) expected += "\xC3\xA9";
  EXPECT_EQ(lines()[0], expected + "\n");
}

TEST_F(DebugOutputTest, NothingIsFormattedOrEvaluatedWhileOff) {
  g_argument_calls = 0;
  MQ_LOG("%d", CountedArgument());
  MQ_LOGW(L"%d", CountedArgument());
  EXPECT_EQ(g_argument_calls, 0);
  EXPECT_TRUE(lines().empty());
  ApplySettings({1, 0, ""});
  MQ_LOG("%d", CountedArgument());
  EXPECT_EQ(g_argument_calls, 1);
  ASSERT_EQ(lines().size(), 1u);
  EXPECT_EQ(lines()[0], kPrefix + "1\n");
}

TEST_F(DebugOutputTest, DefaultSinkIsStandardError) {
  const std::string path = test::TestPath("stderr.txt");
  SetDebugSink(nullptr);
  fflush(stderr);
  const int saved = dup(STDERR_FILENO);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  dup2(fd, STDERR_FILENO);
  DebugPrint("to %s", "stderr");
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(fd);
  EXPECT_EQ(ReadFile(path), "[Marquel2.0] to stderr\n");
}

TEST_F(FileOutputTest, StampIsTimeSinceStart) {
  const std::string path = test::TestPath("mq.log");
  ApplySettings({1, 1, path});
  fake_now() = StartTime() + 3725;
  MQ_LOG("first");
  fake_now() = StartTime() + 90000;
  MQ_LOGW(L"second\n");
  fake_now() = StartTime();
  MQ_LOG("[%d] third", 4);
  EXPECT_TRUE(lines().empty());
  EXPECT_EQ(ReadFile(path), "[01:02:05] first\n[01:00:00] second\n[00:00:00] [4] third\n");
}

TEST_F(FileOutputTest, AppendsToAnExistingFile) {
  const std::string path = test::TestPath("mq.log");
  {
    std::FILE* f = std::fopen(path.c_str(), "w");
    std::fputs("old line\n", f);
    std::fclose(f);
  }
  ApplySettings({1, 1, path});
  fake_now() = StartTime() + 59;
  EXPECT_EQ(FilePrint("n=%d", 5), 3);
  EXPECT_EQ(ReadFile(path), "old line\n[00:00:59] n=5\n");
}

TEST_F(FileOutputTest, ClockBeforeStartStaysInRange) {
  const std::string path = test::TestPath("mq.log");
  ApplySettings({1, 1, path});
  fake_now() = StartTime() - 1;
  FilePrint("back");
  EXPECT_EQ(ReadFile(path), "[23:59:59] back\n");
}

TEST_F(FileOutputTest, WideMessageIsUtf8AndCut) {
  const std::string path = test::TestPath("mq.log");
  ApplySettings({1, 1, path});
  EXPECT_EQ(FilePrintW(L"\u00e9\U0001F600"), 2);
  const std::wstring big(10000, L'\u20AC');  // 3 bytes each in UTF-8
  EXPECT_EQ(FilePrintW(L"%ls", big.c_str()), 4095);
  std::string expected = "[00:00:00] \xC3\xA9\xF0\x9F\x98\x80\n[00:00:00] ";
  // 4095 bytes hold 1365 whole characters; none is split.
  for (int i = 0; i < 1365; ++i) expected += "\xE2\x82\xAC";
  EXPECT_EQ(ReadFile(path), expected + "\n");
}

TEST_F(FileOutputTest, LongNarrowMessageIsCut) {
  const std::string path = test::TestPath("mq.log");
  ApplySettings({1, 1, path});
  const std::string big(10000, 'y');
  EXPECT_EQ(FilePrint("%s", big.c_str()), 4095);
  EXPECT_EQ(ReadFile(path), "[00:00:00] " + std::string(4095, 'y') + "\n");
}

// An unopenable file (or no name) drops the entry; the caller still gets its count.
TEST_F(FileOutputTest, UnopenableFileIsSkipped) {
  ApplySettings({1, 1, test::TestPath("no/such/folder/mq.log")});
  EXPECT_EQ(FilePrint("lost"), 4);
  EXPECT_FALSE(std::filesystem::exists(test::TestPath("no")));
  ApplySettings({1, 1, ""});
  EXPECT_EQ(FilePrintW(L"lost"), 4);
  EXPECT_TRUE(lines().empty());
}

TEST_F(AlertTest, WritesAlertLineToStandardError) {
  const std::string path = test::TestPath("stderr.txt");
  fflush(stderr);
  const int saved = dup(STDERR_FILENO);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  dup2(fd, STDERR_FILENO);
  const int narrow = Alert("disk %d", 3);
  const int wide = AlertW(L"caf\u00e9\n");
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(fd);
  EXPECT_EQ(narrow, 6);
  EXPECT_EQ(wide, 5);
  EXPECT_EQ(ReadFile(path), "Alert!: disk 3\nAlert!: caf\xC3\xA9\n");
  EXPECT_TRUE(lines().empty());
}

}  // namespace
}  // namespace marquel::log
