// The roll-back at start never copies old bytes into a file that someone else changed
// after a merge was cut short: the file is left as it is, and the record and the backup
// of the old bytes stay.
#include <gtest/gtest.h>

#include "cache_test_util.h"
#include "merge_record.h"
#include "persist/merge_rollback.h"
#include "platform/access_reg.h"
#include "ts_merge.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::CopyMedia;
using cachetest::LogCapture;
using cachetest::ReadAll;

// A transport stream whose interleave was cut short at half its size: backup and record
// made, the tail overwritten. Returns the offset.
int64_t CutShortInterleave(const std::string& path, const Bytes& before) {
  const int64_t offset = static_cast<int64_t>(before.size() / 188 / 2 * 188);
  TsMergePlan plan;
  plan.size = static_cast<int64_t>(before.size());
  plan.start = plan.rewrite_from = offset;
  FileHandle media = OpenRegularFile(path, GENERIC_READ | GENERIC_WRITE);
  EXPECT_NE(media, kInvalidFileHandle);
  TsBackup backup;
  EXPECT_TRUE(MakeTsBackup(media, plan, 188, &backup));
  EXPECT_TRUE(WriteTsRollBackRecord(path, backup.path, offset, 1700000000));
  const Bytes junk(20000, 0x47);
  EXPECT_TRUE(WriteAllAt(media, static_cast<uint64_t>(offset + 188), junk.data(), junk.size()));
  CloseFileHandle(media);
  return offset;
}

bool RecordThere(const std::string& path) {
  AccessReg reg;
  return reg.Open(HKEY_CURRENT_USER, RollBackKey(path).c_str());
}

TEST(RollBackGuard, AnInterruptedInterleaveOfAnUnchangedFileIsUndone) {
  const std::string path = CopyMedia("ts188.ts", "cut.ts");
  const Bytes before = ReadAll(path);
  CutShortInterleave(path, before);
  EXPECT_EQ(RollBackInterruptedMerges(), 1);
  EXPECT_EQ(ReadAll(path), before);
  EXPECT_FALSE(RecordThere(path));
}

TEST(RollBackGuard, AFileChangedByAnotherProgramSinceIsLeftAloneWithItsBackup) {
  const std::string path = CopyMedia("ts188.ts", "edited.ts");
  const Bytes before = ReadAll(path);
  const int64_t offset = CutShortInterleave(path, before);
  // Another program rewrote the file after the server was killed.
  Bytes edited = ReadAll(path);
  edited[static_cast<size_t>(offset - 1000)] ^= 0xFF;
  cachetest::WriteAll(path, edited);
  const auto backups = cachetest::FolderFiles(cachetest::CacheFolder());
  ASSERT_FALSE(backups.empty());
  LogCapture log;
  EXPECT_EQ(RollBackInterruptedMerges(), 0);
  EXPECT_TRUE(log.Has("the file was changed by another program since"));
  EXPECT_EQ(ReadAll(path), edited) << "no old byte is copied into it";
  EXPECT_TRUE(RecordThere(path));
  EXPECT_EQ(cachetest::FolderFiles(cachetest::CacheFolder()), backups) << "the old bytes stay";
}

}  // namespace
}  // namespace marquel
