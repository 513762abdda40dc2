// The ring of 1000 ids, and writes that fail: the store never names a file that is not
// whole, and no sample already cached is lost.
#include <gtest/gtest.h>

#include "cache_test_util.h"
#include "persist/cache_writer.h"
#include "platform/access_reg.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::BytesWriter;
using cachetest::CacheFolder;
using cachetest::FolderFiles;
using cachetest::IdentityOf;
using cachetest::MakeFile;
using cachetest::ReadAll;
using cachetest::Request;

// Lays out the VR entry of `media` with id `id` as the writer does (record, content
// word, id and a cache file), without the writer's eviction scan.
CacheEntry SeedVREntry(const std::string& media, uint32_t id) {
  CacheEntry e;
  e.kind = CacheKind::kVR;
  e.sub_key = CacheSubKeyName(media);
  e.id = id;
  e.file.media_path = media;
  IdentityOf(media, e.file.identity);
  EXPECT_TRUE(MakeCacheFile(&e.file.cache_path));
  Bytes record;
  EXPECT_TRUE(EncodeFileRecord(e.file, &record));
  AccessReg reg;
  EXPECT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, e.KeyPath().c_str()));
  EXPECT_TRUE(reg.Open(HKEY_CURRENT_USER, e.KeyPath().c_str()));
  EXPECT_TRUE(reg.SetValue("VRINFO", record.data(), REG_BINARY, 1056));
  EXPECT_TRUE(reg.SetDword("CONTENTINFO", 0));
  EXPECT_TRUE(reg.SetDword("ID", id));
  EXPECT_TRUE(reg.Open(HKEY_CURRENT_USER, CacheBaseKey(CacheKind::kVR)));
  EXPECT_TRUE(reg.SetDword("NextID", id + 1));
  return e;
}

TEST(CacheRing, AfterThousandNewEntriesTheNextTakesIdZeroAndEvictsItsHolder) {
  cachetest::ScopedMemoryDataHome memory;
  // Files shorter than the fingerprint's end, so each write looks up by name only. The
  // first and the last entries of the ring go through the writer; the middle ones are
  // laid out directly, because every new entry scans all entries for the id it takes.
  std::vector<CacheEntry> entries;
  auto media = [](int i) {
    return MakeFile("m" + std::to_string(i) + ".vob", 64, static_cast<uint8_t>(i));
  };
  for (int i = 0; i < 1000; ++i) {
    if (i >= 20 && i < 990) {
      entries.push_back(SeedVREntry(media(i), static_cast<uint32_t>(i)));
      continue;
    }
    CacheEntry e;
    ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, media(i)), BytesWriter({{uint8_t(i)}}), &e),
              1);
    ASSERT_EQ(e.id, static_cast<uint32_t>(i));
    entries.push_back(e);
  }
  EXPECT_EQ(ReadNextId(CacheKind::kVR), 0u) << "1000 reads as 0";
  ASSERT_EQ(ListCacheEntries(CacheKind::kVR).size(), 1000u);
  ASSERT_TRUE(FileExists(entries[0].file.cache_path));

  std::string late = MakeFile("late.vob", 64, 200);
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, late), BytesWriter({{9}}), &e), 1);
  EXPECT_EQ(e.id, 0u);
  EXPECT_EQ(ReadNextId(CacheKind::kVR), 1u);
  CacheEntry gone;
  EXPECT_FALSE(ReadCacheEntry(CacheKind::kVR, entries[0].sub_key, &gone))
      << "the entry that held id 0 is evicted";
  EXPECT_FALSE(FileExists(entries[0].file.cache_path)) << "with its cache file";
  EXPECT_TRUE(FileExists(entries[1].file.cache_path));
  EXPECT_EQ(ListCacheEntries(CacheKind::kVR).size(), 1000u);
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 1000u);

  // The next new entry takes id 1 and evicts its holder in turn.
  std::string later = MakeFile("later.vob", 64, 201);
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, later), BytesWriter({{9}}), &e), 1);
  EXPECT_EQ(e.id, 1u);
  EXPECT_FALSE(ReadCacheEntry(CacheKind::kVR, entries[1].sub_key, &gone));
  EXPECT_FALSE(FileExists(entries[1].file.cache_path));
}

