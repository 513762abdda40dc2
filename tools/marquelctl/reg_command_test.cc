// Runs the built marquelctl as a user would, in the test's fresh home, and checks what it
// prints and its exit status.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "platform/access_reg.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using ctltest::Ctl;
using Result = ctltest::CtlRun;

const std::string kKey = "Software\\Halvern\\Common\\Marquel";

TEST(RegCommandTest, SetThenGetEachType) {
  EXPECT_EQ(Ctl({"reg", "set", kKey, "DumpMQInfo2", "--dword", "1"}).status, 0);
  EXPECT_EQ(Ctl({"reg", "set", kKey, "Mask", "--dword", "0xFFfe"}).status, 0);
  EXPECT_EQ(Ctl({"reg", "set", kKey, "Minus", "--dword", "-1"}).status, 0);
  EXPECT_EQ(Ctl({"reg", "set", kKey, "DumpFileName", "--string", "/var/log/mq.log"}).status, 0);
  EXPECT_EQ(Ctl({"reg", "set", kKey, "Blob", "--binary", "00FF10ab"}).status, 0);

  Result r = Ctl({"reg", "get", kKey, "DumpMQInfo2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "1\n");
  EXPECT_EQ(Ctl({"reg", "get", kKey, "mask"}).out, "65534\n");
  EXPECT_EQ(Ctl({"reg", "get", kKey, "Minus"}).out, "4294967295\n");
  EXPECT_EQ(Ctl({"reg", "get", kKey, "DumpFileName"}).out, "/var/log/mq.log\n");
  EXPECT_EQ(Ctl({"reg", "get", kKey, "Blob"}).out, "00ff10ab\n");

  // What the tool wrote is what the server reads.
  AccessReg reg(HKEY_CURRENT_USER, kKey.c_str());
  uint32_t value = 0;
  ASSERT_TRUE(reg.QueryDword("DumpMQInfo2", &value));
  EXPECT_EQ(value, 1u);
  char text[64];
  ASSERT_TRUE(reg.QueryString("DumpFileName", text, sizeof text));
  EXPECT_STREQ(text, "/var/log/mq.log");
}

TEST(RegCommandTest, GetAllValuesAsTextAndJson) {
  AccessReg maker;
  ASSERT_TRUE(maker.CreateKey(HKEY_CURRENT_USER, kKey.c_str()));
  AccessReg reg(HKEY_CURRENT_USER, kKey.c_str());
  ASSERT_TRUE(reg.SetDword("DumpToFile", 7));
  ASSERT_TRUE(reg.SetString("DumpFileName", "a.log"));
  const uint8_t bytes[2] = {0xde, 0xad};
  ASSERT_TRUE(reg.SetValue("Raw", bytes, REG_BINARY, 2));

  Result r = Ctl({"reg", "get", kKey});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "DumpToFile\tdword\t7\nDumpFileName\tstring\ta.log\nRaw\tbinary\tdead\n");

  r = Ctl({"reg", "get", kKey, "--json"});
  ASSERT_EQ(r.status, 0);
  nlohmann::json all = nlohmann::json::parse(r.out);
  ASSERT_TRUE(all.is_array());
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0], (nlohmann::json{{"name", "DumpToFile"}, {"type", "dword"}, {"value", 7}}));
  EXPECT_EQ(all[1],
            (nlohmann::json{{"name", "DumpFileName"}, {"type", "string"}, {"value", "a.log"}}));
  EXPECT_EQ(all[2], (nlohmann::json{{"name", "Raw"}, {"type", "binary"}, {"value", "dead"}}));

  r = Ctl({"reg", "get", kKey, "dumptofile", "--json"});  // shown as stored
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(nlohmann::json::parse(r.out),
            (nlohmann::json{{"name", "DumpToFile"}, {"type", "dword"}, {"value", 7}}));
}

