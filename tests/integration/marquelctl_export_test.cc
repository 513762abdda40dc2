// marquelctl export: a file's tags as SRT subtitles, CSV and JSON.
#include <fstream>

#include "marquelctl_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

TEST_F(Marquelctl, ExportWritesSrtCuesThatLastUntilTheNextSampleOrTwoSeconds) {
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "0=1", "--sample", "1.5s=2", "--sample",
                 "1:00:10=3"}),
            0);
  ASSERT_EQ(Ctl({"put", file_, "--tag", "41", "--sample", "1s=9"}), 0);
  const std::string srt = TestPath("tags.srt");
  std::string out;
  ASSERT_EQ(Ctl({"export", file_, "--format", "srt", "-o", srt}, &out), 0) << out;
  EXPECT_EQ(out, "");
  EXPECT_EQ(ReadFile(srt),
            "1\n00:00:00,000 --> 00:00:01,500\ntag 40: 1\n\n"
            "2\n00:00:01,000 --> 00:00:03,000\ntag 41: 9\n\n"
            "3\n00:00:01,500 --> 00:00:03,500\ntag 40: 2\n\n"
            "4\n01:00:10,000 --> 01:00:12,000\ntag 40: 3\n\n");
  EXPECT_EQ(Ctl({"export", file_, "--format", "srt", "--tag", "41"}, &out), 0);
  EXPECT_EQ(out, "1\n00:00:01,000 --> 00:00:03,000\ntag 41: 9\n\n");
}

TEST_F(Marquelctl, ExportWritesCsvWithAHeaderAndJsonThatPutTakesBack) {
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "100=5", "--sample", "200=6"}), 0);
  ASSERT_EQ(Ctl({"put", file_, "--tag", "29", "--raw", "--sample", "7=abcd"}), 0);
  std::string out;
  ASSERT_EQ(Ctl({"export", file_, "--format", "csv"}, &out), 0);
  EXPECT_EQ(out, "tag,time,value\n40,100,5\n40,200,6\n29,7,abcd\n");
  ASSERT_EQ(Ctl({"export", file_, "--format", "json", "-o", TestPath("all.json")}, &out), 0) << out;
  nlohmann::json doc = nlohmann::json::parse(ReadFile(TestPath("all.json")));
  EXPECT_EQ(doc["programs"][0]["program"], 0);
  EXPECT_EQ(doc["programs"][0]["tags"][1],
            nlohmann::json::parse(
                R"({"id": 29, "raw": true, "samples": [{"time": 7, "data": "abcd"}]})"));
  const std::string other = MediaFile("other.mpg");
  int32_t h2 = -1;
  ASSERT_EQ(client_->InitialFile(other.c_str(), 0, 0, &h2), S_OK);
  ASSERT_EQ(Ctl({"put", other, "--tag", "40", "--json-file", TestPath("all.json")}, &out), 0)
      << out;
  EXPECT_EQ(PlainPairs(*client_, h2, 40),
            (std::vector<std::pair<int64_t, int32_t>>{{100, 5}, {200, 6}}));
  EXPECT_EQ(Ctl({"export", file_, "--format", "xml"}, &out), 2);
}

}  // namespace
}  // namespace marquel::test
