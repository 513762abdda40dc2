// The close policy: what is written, where, and the results 1, 2 and -1.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "persist/cache_entry.h"
#include "persist/cache_limits.h"
#include "persist/result_codes.h"
#include "session_test_util.h"
#include "tags/block_program.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::CacheFolder;
using cachetest::CopyMedia;
using cachetest::FakeVolumeEnv;
using cachetest::FolderFiles;
using cachetest::LogCapture;
using cachetest::ScopedEnv;
using sessiontest::Expected;
using sessiontest::InsertSamples;
using sessiontest::OpenSession;
using sessiontest::PlainSamples;

// A session of a file that does not exist yet, with the type the client names.
std::unique_ptr<MarquelOneFile> Recording(const std::string& name, int32_t type) {
  return OpenSession(test::TestPath(name), type);
}

TEST(SessionClose, WithoutTagsNothingIsWrittenAndAnEntryStays) {
  std::string path = CopyMedia("mpeg1.mpg", "a.mpg");
  {
    auto f = OpenSession(path);
    InsertSamples(*f, 0, 1, 5);
    ASSERT_EQ(f->CloseFile(1), MQ_SUCCESS);
  }
  auto before = ListCacheEntries(CacheKind::kTemp);
  ASSERT_EQ(before.size(), 1u);
  // A session of the same file that loaded nothing holds no tag.
  MarquelOneFile f;
  f.SetHandle(3);
  f.SetFileName(path);
  ASSERT_EQ(f.Open(0, 0, 0), 1);
  LogCapture log;
  EXPECT_EQ(f.CloseFile(0), MQ_SUCCESS);
  EXPECT_TRUE(log.Has("[3] MarquelOneFile::CloseFile(" + path + ", 0)"));
  EXPECT_FALSE(log.Has("close with type"));
  auto after = ListCacheEntries(CacheKind::kTemp);
  ASSERT_EQ(after.size(), 1u);
  EXPECT_EQ(after[0].temp.cache_path, before[0].temp.cache_path);
  EXPECT_TRUE(FileExists(before[0].temp.cache_path));
}

// No format writes anything for a session without tags; MPEG-2, SVCD and transport
// streams then answer 1, not the pending 2.
TEST(SessionClose, WithoutTagsNoFormatWritesAnything) {
  std::filesystem::create_directories(test::TestPath("disc/VIDEO_TS"));
  const std::pair<const char*, const char*> media[] = {
      {"mpeg2ps.mpg", "a.mpg"}, {"svcd.mpg", "b.mpg"},
      {"ts188.ts", "c.ts"},     {"dvd.vob", "disc/VIDEO_TS/VTS_01_1.VOB"},
      {"avi.avi", "e.avi"},     {"mp4.mp4", "f.mp4"},
  };
  for (const auto& [source, as] : media) {
    auto f = OpenSession(CopyMedia(source, as));
    ASSERT_FALSE(f->HasTags()) << as;
    LogCapture log;
    EXPECT_EQ(f->CloseFile(0), MQ_SUCCESS) << as;
    EXPECT_FALSE(log.Has("close with type")) << as;
  }
  sessiontest::ExpectNothingCached();
  EXPECT_FALSE(FileExists(test::TestPath("disc/MQINFO/VTS_01_1.VOB.mq")));
}

// Tags in any program make the close write: here only the second program of a transport
// stream holds some.
TEST(SessionClose, TagsInALaterProgramAreWritten) {
  auto f = OpenSession(CopyMedia("ts188.ts", "a.ts"));
  int32_t index = -1;
  ASSERT_EQ(f->InsertNewProgram(0x300, &index), 1);
  ASSERT_EQ(index, 1);
  InsertSamples(*f, 1, 4, 5);
  ASSERT_TRUE(f->HasTags());
  EXPECT_EQ(f->CloseFile(0), MQ_AUTOPROCESSFAIL);
  auto entries = ListCacheEntries(CacheKind::kTS);
  ASSERT_EQ(entries.size(), 1u);
  ASSERT_FALSE(entries[0].programs.empty());
  EXPECT_EQ(entries[0].programs.back().pmt_pid, 0x300);
  auto g = OpenSession(f->FileName());
  ASSERT_GE(g->FindProgram(0x300), 0);
  EXPECT_EQ(PlainSamples(*g, g->FindProgram(0x300)), Expected(4, 5));
}

TEST(SessionClose, ReadOnlySelectionWritesNothing) {
  auto f = std::make_unique<MarquelOneFile>();
  f->SetFileName(CopyMedia("mpeg1.mpg", "a.mpg"));
  f->SetTagSelection(1, 0, nullptr);
  ASSERT_EQ(f->Open(0, 1, 0), 1);
  InsertSamples(*f, 0, 1, 5);
  EXPECT_EQ(f->CloseFile(1), MQ_SUCCESS);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty());
}

