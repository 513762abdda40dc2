// The server's status as a user asks for it: com.halvern.Marquel.Status1 on the bus and
// `marquelctl status`, with the server running and without it.
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "marquel/version.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using Status = BusTest;

int Ctl(std::vector<std::string> args, std::string* out) {
  args.insert(args.begin(), MarquelctlPath());
  return RunProgram(args, out);
}

std::string StatusXmlPath() {
  const std::string api = MARQUEL_API_XML;
  return api.substr(0, api.rfind('/')) + "/marquel_status.xml";
}

TEST_F(Status, TheStatusMethodAnswersOneJsonTextAsItsXmlFileSays) {
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = RawProxy(*connection);
  std::string text;
  proxy->callMethod("Status").onInterface("com.halvern.Marquel.Status1").storeResultsTo(text);
  const nlohmann::json j = nlohmann::json::parse(text);
  EXPECT_EQ(j["pid"], ServerPid());
  EXPECT_EQ(j["mode"], "on demand");
  EXPECT_EQ(j["version"], MARQUEL_VERSION);
  EXPECT_EQ(j["memory"]["unit"], "bytes");
  EXPECT_GT(j["memory"]["resident"].get<int64_t>(), 0);
  EXPECT_EQ(j["open_file_count"], 0);
  // The running object describes the interface as its own file does.
  std::string xml;
  proxy->callMethod("Introspect")
      .onInterface("org.freedesktop.DBus.Introspectable")
      .storeResultsTo(xml);
  EXPECT_NE(xml.find("<interface name=\"com.halvern.Marquel.Status1\">"), std::string::npos);
  EXPECT_NE(xml.find("<method name=\"Status\">"), std::string::npos);
  const std::string described = ReadFile(StatusXmlPath());
  EXPECT_NE(described.find("<interface name=\"com.halvern.Marquel.Status1\">"), std::string::npos);
  EXPECT_NE(described.find("<arg name=\"json\" type=\"s\" direction=\"out\"/>"), std::string::npos);
}

TEST_F(Status, MarquelctlShowsTheServerItsOpenFilesAndThePendingMoves) {
  const std::string pending = TaggedCopy(*client_, "ts188.ts", "waiting.ts");
  const std::string open = MediaFile("open.avi", 4096);
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(open.c_str(), 0, 0, &h), S_OK);
  std::string out;
  ASSERT_EQ(Ctl({"status", "--json"}, &out), 0) << out;
  const nlohmann::json j = nlohmann::json::parse(out);
  EXPECT_EQ(j["server"]["pid"], ServerPid());
  EXPECT_EQ(j["server"]["mode"], "on demand");
  EXPECT_EQ(j["server"]["version"], MARQUEL_VERSION);
  EXPECT_GE(j["server"]["uptime_seconds"].get<int64_t>(), 0);
  EXPECT_EQ(j["memory_unit"], "bytes");
  ASSERT_EQ(j["files"].size(), 1u);
  EXPECT_EQ(j["files"][0]["handle"], h);
  EXPECT_EQ(j["files"][0]["name"], open);
  EXPECT_EQ(j["files"][0]["programs"].size(), 1u);
  // The monitor's rounds are far apart here: the move waits in its cache.
  ASSERT_EQ(j["pending_moves"].size(), 1u);
  EXPECT_EQ(j["pending_moves"][0]["file"], pending);
  EXPECT_EQ(j["pending_moves"][0]["state"], "cached");
  EXPECT_EQ(j["pending_moves"][0]["saved"], true);
  ASSERT_EQ(Ctl({"status"}, &out), 0) << out;
  EXPECT_NE(out.find("server\tpid " + std::to_string(ServerPid()) + ", on demand, version " +
                     MARQUEL_VERSION),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("handle " + std::to_string(h) + "\t" + open), std::string::npos) << out;
  EXPECT_NE(out.find("cached\t" + pending), std::string::npos) << out;
  EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
}

// Each FILE's state says where its tags are: waiting in a cache for the move, kept in a
// cache with no move to come, in the file itself, or nowhere.
TEST_F(Status, StatusOfAFileSaysWhetherItsTagsAreCachedInTheFileOrNowhere) {
  const std::string waiting = TaggedCopy(*client_, "mpeg2ps.mpg", "waiting.mpg");
  const std::string kept = CopyTestMedia("mpeg2ps.mpg", "kept.mpg");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(kept.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->InsertDataOne(h, 16, 100000, 7), S_OK);
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);  // kept in the cache: no move pending
  const std::string bare = CopyTestMedia("mpeg2ps.mpg", "bare.mpg");
  std::string out;
  ASSERT_EQ(Ctl({"status", waiting, kept, bare, "--json"}, &out), 0) << out;
  nlohmann::json j = nlohmann::json::parse(out);
  ASSERT_EQ(j["pending"].size(), 3u);
  EXPECT_EQ(j["pending"][0]["state"], "cached");
  EXPECT_EQ(j["pending"][0]["done"], false);
  EXPECT_EQ(j["pending"][1]["state"], "cached") << "nothing pending is not yet in the file";
  EXPECT_EQ(j["pending"][1]["done"], true);
  EXPECT_EQ(j["pending"][2]["state"], "no tags");
  ASSERT_EQ(client_->MoveCacheDataToOrgFile(kept.c_str()), S_OK);
  ASSERT_EQ(Ctl({"status", kept}, &out), 0) << out;
  EXPECT_NE(out.find("in file\t" + kept), std::string::npos) << out;
}

TEST_F(Status, WithoutAServerMarquelctlShowsTheSavedMovesAndExits3) {
  const std::string pending = TaggedCopy(*client_, "ts188.ts", "waiting.ts");
  client_.reset();
  StopServer();  // the monitor saves its list in the store
  std::filesystem::remove(TestDir() + "/data/dbus-1/services/com.halvern.Marquel64.service");
  std::string out;
  EXPECT_EQ(Ctl({"status", "--json"}, &out), 3);
  const nlohmann::json j = nlohmann::json::parse(out);
  EXPECT_TRUE(j["server"].is_null());
  EXPECT_EQ(j["saved_pending"], nlohmann::json::array({pending}));
  EXPECT_EQ(Ctl({"status"}, &out), 3);
  EXPECT_NE(out.find("server\tnot running"), std::string::npos) << out;
  EXPECT_NE(out.find("saved pending\t" + pending), std::string::npos) << out;
}

}  // namespace
}  // namespace marquel::test
