// The interleave of the server's data into transport streams: what the file holds after
// it, the refusals that leave the file as it was, and the restore after a failure or a
// crash.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "cache_test_util.h"
#include "merge_record.h"
#include "persist/cache_keys.h"
#include "persist/merge_rollback.h"
#include "platform/access_reg.h"
#include "platform/temp_folders.h"
#include "platform/text.h"
#include "session_test_util.h"
#include "tags/block_program.h"
#include "ts_in_file_store.h"
#include "ts_in_file_test_util.h"
#include "ts_merge.h"

namespace marquel {
namespace {

using cachetest::CopyMedia;
using cachetest::LogCapture;
using cachetest::ReadAll;
using cachetest::WriteAll;
using sessiontest::Expected;
using sessiontest::InsertSamples;
using sessiontest::OpenSession;
using sessiontest::PlainSamples;
using tstest::Bytes;

uint16_t PidOf(const Bytes& file, size_t at, int32_t unit) {
  const size_t p = at + static_cast<size_t>(TsUnitPrefixBytes(unit));
  return static_cast<uint16_t>(((file[p + 1] & 0x1F) << 8) | file[p + 2]);
}

// The units of `file` from `from` on, less those on `a` or `b`.
Bytes UnitsWithout(const Bytes& file, size_t from, int32_t unit, uint16_t a, uint16_t b) {
  Bytes out;
  for (size_t at = from; at + static_cast<size_t>(unit) <= file.size(); at += unit) {
    const uint16_t pid = PidOf(file, at, unit);
    if (pid != a && pid != b) out.insert(out.end(), file.begin() + at, file.begin() + at + unit);
  }
  return out;
}

size_t UnitsOn(const Bytes& file, int32_t unit, uint16_t pid) {
  size_t n = 0;
  for (size_t at = 0; at + static_cast<size_t>(unit) <= file.size(); at += unit)
    n += PidOf(file, at, unit) == pid ? 1 : 0;
  return n;
}

// Gives program `i` `count` samples of seed `seed` and writes its block.
void Tag(MarquelOneFile& f, int32_t i, int32_t seed, int32_t count) {
  InsertSamples(f, i, seed, count);
  ASSERT_EQ(f.Program(i)->FlushAllMemoryBlocks(), 1);
  ASSERT_EQ(WriteProgramBlock(*f.Program(i)), 1);
}

// A session of `path` whose program 0 (PMT PID 0x1000) holds `count` samples of seed 1.
std::unique_ptr<MarquelOneFile> Tagged(const std::string& path, int32_t count) {
  auto f = OpenSession(path);
  EXPECT_EQ(f->FileType(), 10);
  f->SetPMTPID(0, 0x1000);
  Tag(*f, 0, 1, count);
  return f;
}

MQTsInfo InfoOf(const std::string& path, int32_t unit, std::vector<InFileProgram>* found) {
  MQTsInfo info;
  FileHandle h = OpenRegularFile(path, GENERIC_READ);
  EXPECT_TRUE(FindTsInFileData(h, unit, 0, 1, &info, found));
  CloseFileHandle(h);
  return info;
}

bool RecordLeft(const std::string& path) {
  AccessReg reg;
  return reg.Open(HKEY_CURRENT_USER, RollBackKey(path).c_str());
}

std::vector<std::string> TempFiles() {
  return cachetest::FolderFiles(ProcessTempFolder());
}

// No record, no backup, and no file of the temporary folder but those there before (the
// tag store's record files have the packet files' prefix).
void ExpectNothingLeft(const std::string& path, const std::vector<std::string>& temp_before) {
  EXPECT_FALSE(RecordLeft(path));
  EXPECT_TRUE(cachetest::FolderFiles(cachetest::CacheFolder()).empty());
  EXPECT_EQ(TempFiles(), temp_before);
}

class TsMergeUnits : public testing::TestWithParam<const char*> {};

TEST_P(TsMergeUnits, TheDataReadsBackAndEveryOriginalUnitStaysInOrder) {
  const std::string path = CopyMedia(GetParam(), "m.ts");
  const Bytes before = ReadAll(path);
  auto f = Tagged(path, 120);
  const TsMergeInput in = TransportStreamStore::MergeInputOf(*f);
  const int64_t expected_start =
      TsMergeStart(static_cast<int64_t>(before.size()), SerialisedBlockBytes(*f->Program(0)), -1,
                   in.unit, in.first_offset);
  LogCapture log;
  const std::vector<std::string> temp = TempFiles();
  ASSERT_EQ(f->ProcessMQInterLeaveInTS(), 1);
  EXPECT_TRUE(log.Has("[3] ProcessMQInterLeaveInTS"));
  EXPECT_TRUE(log.Has("[3] Check no MQ data in ts file"));
  const Bytes after = ReadAll(path);
  std::vector<InFileProgram> found;
  const MQTsInfo info = InfoOf(path, in.unit, &found);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].start, expected_start);
  EXPECT_EQ(f->MQStartAddress(), expected_start);
  EXPECT_EQ(info.mq_pid, kTsFirstCandidatePid);
  EXPECT_EQ(info.original_size, before.size());
  EXPECT_EQ(info.programs[0].pmt_pid, 0x1000);
  const size_t start = static_cast<size_t>(expected_start);
  EXPECT_TRUE(std::equal(before.begin(), before.begin() + start, after.begin()));
  EXPECT_EQ(UnitsWithout(after, start, in.unit, info.mq_pid, kMQInfoPid),
            Bytes(before.begin() + start, before.end()))
      << "prefixes included";
  const size_t prefix = static_cast<size_t>(TsUnitPrefixBytes(in.unit));
  const size_t last = after.size() - static_cast<size_t>(in.unit);
  EXPECT_EQ(Bytes(after.begin() + last, after.begin() + last + prefix), Bytes(prefix, 0xFF));
  EXPECT_EQ(after[last + prefix], 0x47);
  EXPECT_EQ(UnitsOn(after, in.unit, kMQInfoPid), 1u);
  ExpectNothingLeft(path, temp);
  auto g = OpenSession(path);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(g->DataSource(), kSourceMediaFile);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(1, 120));
}

