// Moving a program stream's cached tags into the file: ffmpeg-made MPEG-2, SVCD and DVD
// streams take them without a decoded frame changing, the formats that cannot take them
// keep their caches, and FAT volumes, read-only files and a second move are handled.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cache_test_util.h"
#include "testsupport/ffmpeg.h"
#include "in_file_store.h"
#include "media/mq_end_record.h"
#include "persist/cache_entry.h"
#include "persist/cache_limits.h"
#include "persist/result_codes.h"
#include "session_test_util.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::CopyMedia;
using cachetest::ReadAll;
using sessiontest::Expected;
using sessiontest::HasRawSample;
using sessiontest::InsertSamples;
using sessiontest::PlainSamples;
using sessiontest::kPlainTag;

// Tags the file and closes it, which leaves the tags in its cache.
void TagAndClose(const std::string& path, int32_t seed) {
  MarquelOneFile f;
  f.SetHandle(4);
  f.SetFileName(path);
  ASSERT_EQ(f.Open(0, 1, 0), 1);
  InsertSamples(f, 0, seed, 10);
  EXPECT_NE(f.CloseFile(0), MQ_ERR);
}

int32_t Migrate(const std::string& path, bool* moved) {
  MarquelOneFile m;
  m.SetHandle(MarquelOneFile::kDetachedSessionNumber);
  return m.MoveCacheDataToOrgFile(path, 1, moved);
}

struct Reopened {
  int32_t source = -1;
  int64_t start = -1;
  std::vector<std::pair<int64_t, int32_t>> plain;
  bool raw = false;
};

Reopened Reopen(const std::string& path, int32_t seed) {
  MarquelOneFile f;
  f.SetHandle(5);
  f.SetFileName(path);
  Reopened r;
  if (f.Open(0, 1, 0) != 1) return r;
  r.source = f.DataSource();
  r.start = f.MQStartAddress();
  r.plain = PlainSamples(f, 0);
  r.raw = HasRawSample(f, 0, seed);
  return r;
}

bool Cached(const std::string& path) {
  CacheEntry entry;
  return FindTempCacheEntry(path, &entry);
}

class MigrateInto : public testing::TestWithParam<const char*> {};

