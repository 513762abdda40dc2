// WriteMPEGFile and GenerateMQTempMPEGData on ffmpeg-made program streams, and the open's
// in-file check that reads the data back.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <string>

#include "cache_test_util.h"
#include "testsupport/ffmpeg.h"
#include "persist/cache_entry.h"
#include "media/mpeg_system_dec.h"
#include "media/mq_end_record.h"
#include "persist/block_from_media.h"
#include "session_test_util.h"
#include "tags/block_program.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::CopyMedia;
using cachetest::LogCapture;
using cachetest::ReadAll;
using sessiontest::Expected;
using sessiontest::HasRawSample;
using sessiontest::InsertSamples;
using sessiontest::PlainSamples;

// A session whose writers the test calls directly.
class WritingSession : public MarquelOneFile {
 public:
  using MarquelOneFile::CheckMQDataInFile;
  using MarquelOneFile::WriteMPEGFile;
};

std::unique_ptr<WritingSession> Open(const std::string& path) {
  auto f = std::make_unique<WritingSession>();
  f->SetHandle(3);
  f->SetFileName(path);
  EXPECT_EQ(f->Open(0, 1, 0), 1);
  return f;
}

// Samples into program 0, and its block made as the close makes it.
void Tag(MarquelOneFile& f, int32_t seed, int32_t count) {
  InsertSamples(f, 0, seed, count);
  MQOneProgram* p = f.Program(0);
  ASSERT_EQ(p->FlushAllMemoryBlocks(), 1);
  ASSERT_EQ(WriteProgramBlock(*p), 1);
}

int64_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Writes the session's block into its media file the way the close's direct write does.
int32_t WriteInto(WritingSession& f, int64_t start, int64_t mtime = 1700000000) {
  FileHandle h = OpenRegularFile(f.FileName(), GENERIC_READ | GENERIC_WRITE);
  EXPECT_NE(h, kInvalidFileHandle);
  int32_t r = f.WriteMPEGFile(h, start, mtime, static_cast<uint64_t>(start));
  CloseFileHandle(h);
  return r;
}

// How often the end record of `start` appears in the file.
int CountEndRecords(const Bytes& file, int64_t start, int64_t mtime) {
  MQEndRecord r;
  r.start_address = start;
  r.original_mtime = mtime;
  r.original_size = static_cast<uint64_t>(start);
  Bytes rec(kMQEndRecordSize);
  SerialiseMQEndRecord(r, rec.data());
  int count = 0;
  for (auto it = file.begin();
       (it = std::search(it, file.end(), rec.begin(), rec.end())) != file.end(); ++it)
    ++count;
  return count;
}

class WriteMPEGFile : public testing::TestWithParam<const char*> {};

TEST_P(WriteMPEGFile, DataIsReadBackAndTheMediaIsUnchanged) {
  if (!fftest::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  std::string path = CopyMedia(GetParam(), "a.mpg");
  const Bytes before = ReadAll(path);
  const std::string md5_before = fftest::FrameMd5(path);
  ASSERT_FALSE(md5_before.empty());
  ASSERT_EQ(md5_before.rfind("failed", 0), std::string::npos) << md5_before;
  const int64_t start = static_cast<int64_t>(before.size());
  {
    auto f = Open(path);
    ASSERT_GE(f->FileType(), 1);
    ASSERT_LE(f->FileType(), 4);
    Tag(*f, 5, 20000);  // several packs of data
    LogCapture log;
    ASSERT_EQ(WriteInto(*f, start), 1);
    EXPECT_TRUE(log.Has("[3] pack file sync took"));
  }
  const Bytes after = ReadAll(path);
  ASSERT_GT(after.size(), before.size());
  EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
  EXPECT_EQ(fftest::FrameMd5(path), md5_before);

  LogCapture log;
  auto g = Open(path);
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(g->DataSource(), kSourceMediaFile);
  EXPECT_EQ(g->MQStartAddress(), start);
  EXPECT_EQ(g->OriginalSize(), static_cast<uint64_t>(start));
  EXPECT_EQ(g->OriginalMTime(), 1700000000);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(5, 20000));
  EXPECT_TRUE(HasRawSample(*g, 0, 5));
  EXPECT_TRUE(log.Has("[3] check MQ data: org file 1, registry 0"));
  EXPECT_TRUE(log.Has("[3] load from file success"));
  EXPECT_TRUE(log.Has("[3] read from file 1"));
}

