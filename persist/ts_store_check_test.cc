// The in-file check of transport streams: files carrying MQ packets and an information
// packet open with their data read from the file itself; damage falls back or opens empty.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "cache_test_util.h"
#include "session_test_util.h"
#include "tags/block_content.h"
#include "tags/block_writer.h"
#include "ts_in_file_store.h"
#include "ts_in_file_test_util.h"

namespace marquel {
namespace {

using cachetest::CopyMedia;
using cachetest::LogCapture;
using cachetest::ReadAll;
using cachetest::WriteAll;
using sessiontest::Expected;
using sessiontest::HasRawSample;
using sessiontest::InsertSamples;
using sessiontest::OpenSession;
using sessiontest::PlainSamples;
using tstest::Bytes;
using tstest::ProgramPackets;

constexpr uint16_t kMQPid = 8160;

// Tags `programs` programs of the media copy at `path` (program i with seed i + 1 and
// 30 + 200 x i samples, PMT PIDs from 0x1000) and returns their MQ packets; the session
// is dropped without a close, so nothing is cached.
std::vector<ProgramPackets> TaggedPackets(const std::string& path, int32_t programs,
                                          int32_t* unit) {
  std::vector<ProgramPackets> out;
  auto f = OpenSession(path);
  EXPECT_EQ(f->FileType(), 10);
  *unit = static_cast<int32_t>(f->TsPacketSize());
  f->SetPMTPID(0, 0x1000);
  for (int32_t i = 0; i < programs; ++i) {
    int32_t index = 0;
    if (i > 0) {
      EXPECT_EQ(f->InsertNewProgram(0x1000 + i, &index), 1);
    }
    InsertSamples(*f, i, i + 1, 30 + 200 * i);
    MQOneProgram* p = f->Program(i);
    EXPECT_EQ(p->FlushAllMemoryBlocks(), 1);
    EXPECT_EQ(WriteProgramBlock(*p), 1);
    out.push_back({static_cast<uint16_t>(0x1000 + i), tstest::MQPacketsOf(*p, *unit, kMQPid)});
  }
  return out;
}

// A copy of `media` with `programs` programs of data appended; the info goes to *info.
std::string FileWithData(const char* media, int32_t programs, MQTsInfo* info = nullptr,
                         Bytes* packets0 = nullptr) {
  const std::string path = CopyMedia(media, "a.ts");
  int32_t unit = 0;
  std::vector<ProgramPackets> packets = TaggedPackets(path, programs, &unit);
  if (packets0 != nullptr) *packets0 = packets[0].packets;
  Bytes file = ReadAll(path);
  MQTsInfo made = tstest::AppendMQData(file, unit, kMQPid, packets);
  WriteAll(path, file);
  if (info != nullptr) *info = made;
  return path;
}

void ExpectEveryProgramBack(MarquelOneFile& g, int32_t programs) {
  EXPECT_EQ(g.m_bMQExisted, 1);
  EXPECT_EQ(g.DataSource(), kSourceMediaFile);
  ASSERT_EQ(g.ProgramCount(), programs);
  for (int32_t i = 0; i < programs; ++i) {
    EXPECT_EQ(PlainSamples(g, i), Expected(i + 1, 30 + 200 * i)) << "program " << i;
    EXPECT_TRUE(HasRawSample(g, i, i + 1)) << "program " << i;
  }
}

class TsInFile : public testing::TestWithParam<const char*> {};

TEST_P(TsInFile, EveryProgramComesBackFromTheFileItself) {
  const int32_t programs = std::string(GetParam()) == "ts2prog.ts" ? 2 : 1;
  MQTsInfo info;
  const std::string path = FileWithData(GetParam(), programs, &info);
  LogCapture log;
  auto g = OpenSession(path, 0, 5);
  ExpectEveryProgramBack(*g, programs);
  EXPECT_EQ(g->OriginalSize(), info.original_size);
  EXPECT_EQ(g->OriginalMTime(), 1700000000);
  EXPECT_EQ(g->MQStartAddress(), static_cast<int64_t>(info.original_size));
  int32_t pids[2] = {0, 0};
  ASSERT_EQ(g->GetPMTPIDs(programs, pids), 1);
  EXPECT_EQ(pids[programs - 1], 0x1000 + programs - 1);
  EXPECT_TRUE(log.Has("[5] check from file, bHasMQ = 1, nTotalPMT1 = " + std::to_string(programs)));
  EXPECT_TRUE(log.Has("[5] read from file, m_bMQExisted = 1"));
  EXPECT_TRUE(log.Has("[5] read from file success"));
}

INSTANTIATE_TEST_SUITE_P(Units, TsInFile,
                         testing::Values("ts188.ts", "m2ts192.ts", "ts204.ts", "ts2prog.ts"),
                         [](const testing::TestParamInfo<const char*>& p) {
                           std::string n = p.param;
                           return n.substr(0, n.find('.'));
                         });

TEST(TsInFileDamage, ADamagedInformationPacketMeansNoDataAndSaysSo) {
  const std::string path = FileWithData("ts188.ts", 1);
  Bytes file = ReadAll(path);
  file[file.size() - 188 + 20] ^= 0x01;  // inside "MQDATA"
  WriteAll(path, file);
  LogCapture log;
  auto g = OpenSession(path, 0, 5);
  EXPECT_EQ(g->m_bMQExisted, 0);
  EXPECT_EQ(g->DataSource(), kSourceNone);
  EXPECT_TRUE(PlainSamples(*g, 0).empty());
  EXPECT_TRUE(log.Has("[5] MQ information packet in the file is damaged, ignored"));
  EXPECT_TRUE(log.Has("[5] check from file, bHasMQ = 0, nTotalPMT1 = 0"));
}

TEST(TsInFileDamage, AHoleInTheCounterRejectsTheData) {
  Bytes packets;
  MQTsInfo info;
  const std::string path = FileWithData("ts188.ts", 1, &info, &packets);
  ASSERT_GE(packets.size(), 2u * 188);
  Bytes file = ReadAll(path);
  // The second MQ packet (just after the first) gets another counter: one went missing.
  const size_t second = info.original_size + 188;
  ASSERT_EQ(file[second + 3], 0x11);
  file[second + 3] = 0x15;
  WriteAll(path, file);
  LogCapture log;
  auto g = OpenSession(path, 0, 5);
  EXPECT_EQ(g->m_bMQExisted, 0);
  EXPECT_EQ(g->DataSource(), kSourceNone);
  EXPECT_TRUE(
      log.Has("[5] MQ packets of program 0 in the file are damaged (continuity counter hole), "
              "ignored"));
}

TEST(TsInFileDamage, ADamagedBlockIsRejectedWithItsCrcLine) {
  MQTsInfo info;
  const std::string path = FileWithData("ts188.ts", 1, &info);
  Bytes file = ReadAll(path);
  const size_t first = info.original_size;
  ASSERT_EQ(file[first], 0x47);
  file[first + 5 + 30] ^= 0x40;  // a byte of the tag-id stream
  WriteAll(path, file);
  LogCapture log;
  auto g = OpenSession(path, 0, 5);
  EXPECT_EQ(g->m_bMQExisted, 0);
  EXPECT_EQ(g->DataSource(), kSourceNone);
  EXPECT_TRUE(log.Has("MarquelOneFile: [5]Check tag id crc failed"));
  EXPECT_TRUE(log.Has("[5] MQ data of program 0 in the file at"));
}

TEST(TsInFileDamage, WithDamagedDataTheOpenFallsBackToTheCache) {
  const std::string path = CopyMedia("ts188.ts", "a.ts");
  Bytes file = ReadAll(path);
  Bytes unit;
  MQTsInfo info;
  info.original_size = file.size();
  info.mq_pid = kMQPid;
  info.programs.push_back({0x1000, static_cast<int64_t>(file.size())});
  ASSERT_TRUE(SerialiseMQTsInfo(info, 188, &unit));
  file.insert(file.end(), unit.begin(), unit.end());  // an information packet, no packets
  WriteAll(path, file);
  {
    auto f = OpenSession(path);
    EXPECT_EQ(f->m_bMQExisted, 0);
    f->SetPMTPID(0, 0x1000);
    InsertSamples(*f, 0, 9, 25);
    f->CloseFile(0);
  }
  LogCapture log;
  auto g = OpenSession(path, 0, 5);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(g->DataSource(), kSourceRegistry);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(9, 25));
  EXPECT_TRUE(log.Has("[5] MQ packets of program 0 in the file are damaged (no packets), ignored"));
  EXPECT_TRUE(log.Has("[5] read from registry, m_bMQExisted = 1"));
}

TEST(TsInFileDamage, ACacheThatCannotBeReadGivesWayToTheDataInTheFile) {
  const std::string path = FileWithData("ts188.ts", 1);
  {
    auto f = OpenSession(path);
    ASSERT_EQ(f->m_bMQExisted, 1);
    f->CloseFile(0);  // the data goes to the TS cache too
  }
  std::vector<CacheEntry> entries = ListCacheEntries(CacheKind::kTS);
  ASSERT_EQ(entries.size(), 1u);
  Bytes cache = ReadAll(entries[0].FirstCacheFile());
  ASSERT_GT(cache.size(), 10u);
  cache[5] ^= 0x5A;  // the header's CRC no longer holds
  WriteAll(entries[0].FirstCacheFile(), cache);
  LogCapture log;
  auto g = OpenSession(path, 0, 5);
  ExpectEveryProgramBack(*g, 1);
  EXPECT_TRUE(log.Has("[5] the cache could not be read, the data in the file is taken"));
}

TEST(TsInFileWalk, PacketsOfOtherPidsAreSkippedAndABadHeaderStopsTheWalk) {
  const std::string path = CopyMedia("ts188.ts", "w.ts");
  Bytes file;
  Bytes packets;
  MQTsPacketizer p(188, kMQPid, [&](const uint8_t* b, size_t n) {
    packets.insert(packets.end(), b, b + n);
    return true;
  });
  Bytes payload(183 * 4, 0x33);
  ASSERT_TRUE(p.Feed(payload.data(), payload.size()) && p.Finish());
  const Bytes null_unit = tstest::NullUnit(188);
  for (size_t k = 0; k < 4; ++k) {
    file.insert(file.end(), null_unit.begin(), null_unit.end());
    file.insert(file.end(), packets.begin() + k * 188, packets.begin() + (k + 1) * 188);
  }
  WriteAll(path, file);
  FileHandle h = OpenRegularFile(path, GENERIC_READ);
  ASSERT_NE(h, kInvalidFileHandle);
  MQTsPacketRun run;
  std::string why;
  EXPECT_TRUE(WalkMQTsPackets(h, 188, 0, 8 * 188, kMQPid, &run, &why)) << why;
  EXPECT_EQ(run.start, 188);
  EXPECT_EQ(run.packets, 4);
  EXPECT_FALSE(WalkMQTsPackets(h, 188, 0, 8 * 188 - 1, kMQPid, &run, &why));
  EXPECT_EQ(why, "bad range");
  EXPECT_FALSE(WalkMQTsPackets(h, 188, 0, 8 * 188, 100, &run, &why));
  EXPECT_EQ(why, "no packets");
  CloseFileHandle(h);
  Bytes holed = file;
  holed[5 * 188 + 1] = 0x1F;  // the third MQ packet becomes a null packet
  holed[5 * 188 + 2] = 0xFF;
  WriteAll(path, holed);
  h = OpenRegularFile(path, GENERIC_READ);
  EXPECT_FALSE(WalkMQTsPackets(h, 188, 0, 8 * 188, kMQPid, &run, &why));
  EXPECT_EQ(why, "continuity counter hole");
  CloseFileHandle(h);
  file[3 * 188 + 3] = 0x31;  // the second MQ packet with an adaptation field
  WriteAll(path, file);
  h = OpenRegularFile(path, GENERIC_READ);
  EXPECT_FALSE(WalkMQTsPackets(h, 188, 0, 8 * 188, kMQPid, &run, &why));
  EXPECT_EQ(why, "bad packet header");
  CloseFileHandle(h);
}

TEST(TsInFileWalk, TheRunStartIsTheBlockThatFillsThePacketsUpToTheEnd) {
  BlockContent content;
  for (int32_t i = 0; i < 1500; ++i) content.tags[19].AddPlain(i * 1000, i);
  const Bytes block = EncodeBlockBytes(content);
  Bytes packets;
  MQTsPacketizer p(188, kMQPid, [&](const uint8_t* b, size_t n) {
    packets.insert(packets.end(), b, b + n);
    return true;
  });
  ASSERT_TRUE(p.Feed(block.data(), block.size()) && p.Finish());
  ASSERT_GT(p.PacketCount(), 16u);  // the counter wraps inside the run
  // A stray packet on the PID with counter 0 and a copy of the block's first packet, then
  // a null unit, then the run with a null unit after every packet.
  const Bytes null_unit = tstest::NullUnit(188);
  Bytes file(packets.begin(), packets.begin() + 188);
  file.insert(file.end(), null_unit.begin(), null_unit.end());
  for (size_t at = 0; at < packets.size(); at += 188) {
    file.insert(file.end(), packets.begin() + at, packets.begin() + at + 188);
    file.insert(file.end(), null_unit.begin(), null_unit.end());
  }
  const std::string path = CopyMedia("ts188.ts", "s.ts");
  WriteAll(path, file);
  FileHandle h = OpenRegularFile(path, GENERIC_READ);
  ASSERT_NE(h, kInvalidFileHandle);
  int64_t start = -1;
  std::string why;
  ASSERT_TRUE(FindMQTsRunStart(h, 188, 0, static_cast<int64_t>(file.size()), kMQPid, &start, &why))
      << why;
  EXPECT_EQ(start, 2 * 188);
  // Without the run's last packet the block fills no run, and the stray packet before
  // it breaks the counter.
  EXPECT_FALSE(FindMQTsRunStart(h, 188, 0, static_cast<int64_t>(file.size()) - 2 * 188, kMQPid,
                                &start, &why));
  EXPECT_EQ(why, "continuity counter hole");
  EXPECT_FALSE(
      FindMQTsRunStart(h, 188, 3 * 188, static_cast<int64_t>(file.size()), kMQPid, &start, &why));
  EXPECT_EQ(why, "no block start");
  CloseFileHandle(h);
}

}  // namespace
}  // namespace marquel
