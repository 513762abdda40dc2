// marquelctl's server subcommands, run as a user runs them, against the test's server.
//
// The test holds the media files open through its own client, so that the data a
// marquelctl run inserts is still there for the next run.
#include <nlohmann/json.hpp>

#include <fstream>

#include "marquelctl_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

TEST_F(Marquelctl, PutAndGetInTextAndJson) {
  std::string out;
  EXPECT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "100=5", "--sample", "200=250"}, &out),
            0);
  EXPECT_EQ(out, "inserted 2\n");
  EXPECT_EQ(Ctl({"get", file_, "--tag", "40"}, &out), 0);
  EXPECT_EQ(out, "100\t5\n200\t250\n");
  nlohmann::json j = CtlJson({"get", file_, "--tag", "40", "--json"});
  EXPECT_EQ(j["operation"], "get");
  EXPECT_EQ(j["file"], file_);
  ASSERT_EQ(j["samples"].size(), 2u);
  EXPECT_EQ(j["samples"][1]["time"], 200);
  EXPECT_EQ(j["samples"][1]["value"], 250);
  j = CtlJson({"get", file_, "--tag", "40", "--from", "150", "--to", "1000", "--json"});
  EXPECT_EQ(j["samples"].size(), 1u);
  j = CtlJson({"get", file_, "--tag", "40", "--at", "100", "--json"});
  EXPECT_EQ(j["samples"][0]["value"], 5);
  EXPECT_EQ(Ctl({"get", file_, "--tag", "41", "--at", "100"}, &out), 1) << out;
  EXPECT_NE(out.find("E_FAIL"), std::string::npos);
}

TEST_F(Marquelctl, PutFromCsvAndJsonFilesAndRawSamples) {
  std::ofstream(TestPath("s.csv")) << "time,value\n10,1\n20,2\n# note\n30,3\n";
  std::ofstream(TestPath("s.json")) << R"([{"time": 40, "value": 4}, [50, 5]])";
  nlohmann::json j = CtlJson({"put", file_, "--tag", "40", "--csv", TestPath("s.csv"), "--json"});
  EXPECT_EQ(j["inserted"], 3);
  j = CtlJson({"put", file_, "--tag", "40", "--json-file", TestPath("s.json"), "--json"});
  EXPECT_EQ(j["inserted"], 2);
  int32_t size = 0;
  EXPECT_EQ(client_->QueryOneTagSize(handle_, 40, &size), S_OK);
  EXPECT_EQ(size, 5);
  j = CtlJson({"put", file_, "--tag", "29", "--raw", "--sample", "7=00ff10", "--json"});
  EXPECT_EQ(j["inserted"], 1);
  j = CtlJson({"get", file_, "--tag", "29", "--raw", "--json"});
  EXPECT_EQ(j["samples"][0]["data"], "00ff10");
}

TEST_F(Marquelctl, BadInputIsAUsageError) {
  std::string out;
  EXPECT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "oops"}, &out), 2);
  EXPECT_NE(out.find("TIME=VALUE"), std::string::npos);
  EXPECT_EQ(Ctl({"put", file_, "--tag", "40"}, &out), 2);
  EXPECT_EQ(Ctl({"put", file_, "--tag", "29", "--raw", "--sample", "1=xyz"}, &out), 2);
  EXPECT_NE(out.find("'xyz' is not hex bytes"), std::string::npos) << out;
  EXPECT_EQ(out.find("E_INVALIDARG"), std::string::npos) << "a parse error is no HRESULT";
  EXPECT_EQ(Ctl({"get", file_}, &out), 2);  // --tag is required
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "1=1"}), 0);
  nlohmann::json j = CtlJson({"get", file_, "--tag", "40", "--raw", "--json"}, 2);
  EXPECT_NE(j["error"]["message"].get<std::string>().find("does not hold raw data"),
            std::string::npos);
}

