// The temp-cache writer, and carrying entries over to a new name.
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

TempCacheRecord TempRecord(const std::string& media, const Bytes& block) {
  TempCacheRecord r;
  r.media_path = media;
  r.original_size = 5000;
  r.original_mtime = 1600000000;
  EXPECT_TRUE(MakeCacheFile(&r.cache_path));
  cachetest::WriteAll(r.cache_path, block);
  return r;
}

std::string TempKey(const std::string& media) {
  return CacheEntryKeyPath(CacheKind::kTemp, CacheSubKeyName(media));
}

TEST(TempCache, WrittenAsTempInfoAndReadBackAsTEMPINFO) {
  std::string media = test::TestPath("a.mpg");
  ASSERT_EQ(WriteTempCacheEntry(TempRecord(media, {1}), 0xABCD), 1);
  AccessReg reg(HKEY_CURRENT_USER, TempKey(media).c_str());
  ASSERT_TRUE(reg.IsOpen());
  // The value keeps the spelling it was written with...
  std::vector<std::string> names;
  char name[64];
  for (uint32_t i = 0; reg.EnumValue(i, name, sizeof name); ++i) names.emplace_back(name);
  EXPECT_EQ(names, (std::vector<std::string>{"TempInfo", "ID", "CONTENTINFO"}));
  // ...and is found under the name the readers use.
  uint32_t size = 1064;
  EXPECT_NE(reg.QueryBinary("TEMPINFO", &size), nullptr);
  CacheEntry e;
  ASSERT_TRUE(FindTempCacheEntry(media, &e));
  EXPECT_EQ(e.id, 0u);
  EXPECT_EQ(e.content, 0xABCDu);
  EXPECT_EQ(e.temp.original_size, 5000u);
  EXPECT_EQ(ReadNextId(CacheKind::kTemp), 1u);
}

TEST(TempCache, SameFileKeepsItsIdAndTheOldCacheFileGoes) {
  std::string media = test::TestPath("a.mpg");
  TempCacheRecord first = TempRecord(media, {1});
  ASSERT_EQ(WriteTempCacheEntry(first, 1), 1);
  TempCacheRecord second = TempRecord(media, {2});
  ASSERT_EQ(WriteTempCacheEntry(second, 1), 1);
  CacheEntry e;
  ASSERT_TRUE(FindTempCacheEntry(media, &e));
  EXPECT_EQ(e.id, 0u);
  EXPECT_EQ(ReadNextId(CacheKind::kTemp), 1u);
  EXPECT_EQ(e.temp.cache_path, second.cache_path);
  EXPECT_FALSE(FileExists(first.cache_path));
  EXPECT_EQ(FolderFiles(CacheFolder()).size(), 1u);

  TempCacheRecord changed = TempRecord(media, {3});
  changed.original_mtime += 1;  // the word at 1056 differs: a new id
  ASSERT_EQ(WriteTempCacheEntry(changed, 1), 1);
  ASSERT_TRUE(FindTempCacheEntry(media, &e));
  EXPECT_EQ(e.id, 1u);
  EXPECT_EQ(ReadNextId(CacheKind::kTemp), 2u);
}

TEST(TempCache, IdsWrapWithoutEviction) {
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, CacheBaseKey(CacheKind::kTemp)));
  std::string a = test::TestPath("a.mpg");
  ASSERT_EQ(WriteTempCacheEntry(TempRecord(a, {1}), 1), 1);  // id 0
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, CacheBaseKey(CacheKind::kTemp)));
  ASSERT_TRUE(reg.SetDword("NextID", 1000));
  std::string b = test::TestPath("b.mpg");
  ASSERT_EQ(WriteTempCacheEntry(TempRecord(b, {2}), 1), 1);
  CacheEntry ea, eb;
  ASSERT_TRUE(FindTempCacheEntry(a, &ea));
  ASSERT_TRUE(FindTempCacheEntry(b, &eb));
  EXPECT_EQ(eb.id, 0u) << "1000 reads as 0";
  EXPECT_EQ(ea.id, 0u) << "the temp cache evicts nothing: its data may wait for a move";
  EXPECT_EQ(ReadAll(ea.temp.cache_path), Bytes{1});
}

TEST(TempCache, AnotherPathUnderTheSameKeyIsNotTheFilesEntry) {
  std::string media = test::TestPath("a.mpg");
  TempCacheRecord r = TempRecord(media, {1});
  r.media_path = test::TestPath("other.mpg");
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(EncodeTempRecord(r, &bytes));
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, TempKey(media).c_str()));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, TempKey(media).c_str()));
  ASSERT_TRUE(reg.SetValue("TempInfo", bytes.data(), REG_BINARY, 1064));
  CacheEntry e;
  EXPECT_FALSE(FindTempCacheEntry(media, &e));
  ASSERT_TRUE(reg.SetValue("TempInfo", bytes.data(), REG_BINARY, 1063));
  EXPECT_FALSE(FindTempCacheEntry(r.media_path, &e)) << "wrong size is absent";
}