TEST(CacheRing, EvictionDeletesEveryProgramFileOfATSEntry) {
  std::string a = MakeFile("a.ts", 64, 1);
  CacheWriteRequest r = Request(CacheKind::kTS, a);
  r.pmt_pids = {1, 2, 3};
  CacheEntry first;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{1}, {2}, {3}}), &first), 1);
  ASSERT_EQ(FolderFiles(CacheFolder()).size(), 3u);
  AccessReg base(HKEY_CURRENT_USER, CacheBaseKey(CacheKind::kTS));
  ASSERT_TRUE(base.SetDword("NextID", 0));  // the ring has come round
  std::string b = MakeFile("b.ts", 64, 2);
  CacheEntry second;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kTS, b), BytesWriter({{4}}), &second), 1);
  EXPECT_EQ(second.id, 0u);
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 1u);
  EXPECT_EQ(ListCacheEntries(CacheKind::kTS).size(), 1u);
}

TEST(CacheFaults, FailedBlockWriteLeavesTheStoreUntouched) {
  std::string media = MakeFile("a.vob", 10000, 1);
  CacheEntry first;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, media), BytesWriter({{1, 2, 3}}), &first), 1);
  // A full disk in the middle of the new block.
  EXPECT_EQ(
      WriteCacheEntry(Request(CacheKind::kVR, media), cachetest::DiskFullWriter(Bytes(4096, 7))),
      -1);
  CacheEntry now;
  ASSERT_TRUE(ReadCacheEntry(CacheKind::kVR, first.sub_key, &now));
  EXPECT_EQ(now.file.cache_path, first.file.cache_path);
  EXPECT_EQ(ReadAll(first.file.cache_path), (Bytes{1, 2, 3})) << "no cached sample is lost";
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 1u) << "the half-written file is removed";
  EXPECT_EQ(ReadNextId(CacheKind::kVR), 1u);

  // A new file whose first write fails leaves no entry at all.
  std::string other = MakeFile("b.vob", 10000, 2);
  EXPECT_EQ(WriteCacheEntry(Request(CacheKind::kVR, other), cachetest::DiskFullWriter(Bytes(10))),
            -1);
  EXPECT_FALSE(ReadCacheEntry(CacheKind::kVR, CacheSubKeyName(other), &now));
  EXPECT_EQ(ReadNextId(CacheKind::kVR), 1u);
}

TEST(CacheFaults, FailedSecondProgramLeavesTheOldTSEntryWhole) {
  std::string media = MakeFile("a.ts", 10000, 1);
  CacheWriteRequest r = Request(CacheKind::kTS, media);
  r.pmt_pids = {1, 2};
  CacheEntry first;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{1}, {2}}), &first), 1);
  CacheBlockWriter fails_second = [](size_t index, FileHandle file) -> int32_t {
    if (index == 1) return -1;
    uint32_t n = 0;
    uint8_t b = 9;
    return WriteFile(file, &b, 1, &n) ? 1 : -1;
  };
  EXPECT_EQ(WriteCacheEntry(r, fails_second), -1);
  CacheEntry now;
  ASSERT_TRUE(ReadCacheEntry(CacheKind::kTS, first.sub_key, &now));
  ASSERT_EQ(now.programs.size(), 2u);
  EXPECT_EQ(ReadAll(now.programs[0].cache_path), Bytes{1});
  EXPECT_EQ(ReadAll(now.programs[1].cache_path), Bytes{2});
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 2u);
}

TEST(CacheFaults, CacheFolderThatCannotBeMadeFailsWithoutAnEntry) {
  // A file where the cache folder should be: no cache file can be made, even by root.
  std::string halvern = CurrentEnv()->AppDataFolder() + "/Halvern";
  ASSERT_TRUE(MakeFolder(halvern));
  cachetest::WriteAll(halvern + "/MQInfo", Bytes{0});
  std::string media = MakeFile("a.avi", 10000, 1);
  EXPECT_EQ(WriteCacheEntry(Request(CacheKind::kAVI, media), BytesWriter({{1}})), -1);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kAVI).empty());
  EXPECT_EQ(ReadNextId(CacheKind::kAVI), 0u);
}

TEST(CacheFaults, DeleteEntryRemovesKeyAndFiles) {
  std::string media = MakeFile("a.ts", 100, 1);
  CacheWriteRequest r = Request(CacheKind::kTS, media);
  r.pmt_pids = {1, 2};
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{1}, {2}}), &e), 1);
  EXPECT_TRUE(DeleteCacheEntry(CacheKind::kTS, e.sub_key));
  EXPECT_TRUE(FolderFiles(CacheFolder()).empty());
  EXPECT_TRUE(ListCacheEntries(CacheKind::kTS).empty());
  EXPECT_TRUE(DeleteCacheEntry(CacheKind::kTS, e.sub_key)) << "nothing left to delete";
}

}  // namespace
}  // namespace marquel
