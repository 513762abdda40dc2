// Moving cached tags into real transport streams (188-, 192- and 204-byte units, one and
// two programs) through the bus: every sample of every program comes back from the file
// after a restart, the cache entry is gone, the original units are kept byte for byte
// (prefixes included) and a player decodes the same frames; a second move replaces the
// first one's packets.
#include <algorithm>
#include <string>
#include <vector>

#include "testsupport/ffmpeg.h"
#include "ts_move_util.h"

namespace marquel::test {
namespace {

struct Media {
  const char* name;
  int32_t unit;
  int32_t programs;
  int32_t first_pmt_pid;  // as ffmpeg wrote it; further programs follow it
};

// 204-byte units whose 16 prefix bytes differ from unit to unit (bytes of the unit's
// index), so that a writer that rewrote a prefix would be caught. 0x47 is avoided so that
// a player's resync never takes a prefix byte for a sync byte.
void NumberPrefixes(const std::string& path) {
  Bytes file = ReadBytes(path);
  for (size_t at = 0, index = 0; at + 204 <= file.size(); at += 204, ++index) {
    for (size_t k = 0; k < 16; ++k) {
      const auto b = static_cast<uint8_t>((index >> (8 * (k % 4))) + k * 16);
      file[at + k] = b == 0x47 ? 0x46 : b;
    }
  }
  WriteBytes(path, file);
}

class MigrateTs : public TsMove {
 protected:
  struct Before {
    Bytes file;
    std::string frames;
    std::string probe;
  };

  Before Prepare(const Media& m, std::string* path) {
    *path = CopyTestMedia(m.name, std::string("moved_") + m.name);
    if (m.unit == 204) NumberPrefixes(*path);
    return {ReadBytes(*path), fftest::FrameMd5(*path), fftest::ProbeErrors(*path)};
  }

  // The file after a move: one information packet naming every program, each program's
  // MQ packets one run with counters 0, 1, 2 ..., the original units in order byte for
  // byte, nothing changed before the first MQ packet, and the same decoded frames.
  void ExpectSoundFile(const std::string& path, const Before& before, const Media& m) {
    const Bytes file = ReadBytes(path);
    const std::optional<MQTsInfo> info = InfoOf(file, m.unit);
    ASSERT_TRUE(info.has_value()) << m.name;
    ASSERT_EQ(static_cast<int32_t>(info->programs.size()), m.programs) << m.name;
    EXPECT_EQ(UnitsOn(file, m.unit, kMQInfoPid).size(), 1u) << m.name;
    EXPECT_TRUE(UnitsOn(before.file, m.unit, info->mq_pid).empty()) << m.name;
    const std::vector<size_t> mq = UnitsOn(file, m.unit, info->mq_pid);
    ASSERT_FALSE(mq.empty()) << m.name;
    for (size_t p = 0; p < info->programs.size(); ++p)
      EXPECT_EQ(info->programs[p].pmt_pid, m.first_pmt_pid + p) << m.name << " program " << p;
    size_t next = 0;
    for (const MQTsInfoProgram& program : info->programs) {
      int32_t counter = 0;
      for (; next < mq.size() && static_cast<int64_t>(mq[next]) < program.end_offset; ++next)
        ASSERT_EQ(UnitCounter(file, mq[next], m.unit), counter++ % 16)
            << m.name << " at " << mq[next];
      EXPECT_GT(counter, 16) << m.name << ": each block spans more than one counter cycle";
    }
    EXPECT_EQ(next, mq.size()) << m.name << ": MQ packets after the last program's end";
    EXPECT_TRUE(MediaUnits(file, m.unit, info->mq_pid) ==
                MediaUnits(before.file, m.unit, info->mq_pid))
        << m.name;
    EXPECT_TRUE(std::equal(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(mq.front()),
                           before.file.begin()))
        << m.name;
    EXPECT_EQ(fftest::FrameMd5(path), before.frames) << m.name;
    EXPECT_EQ(fftest::ProbeErrors(path), before.probe) << m.name;
  }

  void MovesAndComesBack(const Media& m) {
    if (!fftest::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg and ffprobe are needed to compare frames";
    std::string path;
    const Before before = Prepare(m, &path);
    ASSERT_EQ(before.frames.rfind("failed", 0), std::string::npos) << before.frames;
    TagFile(path, m.programs, 10);
    ASSERT_TRUE(Cached(path));
    ASSERT_EQ(client_->MoveCacheDataToOrgFile(path.c_str()), S_OK) << m.name;
    EXPECT_FALSE(Cached(path)) << m.name << ": the data now comes from the file";
    ExpectSoundFile(path, before, m);
    Restart();
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    EXPECT_EQ(Found(h), std::make_pair(1, 1)) << m.name;
    for (int32_t p = 0; p < m.programs; ++p) ExpectProgram(h, p, 10 + p);
    EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
  }
};

TEST_F(MigrateTs, TagsOfA188ByteStreamMoveIntoItAndComeBackFromIt) {
  MovesAndComesBack({"ts188.ts", 188, 1, 0x1000});
}

TEST_F(MigrateTs, TagsOfA192ByteStreamMoveIntoItKeepingEveryTimeCodePrefix) {
  MovesAndComesBack({"m2ts192.ts", 192, 1, 0x100});
}

TEST_F(MigrateTs, TagsOfA204ByteStreamMoveIntoItKeepingEveryDistinctPrefix) {
  MovesAndComesBack({"ts204.ts", 204, 1, 0x1000});
}

TEST_F(MigrateTs, TagsOfBothProgramsOfATwoProgramStreamMoveIntoItAndComeBack) {
  MovesAndComesBack({"ts2prog.ts", 188, 2, 0x1000});
}

TEST_F(MigrateTs, ASecondMoveReplacesTheFirstAndKeepsOldAndNewSamples) {
  if (!fftest::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg and ffprobe are needed to compare frames";
  const Media m{"ts2prog.ts", 188, 2, 0x1000};
  std::string path;
  const Before before = Prepare(m, &path);
  TagFile(path, m.programs, 10);
  ASSERT_EQ(client_->MoveCacheDataToOrgFile(path.c_str()), S_OK);
  Restart();
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(Found(h), std::make_pair(1, 1));
  // New plain samples fall between the old ones (other time codes).
  for (int32_t p = 0; p < m.programs; ++p)
    for (auto [t, v] : Samples(50 + p))
      ASSERT_EQ(client_->InsertDataOne2(h, p, kPlainTag, t, v), S_OK);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  ASSERT_EQ(client_->MoveCacheDataToOrgFile(path.c_str()), S_OK);
  EXPECT_FALSE(Cached(path));
  ExpectSoundFile(path, before, m);
  Restart();
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(Found(h), std::make_pair(1, 1));
  for (int32_t p = 0; p < m.programs; ++p) {
    auto both = Samples(10 + p);
    const auto added = Samples(50 + p);
    both.insert(both.end(), added.begin(), added.end());
    std::sort(both.begin(), both.end());
    EXPECT_EQ(ProgramPlainSamples(*client_, h, p), both) << "program " << p;
    uint8_t raw[4] = {};
    ASSERT_EQ(client_->GetRawDataOne2(h, p, kRawTag, 77, 4, raw), S_OK);
    EXPECT_EQ(raw[0], uint8_t(10 + p));
    Bytes got(kRawBytes);
    ASSERT_EQ(client_->GetRawDataOne2(h, p, kWideRawTag, 1000, kRawBytes, got.data()), S_OK);
    EXPECT_EQ(got, RawSample(10 + p, 0));
  }
  EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
}

}  // namespace
}  // namespace marquel::test
