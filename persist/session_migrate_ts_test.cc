// Moving a transport stream's cached tags into the file: which files are left alone with
// their caches (no entry, an entry of other bytes, a FAT volume that cannot take them, a
// file the data would take over), and that a refused or failed move never costs the cache.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cache_test_util.h"
#include "persist/cache_entry.h"
#include "persist/result_codes.h"
#include "session_test_util.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::CopyMedia;
using cachetest::ReadAll;
using sessiontest::Expected;
using sessiontest::InsertSamples;
using sessiontest::PlainSamples;

// Tags the file (and `rawBytes` more bytes of raw samples) and closes it, which leaves
// the tags in the TS cache.
void TagAndClose(const std::string& path, int32_t seed, int32_t rawBytes = 0) {
  MarquelOneFile f;
  f.SetHandle(4);
  f.SetFileName(path);
  ASSERT_EQ(f.Open(0, 1, 0), 1);
  InsertSamples(f, 0, seed, 10);
  std::vector<uint8_t> raw(1000, 0x5A);
  for (int32_t i = 0; i * 1000 < rawBytes; ++i) {
    auto sample = MakeRawSample(int64_t{i} * 1000 + 7, 1000, raw.data());
    ASSERT_EQ(f.Program(0)->InsertOne(sessiontest::kRawTag, sample), 1);
  }
  EXPECT_EQ(f.CloseFile(0), MQ_AUTOPROCESSFAIL) << "a transport stream's move is pending";
}

int32_t Migrate(const std::string& path, bool* moved) {
  MarquelOneFile m;
  m.SetHandle(MarquelOneFile::kDetachedSessionNumber);
  return m.MoveCacheDataToOrgFile(path, 1, moved);
}

bool Cached(const std::string& path) {
  CacheEntry entry;
  return FindEntryByPath(CacheKind::kTS, path, &entry);
}

std::vector<std::pair<int64_t, int32_t>> ReopenedSamples(const std::string& path) {
  MarquelOneFile f;
  f.SetHandle(5);
  f.SetFileName(path);
  if (f.Open(0, 1, 0) != 1) return {};
  return PlainSamples(f, 0);
}

TEST(MigrateTsRefused, AFileWithoutATsCacheEntryHasNothingToMove) {
  const std::string path = CopyMedia("ts188.ts", "none.ts");
  const Bytes before = ReadAll(path);
  cachetest::LogCapture log;
  bool moved = true;
  EXPECT_EQ(Migrate(path, &moved), 1);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(log.Has("[-5203] MoveCacheDataToOrgFile: " + path + " check from registry failed"));
  EXPECT_EQ(ReadAll(path), before);
}

TEST(MigrateTsRefused, AnEntryWrittenForOtherBytesIsNotMovedIntoTheFile) {
  const std::string path = CopyMedia("ts188.ts", "changed.ts");
  TagAndClose(path, 31);
  // The file grew after the close (a recorder still writing, say): the cached tags were
  // not written for these bytes, and neither the open nor the move takes them.
  Bytes grown = ReadAll(path);
  grown.insert(grown.end(), grown.begin(), grown.begin() + 188 * 10);
  cachetest::WriteAll(path, grown);
  cachetest::LogCapture log;
  bool moved = true;
  EXPECT_EQ(Migrate(path, &moved), 1);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(log.Has("check from registry failed"));
  EXPECT_EQ(ReadAll(path), grown);
  EXPECT_TRUE(Cached(path)) << "the entry is left for its owner to sort out";
}

TEST(MigrateTsRefused, AFileThatWouldPassTheFat32LimitIsLeftAloneWithItsCache) {
  const std::string path = CopyMedia("ts188.ts", "big.ts");
  // A sparse file just below the limit: the tags would take it past 4,000,000,000 bytes.
  ASSERT_EQ(truncate(path.c_str(), 3999999900), 0);
  TagAndClose(path, 33);
  cachetest::FakeVolumeEnv fat("FAT32");
  cachetest::ScopedEnv env(&fat);
  cachetest::LogCapture log;
  bool moved = true;
  EXPECT_EQ(Migrate(path, &moved), 1);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(log.Has("[-5203] MoveCacheDataToOrgFile: " + path + " file over 4G can not move"))
      << testing::PrintToString(log.Messages());
  EXPECT_TRUE(Cached(path));
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 3999999900);
}

TEST(MigrateTsRefused, DataThatWouldTakeOverHalfTheFileLeavesItUnchangedAndKeepsTheCache) {
  const std::string path = CopyMedia("ts188.ts", "small.ts");
  // About 60 KB of tags: three original packets a data packet would start the
  // interleave below half of this 295 KB file.
  TagAndClose(path, 34, 60000);
  const Bytes before = ReadAll(path);
  cachetest::LogCapture log;
  bool moved = true;
  EXPECT_EQ(Migrate(path, &moved), -1);
  EXPECT_FALSE(moved);
  EXPECT_TRUE(
      log.Has("[-5203] ProcessMQInterLeaveInTS: " + path + " can not write to original file"));
  EXPECT_EQ(ReadAll(path), before);
  EXPECT_TRUE(Cached(path));
  EXPECT_EQ(ReopenedSamples(path), Expected(34, 10)) << "the tags still come from the cache";
}

TEST(MigrateTs, EveryProgramMovesIntoTheFileWithItsLogLinesAndTheCacheGoes) {
  const std::string path = CopyMedia("ts2prog.ts", "two.ts");
  {
    MarquelOneFile f;
    f.SetHandle(4);
    f.SetFileName(path);
    ASSERT_EQ(f.Open(0, 1, 0), 1);
    int32_t second = 1;
    if (f.ProgramCount() < 2) {
      ASSERT_EQ(f.InsertNewProgram(0x1001, &second), 1);
    }
    InsertSamples(f, 0, 41, 10);
    InsertSamples(f, second, 42, 12);
    EXPECT_EQ(f.CloseFile(0), MQ_AUTOPROCESSFAIL);
  }
  cachetest::LogCapture log;
  bool moved = false;
  EXPECT_EQ(Migrate(path, &moved), 1);
  EXPECT_TRUE(moved);
  EXPECT_TRUE(log.Has("[-5203] process with type MQ_FORMAT_TS"));
  EXPECT_TRUE(log.Has("[-5203] MoveCacheDataToOrgFile: " + path + ", org modified time "));
  EXPECT_TRUE(log.HasMessage("[-5203] ProcessMQInterLeaveInTS: process success"));
  EXPECT_TRUE(
      log.HasMessage("[-5203] MoveCacheDataToOrgFile: " + path + " move registry to file ok"));
  EXPECT_FALSE(Cached(path)) << "the entry and its cache files are gone";
  MarquelOneFile f;
  f.SetHandle(5);
  f.SetFileName(path);
  ASSERT_EQ(f.Open(0, 1, 0), 1);
  EXPECT_EQ(f.m_bMQExisted, 1);
  EXPECT_EQ(f.DataSource(), kSourceMediaFile);
  ASSERT_GE(f.ProgramCount(), 2);
  EXPECT_EQ(PlainSamples(f, 0), Expected(41, 10));
  EXPECT_EQ(PlainSamples(f, 1), Expected(42, 12));
}

}  // namespace
}  // namespace marquel
