// The close monitor through the real server: a closed MPEG-2, SVCD or transport-stream
// file's tags move into the file with no further call, IsWriteToFileDone turns 1, and
// the pending list outlasts a stop and a start.
#include <filesystem>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

class CloseMonitor : public BusTest {
 protected:
  CloseMonitor() { monitor_interval_ms_ = 200; }

  // Polls IsWriteToFileDone for up to 20 s.
  bool Done(const std::string& path) { return WaitForMoveDone(*client_, path); }
  // Tag 16's values and where they came from (QueryMQDataStatus).
  std::vector<int32_t> Values(const std::string& path, int32_t* status) {
    int32_t h = -1;
    std::vector<int32_t> values;
    if (client_->InitialFile(path.c_str(), 0, 0, &h) != S_OK) return values;
    client_->QueryMQDataStatus(h, status);
    for (int64_t t : {100000, 500000}) {
      int32_t v = 0;
      if (client_->GetDataOne(h, 16, t, &v) == S_OK) values.push_back(v);
    }
    client_->CloseFile(h, 1);
    return values;
  }
  bool Cached(const std::string& name) {
    std::string listing;
    RunProgram({MarquelctlPath(), "cache", "list", "--json"}, &listing);
    return listing.find(name) != std::string::npos;
  }
};

class CloseMonitorMedia : public CloseMonitor, public testing::WithParamInterface<const char*> {};

TEST_P(CloseMonitorMedia, AClosedFileGetsItsTagsInsideWithNoFurtherCall) {
  const std::string name = std::string("clip_") + GetParam();
  const std::string path = TaggedCopy(*client_, GetParam(), name);
  const auto before = std::filesystem::file_size(path);
  ASSERT_TRUE(Done(path)) << "the monitor moves the tags within a few rounds";
  EXPECT_GT(std::filesystem::file_size(path), before);
  EXPECT_FALSE(Cached(name)) << "no cache is left";
  int32_t status = -1;
  EXPECT_EQ(Values(path, &status), (std::vector<int32_t>{7, 9}));
  EXPECT_EQ(status, 1) << "read from the file itself";
}

INSTANTIATE_TEST_SUITE_P(ProgramStreams, CloseMonitorMedia,
                         testing::Values("mpeg2ps.mpg", "svcd.mpg"));
INSTANTIATE_TEST_SUITE_P(TransportStreams, CloseMonitorMedia,
                         testing::Values("ts188.ts", "m2ts192.ts", "ts204.ts"));

class PendingAcrossRestart : public BusTest {};

TEST_F(PendingAcrossRestart, AMoveLeftAtAStopIsDoneAfterTheNextStart) {
  const std::string path = CopyTestMedia("mpeg2ps.mpg", "later.mpg");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->InsertDataOne2(h, 0, 16, 100000, 7), S_OK);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  int32_t done = -1;
  ASSERT_EQ(client_->IsWriteToFileDone(path.c_str(), &done), S_OK);
  EXPECT_EQ(done, 0) << "the rounds of this server are far apart";
  const auto before = std::filesystem::file_size(path);
  client_.reset();
  StopServer();
  // The next server's first round takes the saved list at once.
  client_ = Connect();
  int32_t count = 0;
  client_->QueryFileCount(&count);  // a first call starts it
  // The file grows while the move runs, so it is done first and then looked at.
  EXPECT_TRUE(WaitForMoveDone(*client_, path));
  EXPECT_GT(std::filesystem::file_size(path), before);
}

}  // namespace
}  // namespace marquel::test
