// The sweep of cache files that no entry names, the write lock that keeps it off files
// being written, and the rule that an entry deletes only files of its own shape.
#include "persist/cache_sweep.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cache_test_util.h"
#include "media/mqinfo_temp.h"
#include "persist/cache_entry.h"
#include "persist/marquel_one_file.h"
#include "platform/access_reg.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::BytesWriter;
using cachetest::CacheFolder;
using cachetest::MakeFile;
using cachetest::Request;

// An entry of `kind` for a new media file `name`; returns the entry written.
CacheEntry Cached(CacheKind kind, const std::string& name, uint8_t seed) {
  std::string media = MakeFile(name, 9000, seed);
  CacheEntry written;
  EXPECT_EQ(WriteCacheEntry(Request(kind, media), BytesWriter({Bytes{seed, 2, 3}}), &written), 1);
  return written;
}

// Points the entry's file record at `cachePath`, as a damaged or foreign record would.
void PointRecordAt(const CacheEntry& entry, const std::string& cachePath) {
  CacheFileRecord record = entry.file;
  record.cache_path = cachePath;
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(EncodeFileRecord(record, &bytes));
  AccessReg reg(HKEY_CURRENT_USER, entry.KeyPath().c_str());
  ASSERT_TRUE(reg.SetValue(CacheRecordValue(entry.kind), bytes.data(), REG_BINARY,
                           static_cast<uint32_t>(bytes.size())));
}

std::string Stray(const std::string& name) {
  std::string folder;
  EXPECT_TRUE(GetMQInfoFolder(&folder));
  std::string path = CacheFolder() + "/" + name;
  cachetest::WriteAll(path, Bytes{9, 9});
  return path;
}

TEST(CacheSweep, CacheFileNamesHaveOneShape) {
  EXPECT_TRUE(IsCacheFileName("MQ1.tmp"));
  EXPECT_TRUE(IsCacheFileName("MQFFFF.tmp"));
  EXPECT_TRUE(IsCacheFileName("MQ12345678.tmp"));
  EXPECT_FALSE(IsCacheFileName("MQ.tmp"));
  EXPECT_FALSE(IsCacheFileName("MQ123456789.tmp"));
  EXPECT_FALSE(IsCacheFileName("MQab.tmp"));
  EXPECT_FALSE(IsCacheFileName("MQ12.tmp.bak"));
  EXPECT_FALSE(IsCacheFileName("XMQ12.tmp"));
  EXPECT_FALSE(IsCacheFileName("movie.mq"));
}

TEST(CacheSweep, RemovesOnlyCacheFilesThatNoEntryNames) {
  CacheEntry other = Cached(CacheKind::kOther, "a.mp4", 1);
  CacheEntry ts = Cached(CacheKind::kTS, "b.ts", 2);
  const std::string orphan = Stray("MQ7777.tmp");
  const std::string notes = Stray("notes.txt");
  const std::string backup = Stray("MQ12.tmp.bak");
  ASSERT_EQ(mkdir((CacheFolder() + "/MQ99.tmp").c_str(), 0700), 0);
  ASSERT_EQ(symlink(notes.c_str(), (CacheFolder() + "/MQ98.tmp").c_str()), 0);

  EXPECT_EQ(RemoveOrphanCacheFiles(), 1);
  EXPECT_FALSE(FileExists(orphan));
  EXPECT_TRUE(FileExists(other.file.cache_path));
  EXPECT_TRUE(FileExists(ts.programs[0].cache_path));
  EXPECT_TRUE(FileExists(notes));
  EXPECT_TRUE(FileExists(backup));
  EXPECT_TRUE(FileExists(CacheFolder() + "/MQ99.tmp")) << "a folder is not a cache file";
  struct stat st;
  EXPECT_EQ(lstat((CacheFolder() + "/MQ98.tmp").c_str(), &st), 0) << "nor is a link";
  EXPECT_EQ(RemoveOrphanCacheFiles(), 0);
}

TEST(CacheSweep, AFileThatATempEntryNamesIsKept) {
  std::string media = MakeFile("c.mpg", 9000, 3);
  std::string cache;
  ASSERT_TRUE(MakeCacheFile(&cache));
  TempCacheRecord record;
  record.media_path = media;
  record.cache_path = cache;
  ASSERT_EQ(WriteTempCacheEntry(record, 0), 1);
  EXPECT_EQ(RemoveOrphanCacheFiles(), 0);
  EXPECT_TRUE(FileExists(cache));
}

TEST(CacheSweep, AMentionInAnyValueBelowTheServersKeyKeepsTheFile) {
  // A value of a layout the sweep does not know, as a later version might write.
  const std::string kept = Stray("MQ4242.tmp");
  std::u16string wide = u"/somewhere/MQ4242.tmp";
  AccessReg reg;
  const char* key = "Software\\Halvern\\Marquel\\NewCache\\entry";
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, key));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, key));
  ASSERT_TRUE(reg.SetValue("INFO", wide.data(), REG_BINARY,
                           static_cast<uint32_t>(wide.size() * sizeof(char16_t))));
  const std::string also_kept = Stray("MQ4343.tmp");
  ASSERT_TRUE(reg.SetString("Path", also_kept.c_str()));
  EXPECT_EQ(RemoveOrphanCacheFiles(), 0);
  EXPECT_TRUE(FileExists(kept));
  EXPECT_TRUE(FileExists(also_kept));
}

