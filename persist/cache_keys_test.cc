// Key names of cache entries: hashed names for long paths, names that an absent volume
// cannot change, case kept apart where the volume keeps it apart, and copies that do not
// take over their original's entry.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <filesystem>

#include "cache_test_util.h"
#include "persist/cache_writer.h"
#include "platform/access_reg.h"
#include "platform/key_name.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::BytesWriter;
using cachetest::FakeVolumeEnv;
using cachetest::IdentityOf;
using cachetest::MakeFile;
using cachetest::ReadAll;
using cachetest::Request;
using cachetest::ScopedEnv;

// A file name, mostly capitals, that makes a path of 230 characters in the test's folder:
// it fits a record, but each capital is marked in a readable key name, which would then
// be far too long.
std::string CapitalsName(const char* extension) {
  std::string name = "Recording_";
  const size_t folder = test::TestPath("").size();
  while (folder + name.size() + 4 < 230) name.push_back(static_cast<char>('A' + name.size() % 26));
  return name + extension;
}

// `copy` gets the content and the times of `original`, as "cp -p" gives them.
void CopyKeepingTimes(const std::string& original, const std::string& copy) {
  std::filesystem::copy_file(original, copy);
  struct stat st;
  ASSERT_EQ(stat(original.c_str(), &st), 0);
  utimbuf times{st.st_atime, st.st_mtime};
  ASSERT_EQ(utime(copy.c_str(), &times), 0);
}

TEST(CacheKeys, APathTooLongForAReadableKeyGetsAHashedOne) {
  std::string media = MakeFile(CapitalsName(".vob"), 9000, 1);
  CacheEntry written;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, media), BytesWriter({{4, 2}}), &written), 1);
  EXPECT_TRUE(IsHashedKeyName(written.sub_key)) << written.sub_key;
  EXPECT_EQ(written.sub_key.size(), kHashedKeyNameLength);

  uint64_t identity[2];
  IdentityOf(media, identity);
  CacheEntry found;
  ASSERT_TRUE(FindCacheEntry(CacheKind::kVR, media, identity, ReadContentSample(media), &found));
  EXPECT_EQ(found.file.media_path, media) << "the record keeps the whole path";
  EXPECT_EQ(found.MediaPath(), media);
  EXPECT_EQ(ReadAll(found.file.cache_path), (Bytes{4, 2}));
}

TEST(CacheKeys, AHashedNameWhoseRecordNamesAnotherPathIsNotTheFilesEntry) {
  std::string media = test::TestPath(CapitalsName(".mpg"));
  std::string other = test::TestPath(CapitalsName(".MPG"));
  TempCacheRecord r;
  r.media_path = other;
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(EncodeTempRecord(r, &bytes));
  // The other path's record under this path's name, as if the two names were one.
  std::string key = CacheEntryKeyPath(CacheKind::kTemp, CacheSubKeyName(media));
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, key.c_str()));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, key.c_str()));
  ASSERT_TRUE(reg.SetValue("TempInfo", bytes.data(), REG_BINARY, 1064));
  CacheEntry e;
  EXPECT_FALSE(FindTempCacheEntry(media, &e));
}

TEST(CacheKeys, ALongTempPathIsWrittenAndFoundAgain) {
  std::string media = test::TestPath(CapitalsName(".mpg"));
  TempCacheRecord r;
  r.media_path = media;
  r.original_size = 77;
  ASSERT_TRUE(MakeCacheFile(&r.cache_path));
  ASSERT_EQ(WriteTempCacheEntry(r, 5), 1);
  CacheEntry e;
  ASSERT_TRUE(FindTempCacheEntry(media, &e));
  EXPECT_TRUE(IsHashedKeyName(e.sub_key));
  EXPECT_EQ(e.temp.media_path, media);
  EXPECT_EQ(e.temp.original_size, 77u);
}

// Unplugged, a removable volume's mount point answers for it (here: ext4, which tells
// case apart); plugged in again, the volume answers itself (exfat).
TEST(CacheKeys, AnUnpluggedVolumeChangesNoKeyAndFindsItsEntriesWhenBack) {
  FakeVolumeEnv exfat("exfat");
  FakeVolumeEnv mount_point("ext4");
  std::string vob = MakeFile("Stick_Clip.VOB", 9000, 5);
  std::string mpg = test::TestPath("Stick_Movie.MPG");
  std::string long_mpg = test::TestPath(CapitalsName(".MPG"));
  CacheEntry written;
  {
    ScopedEnv plugged(&exfat);
    ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, vob), BytesWriter({{9}}), &written), 1);
    for (const std::string& path : {mpg, long_mpg}) {
      TempCacheRecord r;
      r.media_path = path;
      ASSERT_TRUE(MakeCacheFile(&r.cache_path));
      ASSERT_EQ(WriteTempCacheEntry(r, 1), 1);
    }
  }
  {
    ScopedEnv unplugged(&mount_point);
    CacheEntry e;
    ASSERT_TRUE(FindEntryByPath(CacheKind::kVR, vob, &e));
    EXPECT_EQ(e.sub_key, written.sub_key) << "the entry is found under the key it has";
    EXPECT_TRUE(FindTempCacheEntry(mpg, &e));
    EXPECT_TRUE(FindTempCacheEntry(long_mpg, &e));
    // Another spelling is another file on a volume that tells case apart.
    EXPECT_FALSE(FindTempCacheEntry(test::TestPath("stick_movie.mpg"), &e));
  }
  ScopedEnv plugged(&exfat);
  EXPECT_EQ(CacheSubKeyName(vob), written.sub_key);
  uint64_t identity[2];
  IdentityOf(vob, identity);
  CacheEntry found;
  ASSERT_TRUE(FindCacheEntry(CacheKind::kVR, vob, identity, ReadContentSample(vob), &found));
  EXPECT_EQ(ReadAll(found.file.cache_path), Bytes{9});
  CacheEntry e;
  EXPECT_TRUE(FindTempCacheEntry(test::TestPath("STICK_MOVIE.mpg"), &e)) << "exfat folds case";
  EXPECT_TRUE(FindTempCacheEntry(long_mpg, &e));
}