TEST_P(WriteMPEGFile, AStreamSetAsideWhileTheBlockWasMadeIsWrittenWhole) {
  std::string path = CopyMedia(GetParam(), "spilled.mpg");
  const int64_t start = FileSize(path);
  auto f = Open(path);
  InsertSamples(*f, 0, 7, 5000);
  MQOneProgram* p = f->Program(0);
  ASSERT_EQ(p->FlushAllMemoryBlocks(), 1);
  ASSERT_EQ(WriteProgramBlock(*p, 256), 1);  // every stream past 256 bytes goes to a file
  ASSERT_NE(p->DataBuffer()->spill, nullptr);
  ASSERT_EQ(WriteInto(*f, start), 1);
  auto g = Open(path);
  EXPECT_EQ(g->DataSource(), kSourceMediaFile);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(7, 5000));
  EXPECT_TRUE(HasRawSample(*g, 0, 7));
}

TEST_P(WriteMPEGFile, WritingTwiceLeavesOneCopy) {
  std::string path = CopyMedia(GetParam(), "a.mpg");
  const int64_t start = FileSize(path);
  auto f = Open(path);
  Tag(*f, 1, 3000);
  ASSERT_EQ(WriteInto(*f, start), 1);
  const int64_t once = FileSize(path);
  ASSERT_EQ(WriteInto(*f, start), 1);
  EXPECT_EQ(FileSize(path), once);
  EXPECT_EQ(CountEndRecords(ReadAll(path), start, 1700000000), 1);
  auto g = Open(path);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(1, 3000));
  // More data after reopening: the open's start address cuts the old copy off.
  Tag(*g, 9, 10);
  const auto both = PlainSamples(*g, 0);
  ASSERT_GT(both.size(), 3000u);
  ASSERT_EQ(WriteInto(*g, g->MQStartAddress()), 1);
  auto h = Open(path);
  EXPECT_EQ(PlainSamples(*h, 0), both);
  EXPECT_EQ(CountEndRecords(ReadAll(path), start, 1700000000), 1);
}

TEST_P(WriteMPEGFile, EveryPackRepeatsTheStreamsLastClock) {
  std::string path = CopyMedia(GetParam(), "a.mpg");
  const Bytes media = ReadAll(path);
  auto f = Open(path);
  const bool mpeg1 = f->FileType() == 1 || f->FileType() == 3;
  std::unique_ptr<CMpegMuxDec> dec;
  if (mpeg1)
    dec = std::make_unique<MPEG1SystemDec_c>();
  else
    dec = std::make_unique<MPEG2SystemDec_c>();
  const size_t from = media.size() > 65536 ? media.size() - 65536 : 0;
  dec->Feed(media.data() + from, static_cast<int32_t>(media.size() - from));
  uint64_t base = 0;
  uint32_t ext = 0;
  dec->GetLastClock(&base, &ext);
  ASSERT_GT(base, 0u);
  Tag(*f, 1, 100);
  ASSERT_EQ(WriteInto(*f, static_cast<int64_t>(media.size())), 1);
  Bytes after = ReadAll(path);
  std::unique_ptr<CMpegMuxDec> ours;
  if (mpeg1)
    ours = std::make_unique<MPEG1SystemDec_c>();
  else
    ours = std::make_unique<MPEG2SystemDec_c>();
  ours->Feed(after.data() + media.size(), static_cast<int32_t>(after.size() - media.size()));
  uint64_t our_base = 0;
  uint32_t our_ext = 0;
  ours->GetLastClock(&our_base, &our_ext);
  EXPECT_EQ(our_base, base);
  EXPECT_EQ(our_ext, ext);
  EXPECT_EQ(ours->HasError(), 0);
}

