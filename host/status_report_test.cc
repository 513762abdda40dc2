// The status text: the pending files' states, the fields and the ceiling.
#include "status_report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace marquel::host {
namespace {

StatusFacts SomeFacts() {
  StatusFacts f;
  f.pid = 4242;
  f.service = true;
  f.version = "9.8.7";
  f.uptime_seconds = 65;
  f.memory = 27424;
  f.resident_bytes = 5 << 20;
  f.files.push_back({0, "/videos/a.ts", {256, 512}, 11000});
  f.listed = {"/videos/b.ts", "/videos/c.mpg"};
  f.working = "/videos/c.mpg";
  f.saved = {"/videos/b.ts", "/videos/c.mpg", "/videos/d.ts"};
  return f;
}

TEST(StatusReport, TellsTheServerItsFilesAndMemoryWithItsUnit) {
  const nlohmann::json j = nlohmann::json::parse(StatusJson(SomeFacts()));
  EXPECT_EQ(j["pid"], 4242);
  EXPECT_EQ(j["mode"], "service");
  EXPECT_EQ(j["version"], "9.8.7");
  EXPECT_EQ(j["uptime_seconds"], 65);
  EXPECT_EQ(j["memory"]["figure"], 27424);
  EXPECT_EQ(j["memory"]["unit"], "bytes");
  EXPECT_EQ(j["open_file_count"], 1);
  EXPECT_EQ(j["open_files"][0]["name"], "/videos/a.ts");
  EXPECT_EQ(j["open_files"][0]["handle"], 0);
  EXPECT_EQ(j["open_files"][0]["programs"][1]["pmt_pid"], 512);
  EXPECT_EQ(j["truncated"], false);
}

TEST(StatusReport, APendingFileIsMovingWhileTheMonitorWorksOnItAndCachedOtherwise) {
  const nlohmann::json j = nlohmann::json::parse(StatusJson(SomeFacts()));
  ASSERT_EQ(j["pending_count"], 3);
  EXPECT_EQ(j["pending"][0]["file"], "/videos/b.ts");
  EXPECT_EQ(j["pending"][0]["state"], "cached");
  EXPECT_EQ(j["pending"][1]["file"], "/videos/c.mpg");
  EXPECT_EQ(j["pending"][1]["state"], "moving");
  // Only the store keeps this one: it waits in its cache for the next start.
  EXPECT_EQ(j["pending"][2]["file"], "/videos/d.ts");
  EXPECT_EQ(j["pending"][2]["state"], "cached");
  EXPECT_EQ(j["pending"][2]["listed"], false);
  EXPECT_EQ(j["pending"][2]["saved"], true);
}

TEST(StatusReport, AnAnswerPastItsCeilingLeavesEntriesOutAndSaysSo) {
  StatusFacts f = SomeFacts();
  for (int i = 0; i < 5000; ++i)
    f.listed.push_back("/videos/" + std::string(200, 'x') + std::to_string(i));
  const std::string text = StatusJson(f, 64 * 1024);
  EXPECT_LE(text.size(), 64u * 1024);
  const nlohmann::json j = nlohmann::json::parse(text);
  EXPECT_EQ(j["truncated"], true);
  EXPECT_EQ(j["pending_count"], 5003);
  EXPECT_LT(j["pending"].size(), 5003u);
  EXPECT_GT(j["pending"].size(), 100u);
  EXPECT_LE(StatusJson(f).size(), kMaxStatusBytes);
}

TEST(StatusReport, ANameThatIsNoUtf8DoesNotBreakTheAnswer) {
  StatusFacts f = SomeFacts();
  f.files[0].name = "/videos/\xff\xfe.ts";
  const nlohmann::json j = nlohmann::json::parse(StatusJson(f));
  EXPECT_EQ(j["open_file_count"], 1);
  EXPECT_EQ(j["open_files"].size(), 1u);
}

}  // namespace
}  // namespace marquel::host