TEST(CacheSweep, NothingIsRemovedWhileAWriteIsUnderWay) {
  const std::string orphan = Stray("MQ5151.tmp");
  {
    CacheWriteLock writing;
    ASSERT_TRUE(writing.held());
    EXPECT_EQ(RemoveOrphanCacheFiles(), -1);
    EXPECT_TRUE(FileExists(orphan));
  }
  EXPECT_EQ(RemoveOrphanCacheFiles(), 1);
  EXPECT_FALSE(FileExists(orphan));
}

TEST(CacheSweep, WithoutAStoreEveryCacheFileIsAnOrphan) {
  const std::string orphan = Stray("MQ1.tmp");
  EXPECT_EQ(RemoveOrphanCacheFiles(), 1);
  EXPECT_FALSE(FileExists(orphan));
}

// --- What an entry may delete ----------------------------------------------------------

TEST(CacheEntryFiles, AFileOutsideTheCacheFolderSurvivesTheDeleteOfItsEntry) {
  CacheEntry entry = Cached(CacheKind::kAVI, "d.avi", 4);
  const std::string own = entry.file.cache_path;
  const std::string precious = MakeFile("thesis.txt", 10, 5);
  PointRecordAt(entry, precious);
  EXPECT_TRUE(DeleteCacheEntry(CacheKind::kAVI, entry.sub_key));
  EXPECT_TRUE(FileExists(precious));
  EXPECT_TRUE(ListCacheEntries(CacheKind::kAVI).empty());
  EXPECT_EQ(RemoveOrphanCacheFiles(), 1) << "the file the entry no longer named";
  EXPECT_FALSE(FileExists(own));
}

TEST(CacheEntryFiles, AFileOfTheCacheShapeInAnotherFolderIsNotTheEntrysToDelete) {
  CacheEntry entry = Cached(CacheKind::kOther, "e.mp4", 6);
  const std::string lookalike = MakeFile("MQ1234.tmp", 10, 7);
  PointRecordAt(entry, lookalike);
  EXPECT_TRUE(DeleteCacheEntry(CacheKind::kOther, entry.sub_key));
  EXPECT_TRUE(FileExists(lookalike));
}

TEST(CacheEntryFiles, EvictionKeepsAFileOutsideTheCacheFolder) {
  CacheEntry first = Cached(CacheKind::kOther, "f.mp4", 8);
  const std::string precious = MakeFile("keep.mkv", 10, 9);
  PointRecordAt(first, precious);
  AccessReg base(HKEY_CURRENT_USER, CacheBaseKey(CacheKind::kOther));
  ASSERT_TRUE(base.SetDword(kNextIdValue, first.id));  // the next entry takes its slot
  Cached(CacheKind::kOther, "g.mp4", 10);
  EXPECT_EQ(ListCacheEntries(CacheKind::kOther).size(), 1u) << "the slot's entry went";
  EXPECT_TRUE(FileExists(precious));
}

TEST(CacheEntryFiles, ForceDeleteKeepsAFileOutsideTheCacheFolder) {
  std::string media = MakeFile("h.mpg", 9000, 11);
  const std::string precious = MakeFile("notes.odt", 10, 12);
  TempCacheRecord record;
  record.media_path = media;
  record.cache_path = precious;
  ASSERT_EQ(WriteTempCacheEntry(record, 0), 1);
  MarquelOneFile session;
  session.SetHandle(MarquelOneFile::kDetachedSessionNumber);
  EXPECT_EQ(session.ForceDeleteCacheData(media), 1);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTemp).empty());
  EXPECT_TRUE(FileExists(precious));
}

TEST(CacheEntryFiles, AVREntryDeletesItsOwnSideFileOnly) {
  CacheWriteRequest request = cachetest::SideFileRequest(9000, 13);
  const std::string media = request.media_path;
  CacheEntry entry;
  ASSERT_EQ(WriteCacheEntry(request, BytesWriter({Bytes{1}}), &entry), 1);
  ASSERT_EQ(entry.file.cache_path, SideFilePath(media));
  EXPECT_EQ(entry.RemovableFiles(), std::vector<std::string>{SideFilePath(media)});
  // Another file of the side folder named by the record is not the entry's.
  const std::string neighbour = MakeFile("disc/MQINFO/VTS_02_1.VOB.mq", 10, 14);
  PointRecordAt(entry, neighbour);
  EXPECT_TRUE(DeleteCacheEntry(CacheKind::kVR, entry.sub_key));
  EXPECT_TRUE(FileExists(neighbour));
  EXPECT_TRUE(FileExists(SideFilePath(media))) << "no longer named, so not deleted";

  ASSERT_EQ(WriteCacheEntry(request, BytesWriter({Bytes{2}}), &entry), 1);
  EXPECT_TRUE(DeleteCacheEntry(CacheKind::kVR, entry.sub_key));
  EXPECT_FALSE(FileExists(SideFilePath(media)));
}

TEST(CacheRenameTarget, ANameThatIsNotARegularFileIsRefused) {
  CacheEntry entry = Cached(CacheKind::kOther, "i.mp4", 15);
  const std::string old_path = entry.file.media_path;
  const std::string fifo = test::TestPath("pipe.mp4");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& target : {fifo, std::string("/dev/null"), test::TestDir()}) {
    EXPECT_EQ(CacheRename(old_path, target, 0), -1) << target;
  }
  CacheEntry still;
  EXPECT_TRUE(ReadCacheEntry(CacheKind::kOther, entry.sub_key, &still)) << "left where it was";
  EXPECT_EQ(CacheRename(old_path, test::TestPath("renamed.mp4"), 0), 1) << "a free name is fine";
}

}  // namespace
}  // namespace marquel