TEST_F(Marquelctl, TagsAndIntervals) {
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "0=1", "--sample", "400000=2"}), 0);
  ASSERT_EQ(Ctl({"put", file_, "--tag", "29", "--raw", "--sample", "0=0102"}), 0);
  std::string out;
  EXPECT_EQ(Ctl({"tags", file_}, &out), 0);
  EXPECT_EQ(out, "40\t2\tplain\t-\t0\t400000\n29\t1\traw\t2\t0\t0\n");
  nlohmann::json j = CtlJson({"tags", file_, "--json"});
  ASSERT_EQ(j["tags"].size(), 2u);
  EXPECT_EQ(j["tags"][1]["sample_size"], 2);
  j = CtlJson({"intervals", file_, "--tag", "40", "--json"});
  ASSERT_EQ(j["intervals"].size(), 1u);
  EXPECT_EQ(j["intervals"][0]["start"], 0);
}

TEST_F(Marquelctl, DeleteAndShift) {
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "100=1", "--sample", "200=2", "--sample",
                 "300=3"}),
            0);
  nlohmann::json j = CtlJson({"delete", file_, "--from", "150", "--to", "250", "--json"});
  EXPECT_EQ(j["operation"], "delete");
  j = CtlJson({"shift", file_, "--by", "50", "--tag", "40", "--json"});
  EXPECT_EQ(j["scope"]["tag"], 40);
  j = CtlJson({"get", file_, "--tag", "40", "--json"});
  ASSERT_EQ(j["samples"].size(), 2u);
  EXPECT_EQ(j["samples"][0]["time"], 50);
  EXPECT_EQ(j["samples"][1]["time"], 250);
  j = CtlJson({"delete", file_, "--from", "0", "--to", "-1", "--category", "0", "--json"});
  EXPECT_EQ(j["scope"]["category"], 0);
}

TEST_F(Marquelctl, CopyAndMoveBetweenFiles) {
  std::string other = MediaFile("other.mpg");
  int32_t h2 = -1;
  ASSERT_EQ(client_->InitialFile(other.c_str(), 0, 0, &h2), S_OK);
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "100=1", "--sample", "200=2"}), 0);
  nlohmann::json j = CtlJson({"copy", file_, other, "--from", "0", "--to", "-1", "--at", "1000",
                              "--stretch", "2/1", "--json"});
  EXPECT_EQ(j["operation"], "copy");
  j = CtlJson({"get", other, "--tag", "40", "--json"});
  ASSERT_EQ(j["samples"].size(), 2u);
  EXPECT_EQ(j["samples"][0]["time"], 2200);  // (1000 - 0 + 100) * 2
  j = CtlJson(
      {"move", file_, other, "--from", "0", "--to", "150", "--at", "0", "--tag", "40", "--json"});
  EXPECT_EQ(j["operation"], "move");
  j = CtlJson({"get", file_, "--tag", "40", "--json"});
  EXPECT_EQ(j["samples"].size(), 1u);
  std::string out;
  EXPECT_EQ(Ctl({"copy", file_, other, "--from", "0", "--at", "0", "--stretch", "x"}, &out), 2);
}

TEST_F(Marquelctl, StatusAndWait) {
  nlohmann::json j = CtlJson({"status", file_, "--json"});
  EXPECT_EQ(j["open_files"], 1);
  EXPECT_EQ(j["handles"], nlohmann::json::array({0}));
  EXPECT_GE(j["memory"].get<int64_t>(), 16424 + 11000);
  EXPECT_EQ(j["pending"][0]["done"], true);
  EXPECT_TRUE(j["saved_pending"].is_array());
  std::string out;
  EXPECT_EQ(Ctl({"status"}, &out), 0);
  EXPECT_NE(out.find("open files\t1"), std::string::npos);
  j = CtlJson({"wait", file_, "--json"});
  EXPECT_EQ(j["done"], true);
  EXPECT_EQ(Ctl({"wait", file_}, &out), 0);
  EXPECT_NE(out.find("waiting for " + file_ + ": written"), std::string::npos);
}