TEST(SessionClose, Mpeg2ReturnsTwoUnlessCacheOnlyIsAsked) {
  FakeVolumeEnv ntfs("ntfs");  // not a FAT volume: no size limit
  ScopedEnv env(&ntfs);
  {
    auto f = OpenSession(CopyMedia("mpeg2ps.mpg", "a.mpg"));
    InsertSamples(*f, 0, 1, 5);
    LogCapture log;
    EXPECT_EQ(f->CloseFile(0), MQ_AUTOPROCESSFAIL);
    EXPECT_TRUE(log.Has("[3] close with type MQ_FORMAT_MPEG2"));
    EXPECT_TRUE(log.Has("[3] WriteToFile(1)"));
    EXPECT_TRUE(log.Has("[3] WriteToTempRegistry return 1"));
    EXPECT_TRUE(log.Has("[3] write to mpeg2 or svcd file 2"));
  }
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u) << "written to the temp cache";
  auto f = OpenSession(CopyMedia("mpeg2ps.mpg", "b.mpg"));
  InsertSamples(*f, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(f->CloseFile(1), MQ_SUCCESS);
  EXPECT_TRUE(log.Has("[3] write to mpeg2 or svcd file 1"));
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 2u);
}

TEST(SessionClose, SvcdAndTransportStreamReturnTwoWithoutCacheOnly) {
  auto svcd = OpenSession(CopyMedia("svcd.mpg", "a.mpg"));
  InsertSamples(*svcd, 0, 1, 5);
  EXPECT_EQ(svcd->CloseFile(0), MQ_AUTOPROCESSFAIL);
  auto ts = OpenSession(CopyMedia("ts188.ts", "a.ts"));
  InsertSamples(*ts, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(ts->CloseFile(0), MQ_AUTOPROCESSFAIL);
  EXPECT_TRUE(log.Has("[3] write ts 2"));
  auto ts2 = OpenSession(CopyMedia("ts188.ts", "b.ts"));
  InsertSamples(*ts2, 0, 1, 5);
  EXPECT_EQ(ts2->CloseFile(1), MQ_SUCCESS);
  EXPECT_TRUE(log.Has("[3] write ts 1"));
}

TEST(SessionClose, Mpeg1AndVcdAlwaysGoToTheCache) {
  auto f = OpenSession(CopyMedia("mpeg1.mpg", "a.mpg"));
  InsertSamples(*f, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(f->CloseFile(0), MQ_SUCCESS);
  EXPECT_TRUE(log.Has("[3] always write to cache 1"));
  auto vcd = Recording("b.dat", 3);  // a Video CD file the client names
  cachetest::WriteAll(test::TestPath("b.dat"), Bytes(20000, 0));
  InsertSamples(*vcd, 0, 1, 5);
  EXPECT_EQ(vcd->CloseFile(0), MQ_SUCCESS);
  EXPECT_TRUE(log.Has("[3] close with type MQ_FORMAT_VCD"));
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 2u);
}

TEST(SessionClose, AviAndOtherFormatLinesKeepTheirShape) {
  auto avi = OpenSession(CopyMedia("avi.avi", "a.avi"));
  InsertSamples(*avi, 0, 1, 5);
  auto mp4 = OpenSession(CopyMedia("mp4.mp4", "a.mp4"));
  InsertSamples(*mp4, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(avi->CloseFile(0), MQ_SUCCESS);
  EXPECT_EQ(mp4->CloseFile(0), MQ_SUCCESS);
  // The writer's result stands where the session number stands in other lines.
  EXPECT_TRUE(log.Has("[1] write avi 1"));
  EXPECT_TRUE(log.Has("[1] write MQ_FORMAT_MPEG4"));
  EXPECT_EQ(ListCacheEntries(CacheKind::kAVI).size(), 1u);
  EXPECT_EQ(ListCacheEntries(CacheKind::kOther).size(), 1u);
}

TEST(SessionClose, FormatUnknownAtOpenIsDetectedAtClose) {
  std::string path = cachetest::MakeFile("rec.mpg", 10, 0);
  auto f = OpenSession(path);
  ASSERT_EQ(f->FileType(), 0);
  InsertSamples(*f, 0, 1, 5);
  cachetest::WriteAll(path, cachetest::ReadAll(cachetest::MediaSource("mpeg2ps.mpg")));
  LogCapture log;
  EXPECT_EQ(f->CloseFile(0), MQ_AUTOPROCESSFAIL);
  EXPECT_EQ(f->FileType(), 2);
  EXPECT_TRUE(log.Has("[3] close with type MQ_FORMAT_MPEG2"));
}

TEST(SessionClose, TransportStreamWithoutKnownProgramsIsDetectedAgain) {
  auto f = Recording("rec.ts", 10);
  ASSERT_EQ(f->TsProgramsKnown(), 0);
  InsertSamples(*f, 0, 1, 5);
  // The recording turned out to be a program stream.
  CopyMedia("mpeg2ps.mpg", "rec.ts");
  EXPECT_EQ(f->CloseFile(0), MQ_AUTOPROCESSFAIL);
  EXPECT_EQ(f->FileType(), 2);
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTS).empty());
}