INSTANTIATE_TEST_SUITE_P(Ffmpeg, WriteMPEGFile,
                         testing::Values("mpeg1.mpg", "vcd.mpg", "svcd.mpg", "mpeg2ps.mpg"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           std::string name = info.param;
                           return name.substr(0, name.find('.'));
                         });

// The clock of a stream shorter than the scan is taken from its very start.
TEST(WriteMPEGFileClock, AFileShorterThan64KiBIsScannedFromItsStart) {
  std::string path = test::TestPath("short.mpg");
  Bytes head = ReadAll(cachetest::MediaSource("mpeg2ps.mpg"));
  head.resize(30000);
  cachetest::WriteAll(path, head);
  MPEG2SystemDec_c dec;
  dec.Feed(head.data(), static_cast<int32_t>(head.size()));
  uint64_t base = 0;
  uint32_t ext = 0;
  dec.GetLastClock(&base, &ext);
  ASSERT_GT(base, 0u);
  auto f = Open(path);
  ASSERT_EQ(f->FileType(), 2);
  Tag(*f, 1, 10);
  ASSERT_EQ(WriteInto(*f, 30000), 1);
  Bytes after = ReadAll(path);
  MPEG2SystemDec_c ours;
  ours.Feed(after.data() + 30000, static_cast<int32_t>(after.size() - 30000));
  uint64_t our_base = 0;
  uint32_t our_ext = 0;
  ours.GetLastClock(&our_base, &our_ext);
  EXPECT_EQ(our_base, base);
  EXPECT_EQ(our_ext, ext);
}

TEST(WriteMPEGFileRefusal, AStartAddressInsideTheMediaGoesToTheTempCacheAndLeavesTheFile) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  const Bytes before = ReadAll(path);
  auto f = Open(path);
  Tag(*f, 2, 50);
  LogCapture log;
  EXPECT_EQ(WriteInto(*f, static_cast<int64_t>(before.size()) - 4096), 1);
  EXPECT_EQ(ReadAll(path), before);
  EXPECT_TRUE(log.Has("[3] WriteToTempRegistry return 1"));
  auto g = Open(path);
  EXPECT_EQ(g->DataSource(), kSourceRegistry);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(2, 50));
}

TEST(WriteMPEGFileRefusal, WithoutABlockNothingIsWritten) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  const Bytes before = ReadAll(path);
  auto f = Open(path);
  InsertSamples(*f, 0, 1, 5);  // no block made
  f->Program(0)->ReleaseBuffers();
  EXPECT_EQ(WriteInto(*f, static_cast<int64_t>(before.size())), 0);
  EXPECT_EQ(ReadAll(path), before);
}

// A write that fails part-way (the file may not grow past a limit) leaves the file as it
// was before the data and keeps the data in the temp cache.
TEST(WriteMPEGFileFailure, AFailedWriteCutsTheFileBackAndKeepsTheDataInTheTempCache) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  const Bytes before = ReadAll(path);
  auto f = Open(path);
  Tag(*f, 4, 20000);
  const size_t block = ProgramBlockBytes(*f->Program(0)).size();
  ASSERT_LE(block / 2, before.size());  // the cache file itself fits under the limit
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  struct rlimit lowered = saved;
  lowered.rlim_cur = before.size() + block / 2;  // half of the packs get through
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lowered), 0);
  LogCapture log;
  int32_t r = WriteInto(*f, static_cast<int64_t>(before.size()));
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, SIG_DFL);
  EXPECT_EQ(r, 1);
  EXPECT_TRUE(log.Has("[3] write into the media file failed, write to the temp cache"));
  EXPECT_TRUE(log.Has("[3] WriteToTempRegistry return 1"));
  EXPECT_EQ(ReadAll(path), before);
  auto g = Open(path);
  EXPECT_EQ(g->DataSource(), kSourceRegistry);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(4, 20000));
}