TEST_F(Marquelctl, SeveralOperationsOnOneHeldFile) {
  // Without the test's own open the data lives only while marquelctl holds the file.
  ASSERT_EQ(client_->CloseFile(handle_, 0), S_OK);
  nlohmann::json j =
      CtlJson({"file",  file_, "--json", "--", "put",   "40",   "100=1", "200=2", "get",  "40",
               "count", "40",  "0",      "-1", "shift", "-100", "get",   "40",    "@200", "tags"});
  ASSERT_TRUE(j.is_array());
  ASSERT_EQ(j.size(), 6u);
  EXPECT_EQ(j[0]["inserted"], 2);
  EXPECT_EQ(j[1]["samples"].size(), 2u);
  EXPECT_EQ(j[2]["count"], 2);
  EXPECT_EQ(j[4]["samples"][0]["value"], 1);  // shifted by -100: 100 became 200
  EXPECT_EQ(j[5]["tags"][0]["id"], 40);
  int32_t count = 0;
  EXPECT_EQ(client_->QueryFileCount(&count), E_FAIL);  // closed again afterwards
}

TEST_F(Marquelctl, ScriptFile) {
  std::ofstream(TestPath("ops.txt")) << "# a script\nput 40 10=1 20=2\nput-raw 29 5=abcd\n"
                                        "get 40 15 100\nget-raw 29\nintervals 40\n"
                                        "delete 0 -1 tag=40\ncount 40\nclean\n";
  std::string out;
  EXPECT_EQ(Ctl({"file", file_, "--script", TestPath("ops.txt")}, &out), 0) << out;
  EXPECT_NE(out.find("20\t2\n"), std::string::npos);
  EXPECT_NE(out.find("5\tabcd\n"), std::string::npos);
  EXPECT_NE(out.find("\n0\n"), std::string::npos);  // count after the delete
  EXPECT_EQ(Ctl({"file", file_, "--", "bogus"}, &out), 2);
  EXPECT_EQ(Ctl({"file", file_, "--", "get", "x"}, &out), 2);
  EXPECT_EQ(Ctl({"file", file_}, &out), 2);
}

TEST_F(Marquelctl, FailuresAreExplained) {
  std::string out;
  std::string missing = TestPath("missing.mpg");
  EXPECT_EQ(Ctl({"tags", missing}, &out), 1);
  EXPECT_EQ(out, "marquelctl: no such file: " + missing + "\n");
  EXPECT_EQ(Ctl({"tags", TestDir()}, &out), 1);
  EXPECT_EQ(out, "marquelctl: not a regular file: " + TestDir() + "\n");
  EXPECT_EQ(Ctl({"get", file_, "--tag", "41", "--at", "0"}, &out), 1);
  EXPECT_NE(out.find("E_FAIL (0x80004005)"), std::string::npos);
  nlohmann::json j = CtlJson({"get", file_, "--tag", "41", "--at", "0", "--json"}, 1);
  EXPECT_EQ(j["error"]["hresult"], "E_FAIL");
  EXPECT_EQ(j["error"]["hex"], "0x80004005");
  EXPECT_FALSE(j["error"]["message"].get<std::string>().empty());
  // Without a bus at all.
  bus_.Stop();
  EXPECT_EQ(Ctl({"status", "--json"}, &out), 3);
}

TEST_F(Marquelctl, EveryServerCommandHasHelp) {
  for (const char* sub : {"tags", "get", "put", "intervals", "delete", "shift", "copy", "move",
                          "status", "wait", "file", "export", "programs", "mv"}) {
    std::string out;
    EXPECT_EQ(Ctl({sub, "--help"}, &out), 0) << sub;
    EXPECT_NE(out.find("Usage"), std::string::npos) << sub << ": " << out;
  }
  std::string out;
  EXPECT_EQ(Ctl({"--help"}, &out), 0);
  EXPECT_NE(out.find("status"), std::string::npos);
}