TEST_P(MigrateInto, TheTagsMoveIntoTheFileAndEveryFrameStaysAsItWas) {
  if (!fftest::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  const std::string path = CopyMedia(GetParam(), "clip.mpg");
  const Bytes before = ReadAll(path);
  const std::string frames = fftest::FrameMd5(path);
  const std::string probe = fftest::ProbeErrors(path);
  ASSERT_NE(frames.rfind("failed", 0), 0u) << frames;
  ASSERT_NE(frames.find("0,"), std::string::npos) << "video frames are listed";
  TagAndClose(path, 21);
  ASSERT_TRUE(Cached(path));
  bool moved = false;
  ASSERT_EQ(Migrate(path, &moved), 1);
  EXPECT_TRUE(moved);
  EXPECT_FALSE(Cached(path)) << "no cache entry is left";
  Reopened r = Reopen(path, 21);
  EXPECT_EQ(r.source, 1) << "read from the file itself";
  EXPECT_EQ(r.plain, Expected(21, 10));
  EXPECT_TRUE(r.raw);
  ASSERT_GE(r.start, 0);
  const Bytes after = ReadAll(path);
  EXPECT_TRUE(std::equal(before.begin(), before.begin() + r.start, after.begin()))
      << "the bytes before the merge start are unchanged";
  EXPECT_EQ(fftest::FrameMd5(path), frames);
  EXPECT_EQ(fftest::ProbeErrors(path), probe);
}

TEST_P(MigrateInto, MovingTwiceLeavesOneCopyOfTheNewerTags) {
  const std::string path = CopyMedia(GetParam(), "twice.mpg");
  TagAndClose(path, 21);
  bool moved = false;
  ASSERT_EQ(Migrate(path, &moved), 1);
  const int64_t once = static_cast<int64_t>(ReadAll(path).size());
  {
    MarquelOneFile f;
    f.SetHandle(6);
    f.SetFileName(path);
    ASSERT_EQ(f.Open(0, 1, 0), 1);
    ASSERT_EQ(f.Program(0)->InsertOne(kPlainTag, MakePlainSample(99000000, 5)), 1);
    EXPECT_NE(f.CloseFile(0), MQ_ERR);
  }
  ASSERT_EQ(Migrate(path, &moved), 1);
  EXPECT_TRUE(moved);
  Reopened r = Reopen(path, 21);
  EXPECT_EQ(r.source, 1);
  std::vector<std::pair<int64_t, int32_t>> want = Expected(21, 10);
  want.emplace_back(99000000, 5);
  EXPECT_EQ(r.plain, want);
  EXPECT_LT(static_cast<int64_t>(ReadAll(path).size()), once + 3 * 2324)
      << "the first copy's packs are gone";
}

INSTANTIATE_TEST_SUITE_P(FfmpegStreams, MigrateInto,
                         testing::Values("mpeg2ps_long.mpg", "svcd.mpg", "dvd_as.mpg"));

TEST(MigrateRefused, MpegOneVcdVobAviAndWmvFilesKeepTheirCachesAndTags) {
  for (auto [media, as] :
       {std::pair{"mpeg1.mpg", "a.mpg"}, std::pair{"vcd.mpg", "b.mpg"},
        std::pair{"dvd.vob", "c.vob"}, std::pair{"avi.avi", "d.avi"},
        std::pair{"wmv.wmv", "e.wmv"}}) {
    SCOPED_TRACE(media);
    const std::string path = CopyMedia(media, as);
    const Bytes before = ReadAll(path);
    TagAndClose(path, 22);
    cachetest::LogCapture log;
    bool moved = true;
    EXPECT_EQ(Migrate(path, &moved), 1);
    EXPECT_FALSE(moved);
    EXPECT_TRUE(log.Has("not mpeg2, svcd file or ts file"));
    EXPECT_EQ(ReadAll(path), before);
    Reopened r = Reopen(path, 22);
    EXPECT_EQ(r.plain, Expected(22, 10));
  }
}

TEST(InFileStores, ProgramAndTransportStreamsHaveOneAndOtherFormatsKeepTheirDataInTheCaches) {
  for (int32_t format : {1, 2, 3, 4, 5, 10}) EXPECT_NE(InFileStoreFor(format), nullptr) << format;
  for (int32_t format : {0, 6, 7, 8, 9, 17}) EXPECT_EQ(InFileStoreFor(format), nullptr) << format;
}

TEST(InFileStores, TheTransportStreamWriteRefusesAndAMergeWithoutAFileFails) {
  cachetest::LogCapture log;
  MarquelOneFile f;
  f.SetHandle(4);
  InFileStore* store = InFileStoreFor(10);
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(store->Write(f, kInvalidFileHandle, 0, 0, 0), -1);
  EXPECT_EQ(store->Merge(f, 0), 0);
  EXPECT_TRUE(log.Has("[4] writing MQ data into a transport stream is not supported yet"));
  EXPECT_TRUE(log.Has("[4] ProcessMQInterLeaveInTS"));
  EXPECT_TRUE(log.Has("[4] can not open '' as read/write"));
}

TEST(MigrateLimits, TheMoveTestsStrictlyAboveTheLimitWhereTheCloseTestsAtOrAbove) {
  // 3,999,000,000 bytes and a 1,000,000-byte block: 1,013,406 more passes 4,000,000,000.
  EXPECT_TRUE(PassesLimitAtMove(4000000000, 2, 1000000, 3999000000));
  const int64_t exactly = 4000000000 - 1013406;
  EXPECT_FALSE(PassesLimitAtMove(4000000000, 2, 1000000, exactly)) << "exactly at it moves";
  EXPECT_TRUE(ReachesLimitAtClose(4000000000, 2, 1000000, static_cast<uint64_t>(exactly)))
      << "where the close keeps the cache";
  EXPECT_TRUE(PassesLimitAtMove(4000000000, 2, 1000000, exactly + 1));
  EXPECT_FALSE(PassesLimitAtMove(0, 2, 1000000, 8000000000)) << "no limit";
}

TEST(MigrateRefused, AFileThatWouldPassTheFat32LimitIsLeftAloneWithItsCache) {
  const std::string path = CopyMedia("mpeg2ps.mpg", "big.mpg");
  TagAndClose(path, 23);
  // A sparse file just below the limit: the tags would take it past 4,000,000,000 bytes.
  ASSERT_EQ(truncate(path.c_str(), 3999999000), 0);
  cachetest::FakeVolumeEnv fat("FAT32");
  cachetest::ScopedEnv env(&fat);
  bool moved = true;
  EXPECT_EQ(Migrate(path, &moved), 1);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(Cached(path));
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 3999999000);
}

TEST(MigrateRefused, AReadOnlyFileIsNeverWrittenAndKeepsItsCache) {
  const std::string path = CopyMedia("mpeg2ps.mpg", "ro.mpg");
  TagAndClose(path, 24);
  const Bytes before = ReadAll(path);
  ASSERT_EQ(chmod(path.c_str(), 0444), 0);
  cachetest::LogCapture log;
  bool moved = true;
  EXPECT_EQ(Migrate(path, &moved), -1);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(log.Has("do not have the write permission"));
  EXPECT_EQ(ReadAll(path), before);
  EXPECT_TRUE(Cached(path));
  EXPECT_EQ(Reopen(path, 24).plain, Expected(24, 10));
}

TEST(MigrateRefused, AFileWithoutACacheEntryHasNothingToMove) {
  const std::string path = CopyMedia("mpeg2ps.mpg", "none.mpg");
  const Bytes before = ReadAll(path);
  cachetest::LogCapture log;
  bool moved = true;
  EXPECT_EQ(Migrate(path, &moved), 1);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(log.Has("check from registry failed"));
  EXPECT_EQ(ReadAll(path), before);
}

}  // namespace
}  // namespace marquel
