// The VR, TS, AVI and other-format cache writers: entries, cache files, lookups.
#include "persist/cache_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>

#include "cache_test_util.h"
#include "platform/access_reg.h"
#include "platform/crc32.h"

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

uint32_t Dword(const std::string& key, const char* name) {
  AccessReg reg;
  uint32_t v = 0xFFFFFFFF;
  if (reg.Open(HKEY_CURRENT_USER, key.c_str())) reg.QueryDword(name, &v);
  return v;
}

std::string VRKey(const std::string& path) {
  return CacheEntryKeyPath(CacheKind::kVR, CacheSubKeyName(path));
}

TEST(CacheWriter, NewVREntryHoldsRecordFingerprintAndId) {
  std::string media = MakeFile("a.vob", 10000, 1);
  Bytes block = {1, 2, 3, 4, 5};
  CacheEntry written;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, media), BytesWriter({block}), &written), 1);
  EXPECT_EQ(written.id, 0u);
  EXPECT_EQ(ReadNextId(CacheKind::kVR), 1u);
  EXPECT_EQ(Dword(VRKey(media), "ID"), 0u);
  Bytes content = ReadAll(media);
  EXPECT_EQ(Dword(VRKey(media), "CONTENTINFO"), Crc32Ieee(content.data() + 3172, 5120));

  AccessReg reg(HKEY_CURRENT_USER, VRKey(media).c_str());
  uint32_t size = 1056;
  auto record = reg.QueryBinary("VRINFO", &size);
  ASSERT_NE(record, nullptr);
  CacheFileRecord decoded;
  ASSERT_TRUE(DecodeFileRecord(record.get(), size, &decoded));
  EXPECT_EQ(decoded.media_path, media);
  EXPECT_EQ(decoded.identity[0], 10000u);
  EXPECT_EQ(decoded.cache_path, written.file.cache_path);
  EXPECT_EQ(decoded.cache_path.rfind(CacheFolder() + "/MQ", 0), 0u) << decoded.cache_path;
  EXPECT_EQ(ReadAll(decoded.cache_path), block);
}

TEST(CacheWriter, RewriteKeepsIdAndReplacesTheCacheFile) {
  std::string media = MakeFile("a.vob", 10000, 1);
  CacheEntry first, second;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, media), BytesWriter({{1}}), &first), 1);
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, media), BytesWriter({{2, 2}}), &second), 1);
  EXPECT_EQ(second.id, first.id);
  EXPECT_EQ(ReadNextId(CacheKind::kVR), 1u) << "a found entry does not advance NextID";
  EXPECT_EQ(ReadAll(second.file.cache_path), (Bytes{2, 2}));
  EXPECT_FALSE(FileExists(first.file.cache_path) && first.file.cache_path != second.file.cache_path)
      << "the replaced cache file is deleted";
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 1u);
}

TEST(CacheWriter, RenamedMediaFileKeepsItsCacheThroughTheFingerprint) {
  std::string a = MakeFile("a.vob", 9000, 3);
  CacheEntry first;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, a), BytesWriter({{7, 7, 7}}), &first), 1);
  std::string b = test::TestPath("renamed.vob");
  ASSERT_EQ(std::rename(a.c_str(), b.c_str()), 0);

  uint64_t identity[2];
  IdentityOf(b, identity);
  CacheEntry found;
  ASSERT_TRUE(FindCacheEntry(CacheKind::kVR, b, identity, ReadContentSample(b), &found));
  EXPECT_EQ(found.id, first.id);
  EXPECT_EQ(ReadAll(found.file.cache_path), (Bytes{7, 7, 7}));

  CacheEntry second;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, b), BytesWriter({{8}}), &second), 1);
  EXPECT_EQ(second.id, first.id);
  EXPECT_EQ(ReadNextId(CacheKind::kVR), 1u);
  CacheEntry old;
  EXPECT_FALSE(ReadCacheEntry(CacheKind::kVR, CacheSubKeyName(a), &old))
      << "the entry moved to the new name";
  EXPECT_EQ(ListCacheEntries(CacheKind::kVR).size(), 1u);
}