TEST_F(Marquelctl, AValueThatDoesNotFitItsTagIsRefusedBeforeAnythingIsSent) {
  std::string out;
  EXPECT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "0=300"}, &out), 2);
  EXPECT_EQ(out,
            "marquelctl: put: tag 40 holds 8-bit values (0..255); 300 does not fit; use "
            "--truncate to store its low bits\n");
  EXPECT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "1=1", "--sample", "2=-6"}, &out), 2);
  int32_t size = -1;
  EXPECT_EQ(client_->QueryOneTagSize(handle_, 40, &size), E_FAIL) << "nothing was sent";
  // Tag 254 keeps the steps between its values in 8 bits: a falling value cannot come back.
  EXPECT_EQ(Ctl({"put", file_, "--tag", "254", "--sample", "0=5", "--sample", "10=4"}, &out), 2);
  EXPECT_NE(out.find("4 after 5 does not fit"), std::string::npos) << out;
  EXPECT_EQ(client_->QueryOneTagSize(handle_, 254, &size), E_FAIL) << "nothing was sent";
  EXPECT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "0=300", "--truncate"}, &out), 0);
  EXPECT_EQ(Ctl({"get", file_, "--tag", "40"}, &out), 0);
  EXPECT_EQ(out, "0\t44\n");
}

TEST_F(Marquelctl, StateTagsRawLengthsAndTagIdsAreCheckedByName) {
  std::string out;
  EXPECT_EQ(Ctl({"put", file_, "--tag", "17", "--sample", "0=2"}, &out), 2);
  EXPECT_NE(out.find("state tag and holds 0 or 1"), std::string::npos) << out;
  EXPECT_EQ(Ctl({"put", file_, "--tag", "17", "--sample", "0=1"}, &out), 0) << out;
  EXPECT_EQ(Ctl({"tags", file_}, &out), 0);
  EXPECT_EQ(out.substr(0, 3), "17\t") << out;
  EXPECT_NE(out.find("state"), std::string::npos) << out;
  EXPECT_EQ(Ctl({"tags", "--help"}, &out), 0);
  EXPECT_NE(out.find("State tags (17, 251, 252)"), std::string::npos) << out;
  EXPECT_EQ(
      Ctl({"put", file_, "--tag", "31", "--raw", "--sample", "0=" + std::string(32, 'a')}, &out),
      2);
  EXPECT_NE(out.find("tag 31 holds raw samples of 1 to 15 bytes; 16 bytes do not fit"),
            std::string::npos)
      << out;
  EXPECT_EQ(Ctl({"put", file_, "--tag", "300", "--sample", "0=1"}, &out), 2);
  EXPECT_EQ(out, "marquelctl: put: no such tag id 300 (tag ids are 0-255)\n");
  EXPECT_EQ(Ctl({"get", file_, "--tag", "300"}, &out), 2);
  EXPECT_NE(out.find("no such tag id 300 (tag ids are 0-255)"), std::string::npos) << out;
  EXPECT_EQ(Ctl({"file", file_, "--", "get", "300"}, &out), 2);
  EXPECT_NE(out.find("no such tag id 300"), std::string::npos) << out;
}