TEST(CacheRenameTest, CarriesTheEntryOverAndUpdatesItsPath) {
  std::string a = MakeFile("a.vob", 10000, 1);
  CacheWriteRequest r;
  r.kind = CacheKind::kVR;
  r.media_path = a;
  IdentityOf(a, r.identity);
  CacheEntry e;
  ASSERT_EQ(WriteCacheEntry(r, BytesWriter({{5}}), &e), 1);
  std::string old_temp = test::TestPath("a.mpg");
  ASSERT_EQ(WriteTempCacheEntry(TempRecord(old_temp, {6}), 1), 1);

  std::string b = test::TestPath("b.vob");
  EXPECT_EQ(CacheRename(a, b, 6), 1);
  CacheEntry moved;
  EXPECT_FALSE(ReadCacheEntry(CacheKind::kVR, CacheSubKeyName(a), &moved));
  ASSERT_TRUE(ReadCacheEntry(CacheKind::kVR, CacheSubKeyName(b), &moved));
  EXPECT_EQ(moved.file.media_path, b);
  EXPECT_EQ(moved.id, e.id);
  EXPECT_EQ(moved.content, e.content);
  EXPECT_EQ(ReadAll(moved.file.cache_path), Bytes{5});

  std::string new_temp = test::TestPath("renamed.mpg");
  EXPECT_EQ(CacheRename(old_temp, new_temp, 0), 1) << "type 0: every kind";
  CacheEntry t;
  EXPECT_FALSE(FindTempCacheEntry(old_temp, &t));
  ASSERT_TRUE(FindTempCacheEntry(new_temp, &t));
  EXPECT_EQ(ReadAll(t.temp.cache_path), Bytes{6});
  EXPECT_EQ(CacheRename(test::TestPath("none.mpg"), test::TestPath("x.mpg"), 2), 1);
}

TEST(CacheRenameTest, ANewlyRecognisedFormatTakesItsTempEntryAlong) {
  std::string a = test::TestPath("a.mkv");
  std::string b = test::TestPath("b.mkv");
  ASSERT_EQ(WriteTempCacheEntry(TempRecord(a, {7}), 1), 1);
  std::string c = test::TestPath("c.mpg");
  std::string d = test::TestPath("d.mpg");
  ASSERT_EQ(WriteTempCacheEntry(TempRecord(c, {8}), 1), 1);
  EXPECT_EQ(CacheRename(a, b, 17), 1);
  EXPECT_EQ(CacheRename(c, d, 5), 1);
  CacheEntry t;
  EXPECT_FALSE(FindTempCacheEntry(a, &t));
  ASSERT_TRUE(FindTempCacheEntry(b, &t));
  EXPECT_EQ(ReadAll(t.temp.cache_path), Bytes{7});
  EXPECT_TRUE(FindTempCacheEntry(c, &t)) << "MPEG-4 (5) names the other cache only";
}

TEST(CacheRenameTest, ReplacesAnEntryUnderTheNewName) {
  std::string a = test::TestPath("a.mpg");
  std::string b = test::TestPath("b.mpg");
  TempCacheRecord ra = TempRecord(a, {1});
  TempCacheRecord rb = TempRecord(b, {2});
  ASSERT_EQ(WriteTempCacheEntry(ra, 1), 1);
  ASSERT_EQ(WriteTempCacheEntry(rb, 1), 1);
  EXPECT_EQ(CacheRename(a, b, 1), 1);
  CacheEntry t;
  ASSERT_TRUE(FindTempCacheEntry(b, &t));
  EXPECT_EQ(t.temp.cache_path, ra.cache_path);
  EXPECT_FALSE(FileExists(rb.cache_path)) << "the replaced entry's file goes";
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u);
  EXPECT_EQ(CacheRename(a, "/" + std::string(300, 'x'), 1), -1) << "a name that does not fit";
}

TEST(CacheRenameTest, ReplacesAnEntryOfTheNewNameLeftUnderTheOtherFolding) {
  std::string a = test::TestPath("a.mpg");
  std::string b = test::TestPath("Clip-B.mpg");
  TempCacheRecord rb = TempRecord(b, {2});
  {
    cachetest::FakeVolumeEnv folding("vfat");
    cachetest::ScopedEnv env(&folding);
    ASSERT_EQ(WriteTempCacheEntry(rb, 1), 1);
  }
  cachetest::FakeVolumeEnv ext4("ext4");
  cachetest::ScopedEnv env(&ext4);
  TempCacheRecord ra = TempRecord(a, {1});
  ASSERT_EQ(WriteTempCacheEntry(ra, 1), 1);
  ASSERT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 2u);
  EXPECT_EQ(CacheRename(a, b, 1), 1);
  CacheEntry t;
  ASSERT_TRUE(FindTempCacheEntry(b, &t));
  EXPECT_EQ(t.temp.cache_path, ra.cache_path);
  EXPECT_FALSE(FileExists(rb.cache_path)) << "the replaced entry's file goes";
  EXPECT_EQ(ListCacheEntries(CacheKind::kTemp).size(), 1u) << "one entry names the file";
}

}  // namespace
}  // namespace marquel