INSTANTIATE_TEST_SUITE_P(Units, TsMergeUnits, testing::Values("ts188.ts", "m2ts192.ts", "ts204.ts"),
                         [](const testing::TestParamInfo<const char*>& p) {
                           std::string n = p.param;
                           return n.substr(0, n.find('.'));
                         });

TEST(TsMerge, TheInformationPacketOfLargerUnitsOpensWithItsPrefix) {
  for (const auto& [media, ffs] : {std::pair{"m2ts192.ts", 4}, std::pair{"ts204.ts", 16}}) {
    const std::string path = CopyMedia(media, "p.ts");
    auto f = Tagged(path, 40);
    ASSERT_EQ(f->ProcessMQInterLeaveInTS(), 1) << media;
    const Bytes after = ReadAll(path);
    const size_t last = after.size() - f->TsPacketSize();
    for (int i = 0; i < ffs; ++i) EXPECT_EQ(after[last + i], 0xFF) << media << " byte " << i;
    EXPECT_EQ(after[last + ffs], 0x47) << media;
  }
}

TEST(TsMerge, TwoProgramsAreListedAndAProgramWithoutDataIsNot) {
  const std::string path = CopyMedia("ts2prog.ts", "two.ts");
  auto f = OpenSession(path);
  f->SetPMTPID(0, 0x1000);
  int32_t index = 0;
  ASSERT_EQ(f->InsertNewProgram(0x1001, &index), 1);
  ASSERT_EQ(f->InsertNewProgram(0x1002, &index), 1);
  Tag(*f, 0, 1, 30);
  Tag(*f, 2, 3, 230);  // program 1 never writes a block
  ASSERT_EQ(f->ProcessMQInterLeaveInTS(), 1);
  std::vector<InFileProgram> found;
  const MQTsInfo info = InfoOf(path, 188, &found);
  ASSERT_EQ(info.programs.size(), 2u);
  EXPECT_EQ(info.programs[0].pmt_pid, 0x1000);
  EXPECT_EQ(info.programs[1].pmt_pid, 0x1002);
  auto g = OpenSession(path);
  ASSERT_EQ(g->ProgramCount(), 2);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(1, 30));
  EXPECT_EQ(g->Program(1)->PMTPID(), 0x1002);
  EXPECT_EQ(PlainSamples(*g, 1), Expected(3, 230));
}