TEST(CacheWriter, SameFirst8292BytesButOtherIdentityWordsDoNotShare) {
  std::string a = MakeFile("a.vob", 9000, 5);
  Bytes content = ReadAll(a);
  content.resize(8292);
  content.resize(9500, 0xEE);  // same first 8292 bytes, another size
  std::string b = test::TestPath("b.vob");
  cachetest::WriteAll(b, content);
  std::string c = test::TestPath("c.vob");  // same size as a, another time
  cachetest::WriteAll(c, ReadAll(a));
  utimbuf times{1000000000, 1000000000};
  ASSERT_EQ(utime(c.c_str(), &times), 0);
  ASSERT_EQ(ReadContentSample(a).crc, ReadContentSample(b).crc);
  ASSERT_EQ(ReadContentSample(a).crc, ReadContentSample(c).crc);

  CacheEntry ea, eb, ec;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, a), BytesWriter({{1}}), &ea), 1);
  uint64_t identity[2];
  IdentityOf(b, identity);
  CacheEntry found;
  EXPECT_FALSE(FindCacheEntry(CacheKind::kVR, b, identity, ReadContentSample(b), &found));
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, b), BytesWriter({{2}}), &eb), 1);
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, c), BytesWriter({{3}}), &ec), 1);
  EXPECT_EQ(ea.id, 0u);
  EXPECT_EQ(eb.id, 1u);
  EXPECT_EQ(ec.id, 2u);
  EXPECT_EQ(ListCacheEntries(CacheKind::kVR).size(), 3u);
  EXPECT_EQ(ReadAll(ea.file.cache_path), Bytes{1});
}

TEST(CacheWriter, ShortFileHasNoFingerprintAndIsFoundByNameOnly) {
  std::string a = MakeFile("short.vob", 8291, 9);
  EXPECT_FALSE(ReadContentSample(a).taken);
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, a), BytesWriter({{1}}), &e), 1);
  EXPECT_EQ(e.content, 0u);
  std::string b = test::TestPath("moved.vob");
  ASSERT_EQ(std::rename(a.c_str(), b.c_str()), 0);
  uint64_t identity[2];
  IdentityOf(b, identity);
  CacheEntry found;
  EXPECT_FALSE(FindCacheEntry(CacheKind::kVR, b, identity, ReadContentSample(b), &found));
}

TEST(CacheWriter, StoredNextIdOf1000OrMoreReadsAsZero) {
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, CacheBaseKey(CacheKind::kAVI)));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, CacheBaseKey(CacheKind::kAVI)));
  ASSERT_TRUE(reg.SetDword("NextID", 1000));
  EXPECT_EQ(ReadNextId(CacheKind::kAVI), 0u);
  ASSERT_TRUE(reg.SetDword("NextID", 4000000000u));
  EXPECT_EQ(ReadNextId(CacheKind::kAVI), 0u);
  ASSERT_TRUE(reg.SetDword("NextID", 999));
  CacheEntry e;
  std::string media = MakeFile("x.avi", 100, 1);
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kAVI, media), BytesWriter({{1}}), &e), 1);
  EXPECT_EQ(e.id, 999u);
  EXPECT_EQ(ReadNextId(CacheKind::kAVI), 0u) << "1000 is stored and read back as 0";
}

TEST(CacheWriter, ValuesOfTheWrongSizeCountAsAbsent) {
  std::string media = MakeFile("a.vob", 10000, 1);
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, media), BytesWriter({{1}}), &e), 1);
  AccessReg reg(HKEY_CURRENT_USER, VRKey(media).c_str());
  Bytes short_record(1055, 0);
  ASSERT_TRUE(reg.SetValue("VRINFO", short_record.data(), REG_BINARY, 1055));
  uint64_t identity[2];
  IdentityOf(media, identity);
  CacheEntry found;
  EXPECT_FALSE(FindCacheEntry(CacheKind::kVR, media, identity, ReadContentSample(media), &found));
  ASSERT_TRUE(reg.SetValue("ID", short_record.data(), REG_DWORD, 2));
  ASSERT_TRUE(ReadCacheEntry(CacheKind::kVR, CacheSubKeyName(media), &found));
  EXPECT_FALSE(found.has_id);
  EXPECT_FALSE(found.has_file_record);
}