// Writes data into a copy and returns the offset of its end record.
int64_t WrittenCopy(const std::string& path, int32_t seed) {
  auto f = Open(path);
  Tag(*f, seed, 100);
  EXPECT_EQ(WriteInto(*f, FileSize(path)), 1);
  FileHandle h = OpenRegularFile(path, GENERIC_READ);
  auto found = FindMQEndRecord(h);
  CloseFileHandle(h);
  return found ? found->offset : -1;
}

void FlipByte(const std::string& path, int64_t at) {
  Bytes b = ReadAll(path);
  b[static_cast<size_t>(at)] ^= 0x40;
  cachetest::WriteAll(path, b);
}

TEST(InFileCheck, ADamagedEndRecordIsRejectedAndTheOpenIsEmpty) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  int64_t record = WrittenCopy(path, 3);
  ASSERT_GT(record, 0);
  FlipByte(path, record + 30);  // the last field is no longer -1
  LogCapture log;
  auto g = Open(path);
  EXPECT_TRUE(log.Has("[3] MQ end record in the file is damaged, ignored"));
  EXPECT_TRUE(log.Has("[3] check MQ data: org file 0, registry 0"));
  EXPECT_EQ(g->m_bMQExisted, 0);
  EXPECT_EQ(g->MQStartAddress(), -1);
  EXPECT_TRUE(PlainSamples(*g, 0).empty());
}

TEST(InFileCheck, ADamagedBlockIsRejectedAndTheOpenTakesTheCache) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  const int64_t start = FileSize(path);
  {
    auto f = Open(path);
    Tag(*f, 6, 100);
    ASSERT_EQ(f->WriteToFile(1), 1);  // the temp cache holds the data too
    ASSERT_EQ(WriteInto(*f, start), 1);
  }
  FlipByte(path, start + 14 + 9 + 3);  // inside the block's header
  LogCapture log;
  auto g = Open(path);
  EXPECT_TRUE(log.Has("MarquelOneFile: [3]Check header crc failed while read from mpeg file"));
  EXPECT_TRUE(log.Has("[3] load file failed"));
  EXPECT_TRUE(
      log.Has("[3] MQ data in the file at " + std::to_string(start) + " is damaged, ignored"));
  EXPECT_TRUE(log.Has("[3] check MQ data: org file 0, registry 1"));
  EXPECT_TRUE(log.Has("[3] read from registry 1"));
  EXPECT_EQ(g->DataSource(), kSourceRegistry);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(6, 100));
}

TEST(InFileCheck, FileAndCacheTogetherCompareTheirTimes) {
  std::string path = CopyMedia("svcd.mpg", "a.mpg");
  {
    auto f = Open(path);
    Tag(*f, 6, 100);
    ASSERT_EQ(f->WriteToFile(1), 1);
    ASSERT_EQ(WriteInto(*f, FileSize(path)), 1);
  }
  LogCapture log;
  auto g = Open(path);
  EXPECT_TRUE(log.Has("[3] check MQ data: org file 1, registry 1"));
  EXPECT_TRUE(log.Has("[3] Check file time"));
  EXPECT_EQ(g->m_bMQExisted, 1);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(6, 100));
}

// The file's data is read, more tags are added and the close caches them: that cache is
// newer than the data in the file, although the file's own time is later than both.
TEST(InFileCheck, ACacheWrittenAfterTheFileDataWinsOverIt) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  {
    auto f = Open(path);
    Tag(*f, 1, 100);
    ASSERT_EQ(WriteInto(*f, FileSize(path), 1700000000), 1);
  }
  std::vector<std::pair<int64_t, int32_t>> both;
  {
    auto g = Open(path);
    ASSERT_EQ(g->DataSource(), kSourceMediaFile);
    Tag(*g, 8, 10);
    both = PlainSamples(*g, 0);
    ASSERT_GT(both.size(), 100u);
    ASSERT_EQ(g->WriteToFile(1), 1);
  }
  LogCapture log;
  auto h = Open(path);
  EXPECT_TRUE(log.Has("[3] Check file time 1700000000, reg time 1700000000"));
  EXPECT_TRUE(log.Has("[3] read from registry 1"));
  EXPECT_EQ(PlainSamples(*h, 0), both);
}

