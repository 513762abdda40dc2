// Tags kept inside a program stream, as the server's own 0xFA packs closed by the end
// record, come back through the bus; a later close's cache wins over that older copy;
// damaged data in the file is never taken. The test makes the packs with the server's
// muxer and block codec, as the in-file writer lays them out.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include "bus_fixture.h"
#include "in_file_test_util.h"
#include "media/mq_end_record.h"
#include "media/mq_pack_muxer.h"
#include "sample_set.h"
#include "tags/block_content.h"
#include "tags/block_writer.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using Bytes = std::vector<uint8_t>;
using Pairs = std::vector<std::pair<int64_t, int32_t>>;

constexpr int64_t kRecordTime = 1700000000;

// A copy of the MPEG-2 test stream with Samples(seed) packed at its end. *start is where
// the packs begin, *record where the end record is.
std::string StreamWithTags(int32_t seed, int64_t* start, int64_t* record) {
  std::string path = TestPath("inside.mpg");
  std::ifstream in(std::string(MARQUEL_TEST_MEDIA_DIR) + "/mpeg2ps.mpg", std::ios::binary);
  Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  *start = static_cast<int64_t>(file.size());
  BlockContent content;
  for (auto [t, v] : Samples(seed)) content.tags[kPlainTag].AddPlain(t, v);
  Bytes block = EncodeBlockBytes(content);
  MQPackMuxer muxer;
  muxer.SetType(MQPackMuxer::kTypeMpeg2);
  EXPECT_EQ(muxer.Initialise(0), 1);
  for (size_t at = 0; at < block.size();) at += muxer.Feed(block.data() + at, block.size() - at);
  MQEndRecord end;
  end.start_address = *start;
  end.original_mtime = kRecordTime;
  end.original_size = static_cast<uint64_t>(*start);
  EXPECT_EQ(muxer.Flush(&end), 1);
  Bytes packs(muxer.OutputCount());
  muxer.TakeOutput(packs.data(), packs.size());
  file.insert(file.end(), packs.begin(), packs.end());
  auto found =
      FindMQEndRecordInTail(file.data(), file.size(), 0, static_cast<int64_t>(file.size()));
  *record = found ? found->offset : -1;
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
  return path;
}

// The plain samples of program 0.
Pairs PlainSamples(IMarquelClient& c, int32_t h) {
  return ProgramPlainSamples(c, h, 0);
}

class InFileData : public BusTest {};

TEST_F(InFileData, TagsInTheFileAreReadAndALaterCloseKeepsItsOwn) {
  int64_t start = 0, record = 0;
  std::string path = StreamWithTags(5, &start, &record);
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  int32_t existed = 0, status = -1;
  int64_t address = 0;
  ASSERT_EQ(client_->QueryMQExisted(h, &existed), S_OK);
  ASSERT_EQ(client_->GetMQDataStartAddress(h, &address), S_OK);
  ASSERT_EQ(client_->QueryMQDataStatus(h, &status), S_OK);
  EXPECT_EQ(existed, 1);
  EXPECT_EQ(address, start);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(PlainSamples(*client_, h), Samples(5));

  // More tags, closed into the cache (the move into the file is left pending): the file
  // still holds the older copy, and its own time is later than the cache's.
  for (auto [t, v] : Samples(6)) ASSERT_EQ(client_->InsertDataOne2(h, 0, kPlainTag, t, v), S_OK);
  Pairs both = PlainSamples(*client_, h);
  ASSERT_EQ(both.size(), 80u);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  client_.reset();
  StopServer();

  // The next server's monitor may move the cache into the file first (its first round
  // runs at the start): then the data begins at or before where the older copy began.
  client_ = Connect();
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(PlainSamples(*client_, h), both);
  ASSERT_EQ(client_->GetMQDataStartAddress(h, &address), S_OK);
  EXPECT_LE(address, start);
  EXPECT_GT(address, start / 2);
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
}

TEST_F(InFileData, ADamagedEndRecordOrBlockIsNotTaken) {
  for (bool damage_record : {true, false}) {
    int64_t start = 0, record = 0;
    std::string path = StreamWithTags(7, &start, &record);
    ASSERT_GT(record, start);
    // The last field of the record, or a byte of the block's header in the first pack.
    FlipByte(path, damage_record ? record + 30 : start + 14 + 9 + 4);
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    int32_t existed = -1, status = -1;
    ASSERT_EQ(client_->QueryMQExisted(h, &existed), S_OK);
    ASSERT_EQ(client_->QueryMQDataStatus(h, &status), S_OK);
    EXPECT_EQ(existed, 0) << damage_record;
    EXPECT_EQ(status, 0) << damage_record;
    EXPECT_TRUE(PlainSamples(*client_, h).empty()) << damage_record;
    ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
  }
}

}  // namespace
}  // namespace marquel::test