TEST(TsMerge, WritingTwiceLeavesOneSetOfPacketsAndTheSecondData) {
  for (int32_t second : {400, 10}) {  // a larger block, then one that starts after the first
    const std::string path = CopyMedia("ts188.ts", "twice.ts");
    const Bytes before = ReadAll(path);
    auto f = Tagged(path, 200);
    ASSERT_EQ(f->ProcessMQInterLeaveInTS(), 1);
    const int64_t first_start = f->MQStartAddress();
    auto g = OpenSession(path);
    ASSERT_EQ(g->m_bMQExisted, 1);
    g->Program(0)->ClearAllTags();
    Tag(*g, 0, 7, second);
    const size_t packets =
        tstest::MQPacketsOf(*g->Program(0), 188, kTsFirstCandidatePid).size() / 188;
    ASSERT_EQ(g->ProcessMQInterLeaveInTS(), 1);
    if (second == 10) {
      EXPECT_GT(g->MQStartAddress(), first_start) << "the units before the new start were put back";
    }
    const Bytes after = ReadAll(path);
    EXPECT_EQ(UnitsOn(after, 188, kMQInfoPid), 1u);
    EXPECT_EQ(UnitsOn(after, 188, kTsFirstCandidatePid), packets);
    EXPECT_EQ(UnitsWithout(after, 0, 188, kTsFirstCandidatePid, kMQInfoPid), before);
    auto h = OpenSession(path);
    EXPECT_EQ(h->DataSource(), kSourceMediaFile);
    EXPECT_EQ(PlainSamples(*h, 0), Expected(7, second));
  }
}

TEST(TsMerge, ABlockOnePacketAboveTheRoundedSizeStillGoesIn) {
  const std::string path = CopyMedia("ts188.ts", "round.ts");
  const Bytes before = ReadAll(path);
  // Grows the block until its last packet holds 1 to 88 bytes: the rounded MQ size is one
  // packet short of what is written then.
  std::unique_ptr<MarquelOneFile> f;
  int64_t n = 0;
  for (int32_t count = 20; count < 400; ++count) {
    f = Tagged(path, count);
    n = SerialisedBlockBytes(*f->Program(0));
    if (n % 183 >= 1 && n % 183 <= 88) break;
  }
  ASSERT_TRUE(n % 183 >= 1 && n % 183 <= 88);
  ASSERT_EQ((n + 94) / 183 + 1, (n + 182) / 183);
  ASSERT_EQ(f->ProcessMQInterLeaveInTS(), 1);
  auto g = OpenSession(path);
  EXPECT_EQ(g->DataSource(), kSourceMediaFile);
  EXPECT_FALSE(PlainSamples(*g, 0).empty());
  EXPECT_EQ(UnitsWithout(ReadAll(path), 0, 188, kTsFirstCandidatePid, kMQInfoPid), before);
}

