#include <stdlib.h>

#include <filesystem>
#include <string>

#include "log/log.h"
#include "log_test_util.h"
#include "platform/access_reg.h"
#include "testsupport/fresh_home.h"

namespace marquel::log {
namespace {

constexpr char kKey[] = "Software\\Halvern\\Common\\Marquel";

// Opens (making it first) the settings key in the test's machine store.
class LogSettingsTest : public LogTest {
 protected:
  // These tests read the plain line format; the date and time prefix has tests of
  // its own.
  void SetUp() override {
    LogTest::SetUp();
    setenv(kLogTimeEnv, "0", 1);
  }
  void TearDown() override {
    unsetenv(kLogTimeEnv);
    LogTest::TearDown();
  }
  AccessReg& Key() {
    if (!key_.IsOpen()) {
      EXPECT_TRUE(key_.CreateKey(HKEY_LOCAL_MACHINE, kKey));
      EXPECT_TRUE(key_.Open(HKEY_LOCAL_MACHINE, kKey));
    }
    return key_;
  }
  void SetNumber(const char* name, uint32_t value) { EXPECT_TRUE(Key().SetDword(name, value)); }
  void SetText(const char* name, const std::string& text) {
    EXPECT_TRUE(Key().SetString(name, text.c_str()));
  }

  AccessReg key_;
};

TEST_F(LogSettingsTest, SettingsComeFromTheMachineStore) {
  const std::string path = test::TestPath("mq.log");
  SetNumber("DumpMQInfo2", 1);
  SetNumber("DumpToFile", 1);
  SetText("DumpFileName", path);
  LoadSettings();
  const Settings s = CurrentSettings();
  EXPECT_EQ(s.enabled, 1);
  EXPECT_EQ(s.to_file, 1);
  EXPECT_EQ(s.file_name, path);
  EXPECT_TRUE(Enabled());
  EXPECT_TRUE(ToFile());
}

TEST_F(LogSettingsTest, DumpMQInfo2AbsentWritesNothingAnywhere) {
  const std::string path = test::TestPath("mq.log");
  SetNumber("DumpToFile", 1);
  SetText("DumpFileName", path);
  LoadSettings();
  EXPECT_FALSE(Enabled());
  MQ_LOG("narrow %d", 1);
  MQ_LOGW(L"wide %d", 2);
  EXPECT_TRUE(lines().empty());
  EXPECT_FALSE(std::filesystem::exists(path));
  // And the same with debug output chosen.
  SetNumber("DumpToFile", 0);
  LoadSettings();
  MQ_LOG("narrow");
  EXPECT_TRUE(lines().empty());
}

TEST_F(LogSettingsTest, NoStoreAtAllWritesNothing) {
  LoadSettings();
  EXPECT_FALSE(Enabled());
  MQ_LOGW(L"abc");
  EXPECT_TRUE(lines().empty());
}

TEST_F(LogSettingsTest, DebugOutputWhenDumpToFileIsZero) {
  SetNumber("DumpMQInfo2", 1);
  SetNumber("DumpToFile", 0);
  SetText("DumpFileName", test::TestPath("mq.log"));
  LoadSettings();
  MQ_LOGW(L"abc");
  MQ_LOGW(L"abc\n");
  ASSERT_EQ(lines().size(), 2u);
  EXPECT_EQ(lines()[0], "[Marquel2.0] abc\n");
  EXPECT_EQ(lines()[1], "[Marquel2.0] abc\n");
  // The name is read only for file output.
  EXPECT_EQ(CurrentSettings().file_name, "");
  EXPECT_FALSE(std::filesystem::exists(test::TestPath("mq.log")));
}

TEST_F(LogSettingsTest, FileOutputStampsFromTheStoreSettings) {
  const std::string path = test::TestPath("mq.log");
  SetNumber("DumpMQInfo2", 1);
  SetNumber("DumpToFile", 1);
  SetText("DumpFileName", path);
  LoadSettings();
  fake_now() = StartTime() + 3725;
  MQ_LOGW(L"abc");
  fake_now() = StartTime() + 90000;
  MQ_LOG("def");
  EXPECT_EQ(ReadFile(path), "[01:02:05] abc\n[01:00:00] def\n");
  EXPECT_TRUE(lines().empty());
}

TEST_F(LogSettingsTest, MissingValueKeepsItsSetting) {
  ApplySettings({5, 0, ""});
  SetNumber("DumpToFile", 0);  // the key exists, "DumpMQInfo2" does not
  LoadSettings();
  EXPECT_EQ(CurrentSettings().enabled, 5);
  ApplySettings({0, 7, ""});
  SetNumber("DumpMQInfo2", 1);
  Key().DeleteValue("DumpToFile");
  LoadSettings();
  EXPECT_EQ(CurrentSettings().enabled, 1);
  EXPECT_EQ(CurrentSettings().to_file, 7);
}

// A value of the wrong size counts as unreadable and leaves the setting alone.
TEST_F(LogSettingsTest, UnreadableNumberKeepsItsSetting) {
  ApplySettings({3, 0, ""});
  SetText("DumpMQInfo2", "1");
  LoadSettings();
  EXPECT_EQ(CurrentSettings().enabled, 3);
}

TEST_F(LogSettingsTest, UnopenableKeyLeavesAllThree) {
  ApplySettings({1, 1, "kept.log"});
  LoadSettings();  // the store has no such key
  Settings s = CurrentSettings();
  EXPECT_EQ(s.enabled, 1);
  EXPECT_EQ(s.to_file, 1);
  EXPECT_EQ(s.file_name, "kept.log");
  // A parent without the key is no better.
  EXPECT_TRUE(Key().CreateKey(HKEY_LOCAL_MACHINE, "Software\\Halvern\\Common\\Other"));
  key_.Close();
  AccessReg parent(HKEY_LOCAL_MACHINE, "Software\\Halvern\\Common");
  ASSERT_TRUE(parent.DeleteKey(HKEY_LOCAL_MACHINE, kKey));
  LoadSettings();
  EXPECT_EQ(CurrentSettings().file_name, "kept.log");
}

// The name is emptied before it is read, so a missing or too long name leaves none.
TEST_F(LogSettingsTest, FileNameIsEmptiedFirst) {
  ApplySettings({0, 0, "old.log"});
  SetNumber("DumpMQInfo2", 1);
  SetNumber("DumpToFile", 1);
  LoadSettings();
  EXPECT_EQ(CurrentSettings().file_name, "");
  SetText("DumpFileName", std::string(259, 'n'));
  LoadSettings();
  EXPECT_EQ(CurrentSettings().file_name, std::string(259, 'n'));
  SetText("DumpFileName", std::string(260, 'n'));  // 261 bytes with the terminator
  LoadSettings();
  EXPECT_EQ(CurrentSettings().file_name, "");
}

TEST_F(LogSettingsTest, ApplyCutsLongNames) {
  ApplySettings({1, 1, std::string(400, 'z')});
  EXPECT_EQ(CurrentSettings().file_name, std::string(259, 'z'));
}

}  // namespace
}  // namespace marquel::log