// --- Force to cache: the FAT limits and the owner-write bit ----------------------------

TEST(CloseLimits, GrowthFormulasAndTheAtOrAboveTest) {
  EXPECT_EQ(PredictedGrowth(2, 1000000), 1013406);
  EXPECT_EQ(PredictedGrowth(10, 1000000), (1000000 + 183) * 188 / 183);
  EXPECT_EQ(PredictedGrowth(6, 0), 2048);
  EXPECT_EQ(FileSystemSizeLimit("FAT32"), 4000000000);
  EXPECT_EQ(FileSystemSizeLimit("FAT16"), 2000000000);
  EXPECT_EQ(FileSystemSizeLimit("exfat"), 0);
  EXPECT_TRUE(ReachesLimitAtClose(4000000000, 2, 1000000, 3999000000u));
  EXPECT_TRUE(ReachesLimitAtClose(4000000000, 6, 1000000, 4000000000u - 1013406))
      << "exactly at the limit forces the cache";
  EXPECT_FALSE(ReachesLimitAtClose(4000000000, 6, 1000000, 4000000000u - 1013407));
  EXPECT_FALSE(ReachesLimitAtClose(0, 6, 1000000, 8000000000u));
}

// A DVD file of `size` bytes (sparse) in a disc folder, whose session holds samples.
std::unique_ptr<MarquelOneFile> DvdOfSize(int64_t size_minus_growth, int64_t* n) {
  std::filesystem::create_directories(test::TestPath("disc/VIDEO_TS"));
  std::string path = CopyMedia("dvd.vob", "disc/VIDEO_TS/VTS_01_1.VOB");
  // Learn the block size of the samples, then size the file before the real open.
  auto probe = Recording("probe.vob", 6);
  InsertSamples(*probe, 0, 1, 200);
  *n = QueryProgramBlockSize(*probe->Program(0));
  int64_t size = size_minus_growth - PredictedGrowth(6, *n);
  EXPECT_EQ(truncate(path.c_str(), size), 0);
  auto f = OpenSession(path);
  EXPECT_EQ(f->OriginalSize(), static_cast<uint64_t>(size));
  InsertSamples(*f, 0, 1, 200);
  return f;
}

std::string SideFile() {
  return test::TestPath("disc/MQINFO/VTS_01_1.VOB.mq");
}

TEST(CloseLimits, Fat32AtTheLimitForcesTheVRCache) {
  FakeVolumeEnv fat32("FAT32");
  ScopedEnv env(&fat32);
  int64_t n = 0;
  auto f = DvdOfSize(4000000000, &n);  // original size + growth = 4,000,000,000 exactly
  EXPECT_EQ(f->CloseFile(0), MQ_SUCCESS);
  EXPECT_FALSE(FileExists(SideFile()));
  EXPECT_EQ(f->CacheFilePath().rfind(CacheFolder(), 0), 0u) << f->CacheFilePath();
}

TEST(CloseLimits, Fat32BelowTheLimitWritesTheSideFile) {
  FakeVolumeEnv fat32("FAT32");
  ScopedEnv env(&fat32);
  int64_t n = 0;
  auto f = DvdOfSize(4000000000 - 1, &n);
  EXPECT_EQ(f->CloseFile(0), MQ_SUCCESS);
  EXPECT_EQ(f->CacheFilePath(), SideFile());
  EXPECT_TRUE(FileExists(SideFile()));
}

TEST(CloseLimits, Fat16HasItsOwnLimit) {
  FakeVolumeEnv fat16("FAT16");
  ScopedEnv env(&fat16);
  int64_t n = 0;
  auto f = DvdOfSize(2000000000, &n);
  EXPECT_EQ(f->CloseFile(0), MQ_SUCCESS);
  EXPECT_FALSE(FileExists(SideFile()));
}

TEST(CloseLimits, CacheOnlyAskedWritesTheVRCache) {
  std::filesystem::create_directories(test::TestPath("disc/VIDEO_TS"));
  auto f = OpenSession(CopyMedia("dvd.vob", "disc/VIDEO_TS/VTS_01_1.VOB"));
  InsertSamples(*f, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(f->CloseFile(1), MQ_SUCCESS);
  EXPECT_TRUE(log.Has("[3] write vob to cache"));
  EXPECT_FALSE(FileExists(SideFile()));
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 1u);
}