TEST(TsMerge, ABlockTooSmallToCountAPacketGoesInAtTheFileEnd) {
  const std::string path = CopyMedia("ts188.ts", "tiny.ts");
  const Bytes before = ReadAll(path);
  auto f = OpenSession(path);
  f->SetPMTPID(0, 0x1000);
  ASSERT_EQ(WriteProgramBlock(*f->Program(0)), 1);  // no tag: the header and empty streams
  ASSERT_LT(SerialisedBlockBytes(*f->Program(0)), 89) << "rounds to no packet at all";
  ASSERT_EQ(f->ProcessMQInterLeaveInTS(), 1);
  EXPECT_EQ(f->MQStartAddress(), static_cast<int64_t>(before.size()));
  const Bytes after = ReadAll(path);
  EXPECT_EQ(after.size(), before.size() + 2 * 188) << "one MQ packet, one information packet";
  EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
  auto g = OpenSession(path);
  EXPECT_EQ(g->DataSource(), kSourceMediaFile);
}

TEST(TsMerge, WithEveryCandidatePidInUseTheFileStaysAsItWas) {
  const std::string path = CopyMedia("ts188.ts", "full.ts");
  Bytes file = ReadAll(path);
  for (uint16_t pid = kTsFirstCandidatePid; pid <= kTsLastCandidatePid; ++pid) {
    Bytes unit = tstest::NullUnit(188);
    unit[1] = static_cast<uint8_t>(pid >> 8);
    unit[2] = static_cast<uint8_t>(pid & 0xFF);
    file.insert(file.end(), unit.begin(), unit.end());
  }
  WriteAll(path, file);
  auto f = Tagged(path, 30);
  LogCapture log;
  const std::vector<std::string> temp = TempFiles();
  EXPECT_EQ(f->ProcessMQInterLeaveInTS(), 0);
  EXPECT_TRUE(log.Has("[3] ProcessMQInterLeaveInTS: no MQ PID (every candidate PID is in use)"));
  EXPECT_EQ(ReadAll(path), file);
  ExpectNothingLeft(path, temp);
}

TEST(TsMerge, DataThatWouldTakeOverHalfTheFileIsRefused) {
  const std::string path = CopyMedia("ts188.ts", "half.ts");
  const Bytes before = ReadAll(path);
  auto f = Tagged(path, 30000);
  ASSERT_LT(TsMergeStart(static_cast<int64_t>(before.size()), SerialisedBlockBytes(*f->Program(0)),
                         -1, 188, 0),
            0);
  LogCapture log;
  const std::vector<std::string> temp = TempFiles();
  EXPECT_EQ(f->ProcessMQInterLeaveInTS(), 0);
  EXPECT_TRUE(log.Has("would take over more than half of the file"));
  EXPECT_EQ(ReadAll(path), before);
  ExpectNothingLeft(path, temp);
}

TEST(TsMerge, AnEmptyFirstProgramFailsBeforeTheFileIsTouched) {
  const std::string path = CopyMedia("ts2prog.ts", "empty.ts");
  const Bytes before = ReadAll(path);
  auto f = OpenSession(path);
  f->SetPMTPID(0, 0x1000);
  int32_t index = 0;
  ASSERT_EQ(f->InsertNewProgram(0x1001, &index), 1);
  Tag(*f, 1, 2, 30);
  LogCapture log;
  const std::vector<std::string> temp = TempFiles();
  EXPECT_EQ(f->ProcessMQInterLeaveInTS(), 0);
  EXPECT_TRUE(log.Has("[3] MergeMQAndOrgFile failed"));
  EXPECT_EQ(ReadAll(path), before);
  ExpectNothingLeft(path, temp);
}

// The file's modified time, seconds since 1970 (-1 when it cannot be read).
int64_t MTimeOf(const std::string& path) {
  FileStatusRecord status;
  return FileStatus(path, &status) == 0 ? status.mtime : -1;
}

