// Closes that cannot write: the cache folder cannot be used, the disk is full, a large
// block cannot be set aside while it is written, or the media file is gone. The close answers -1
// (never 2, which would promise a pending move of data that was not kept), the store never names a
// missing file, and no sample already cached is lost.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>

#include "persist/cache_entry.h"
#include "persist/result_codes.h"
#include "platform/env.h"
#include "session_test_util.h"
#include "tags/stream_spill.h"
#include "testsupport/file_size_limit.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::CacheFolder;
using cachetest::CopyMedia;
using cachetest::FolderFiles;
using cachetest::LogCapture;
using sessiontest::Expected;
using sessiontest::InsertSamples;
using sessiontest::OpenSession;
using sessiontest::PlainSamples;

// No entry names a file that is not there.
void ExpectEveryNamedFileExists() {
  for (int32_t k = 0; k < kCacheKindCount; ++k) {
    for (const CacheEntry& e : ListCacheEntries(static_cast<CacheKind>(k))) {
      for (const std::string& file : e.CacheFiles()) {
        EXPECT_TRUE(FileExists(file)) << e.KeyPath() << " names " << file;
      }
    }
  }
}

// Makes the cache folder unusable: a file stands where it should be.
void BlockCacheFolder() {
  std::string halvern = CurrentEnv()->AppDataFolder() + "/Halvern";
  MakeFolder(halvern);
  cachetest::WriteAll(halvern + "/MQInfo", Bytes{0});
}

TEST(CloseFaults, CacheFolderThatCannotBeUsed) {
  BlockCacheFolder();
  struct Case {
    const char* media;
    const char* as;
    int32_t bWriteToCache;
    int32_t expected;
  };
  const Case cases[] = {
      {"mpeg1.mpg", "a.mpg", 0, MQ_ERR},
      {"mpeg2ps.mpg", "b.mpg", 0, MQ_ERR},  // not 2: nothing was cached to move
      {"mpeg2ps.mpg", "c.mpg", 1, MQ_ERR},
      {"ts188.ts", "d.ts", 0, MQ_ERR},
      {"ts188.ts", "e.ts", 1, MQ_ERR},
      {"avi.avi", "f.avi", 0, MQ_ERR},
      {"mp4.mp4", "g.mp4", 0, MQ_ERR},
      {"dvd.vob", "h.vob", 1, MQ_ERR},
  };
  for (const Case& c : cases) {
    auto f = OpenSession(CopyMedia(c.media, c.as));
    InsertSamples(*f, 0, 1, 5);
    LogCapture log;
    EXPECT_EQ(f->CloseFile(c.bWriteToCache), c.expected) << c.as;
  }
  for (int32_t k = 0; k < kCacheKindCount; ++k) {
    EXPECT_TRUE(ListCacheEntries(static_cast<CacheKind>(k)).empty()) << k;
  }
}

TEST(CloseFaults, Mpeg1CacheFileThatCannotBeMadeIsLogged) {
  BlockCacheFolder();
  auto f = OpenSession(CopyMedia("mpeg1.mpg", "a.mpg"));
  InsertSamples(*f, 0, 1, 5);
  LogCapture log;
  EXPECT_EQ(f->CloseFile(0), MQ_ERR);
  EXPECT_TRUE(log.Has("[3] create temp file fail ()"));
  EXPECT_TRUE(log.Has("[3] always write to cache -1"));
}

using test::ScopedFileSizeLimit;

TEST(CloseFaults, FullDiskKeepsEverySampleAlreadyCached) {
  struct Case {
    const char* media;
    const char* as;
    CacheKind kind;
    int32_t expected;  // of the failing close
  };
  const Case cases[] = {
      {"mpeg1.mpg", "a.mpg", CacheKind::kTemp, MQ_ERR},
      {"mpeg2ps.mpg", "b.mpg", CacheKind::kTemp, MQ_ERR},
      {"ts188.ts", "c.ts", CacheKind::kTS, MQ_ERR},
      {"avi.avi", "d.avi", CacheKind::kAVI, MQ_ERR},
  };
  for (const Case& c : cases) {
    std::string path = CopyMedia(c.media, c.as);
    {
      auto f = OpenSession(path);
      InsertSamples(*f, 0, 1, 20);
      ASSERT_NE(f->CloseFile(0), MQ_ERR) << c.as;
    }
    size_t files_before = FolderFiles(CacheFolder()).size();
    {
      auto f = OpenSession(path);
      ASSERT_EQ(PlainSamples(*f, 0), Expected(1, 20));
      InsertSamples(*f, 0, 2, 3000);  // a block far larger than the limit
      ScopedFileSizeLimit full(4096);
      EXPECT_EQ(f->CloseFile(0), c.expected) << c.as;
    }
    ExpectEveryNamedFileExists();
    EXPECT_EQ(FolderFiles(CacheFolder()).size(), files_before) << "no half-written file stays";
    auto g = OpenSession(path);
    EXPECT_EQ(PlainSamples(*g, 0), Expected(1, 20)) << c.as << ": the cached samples are whole";
  }
}

