// Tags moved into a transport stream and then damaged on disk (a byte of the information
// packet, an MQ packet lost, a byte inside a block) through the bus: the open rejects the
// file's data and logs why, then takes the cache when the file has one and opens empty
// when not, and QueryMQExisted / QueryMQDataStatus say which; the close monitor's next
// move puts the cached tags back into the file.
#include <functional>
#include <string>
#include <vector>

#include "ts_move_util.h"

namespace marquel::test {
namespace {

constexpr int32_t kUnit = 188;

class MovedTsDamage : public TsMove {
 protected:
  // With the server's log on: tags ts188.ts, moves the tags into it, and makes a copy
  // without any cache ("bare"). The moved file is then opened, tagged again and closed, so
  // that its cache holds the file's samples and the new ones (and the file waits for the
  // monitor's next round, which comes only after a start in these tests). Both files are
  // then damaged by `damage`, their time kept.
  void MoveTagAgainAndDamage(const std::function<void(Bytes&)>& damage) {
    LogToFile(LogPath());
    moved_ = CopyTestMedia("ts188.ts", "moved.ts");
    TagFile(moved_, 1, 10);
    ASSERT_EQ(client_->MoveCacheDataToOrgFile(moved_.c_str()), S_OK);
    ASSERT_FALSE(Cached(moved_));
    bare_ = TestPath("bare.ts");
    WriteBytes(bare_, ReadBytes(moved_));
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(moved_.c_str(), 0, 0, &h), S_OK);
    ASSERT_EQ(Found(h), std::make_pair(1, 1));
    for (auto [t, v] : Samples(60))
      ASSERT_EQ(client_->InsertDataOne2(h, 0, kByteTag, t, v & 0xFF), S_OK);
    ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
    ASSERT_TRUE(Cached(moved_));
    DamageKeepingTime(moved_, damage);
    DamageKeepingTime(bare_, damage);
  }

  // Every sample of the moved file: the first ones and those of the second close.
  void ExpectEverySample(int32_t h) {
    ExpectSamples(*client_, h, 0, 10);
    int32_t n = 0;
    ASSERT_EQ(client_->QueryOneTagSize2(h, 0, kByteTag, &n), S_OK);
    EXPECT_EQ(n, kRawSamples + 40) << "the cache's new samples and the old ones";
  }

  // The bare copy opens empty; the moved file takes its cache, with every sample. The
  // server's next start moves the cache into the damaged file again, and every sample
  // then comes from the file.
  void ExpectFallbacks(const std::string& line) {
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(bare_.c_str(), 0, 0, &h), S_OK);
    EXPECT_EQ(Found(h), std::make_pair(0, 0));
    EXPECT_TRUE(ProgramPlainSamples(*client_, h, 0).empty());
    EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
    ASSERT_EQ(client_->InitialFile(moved_.c_str(), 0, 0, &h), S_OK);
    EXPECT_EQ(Found(h), std::make_pair(1, 2));
    ExpectEverySample(h);
    EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
    const std::string log = ReadFile(LogPath());
    size_t count = 0;
    for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++count;
    EXPECT_EQ(count, 2u) << line << " once per open in:\n" << log;
    Restart();
    ASSERT_TRUE(WaitForMoveDone(*client_, moved_));
    ASSERT_EQ(client_->InitialFile(moved_.c_str(), 0, 0, &h), S_OK);
    EXPECT_EQ(Found(h), std::make_pair(1, 1));
    ExpectEverySample(h);
    EXPECT_FALSE(Cached(moved_)) << "the move took the cache";
    EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
  }

  // Offsets of the MQ packets of the moved file as it is now.
  static std::vector<size_t> MQUnits(const Bytes& file) {
    const std::optional<MQTsInfo> info = InfoOf(file, kUnit);
    return info ? UnitsOn(file, kUnit, info->mq_pid) : std::vector<size_t>{};
  }

  static std::string LogPath() { return TestPath("server.log"); }

  std::string moved_;
  std::string bare_;
};

TEST_F(MovedTsDamage, AByteOfTheInformationPacketRejectsTheFilesData) {
  ASSERT_NO_FATAL_FAILURE(MoveTagAgainAndDamage([](Bytes& file) {
    ASSERT_FALSE(MQUnits(file).empty());
    file[file.size() - kUnit + 20] ^= 0x40;  // inside "MQDATA"
    ASSERT_TRUE(MQUnits(file).empty());
  }));
  ExpectFallbacks("MQ information packet in the file is damaged, ignored");
}

TEST_F(MovedTsDamage, ALostMQPacketLeavesAHoleThatRejectsTheFilesData) {
  ASSERT_NO_FATAL_FAILURE(MoveTagAgainAndDamage([](Bytes& file) {
    const std::vector<size_t> mq = MQUnits(file);
    ASSERT_GT(mq.size(), 4u);
    NullUnitAt(file, mq[mq.size() / 2], kUnit);
  }));
  ExpectFallbacks("MQ packets of program 0 in the file are damaged");
}

TEST_F(MovedTsDamage, AByteInsideABlockRejectsTheFilesData) {
  ASSERT_NO_FATAL_FAILURE(MoveTagAgainAndDamage([](Bytes& file) {
    const std::vector<size_t> mq = MQUnits(file);
    ASSERT_GT(mq.size(), 4u);
    file[mq[mq.size() / 2] + 4 + 100] ^= 0x40;  // payload of a packet of the data stream
  }));
  ExpectFallbacks("MQ data of program 0 in the file at");
}

}  // namespace
}  // namespace marquel::test