TEST(CacheWriter, TSEntryHasOneCacheFilePerProgram) {
  std::string media = MakeFile("a.ts", 20000, 2);
  CacheWriteRequest r = Request(CacheKind::kTS, media);
  r.pmt_pids = {0x100, 0x200};
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{1, 1}, {2, 2, 2}}), &e), 1);
  std::string key = CacheEntryKeyPath(CacheKind::kTS, CacheSubKeyName(media));
  EXPECT_EQ(Dword(key, "TSPROGRAMS"), 2u);
  AccessReg reg(HKEY_CURRENT_USER, key.c_str());
  uint32_t size = 1048;
  auto info = reg.QueryBinary("TSINFO", &size);
  ASSERT_NE(info, nullptr);
  std::vector<CacheProgramRecord> programs;
  ASSERT_TRUE(DecodeProgramRecords(info.get(), size, &programs));
  ASSERT_EQ(programs.size(), 2u);
  EXPECT_EQ(programs[0].pmt_pid, 0x100);
  EXPECT_EQ(programs[1].pmt_pid, 0x200);
  EXPECT_EQ(ReadAll(programs[0].cache_path), (Bytes{1, 1}));
  EXPECT_EQ(ReadAll(programs[1].cache_path), (Bytes{2, 2, 2}));
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 2u);

  // Rewritten with one program: the second program's file goes.
  r.pmt_pids = {0x100};
  CacheEntry again;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{5}}), &again), 1);
  EXPECT_EQ(again.id, e.id);
  EXPECT_EQ(Dword(key, "TSPROGRAMS"), 1u);
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 1u);
}

TEST(CacheWriter, VRSideFileBesideTheDiscStructure) {
  CacheWriteRequest r = cachetest::SideFileRequest(10000, 4);
  const std::string media = r.media_path;
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{4, 4}}), &e), 1);
  std::string side = test::TestPath("disc/MQINFO/VTS_01_1.VOB.mq");
  EXPECT_EQ(SideFilePath(media), side);
  EXPECT_EQ(e.file.cache_path, side);
  EXPECT_EQ(ReadAll(side), (Bytes{4, 4}));
  EXPECT_EQ(FolderFiles(test::TestPath("disc/MQINFO")).size(), 1u);
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{6}}), &e), 1);
  EXPECT_EQ(ReadAll(side), Bytes{6}) << "the side file is made anew";
  EXPECT_EQ(FolderFiles(test::TestPath("disc/MQINFO")).size(), 1u);
  EXPECT_TRUE(FolderFiles(CacheFolder()).empty());
}

TEST(CacheWriter, ASideFileWriteRemovesThePartialsOfKilledServersOnly) {
  CacheWriteRequest r = cachetest::SideFileRequest(10000, 4);
  const std::string folder = test::TestPath("disc/MQINFO");
  ASSERT_TRUE(MakeFolder(folder));
  pid_t child = fork();
  if (child == 0) _exit(0);
  ASSERT_GT(child, 0);
  waitpid(child, nullptr, 0);  // a server that is gone
  const std::string dead = folder + "/MQ." + std::to_string(child) + ".0.part";
  const std::string live = folder + "/MQ." + std::to_string(getppid()) + ".0.part";
  const std::string other = folder + "/notes.part";
  for (const std::string& f : {dead, live, other}) cachetest::WriteAll(f, Bytes{1});
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{4}}), &e), 1);
  EXPECT_FALSE(FileExists(dead));
  EXPECT_TRUE(FileExists(live)) << "a live writer's partial stays";
  EXPECT_TRUE(FileExists(other)) << "a file that is no partial stays";
  EXPECT_EQ(FolderFiles(folder).size(), 3u) << "the side file and the two left alone";
}

