// Tags kept inside a transport stream, as MQ packets on their own PID and an information
// packet at the end, come back through the bus for every program; damaged data is never
// taken. The test lays the packets out with the server's packetizer and block codec.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "in_file_test_util.h"
#include "media/mq_ts_info.h"
#include "media/mq_ts_packetizer.h"
#include "sample_set.h"
#include "tags/block_content.h"
#include "tags/block_writer.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kMQPid = 8160;

// A copy of test medium `media` (units of `unit` bytes) with Samples(seed + i) for each
// of `programs` programs (PMT PIDs from 0x1000) appended as MQ packets, then the
// information packet. *start is where the first program's packets begin.
std::string StreamWithTags(const char* media, int32_t unit, int32_t programs, int32_t seed,
                           int64_t* start) {
  std::ifstream in(std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + media, std::ios::binary);
  Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  *start = static_cast<int64_t>(file.size());
  MQTsInfo info;
  info.original_mtime = 1700000000;
  info.original_size = file.size();
  info.mq_pid = kMQPid;
  info.merge_mtime = 1700000001;
  for (int32_t i = 0; i < programs; ++i) {
    BlockContent content;
    for (auto [t, v] : Samples(seed + i)) content.tags[kPlainTag].AddPlain(t, v);
    const Bytes block = EncodeBlockBytes(content);
    MQTsPacketizer packetizer(unit, kMQPid, [&file](const uint8_t* b, size_t n) {
      file.insert(file.end(), b, b + n);
      return true;
    });
    EXPECT_TRUE(packetizer.Feed(block.data(), block.size()));
    EXPECT_TRUE(packetizer.Finish());
    info.programs.push_back({static_cast<uint16_t>(0x1000 + i), static_cast<int64_t>(file.size())});
  }
  Bytes last;
  EXPECT_TRUE(SerialiseMQTsInfo(info, unit, &last));
  file.insert(file.end(), last.begin(), last.end());
  std::string path = TestPath(std::string("inside_") + media);
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
  return path;
}

class InFileTs : public BusTest {};

TEST_F(InFileTs, EveryProgramInTheFileComesBackThroughTheBus) {
  struct Case {
    const char* media;
    int32_t unit;
    int32_t programs;
  };
  for (const Case& c :
       {Case{"ts2prog.ts", 188, 2}, Case{"m2ts192.ts", 192, 1}, Case{"ts204.ts", 204, 1}}) {
    int64_t start = 0;
    const std::string path = StreamWithTags(c.media, c.unit, c.programs, 5, &start);
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK) << c.media;
    int32_t existed = 0, status = -1;
    int64_t address = 0;
    ASSERT_EQ(client_->QueryMQExisted(h, &existed), S_OK);
    ASSERT_EQ(client_->QueryMQDataStatus(h, &status), S_OK);
    ASSERT_EQ(client_->GetMQDataStartAddress(h, &address), S_OK);
    EXPECT_EQ(existed, 1) << c.media;
    EXPECT_EQ(status, 1) << c.media;
    EXPECT_EQ(address, start) << c.media;
    for (int32_t i = 0; i < c.programs; ++i) {
      EXPECT_EQ(ProgramPlainSamples(*client_, h, i), Samples(5 + i)) << c.media << " program " << i;
    }
    ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
  }
}

TEST_F(InFileTs, ALaterCloseKeepsItsTagsOverTheOlderCopyInTheFile) {
  int64_t start = 0;
  const std::string path = StreamWithTags("ts2prog.ts", 188, 2, 5, &start);
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(ProgramPlainSamples(*client_, h, 1), Samples(6));
  for (auto [t, v] : Samples(9)) ASSERT_EQ(client_->InsertDataOne2(h, 1, kPlainTag, t, v), S_OK);
  const auto both = ProgramPlainSamples(*client_, h, 1);
  ASSERT_EQ(both.size(), 80u);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  // Opened again before the close monitor's next round: the cache wins over the file.
  int32_t status = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->QueryMQDataStatus(h, &status), S_OK);
  EXPECT_EQ(status, 2);
  EXPECT_EQ(ProgramPlainSamples(*client_, h, 1), both);
  EXPECT_EQ(ProgramPlainSamples(*client_, h, 0), Samples(5));
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  // The round at the next start moves the cache into the file, over the older copy.
  client_.reset();
  StopServer();
  client_ = Connect();
  ASSERT_TRUE(WaitForMoveDone(*client_, path));
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->QueryMQDataStatus(h, &status), S_OK);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(ProgramPlainSamples(*client_, h, 1), both);
  EXPECT_EQ(ProgramPlainSamples(*client_, h, 0), Samples(5));
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
}

TEST_F(InFileTs, ADamagedInformationPacketOrBlockIsNotTaken) {
  for (int64_t back : {188 - 20, 0}) {
    int64_t start = 0;
    const std::string path = StreamWithTags("ts188.ts", 188, 1, 7, &start);
    // A byte of "MQDATA" in the information packet, or of the block's header.
    const int64_t at = back != 0 ? std::filesystem::file_size(path) - back : start + 5 + 2;
    FlipByte(path, at);
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    int32_t existed = -1, status = -1;
    ASSERT_EQ(client_->QueryMQExisted(h, &existed), S_OK);
    ASSERT_EQ(client_->QueryMQDataStatus(h, &status), S_OK);
    EXPECT_EQ(existed, 0) << back;
    EXPECT_EQ(status, 0) << back;
    EXPECT_TRUE(ProgramPlainSamples(*client_, h, 0).empty()) << back;
    ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
  }
}

}  // namespace
}  // namespace marquel::test