TEST(CloseLimits, Mpeg2NearTheFat32LimitIsCachedAsAlways) {
  FakeVolumeEnv fat32("FAT32");
  ScopedEnv env(&fat32);
  std::string path = CopyMedia("mpeg2ps.mpg", "big.mpg");
  ASSERT_EQ(truncate(path.c_str(), 3999000000), 0);
  auto f = OpenSession(path);
  ASSERT_EQ(f->FileType(), 2);
  InsertSamples(*f, 0, 1, 5);
  EXPECT_EQ(f->CloseFile(0), MQ_AUTOPROCESSFAIL);
  ASSERT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u);
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp)[0].temp.original_size, 3999000000u);
}

// The force-to-cache flag steers the VR cache only. On a FAT32 volume where every file
// reaches the limit, the DVD file is forced into the cache folder, while MPEG-2, SVCD and
// transport streams take their usual path: the cache, and 2 for the pending move.
TEST(CloseLimits, ForcedCacheSteersOnlyTheVRPath) {
  FakeVolumeEnv fat32("FAT32");
  ScopedEnv env(&fat32);
  std::filesystem::create_directories(test::TestPath("disc/VIDEO_TS"));
  struct Case {
    const char* media;
    const char* as;
    int32_t format;
    int32_t expected;
  };
  const Case cases[] = {
      {"dvd.vob", "disc/VIDEO_TS/VTS_01_1.VOB", 6, MQ_SUCCESS},
      {"mpeg2ps.mpg", "a.mpg", 2, MQ_AUTOPROCESSFAIL},
      {"svcd.mpg", "b.mpg", 4, MQ_AUTOPROCESSFAIL},
      {"ts188.ts", "c.ts", 10, MQ_AUTOPROCESSFAIL},
  };
  for (const Case& c : cases) {
    std::string path = CopyMedia(c.media, c.as);
    ASSERT_EQ(truncate(path.c_str(), kFat32SizeLimit), 0);  // at the limit before growing
    auto f = OpenSession(path);
    ASSERT_EQ(f->FileType(), c.format) << c.as;
    InsertSamples(*f, 0, 1, 5);
    EXPECT_EQ(f->CloseFile(0), c.expected) << c.as;
    EXPECT_EQ(f->CacheFilePath().rfind(CacheFolder(), 0), 0u) << c.as << ": " << f->CacheFilePath();
  }
  EXPECT_FALSE(FileExists(SideFile())) << "the DVD file was forced into the cache";
  EXPECT_EQ(ListCacheEntries(CacheKind::kVR).size(), 1u);
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 2u);
  EXPECT_EQ(ListCacheEntries(CacheKind::kTS).size(), 1u);

  // Cache-only persistence asked for: the writers' own result.
  std::string again = CopyMedia("ts188.ts", "d.ts");
  ASSERT_EQ(truncate(again.c_str(), kFat32SizeLimit), 0);
  auto f = OpenSession(again);
  InsertSamples(*f, 0, 1, 5);
  EXPECT_EQ(f->CloseFile(1), MQ_SUCCESS);
}

// A clear owner-write bit forces the cache too, and a transport stream still answers 2.
TEST(CloseLimits, ReadOnlyTransportStreamIsCachedAndPending) {
  std::string ts = CopyMedia("ts188.ts", "a.ts");
  ASSERT_EQ(chmod(ts.c_str(), 0444), 0);
  auto f = OpenSession(ts);
  InsertSamples(*f, 0, 3, 5);
  EXPECT_EQ(f->CloseFile(0), MQ_AUTOPROCESSFAIL);
  ASSERT_EQ(ListCacheEntries(CacheKind::kTS).size(), 1u);
  auto g = OpenSession(ts);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(3, 5));
}

TEST(CloseLimits, ReadOnlyMediaIsStillCached) {
  std::filesystem::create_directories(test::TestPath("disc/VIDEO_TS"));
  std::string vob = CopyMedia("dvd.vob", "disc/VIDEO_TS/VTS_01_1.VOB");
  std::string mpg = CopyMedia("mpeg2ps.mpg", "a.mpg");
  ASSERT_EQ(chmod(vob.c_str(), 0444), 0);
  ASSERT_EQ(chmod(mpg.c_str(), 0444), 0);
  auto v = OpenSession(vob);
  InsertSamples(*v, 0, 1, 5);
  EXPECT_EQ(v->CloseFile(0), MQ_SUCCESS);
  EXPECT_FALSE(FileExists(SideFile())) << "owner-write clear forces the cache";
  EXPECT_EQ(ListCacheEntries(CacheKind::kVR).size(), 1u);
  auto m = OpenSession(mpg);
  InsertSamples(*m, 0, 2, 5);
  EXPECT_EQ(m->CloseFile(0), MQ_AUTOPROCESSFAIL);
  auto g = OpenSession(mpg);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(2, 5));
}

}  // namespace
}  // namespace marquel
