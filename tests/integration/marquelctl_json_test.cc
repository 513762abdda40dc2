// marquelctl's one JSON form: what get, export and cache show print, put takes back, and
// with --json every outcome, errors too, is JSON on standard output.
#include <fstream>

#include "marquelctl_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

TEST_F(Marquelctl, WhatGetPrintsAsJsonPutTakesBackAsItStands) {
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "100=5", "--sample", "2s=250"}), 0);
  ASSERT_EQ(Ctl({"put", file_, "--tag", "29", "--raw", "--sample", "7=00ff10"}), 0);
  const std::string other = MediaFile("other.mpg");
  int32_t h2 = -1;
  ASSERT_EQ(client_->InitialFile(other.c_str(), 0, 0, &h2), S_OK);
  for (const char* tag : {"40", "29"}) {
    std::vector<std::string> get = {"get", file_, "--tag", tag, "--json"};
    if (std::string(tag) == "29") get.push_back("--raw");
    std::string printed;
    ASSERT_EQ(Ctl(get, &printed), 0) << printed;
    WriteText(TestPath("samples.json"), printed);
    std::vector<std::string> put = {"put", other,         "--tag",
                                    tag,   "--json-file", TestPath("samples.json")};
    std::string out;
    if (std::string(tag) == "29") {
      EXPECT_EQ(Ctl(put, &out), 2);
      EXPECT_NE(out.find("'00ff10' is raw data; use --raw"), std::string::npos) << out;
      put.push_back("--raw");
    }
    ASSERT_EQ(Ctl(put, &out), 0) << out;
    get[1] = other;
    nlohmann::json again = CtlJson(get);
    EXPECT_EQ(again["samples"], nlohmann::json::parse(printed)["samples"]) << tag;
    EXPECT_FALSE(again["samples"].empty());
  }
}

TEST_F(Marquelctl, WhatCacheShowPrintsAsJsonPutTakesBack) {
  const std::string cached = TaggedCopy(*client_, "mpeg2ps.mpg", "cached.mpg");
  std::string printed;
  ASSERT_EQ(Ctl({"cache", "show", cached, "--json"}, &printed), 0) << printed;
  nlohmann::json shown = nlohmann::json::parse(printed);
  const nlohmann::json& tag = shown["entries"][0]["programs"][0]["tags"][0];
  EXPECT_EQ(tag["id"], 16);
  EXPECT_EQ(tag["samples"][0], nlohmann::json::parse(R"({"time": 100000, "value": 7})"));
  WriteText(TestPath("cache.json"), printed);
  std::string out;
  ASSERT_EQ(Ctl({"put", file_, "--tag", "16", "--json-file", TestPath("cache.json")}, &out), 0)
      << out;
  EXPECT_EQ(PlainPairs(*client_, handle_, 16),
            (std::vector<std::pair<int64_t, int32_t>>{{100000, 7}, {500000, 9}}));
  EXPECT_EQ(Ctl({"put", file_, "--tag", "17", "--json-file", TestPath("cache.json")}, &out), 2);
  EXPECT_NE(out.find("no samples of tag 17 in program 0"), std::string::npos) << out;
}

TEST_F(Marquelctl, WithJsonAnErrorIsJsonOnStandardOutputWithItsExitStatus) {
  nlohmann::json j = CtlJson({"cache", "show", TestPath("none.mpg"), "--json"}, 1);
  EXPECT_NE(j["error"]["message"].get<std::string>().find("no cache entry"), std::string::npos);
  j = CtlJson({"cache", "list", "--kind", "NoCache", "--json"}, 2);
  EXPECT_NE(j["error"]["message"].get<std::string>().find("unknown kind"), std::string::npos);
}

TEST_F(Marquelctl, FileWithJsonPrintsAnArrayOfEveryResultTheFailingOneLast) {
  nlohmann::json j =
      CtlJson({"file", file_, "--json", "--", "put", "40", "1=1", "get", "41", "@5"}, 1);
  ASSERT_TRUE(j.is_array()) << j;
  ASSERT_EQ(j.size(), 2u);
  EXPECT_EQ(j[0]["inserted"], 1);
  EXPECT_EQ(j[1]["operation"], "get");
  EXPECT_EQ(j[1]["error"]["hresult"], "E_FAIL");
  j = CtlJson({"file", TestPath("missing.mpg"), "--json", "--", "tags"}, 1);
  ASSERT_TRUE(j.is_array()) << j;
  ASSERT_EQ(j.size(), 1u);
  EXPECT_NE(j[0]["error"]["message"].get<std::string>().find("no such file"), std::string::npos);
  j = CtlJson({"file", file_, "--json", "--", "bogus"}, 2);
  ASSERT_TRUE(j.is_array()) << j;
}

TEST_F(Marquelctl, TagsShowEachTagsFirstAndLastTimeAndCount) {
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "2s=1", "--sample", "0.5s=2", "--sample",
                 "1s=3"}),
            0);
  ASSERT_EQ(Ctl({"put", file_, "--tag", "29", "--raw", "--sample", "3s=0102"}), 0);
  std::string out;
  EXPECT_EQ(Ctl({"tags", file_, "--time-format", "seconds"}, &out), 0);
  EXPECT_EQ(out, "40\t3\tplain\t-\t0.5s\t2s\n29\t1\traw\t2\t3s\t3s\n");
  nlohmann::json j = CtlJson({"tags", file_, "--json"});
  EXPECT_EQ(j["tags"][0]["count"], 3);
  EXPECT_EQ(j["tags"][0]["first"], 5000000);
  EXPECT_EQ(j["tags"][0]["last"], 20000000);
}

}  // namespace
}  // namespace marquel::test
