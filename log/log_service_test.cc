// The log as a Linux user switches it on: the user's own store, the environment, changes
// picked up while running, the date and time prefix, the journal and the state file.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "log_test_util.h"
#include "platform/access_reg.h"
#include "testsupport/fresh_home.h"

namespace marquel::log {
namespace {

constexpr char kKey[] = "Software\\Halvern\\Common\\Marquel";

void SetNumber(RegRoot root, const char* name, uint32_t value) {
  AccessReg key;
  ASSERT_TRUE(key.CreateKey(root, kKey));
  ASSERT_TRUE(key.Open(root, kKey));
  ASSERT_TRUE(key.SetDword(name, value));
}

void SetText(RegRoot root, const char* name, const std::string& text) {
  AccessReg key;
  ASSERT_TRUE(key.CreateKey(root, kKey));
  ASSERT_TRUE(key.Open(root, kKey));
  ASSERT_TRUE(key.SetString(name, text.c_str()));
}

std::string LocalStamp(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm local;
  localtime_r(&t, &local);
  char text[64];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S ", &local);
  return text;
}

using LogService = LogTest;

TEST_F(LogService, TheUsersOwnStoreTurnsTheLogOn) {
  SetNumber(HKEY_CURRENT_USER, "DumpMQInfo2", 1);
  LoadSettings();
  EXPECT_TRUE(Enabled());
  EXPECT_FALSE(ToFile());
}

TEST_F(LogService, TheMachineStoreWinsWhereBothAreSet) {
  const std::string user_file = test::TestPath("user.log");
  const std::string machine_file = test::TestPath("machine.log");
  SetNumber(HKEY_CURRENT_USER, "DumpMQInfo2", 1);
  SetNumber(HKEY_CURRENT_USER, "DumpToFile", 1);
  SetText(HKEY_CURRENT_USER, "DumpFileName", user_file);
  SetNumber(HKEY_LOCAL_MACHINE, "DumpMQInfo2", 0);
  LoadSettings();
  EXPECT_FALSE(Enabled());                            // the machine's 0 wins
  EXPECT_EQ(CurrentSettings().file_name, user_file);  // the machine has no name
  SetText(HKEY_LOCAL_MACHINE, "DumpFileName", machine_file);
  LoadSettings();
  EXPECT_EQ(CurrentSettings().file_name, machine_file);
}

TEST_F(LogService, TheEnvironmentSwitchesItOnWithAFile) {
  const std::string path = test::TestPath("env.log");
  setenv(kLogEnv, "1", 1);
  setenv(kLogFileEnv, path.c_str(), 1);
  setenv(kLogTimeEnv, "0", 1);
  SetNumber(HKEY_LOCAL_MACHINE, "DumpMQInfo2", 0);  // the environment overrides it
  LoadSettings();
  unsetenv(kLogEnv);
  unsetenv(kLogFileEnv);
  unsetenv(kLogTimeEnv);
  EXPECT_TRUE(Enabled());
  EXPECT_TRUE(ToFile());
  fake_now() = StartTime() + 3725;
  MQ_LOG("from the environment");
  EXPECT_EQ(ReadFile(path), "[01:02:05] from the environment\n");
}

TEST_F(LogService, AStoreChangeIsPickedUpWithinAFewSeconds) {
  LoadSettings();
  EXPECT_FALSE(Enabled());
  SetNumber(HKEY_CURRENT_USER, "DumpMQInfo2", 1);
  const auto start = std::chrono::steady_clock::now();
  while (!ReloadSettingsIfChanged() &&
         std::chrono::steady_clock::now() - start < std::chrono::seconds(5))
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(Enabled());
  EXPECT_LE(std::chrono::steady_clock::now() - start, std::chrono::seconds(kReloadSeconds + 1));
  // Nothing changed since: no second read.
  std::this_thread::sleep_for(std::chrono::seconds(kReloadSeconds));
  EXPECT_FALSE(ReloadSettingsIfChanged());
  // A value taken away switches its setting off again.
  AccessReg key(HKEY_CURRENT_USER, kKey);
  ASSERT_TRUE(key.DeleteValue("DumpMQInfo2"));
  std::this_thread::sleep_for(std::chrono::seconds(kReloadSeconds));
  EXPECT_TRUE(ReloadSettingsIfChanged());
  EXPECT_FALSE(Enabled());
}

TEST_F(LogService, LinesStartWithTheLocalDateAndTime) {
  const std::string path = test::TestPath("stamped.log");
  fake_now() = StartTime() + 3725;
  ApplySettings({1, 0, "", 1});
  MQ_LOG("debug");
  ApplySettings({1, 1, path, 1});
  MQ_LOG("file");
  ASSERT_EQ(lines().size(), 1u);
  EXPECT_EQ(lines()[0], LocalStamp(StartTime() + 3725) + "[Marquel2.0] debug\n");
  EXPECT_EQ(ReadFile(path), LocalStamp(StartTime() + 3725) + "[01:02:05] file\n");
}

TEST_F(LogService, ThePrefixIsOnByDefaultAndCanBeSwitchedOff) {
  LoadSettings();
  EXPECT_EQ(CurrentSettings().wall_clock, 1);
  SetNumber(HKEY_CURRENT_USER, kWallClockValue, 0);
  LoadSettings();
  EXPECT_EQ(CurrentSettings().wall_clock, 0);
  SetNumber(HKEY_CURRENT_USER, kWallClockValue, 1);
  setenv(kLogTimeEnv, "0", 1);
  LoadSettings();
  unsetenv(kLogTimeEnv);
  EXPECT_EQ(CurrentSettings().wall_clock, 0);
}

std::vector<std::string>& JournalFields() {
  static std::vector<std::string> fields;
  return fields;
}
int CaptureJournal(const std::string* fields, size_t count) {
  JournalFields().assign(fields, fields + count);
  return 0;
}
int RefuseJournal(const std::string*, size_t) {
  return -1;
}

TEST_F(LogService, UnderSystemdLinesGoToTheJournalWithPriorityAndIdentifier) {
  SetDebugSink(nullptr);
  JournalSender previous = SetJournalSender(&CaptureJournal);
  setenv("JOURNAL_STREAM", "8:12345", 1);
  EXPECT_EQ(DefaultTarget(), Target::kJournal);
  ApplySettings({1, 0, "", 1});
  MQ_LOG("[%d] CloseFile ref %d", 3, 0);
  unsetenv("JOURNAL_STREAM");
  SetJournalSender(previous);
  EXPECT_EQ(JournalFields(),
            (std::vector<std::string>{"MESSAGE=[Marquel2.0] [3] CloseFile ref 0", "PRIORITY=7",
                                      "SYSLOG_IDENTIFIER=marquel64"}));
  setenv("INVOCATION_ID", "0123456789abcdef", 1);
  EXPECT_EQ(DefaultTarget(), Target::kJournal);
  unsetenv("INVOCATION_ID");
  EXPECT_EQ(DefaultTarget(), Target::kStandardError);
}

TEST_F(LogService, AJournalThatRefusesTheLineLeavesItOnStandardError) {
  const std::string path = test::TestPath("stderr.txt");
  SetDebugSink(nullptr);
  JournalSender previous = SetJournalSender(&RefuseJournal);
  setenv("JOURNAL_STREAM", "8:12345", 1);
  fflush(stderr);
  const int saved = dup(STDERR_FILENO);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  dup2(fd, STDERR_FILENO);
  DebugPrint("kept");
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(fd);
  unsetenv("JOURNAL_STREAM");
  SetJournalSender(previous);
  EXPECT_EQ(ReadFile(path), "[Marquel2.0] kept\n");
}

TEST_F(LogService, ABusActivatedServerWithoutSystemdWritesTheStateFile) {
  SetDebugSink(nullptr);
  setenv("DBUS_STARTER_ADDRESS", "unix:path=/nowhere", 1);
  EXPECT_EQ(DefaultTarget(), Target::kStateFile);
  DebugPrint("activated");
  unsetenv("DBUS_STARTER_ADDRESS");
  EXPECT_EQ(StateLogPath(), test::TestPath("state/marquel/marquel64.log"));
  EXPECT_EQ(ReadFile(StateLogPath()), "[Marquel2.0] activated\n");
}

TEST_F(LogService, TheStateFileMovesAsideAtItsCeiling) {
  SetDebugSink(nullptr);
  std::filesystem::create_directories(test::TestPath("state/marquel"));
  std::ofstream(StateLogPath()) << "old";
  std::filesystem::resize_file(StateLogPath(), kStateFileMaxBytes + 1);
  setenv("DBUS_STARTER_ADDRESS", "unix:path=/nowhere", 1);
  DebugPrint("fresh");
  unsetenv("DBUS_STARTER_ADDRESS");
  EXPECT_EQ(ReadFile(StateLogPath()), "[Marquel2.0] fresh\n");
  EXPECT_EQ(std::filesystem::file_size(StateLogPath() + ".1"),
            static_cast<uintmax_t>(kStateFileMaxBytes + 1));
}

// Where a journal really runs, the entry is found under the server's identifier.
TEST_F(LogService, TheRealJournalShowsTheEntryWhereOneRuns) {
  if (access("/run/systemd/journal/socket", W_OK) != 0 ||
      system("journalctl --user -n 0 >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "no journal runs here";
  SetDebugSink(nullptr);
  const std::string mark = "marquel-journal-check-" + std::to_string(getpid());
  setenv("JOURNAL_STREAM", "8:1", 1);
  DebugPrint("%s", mark.c_str());
  unsetenv("JOURNAL_STREAM");
  bool found = false;
  for (int i = 0; i < 50 && !found; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    found =
        system(("journalctl -t marquel64 -n 200 -q 2>/dev/null | grep -q " + mark).c_str()) == 0;
  }
  EXPECT_TRUE(found);
}

}  // namespace
}  // namespace marquel::log