// A temporary folder that cannot be made: no file can be set aside in it.
class NoTempFolderEnv : public Env {
 public:
  std::string TempFolder() override { return "/nonexistent/marquel-test-tmp"; }
};

// A block too large to be held in memory is set aside in temporary files while it is
// written; when that fails, the close fails too. For the other-format caches the program
// without its block would otherwise be skipped, and the close would answer success.
TEST(CloseFaults, ABlockThatCannotBeSetAsideFailsTheClose) {
  const std::string path = CopyMedia("avi.avi", "large.avi");
  {
    auto f = OpenSession(path);
    InsertSamples(*f, 0, 1, 20);
    ASSERT_NE(f->CloseFile(0), MQ_ERR);
  }
  auto f = OpenSession(path);
  MQOneProgram* p = f->Program(0);
  std::vector<uint8_t> bytes(1 << 20, 0x5A);
  const int32_t samples = static_cast<int32_t>(kStreamSpillThreshold >> 20) + 2;
  for (int32_t i = 0; i < samples; ++i) {
    ASSERT_EQ(p->InsertOne(32, MakeRawSample(int64_t{i} * 1000 + 7, 1 << 20, bytes.data())), 1);
  }
  ASSERT_EQ(p->FlushAllMemoryBlocks(), 1);
  {
    NoTempFolderEnv env;
    cachetest::ScopedEnv scoped(&env);
    LogCapture log;
    EXPECT_EQ(f->CloseFile(0), MQ_ERR);
    EXPECT_TRUE(log.Has("[3] program 0: its data block could not be written"));
  }
  f.reset();
  ExpectEveryNamedFileExists();
  auto g = OpenSession(path);
  EXPECT_EQ(PlainSamples(*g, 0), Expected(1, 20)) << "the cached samples are whole";
}

TEST(CloseFaults, MediaFileRemovedBeforeTheCloseFailsAndWritesNoEntry) {
  std::filesystem::create_directories(test::TestPath("disc/VIDEO_TS"));
  const char* const cases[][2] = {
      {"mpeg1.mpg", "a.mpg"},
      {"mpeg2ps.mpg", "b.mpg"},
      {"svcd.mpg", "c.mpg"},
      {"ts188.ts", "d.ts"},
      {"avi.avi", "e.avi"},
      {"mp4.mp4", "f.mp4"},
      {"dvd.vob", "disc/VIDEO_TS/VTS_01_1.VOB"},
  };
  for (const auto& c : cases) {
    std::string path = CopyMedia(c[0], c[1]);
    auto f = OpenSession(path);
    InsertSamples(*f, 0, 1, 5);
    ASSERT_TRUE(RemoveFile(path));
    EXPECT_EQ(f->CloseFile(0), MQ_ERR) << c[1];
  }
  sessiontest::ExpectNothingCached();
}

TEST(CloseFaults, PathTooLongForACacheRecordIsRefusedWithItsReason) {
  const std::string name(300 - test::TestDir().size(), 'x');
  for (auto [media, extension] : {std::pair{"mpeg2ps.mpg", ".mpg"}, std::pair{"ts188.ts", ".ts"},
                                  std::pair{"avi.avi", ".avi"}}) {
    auto f = OpenSession(CopyMedia(media, name + extension));
    InsertSamples(*f, 0, 1, 5);
    LogCapture log;
    EXPECT_EQ(f->CloseFile(0), MQ_ERR) << extension;
    EXPECT_TRUE(log.Has("a cache record holds at most 259 UTF-16 units of path")) << extension;
  }
  sessiontest::ExpectNothingCached();
}

}  // namespace
}  // namespace marquel