// An entry written while a volume was taken to ignore case (NTFS was, once) is found
// and moved under the name the volume's answer gives now, keeping its id.
TEST(CacheKeys, AnEntryUnderTheOtherFoldingMovesToTheNameOfNow) {
  std::string vob = MakeFile("Old_Clip.VOB", 9000, 6);
  std::string mpg = test::TestPath("Old_Movie.MPG");
  CacheEntry before;
  {
    FakeVolumeEnv folding("vfat");
    ScopedEnv env(&folding);
    ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, vob), BytesWriter({{1}}), &before), 1);
    TempCacheRecord r;
    r.media_path = mpg;
    ASSERT_TRUE(MakeCacheFile(&r.cache_path));
    ASSERT_EQ(WriteTempCacheEntry(r, 1), 1);
  }
  FakeVolumeEnv ntfs("ntfs3");
  ScopedEnv env(&ntfs);
  ASSERT_NE(CacheSubKeyName(vob), before.sub_key);
  CacheEntry after;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, vob), BytesWriter({{2}}), &after), 1);
  EXPECT_EQ(after.id, before.id);
  EXPECT_EQ(after.sub_key, CacheSubKeyName(vob));
  EXPECT_EQ(ListCacheEntries(CacheKind::kVR).size(), 1u) << "the old name is gone";
  EXPECT_FALSE(FileExists(before.file.cache_path));

  TempCacheRecord r;
  r.media_path = mpg;
  ASSERT_TRUE(MakeCacheFile(&r.cache_path));
  ASSERT_EQ(WriteTempCacheEntry(r, 1), 1);
  std::vector<CacheEntry> temp = ListCacheEntries(CacheKind::kTemp);
  ASSERT_EQ(temp.size(), 1u);
  EXPECT_EQ(temp[0].sub_key, CacheSubKeyName(mpg));
  EXPECT_EQ(temp[0].id, 0u) << "the same file keeps its id";
  EXPECT_EQ(cachetest::FolderFiles(cachetest::CacheFolder()).size(), 2u)
      << "the VR file and the new temp file; the replaced one went";
}

TEST(CacheKeys, OnNtfsNamesThatDifferOnlyInCaseAreTwoFiles) {
  FakeVolumeEnv ntfs("ntfs3");
  ScopedEnv env(&ntfs);
  std::string upper = MakeFile("Clip.vob", 9000, 1);
  std::string lower = MakeFile("clip.vob", 9500, 2);
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, upper), BytesWriter({{1}})), 1);
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kVR, lower), BytesWriter({{2}})), 1);
  EXPECT_EQ(ListCacheEntries(CacheKind::kVR).size(), 2u);
}

TEST(CacheKeys, ACopyBesideItsOriginalGetsAnEntryOfItsOwn) {
  std::string original = MakeFile("d2.ts", 9000, 8);
  CacheEntry first;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kTS, original), BytesWriter({{2}}), &first), 1);
  std::string copy = test::TestPath("d0.ts");
  CopyKeepingTimes(original, copy);

  uint64_t identity[2];
  IdentityOf(copy, identity);
  CacheEntry found;
  EXPECT_FALSE(FindCacheEntry(CacheKind::kTS, copy, identity, ReadContentSample(copy), &found))
      << "the copy does not open with its original's tags";
  CacheEntry second;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kTS, copy), BytesWriter({{0}}), &second), 1);
  EXPECT_NE(second.id, first.id);
  EXPECT_EQ(ListCacheEntries(CacheKind::kTS).size(), 2u);

  IdentityOf(original, identity);
  ASSERT_TRUE(
      FindCacheEntry(CacheKind::kTS, original, identity, ReadContentSample(original), &found));
  EXPECT_EQ(ReadAll(found.FirstCacheFile()), Bytes{2}) << "the original keeps its own";
  IdentityOf(copy, identity);
  ASSERT_TRUE(FindCacheEntry(CacheKind::kTS, copy, identity, ReadContentSample(copy), &found));
  EXPECT_EQ(ReadAll(found.FirstCacheFile()), Bytes{0});
}

TEST(CacheKeys, AHardLinkIsTheSameFileAndTakesTheEntryOver) {
  std::string original = MakeFile("e.ts", 9000, 9);
  CacheEntry first;
  ASSERT_EQ(WriteCacheEntry(Request(CacheKind::kTS, original), BytesWriter({{3}}), &first), 1);
  std::string link = test::TestPath("e-link.ts");
  ASSERT_EQ(::link(original.c_str(), link.c_str()), 0);
  uint64_t identity[2];
  IdentityOf(link, identity);
  CacheEntry found;
  ASSERT_TRUE(FindCacheEntry(CacheKind::kTS, link, identity, ReadContentSample(link), &found));
  EXPECT_EQ(found.id, first.id);
}

}  // namespace
}  // namespace marquel