TEST(TsMerge, AFailedWriteRestoresTheFileByteForByte) {
  for (bool earlier_data : {false, true}) {
    const std::string path = CopyMedia("ts188.ts", "fail.ts");
    if (earlier_data) {
      auto first = Tagged(path, 60);
      ASSERT_EQ(first->ProcessMQInterLeaveInTS(), 1);
    }
    const Bytes before = ReadAll(path);
    // An old time, so that a restore that leaves the time of its writes shows.
    FileHandle h = OpenRegularFile(path, GENERIC_READ | GENERIC_WRITE);
    ASSERT_TRUE(SetFileModifiedTime(h, 1600000000));
    CloseFileHandle(h);
    auto f = OpenSession(path);
    f->SetPMTPID(0, 0x1000);
    f->Program(0)->ClearAllTags();
    Tag(*f, 0, 5, 300);
    LogCapture log;
    const std::vector<std::string> temp = TempFiles();
    int32_t rc = 0;
    {
      // A file-size limit just above the file: the backup fits, the grown file does not.
      cachetest::ScopedFileSizeLimit limit(before.size() + 100);
      ASSERT_TRUE(limit.ok());
      rc = f->ProcessMQInterLeaveInTS();
    }
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(log.Has("[3] MergeMQAndOrgFile failed"));
    EXPECT_TRUE(log.Has("restored from its backup"));
    EXPECT_EQ(ReadAll(path), before) << "earlier data " << earlier_data;
    EXPECT_EQ(MTimeOf(path), 1600000000) << "the cache still knows the file by its time";
    ExpectNothingLeft(path, temp);
  }
}

TEST(TsMerge, TheRollBackRecordHoldsTheBackupTheOffsetAndTheTime) {
  std::vector<uint8_t> buf;
  ASSERT_TRUE(EncodeTsRollBack("/b/MQ1A.tmp", 0x0102030405060708, 1700000000, &buf));
  ASSERT_EQ(buf.size(), 536u);
  EXPECT_EQ(WideRecordToUtf8(reinterpret_cast<const char16_t*>(buf.data()), 260), "/b/MQ1A.tmp");
  int64_t offset = 0, mtime = 0;
  std::memcpy(&offset, buf.data() + 520, 8);
  std::memcpy(&mtime, buf.data() + 528, 8);
  EXPECT_EQ(offset, 0x0102030405060708);
  EXPECT_EQ(mtime, 1700000000);
  std::string backup;
  int64_t decoded = -1, decoded_mtime = 0;
  ASSERT_TRUE(DecodeTsRollBack(buf, &backup, &decoded, &decoded_mtime));
  EXPECT_EQ(backup, "/b/MQ1A.tmp");
  EXPECT_EQ(decoded, offset);
  EXPECT_EQ(decoded_mtime, 1700000000);
  buf.pop_back();
  EXPECT_FALSE(DecodeTsRollBack(buf, &backup, &decoded));
  EXPECT_FALSE(EncodeTsRollBack(std::string(300, 'a'), 0, 0, &buf)) << "a path is never cut";
}

// What the interleave leaves when killed half way through rewriting `path` (a copy of
// `before`): backup and record made, then the tail overwritten and the file longer than
// it was. Returns the offset the record names.
int64_t CutShortInterleave(const std::string& path, const Bytes& before) {
  const int64_t offset = static_cast<int64_t>(before.size() / 188 / 2 * 188);
  TsMergePlan plan;
  plan.size = static_cast<int64_t>(before.size());
  plan.start = plan.rewrite_from = offset;
  FileHandle media = OpenRegularFile(path, GENERIC_READ | GENERIC_WRITE);
  EXPECT_NE(media, kInvalidFileHandle);
  TsBackup backup;
  EXPECT_TRUE(MakeTsBackup(media, plan, 188, &backup));
  EXPECT_TRUE(WriteTsRollBackRecord(path, backup.path, offset, 1700000000, 200000));
  const Bytes junk(100000, 0x47);
  EXPECT_TRUE(WriteAllAt(media, static_cast<uint64_t>(offset + 5000), junk.data(), junk.size()));
  CloseFileHandle(media);
  return offset;
}

