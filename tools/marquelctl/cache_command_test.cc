// marquelctl cache, run as a user would on entries laid out in the store by hand.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "platform/access_reg.h"
#include "platform/env.h"
#include "platform/files.h"
#include "platform/text.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using ctltest::Bytes;
using ctltest::Ctl;
using ctltest::CtlRun;
using ctltest::ReadText;

// A stored block: tag 16 = 0x1234 at time 100.
const Bytes kOneValue = {
    0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00,
    0x00, 0x06, 0x00, 0x00, 0x01, 0x00, 0x23, 0xC8, 0xAC, 0x65, 0x01, 0x10, 0x45, 0x75, 0x33, 0xDA,
    0x80, 0x3F, 0xBA, 0x6C, 0xAD, 0x64, 0x00, 0x00, 0x12, 0x34, 0xF3, 0xD0, 0xA2, 0xF6,
};

// A cache file of the cache folder, where an entry's own files live.
std::string WriteCacheFile(const std::string& name, const Bytes& bytes) {
  const std::string folder = CurrentEnv()->AppDataFolder() + "/Halvern/MQInfo";
  std::filesystem::create_directories(folder);
  std::string path = folder + "/" + name;
  ctltest::WriteBytes(path, bytes);
  return path;
}

void PutPath(Bytes& record, size_t at, const std::string& path) {
  char16_t units[260];
  ASSERT_TRUE(CopyToWideRecord(path, units, 260));
  for (size_t i = 0; i < 260; ++i) {
    record[at + 2 * i] = static_cast<uint8_t>(units[i] & 0xFF);
    record[at + 2 * i + 1] = static_cast<uint8_t>(units[i] >> 8);
  }
}

// A VR entry as the server writes it: "VRINFO" (media path at 0, cache path at 536),
// "CONTENTINFO" and "ID".
void SeedVR(const std::string& media, const std::string& cache, uint32_t id) {
  Bytes record(1056, 0);
  PutPath(record, 0, media);
  PutPath(record, 536, cache);
  std::string key = "Software\\Halvern\\Marquel\\VRCache\\" + media;
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, key.c_str()));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, key.c_str()));
  ASSERT_TRUE(reg.SetValue("VRINFO", record.data(), REG_BINARY, 1056));
  ASSERT_TRUE(reg.SetDword("CONTENTINFO", 7));
  ASSERT_TRUE(reg.SetDword("ID", id));
}

// A TS entry with one program record per cache file.
void SeedTS(const std::string& media, const std::vector<std::string>& caches) {
  Bytes file_record(1056, 0);
  PutPath(file_record, 0, media);
  PutPath(file_record, 536, caches[0]);
  Bytes programs(524 * caches.size(), 0);
  for (size_t i = 0; i < caches.size(); ++i) {
    PutPath(programs, 524 * i, caches[i]);
    programs[524 * i + 520] = static_cast<uint8_t>(0x10 + i);
  }
  std::string key = "Software\\Halvern\\Marquel\\TSCache\\" + media;
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, key.c_str()));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, key.c_str()));
  ASSERT_TRUE(reg.SetValue("FILEINFO", file_record.data(), REG_BINARY, 1056));
  ASSERT_TRUE(
      reg.SetValue("TSINFO", programs.data(), REG_BINARY, static_cast<uint32_t>(programs.size())));
  ASSERT_TRUE(reg.SetDword("TSPROGRAMS", static_cast<uint32_t>(caches.size())));
  ASSERT_TRUE(reg.SetDword("CONTENTINFO", 0));
  ASSERT_TRUE(reg.SetDword("ID", 4));
}