TEST(RegCommandTest, ListShowsSubKeysAndValues) {
  ASSERT_EQ(
      Ctl({"reg", "set", "Software\\Halvern\\Marquel\\TSCache", "NextID", "--dword", "2"}).status,
      0);
  ASSERT_EQ(
      Ctl({"reg", "set", "Software\\Halvern\\Marquel\\TSCache\\/v/a.ts", "ID", "--dword", "0"})
          .status,
      0);
  ASSERT_EQ(
      Ctl({"reg", "set", "Software\\Halvern\\Marquel\\TSCache\\/v/b.ts", "ID", "--dword", "1"})
          .status,
      0);
  Result r = Ctl({"reg", "list", "Software\\Halvern\\Marquel\\TSCache"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "/v/a.ts\\\n/v/b.ts\\\nNextID\tdword\t2\n");
  r = Ctl({"reg", "list", "HKCU\\Software\\Halvern\\Marquel\\TSCache", "--json"});
  ASSERT_EQ(r.status, 0);
  nlohmann::json j = nlohmann::json::parse(r.out);
  EXPECT_EQ(j["keys"], (nlohmann::json{"/v/a.ts", "/v/b.ts"}));
  EXPECT_EQ(j["values"][0]["name"], "NextID");
  EXPECT_EQ(j["values"][0]["value"], 2);
}

TEST(RegCommandTest, MissingKeyOrValueExitsWithOne) {
  Result r = Ctl({"reg", "get", "Software\\Nothing"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("does not exist"), std::string::npos);
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(std::filesystem::exists(test::TestPath("data/Halvern")));  // reads made nothing
  ASSERT_EQ(Ctl({"reg", "set", kKey, "A", "--dword", "1"}).status, 0);
  EXPECT_EQ(Ctl({"reg", "get", kKey, "B"}).status, 1);
  EXPECT_EQ(Ctl({"reg", "get", kKey, "B", "--json"}).status, 1);
  EXPECT_EQ(Ctl({"reg", "delete", kKey, "B"}).status, 1);
  EXPECT_EQ(Ctl({"reg", "delete", "Software\\Nothing"}).status, 1);
  EXPECT_EQ(Ctl({"reg", "list", "Software\\Nothing", "--json"}).status, 1);
}

TEST(RegCommandTest, UsageErrorsExitWithTwo) {
  EXPECT_EQ(Ctl({"reg", "set", kKey, "A"}).status, 2);  // no value given
  EXPECT_EQ(Ctl({"reg", "set", kKey, "A", "--dword", "1", "--string", "x"}).status, 2);
  EXPECT_EQ(Ctl({"reg", "set", kKey, "A", "--dword", "twelve"}).status, 2);
  EXPECT_EQ(Ctl({"reg", "set", kKey, "A", "--dword", "4294967296"}).status, 2);
  EXPECT_EQ(Ctl({"reg", "set", kKey, "A", "--binary", "abc"}).status, 2);
  EXPECT_EQ(Ctl({"reg", "set", kKey, "A", "--binary", "zz"}).status, 2);
  EXPECT_EQ(Ctl({"reg", "get"}).status, 2);
  EXPECT_EQ(Ctl({"reg", "frobnicate", kKey}).status, 2);
  EXPECT_EQ(Ctl({"reg"}).status, 2);
  EXPECT_EQ(Ctl({"reg", "get", "--machine", "HKCU\\Software"}).status, 2);
  EXPECT_EQ(Ctl({"reg", "set", "Software\\" + std::string(256, 'k'), "A", "--dword", "1"}).status,
            2);
  EXPECT_EQ(Ctl({"reg", "get", "\\Software"}).status, 2);
  EXPECT_FALSE(std::filesystem::exists(test::TestPath("data/Halvern/registry.db")));
}

TEST(RegCommandTest, DeleteValueThenKey) {
  ASSERT_EQ(Ctl({"reg", "set", kKey, "A", "--dword", "1"}).status, 0);
  Result r = Ctl({"reg", "delete", "Software\\Halvern\\Common"});
  EXPECT_EQ(r.status, 1);  // refused: it has a sub-key
  EXPECT_NE(r.err.find("sub-keys"), std::string::npos);
  EXPECT_EQ(Ctl({"reg", "delete", kKey, "A"}).status, 0);
  EXPECT_EQ(Ctl({"reg", "get", kKey, "A"}).status, 1);
  EXPECT_EQ(Ctl({"reg", "delete", kKey}).status, 0);
  EXPECT_EQ(Ctl({"reg", "get", kKey}).status, 1);
  EXPECT_EQ(Ctl({"reg", "delete", "Software\\Halvern\\Common"}).status, 0);
}

TEST(RegCommandTest, MachineStoreIsSeparate) {
  ASSERT_EQ(Ctl({"reg", "set", "--machine", kKey, "DumpMQInfo2", "--dword", "1"}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(test::TestPath("machine/registry.db")));
  EXPECT_EQ(Ctl({"reg", "get", kKey, "DumpMQInfo2"}).status, 1);
  EXPECT_EQ(Ctl({"reg", "get", "--machine", kKey, "DumpMQInfo2"}).out, "1\n");
  EXPECT_EQ(Ctl({"reg", "get", "HKLM\\" + kKey, "DumpMQInfo2"}).out, "1\n");
  AccessReg reg(HKEY_LOCAL_MACHINE, kKey.c_str());
  uint32_t value = 0;
  EXPECT_TRUE(reg.QueryDword("DumpMQInfo2", &value));
  EXPECT_EQ(value, 1u);
}

TEST(RegCommandTest, ACorruptStoreIsARefusalThatSaysWhy) {
  std::filesystem::create_directories(test::TestPath("data/Halvern"));
  const std::string path = test::TestPath("data/Halvern/registry.db");
  std::ofstream(path, std::ios::binary) << std::string(4096, '\x5a');
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"reg", "get", kKey},
                                             {"reg", "set", kKey, "A", "--dword", "1"},
                                             {"reg", "list", "Software"},
                                             {"reg", "delete", kKey}}) {
    Result r = Ctl(args);
    EXPECT_EQ(r.status, 1) << args[1];
    EXPECT_NE(r.err.find(path), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("damaged"), std::string::npos) << r.err;
  }
  EXPECT_EQ(ctltest::ReadText(path), std::string(4096, '\x5a'));
}

TEST(RegCommandTest, DefaultValueHasTheEmptyName) {
  ASSERT_EQ(Ctl({"reg", "set", kKey, "", "--string", "dflt"}).status, 0);
  EXPECT_EQ(Ctl({"reg", "get", kKey, ""}).out, "dflt\n");
  EXPECT_EQ(Ctl({"reg", "get", kKey}).out, "(default)\tstring\tdflt\n");
  EXPECT_EQ(nlohmann::json::parse(Ctl({"reg", "get", kKey, "--json"}).out)[0]["name"], "");
}

}  // namespace
}  // namespace marquel