TEST(TsMerge, AnInterleaveAKilledServerLeftIsUndoneAtTheNextStart) {
  const std::string path = CopyMedia("ts188.ts", "killed.ts");
  const Bytes before = ReadAll(path);
  CutShortInterleave(path, before);
  AccessReg reg;
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, RollBackKey(path).c_str()));
  uint32_t type = 0, kind = 0;
  Bytes buf;
  ASSERT_TRUE(reg.QueryDword("TYPE", &type));
  ASSERT_TRUE(reg.QueryValue("BUF", &kind, &buf));
  reg.Close();
  EXPECT_EQ(type, 2u);
  EXPECT_EQ(buf.size(), 536u);
  Bytes longer = ReadAll(path);
  longer.resize(before.size() + 188 * 40, 0x47);  // the interleave had made it longer
  WriteAll(path, longer);
  const std::vector<std::string> temp = TempFiles();
  EXPECT_EQ(cachetest::RollBackAsAtStart(), 1);
  EXPECT_EQ(ReadAll(path), before) << "its old bytes, cut at its old length";
  EXPECT_EQ(MTimeOf(path), 1700000000) << "the time the record keeps comes back with the bytes";
  ExpectNothingLeft(path, temp);
  EXPECT_EQ(cachetest::RollBackAsAtStart(), 0) << "nothing is left to undo";
}

TEST(TsMerge, ARollBackLeavesAFileChangedByAnotherProgramSinceAloneWithItsBackup) {
  const std::string path = CopyMedia("ts188.ts", "edited.ts");
  const Bytes before = ReadAll(path);
  const int64_t offset = CutShortInterleave(path, before);
  // Another program rewrote the file after the server was killed.
  Bytes edited = ReadAll(path);
  edited[static_cast<size_t>(offset - 1000)] ^= 0xFF;
  WriteAll(path, edited);
  const auto backups = cachetest::FolderFiles(cachetest::CacheFolder());
  ASSERT_FALSE(backups.empty());
  LogCapture log;
  EXPECT_EQ(cachetest::RollBackAsAtStart(), 0);
  EXPECT_TRUE(log.Has("the file was changed by another program since"));
  EXPECT_EQ(ReadAll(path), edited) << "no old byte is copied into it";
  EXPECT_TRUE(RecordLeft(path));
  EXPECT_EQ(cachetest::FolderFiles(cachetest::CacheFolder()), backups) << "the old bytes stay";
}

TEST(TsMerge, TheRollBackRestoresAFileThatHeldDataWithItsData) {
  const std::string path = CopyMedia("ts188.ts", "held.ts");
  {
    auto f = Tagged(path, 50);
    ASSERT_EQ(f->ProcessMQInterLeaveInTS(), 1);
  }
  const Bytes before = ReadAll(path);
  std::vector<InFileProgram> found;
  InfoOf(path, 188, &found);
  ASSERT_EQ(found.size(), 1u);
  TsMergePlan plan;
  plan.size = static_cast<int64_t>(before.size());
  plan.start = plan.rewrite_from = found[0].start;
  FileHandle media = OpenRegularFile(path, GENERIC_READ | GENERIC_WRITE);
  TsBackup backup;
  ASSERT_TRUE(MakeTsBackup(media, plan, 188, &backup));
  ASSERT_TRUE(WriteTsRollBackRecord(path, backup.path, plan.rewrite_from, 1, 0));
  ASSERT_TRUE(SeekFile(media, plan.rewrite_from + 188, FILE_BEGIN) == plan.rewrite_from + 188 &&
              SetEndOfFile(media));  // killed just after the cut
  CloseFileHandle(media);
  const std::vector<std::string> temp = TempFiles();
  EXPECT_EQ(cachetest::RollBackAsAtStart(), 1);
  EXPECT_EQ(ReadAll(path), before);
  ExpectNothingLeft(path, temp);
  auto g = OpenSession(path);
  EXPECT_EQ(g->DataSource(), kSourceMediaFile);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(1, 50));
}

}  // namespace
}  // namespace marquel