TEST(InFileCheck, ACacheThatCannotBeReadGivesWayToTheDataInTheFile) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  {
    auto f = Open(path);
    Tag(*f, 1, 100);
    ASSERT_EQ(WriteInto(*f, FileSize(path), 1700000000), 1);
  }
  {
    auto g = Open(path);
    ASSERT_EQ(g->WriteToFile(1), 1);  // a cache that wins over the file's data
  }
  CacheEntry entry;
  ASSERT_TRUE(FindTempCacheEntry(path, &entry));
  Bytes cache = ReadAll(entry.temp.cache_path);
  ASSERT_GT(cache.size(), 10u);
  cache[5] ^= 0x5A;  // the header's CRC no longer holds
  cachetest::WriteAll(entry.temp.cache_path, cache);
  LogCapture log;
  auto h = Open(path);
  EXPECT_TRUE(log.Has("[3] the cache could not be read, the data in the file is taken"));
  EXPECT_EQ(h->m_bMQExisted, 1);
  EXPECT_EQ(h->DataSource(), kSourceMediaFile);
  EXPECT_EQ(PlainSamples(*h, 0), Expected(1, 100));
}

TEST(GenerateMQTempMPEGData, WritesThePackStreamWithoutAnEndRecord) {
  std::string path = CopyMedia("svcd.mpg", "a.mpg");
  auto f = Open(path);
  Tag(*f, 7, 5000);
  const Bytes block = ProgramBlockBytes(*f->Program(0));
  std::string out = test::TestPath("packs.tmp");
  FileHandle h = OpenFileHandle(out, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  ASSERT_NE(h, kInvalidFileHandle);
  ASSERT_EQ(f->GenerateMQTempMPEGData(h, 3000), 1);
  CloseFileHandle(h);
  Bytes packs = ReadAll(out);
  ASSERT_EQ(packs.size() % 2324, 0u);
  MPEG2SystemDec_c dec;
  dec.SelectStream(0xFA);
  dec.Reset();
  dec.Feed(packs.data(), static_cast<int32_t>(packs.size()));
  Bytes payload(static_cast<size_t>(dec.PayloadCount()));
  dec.TakePayload(payload.data(), static_cast<int32_t>(payload.size()));
  EXPECT_EQ(payload, block);
}

TEST(GenerateMQTempMPEGData, AFailedWriteStopsTheStreamAndStillAnswersOne) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  auto f = Open(path);
  Tag(*f, 2, 20000);
  const std::string out = test::TestPath("packs.bin");
  FileHandle h = OpenFileHandle(out, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  ASSERT_NE(h, kInvalidFileHandle);
  struct rlimit old_limit;
  getrlimit(RLIMIT_FSIZE, &old_limit);
  signal(SIGXFSZ, SIG_IGN);
  struct rlimit limit = old_limit;
  limit.rlim_cur = 4096;  // two packs fit
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  LogCapture log;
  const int32_t result = f->GenerateMQTempMPEGData(h, 3000);
  setrlimit(RLIMIT_FSIZE, &old_limit);
  signal(SIGXFSZ, SIG_DFL);
  CloseFileHandle(h);
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(log.Has("[3] GenerateMQTempMPEGData: the pack stream is cut short"));
  EXPECT_LE(FileSize(out), 4096);
}

TEST(GenerateMQTempMPEGData, WithoutABlockSucceedsWithoutWriting) {
  std::string path = CopyMedia("mpeg2ps.mpg", "a.mpg");
  auto f = Open(path);
  std::string out = test::TestPath("packs.tmp");
  FileHandle h = OpenFileHandle(out, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  ASSERT_EQ(f->GenerateMQTempMPEGData(h, 3000), 1);
  CloseFileHandle(h);
  EXPECT_EQ(FileSize(out), 0);
}

}  // namespace
}  // namespace marquel