TEST_F(Marquelctl, NumbersAreDecimalAndTimesTakeHumanForms) {
  std::string out;
  ASSERT_EQ(Ctl({"put", file_, "--tag", "040", "--sample", "010=09", "--sample", "1.5s=2",
                 "--sample", "1:02:03.5=3", "--sample", "250ms=4"},
                &out),
            0)
      << out;
  EXPECT_EQ(Ctl({"get", file_, "--tag", "40"}, &out), 0);
  EXPECT_EQ(out, "10\t9\n2500000\t4\n15000000\t2\n37235000000\t3\n");
  EXPECT_EQ(
      Ctl({"get", file_, "--tag", "40", "--from", "1s", "--to", "0:02", "--time-format", "seconds"},
          &out),
      0);
  EXPECT_EQ(out, "1.5s\t2\n");
  EXPECT_EQ(Ctl({"get", file_, "--tag", "40", "--at", "01:02:03.5", "--time-format", "hms"}, &out),
            0);
  EXPECT_EQ(out, "1:02:03.5\t3\n");
  EXPECT_EQ(Ctl({"get", file_, "--tag", "40", "--at", "1:60"}, &out), 2);
  EXPECT_EQ(Ctl({"get", file_, "--tag", "40", "--at", "10.5"}, &out), 2);
  EXPECT_EQ(out.find("0x8"), std::string::npos) << "a parse error is no HRESULT: " << out;
}

TEST_F(Marquelctl, EditsSayWhatTheyDidAndADryRunChangesNothing) {
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "100=1", "--sample", "200=2", "--sample",
                 "300=3"}),
            0);
  std::string out;
  EXPECT_EQ(Ctl({"shift", file_, "--by", "250", "--dry-run"}, &out), 0);
  EXPECT_EQ(out, "would shift 1 sample, would drop 2 that fall before 0\n");
  EXPECT_EQ(Ctl({"delete", file_, "--from", "150", "--to", "-1", "--dry-run"}, &out), 0);
  EXPECT_EQ(out, "would delete 2 samples\n");
  std::string other = MediaFile("other.mpg");
  EXPECT_EQ(
      Ctl({"copy", file_, other, "--from", "0", "--to", "250", "--at", "0", "--dry-run"}, &out), 0);
  EXPECT_EQ(out, "would copy 2 samples\n");
  EXPECT_EQ(Ctl({"get", file_, "--tag", "40"}, &out), 0);
  EXPECT_EQ(out, "100\t1\n200\t2\n300\t3\n") << "the dry runs changed nothing";
  EXPECT_EQ(Ctl({"get", other, "--tag", "40"}, &out), 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(Ctl({"delete", file_, "--from", "250", "--to", "-1"}, &out), 0);
  EXPECT_EQ(out, "deleted 1 sample\n");
  EXPECT_EQ(Ctl({"shift", file_, "--by", "150"}, &out), 0);
  EXPECT_EQ(out, "shifted 1 sample, dropped 1 that fell before 0\n");
  int32_t h2 = -1;
  ASSERT_EQ(client_->InitialFile(other.c_str(), 0, 0, &h2), S_OK);
  EXPECT_EQ(Ctl({"move", file_, other, "--from", "-1000", "--to", "-1", "--at", "0"}, &out), 0);
  EXPECT_EQ(out, "moved: " + other + " gained 1 sample, " + file_ + " lost 1 sample\n");
}

TEST_F(Marquelctl, AFailedCloseFailsTheCommandThatChangedTags) {
  // A path too long for a cache record: the server refuses the close, and the tags are
  // not kept; marquelctl must not say they were.
  const std::string name(300 - TestDir().size(), 'x');
  const std::string lost = CopyTestMedia("mpeg2ps.mpg", name + ".mpg");
  std::string out;
  EXPECT_EQ(Ctl({"put", lost, "--tag", "40", "--sample", "0=1"}, &out), 1);
  EXPECT_EQ(out.find("inserted"), std::string::npos) << out;
  EXPECT_NE(out.find("close " + lost), std::string::npos) << out;
  ASSERT_EQ(Ctl({"put", file_, "--tag", "40", "--sample", "0=1"}), 0);
  EXPECT_EQ(Ctl({"copy", file_, lost, "--from", "0", "--at", "0"}, &out), 1);
  EXPECT_EQ(out.find("copied"), std::string::npos) << out;
  EXPECT_NE(out.find("close " + lost), std::string::npos) << out;
}

}  // namespace
}  // namespace marquel::test
