// Moving cached tags into program-stream files through the bus and marquelctl: MPEG-2 files
// take them and give them back from the file after a restart; other formats, files in use
// and missing files say what happened to their tags.
#include <filesystem>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

class Migrate : public BusTest {
 protected:
  std::string Tagged(const char* media, const char* as) { return TaggedCopy(*client_, media, as); }
  // After a restart: tag 16's values.
  std::vector<int32_t> Values(const std::string& path) {
    client_.reset();
    StopServer();
    client_ = Connect();
    int32_t h = -1;
    std::vector<int32_t> values;
    if (client_->InitialFile(path.c_str(), 0, 0, &h) != S_OK) return values;
    for (int64_t t : {100000, 500000}) {
      int32_t v = 0;
      if (client_->GetDataOne(h, 16, t, &v) == S_OK) values.push_back(v);
    }
    client_->CloseFile(h, 1);
    return values;
  }
  static uintmax_t Size(const std::string& path) { return std::filesystem::file_size(path); }
};

TEST_F(Migrate, TheToolMethodMovesMpegTwoTagsIntoTheFileAndTheyComeBackFromIt) {
  const std::string path = Tagged("mpeg2ps.mpg", "clip.mpg");
  const uintmax_t before = Size(path);
  EXPECT_EQ(client_->MoveCacheDataToOrgFile(path.c_str()), S_OK);
  EXPECT_GT(Size(path), before);
  std::string listing;
  RunProgram({MarquelctlPath(), "cache", "list", "--json"}, &listing);
  EXPECT_EQ(listing.find("clip.mpg"), std::string::npos) << "no cache entry is left";
  EXPECT_EQ(Values(path), (std::vector<int32_t>{7, 9}));
}

TEST_F(Migrate, MarquelctlMigrateSaysWhatBecameOfEachFile) {
  const std::string mpeg2 = Tagged("svcd.mpg", "svcd.mpg");
  const std::string mpeg1 = Tagged("mpeg1.mpg", "one.mpg");
  std::string out;
  EXPECT_EQ(RunProgram({MarquelctlPath(), "migrate", mpeg2, mpeg1}, &out), 0);
  EXPECT_NE(out.find("moved"), std::string::npos) << out;
  EXPECT_NE(out.find("kept in the cache"), std::string::npos) << out;
  EXPECT_EQ(Values(mpeg2), (std::vector<int32_t>{7, 9}));
  EXPECT_EQ(Values(mpeg1), (std::vector<int32_t>{7, 9}));
}

TEST_F(Migrate, AFileInUseOrMissingIsNotMovedAndSaysSo) {
  const std::string path = Tagged("mpeg2ps.mpg", "busy.mpg");
  const uintmax_t before = Size(path);
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(client_->MoveCacheDataToOrgFile(path.c_str()), S_FALSE);
  EXPECT_EQ(Size(path), before);
  EXPECT_EQ(client_->CloseFile(h, 0), S_OK);
  EXPECT_EQ(client_->MoveCacheDataToOrgFile(TestPath("gone.mpg").c_str()), E_FAIL);
  std::string out;
  // The server refused the move: a refusal, not an unreachable server.
  EXPECT_EQ(RunProgram({MarquelctlPath(), "migrate", TestPath("gone.mpg")}, &out), 1);
  EXPECT_EQ(Values(path), (std::vector<int32_t>{7, 9}));
}

// Tags that would take over more than half of a transport stream are refused: the tool
// method fails (never S_OK for a move that did not happen), the file is left as it was,
// and every tag still comes back from the cache.
TEST_F(Migrate, ATransportStreamTooSmallForItsTagsIsNotMovedAndSaysSo) {
  const std::string path = CopyTestMedia("ts188.ts", "small.ts");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  std::vector<MarquelOneTag> tags;
  for (int32_t i = 0; i < 30000; ++i) tags.push_back({int64_t{i} * 2000000, i & 0xFFFF});
  ASSERT_EQ(client_->InsertDataPeriod(h, 19, tags.data(), 30000), S_OK);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  const uintmax_t before = Size(path);
  EXPECT_EQ(client_->MoveCacheDataToOrgFile(path.c_str()), E_FAIL);
  EXPECT_EQ(Size(path), before);
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(PlainPairs(*client_, h, 19).size(), 30000u) << "the tags stay in the cache";
  client_->CloseFile(h, 1);
}

}  // namespace
}  // namespace marquel::test