TEST(CacheCommand, ListOfAnEmptyStore) {
  CtlRun r = Ctl({"cache", "list"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(Ctl({"cache", "list", "--json"}).out, "{\"entries\":[]}\n");
}

TEST(CacheCommand, ListsEntriesPerKindWithTheirFilesAndSizes) {
  std::string vr_cache = WriteCacheFile("MQ1.tmp", kOneValue);
  SeedVR("/videos/a.vob", vr_cache, 12);
  std::string p0 = WriteCacheFile("MQ2.tmp", kOneValue);
  SeedTS("/videos/b.ts", {p0, test::TestPath("gone.tmp")});
  CtlRun r = Ctl({"cache", "list"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "VRCache\t12\t/videos/a.vob\t" + vr_cache + "\t46\n" +
                       "TSCache\t4\t/videos/b.ts\t" + p0 + "\t46\t" + test::TestPath("gone.tmp") +
                       "\t-\n");
  CtlRun j = Ctl({"cache", "list", "--kind", "tscache", "--json"});
  ASSERT_EQ(j.status, 0) << j.err;
  nlohmann::json parsed = nlohmann::json::parse(j.out);
  ASSERT_EQ(parsed["entries"].size(), 1u);
  EXPECT_EQ(parsed["entries"][0]["kind"], "TSCache");
  EXPECT_EQ(parsed["entries"][0]["cache_files"][1]["pmt_pid"], 0x11);
  EXPECT_TRUE(parsed["entries"][0]["cache_files"][1]["size"].is_null());
  EXPECT_EQ(Ctl({"cache", "list", "--kind", "NoCache"}).status, 2);
}

TEST(CacheCommand, ShowPrintsTheCachedTags) {
  SeedVR("/videos/a.vob", WriteCacheFile("MQ1.tmp", kOneValue), 3);
  CtlRun r = Ctl({"cache", "show", "/videos/a.vob"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("  tag 16: 1 sample\n    100 4660\n"), std::string::npos) << r.out;
  CtlRun j = Ctl({"cache", "show", "/videos/a.vob", "--json"});
  ASSERT_EQ(j.status, 0) << j.err;
  nlohmann::json parsed = nlohmann::json::parse(j.out);
  EXPECT_EQ(
      parsed["entries"][0]["programs"][0]["tags"],
      nlohmann::json::parse(R"([{"id":16,"raw":false,"samples":[{"time":100,"value":4660}]}])"));
  EXPECT_EQ(Ctl({"cache", "show", "/videos/none.vob"}).status, 1);
}

TEST(CacheCommand, ShowReportsADamagedCacheFile) {
  Bytes damaged = kOneValue;
  damaged[34] ^= 0x01;
  SeedVR("/videos/a.vob", WriteCacheFile("MQ1.tmp", damaged), 3);
  CtlRun r = Ctl({"cache", "show", "/videos/a.vob"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("rejected: length stream CRC mismatch"), std::string::npos) << r.err;
}

TEST(CacheCommand, DeleteRemovesTheEntryAndItsCacheFiles) {
  std::string vr_cache = WriteCacheFile("MQ1.tmp", kOneValue);
  SeedVR("/videos/a.vob", vr_cache, 3);
  std::string p0 = WriteCacheFile("MQ2.tmp", kOneValue);
  std::string p1 = WriteCacheFile("MQ3.tmp", kOneValue);
  SeedTS("/videos/b.ts", {p0, p1});
  CtlRun r = Ctl({"cache", "delete", "/videos/a.vob"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(FileExists(vr_cache));
  EXPECT_EQ(Ctl({"cache", "delete", "/videos/b.ts"}).status, 0);
  EXPECT_FALSE(FileExists(p0));
  EXPECT_FALSE(FileExists(p1));
  EXPECT_EQ(Ctl({"cache", "list"}).out, "");
  CtlRun again = Ctl({"cache", "delete", "/videos/a.vob"});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("no cache entry"), std::string::npos);
}

TEST(CacheCommand, HelpAndUsage) {
  CtlRun help = Ctl({"cache", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("list"), std::string::npos);
  EXPECT_NE(help.out.find("delete"), std::string::npos);
  EXPECT_EQ(Ctl({"cache"}).status, 2);
  EXPECT_EQ(Ctl({"cache", "show"}).status, 2);
}

}  // namespace
}  // namespace marquel
