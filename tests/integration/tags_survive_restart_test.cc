// Tags survive close and reopen through the real bus and server: a client inserts samples
// and closes the file, the server is stopped and started again, and a new open gives
// every sample back. Every cache file the server wrote decodes with "block dump".
#include <nlohmann/json.hpp>

#include <filesystem>
#include <utility>
#include <vector>

#include "bus_fixture.h"
#include "sample_set.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

struct Media {
  const char* source;
  const char* as;
  bool two_programs;
  bool pending;  // the close returns 2: the move into the file is pending
};

class TagsSurviveRestart : public BusTest, public testing::WithParamInterface<Media> {};

TEST_P(TagsSurviveRestart, EverySampleComesBack) {
  const Media& m = GetParam();
  std::filesystem::create_directories(TestPath("disc/VIDEO_TS"));
  std::string path = TestPath(std::string("disc/VIDEO_TS/") + m.as);
  std::filesystem::copy_file(std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + m.source, path);

  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  Insert(*client_, h, 0, 5);
  if (m.two_programs) {
    ASSERT_EQ(client_->SetPMTPID(h, 0, 0x1000), S_OK);
    int32_t index = -1;
    ASSERT_EQ(client_->InsertNewProgram(h, 0x1001, &index), S_OK);
    ASSERT_EQ(index, 1);
    Insert(*client_, h, 1, 6);
  }
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);

  int32_t done = -1;
  ASSERT_EQ(client_->IsWriteToFileDone(path.c_str(), &done), S_OK);
  EXPECT_EQ(done, m.pending ? 0 : 1) << "a close that returns 2 puts the file on the list";

  client_.reset();
  StopServer();
  ASSERT_EQ(ServerPid(), -1);
  // While no server runs, the cache is as the close left it.
  std::string listing;
  ASSERT_EQ(RunProgram({MarquelctlPath(), "cache", "list", "--json"}, &listing), 0);
  nlohmann::json entries = nlohmann::json::parse(listing)["entries"];
  ASSERT_EQ(entries.size(), 1u) << listing;
  ASSERT_EQ(entries[0]["cache_files"].size(), m.two_programs ? 2u : 1u);
  for (const auto& file : entries[0]["cache_files"]) {
    std::string dump;
    EXPECT_EQ(RunProgram({MarquelctlPath(), "block", "dump", file["path"]}, &dump), 0);
    EXPECT_NE(dump.find("tag 19 "), std::string::npos) << dump;
  }

  client_ = Connect();  // the next call starts a new server
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  int32_t existed = 0;
  ASSERT_EQ(client_->QueryMQExisted(h, &existed), S_OK);
  EXPECT_EQ(existed, 1);
  ExpectSamples(*client_, h, 0, 5);
  if (m.two_programs) {
    int32_t count = 0;
    ASSERT_EQ(client_->GetMQProgramCounts(h, &count), S_OK);
    ASSERT_EQ(count, 2);
    int32_t pids[2] = {};
    ASSERT_EQ(client_->GetMQPMTPIDS(h, 2, pids), S_OK);
    EXPECT_EQ(pids[0], 0x1000);
    EXPECT_EQ(pids[1], 0x1001);
    ExpectSamples(*client_, h, 1, 6);
  }
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
}

INSTANTIATE_TEST_SUITE_P(Formats, TagsSurviveRestart,
                         testing::Values(Media{"mpeg1.mpg", "a.mpg", false, false},
                                         Media{"svcd.mpg", "b.mpg", false, true},
                                         Media{"dvd.vob", "VTS_01_1.VOB", false, false},
                                         Media{"mpeg2ps.mpg", "c.mpg", false, true},
                                         Media{"ts2prog.ts", "d.ts", true, true},
                                         Media{"avi.avi", "e.avi", false, false},
                                         Media{"mp4.mp4", "f.mp4", false, false}),
                         [](const testing::TestParamInfo<Media>& info) {
                           std::string name = info.param.source;
                           return name.substr(0, name.find('.'));
                         });

}  // namespace
}  // namespace marquel::test