TEST(CacheWriter, SideFolderThatCannotBeMadeFallsBackToTheCacheFolder) {
  ASSERT_TRUE(MakeFolder(test::TestPath("disc")));
  ASSERT_TRUE(MakeFolder(test::TestPath("disc/VIDEO_TS")));
  cachetest::WriteAll(test::TestPath("disc/MQINFO"), Bytes{0});  // a file in the folder's place
  std::string media = MakeFile("disc/VIDEO_TS/VTS_01_1.VOB", 10000, 4);
  CacheWriteRequest r = Request(CacheKind::kVR, media);
  r.side_file = true;
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{4}}), &e), 1);
  EXPECT_EQ(e.file.cache_path.rfind(CacheFolder(), 0), 0u);
}

TEST(CacheWriter, OtherAndAVIEntriesUseTheFileRecord) {
  std::string mp4 = MakeFile("a.mp4", 10000, 6);
  std::string avi = MakeFile("a.avi", 10000, 7);
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kOther, mp4), BytesWriter({{1}}), &e), 1);
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kAVI, avi), BytesWriter({{2}}), &e), 1);
  auto others = ListCacheEntries(CacheKind::kOther);
  auto avis = ListCacheEntries(CacheKind::kAVI);
  ASSERT_EQ(others.size(), 1u);
  ASSERT_EQ(avis.size(), 1u);
  EXPECT_TRUE(others[0].has_file_record);
  EXPECT_EQ(others[0].MediaPath(), mp4);
  EXPECT_EQ(avis[0].MediaPath(), avi);
  EXPECT_TRUE(ListCacheEntries(CacheKind::kVR).empty());
}

}  // namespace
}  // namespace marquel

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::BytesWriter;
using cachetest::MakeFile;
using cachetest::ReadAll;
using cachetest::Request;

// Two files whose names differ only in case are two files on a volume that tells case
// apart, although the store folds case in key names: each keeps its own cache entry.
TEST(CacheWriter, NamesThatDifferOnlyInCaseKeepTheirOwnEntries) {
  std::string upper = MakeFile("Clip.vob", 9000, 1);
  std::string lower = MakeFile("clip.vob", 9500, 2);
  CacheEntry eu, el;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, upper), BytesWriter({{1}}), &eu), 1);
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, lower), BytesWriter({{2}}), &el), 1);
  EXPECT_NE(eu.id, el.id);
  EXPECT_EQ(ListCacheEntries(CacheKind::kVR).size(), 2u);
  CacheEntry again;
  ASSERT_TRUE(ReadCacheEntry(CacheKind::kVR, CacheSubKeyName(upper), &again));
  EXPECT_EQ(ReadAll(again.file.cache_path), Bytes{1});
  ASSERT_TRUE(ReadCacheEntry(CacheKind::kVR, CacheSubKeyName(lower), &again));
  EXPECT_EQ(ReadAll(again.file.cache_path), Bytes{2});
}

// On a volume that ignores case, both spellings name one file and find one entry.
TEST(CacheWriter, OnAVolumeThatIgnoresCaseEverySpellingFindsTheEntry) {
  cachetest::FakeVolumeEnv vfat("vfat");
  cachetest::ScopedEnv env(&vfat);
  std::string media = MakeFile("Clip.vob", 9000, 1);
  CacheEntry written;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, media), BytesWriter({{5}}), &written), 1);
  std::string other_spelling = test::TestPath("CLIP.VOB");
  CacheEntry found;
  ASSERT_TRUE(ReadCacheEntry(CacheKind::kVR, CacheSubKeyName(other_spelling), &found));
  EXPECT_EQ(found.id, written.id);
}

}  // namespace
}  // namespace marquel
