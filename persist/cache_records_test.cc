// The binary records of the cache entries and the names of the caches.
#include "persist/cache_records.h"

#include <gtest/gtest.h>

#include <string>

#include "persist/cache_keys.h"

namespace marquel {
namespace {

TEST(CacheRecords, FileRecordLayout) {
  CacheFileRecord r;
  r.media_path = "/videos/Ab.vob";
  r.identity[0] = 0x1122334455667788ull;
  r.identity[1] = 1700000000;
  r.cache_path = "/data/Halvern/MQInfo/MQ1F.tmp";
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(EncodeFileRecord(r, &bytes));
  ASSERT_EQ(bytes.size(), 1056u);
  EXPECT_EQ(bytes[0], '/');
  EXPECT_EQ(bytes[1], 0) << "UTF-16LE";
  EXPECT_EQ(bytes[2], 'v');
  EXPECT_EQ(bytes[520], 0x88);
  EXPECT_EQ(bytes[527], 0x11);
  EXPECT_EQ(bytes[536], '/');
  EXPECT_EQ(bytes[538], 'd');
  CacheFileRecord back;
  ASSERT_TRUE(DecodeFileRecord(bytes.data(), bytes.size(), &back));
  EXPECT_EQ(back.media_path, r.media_path);
  EXPECT_EQ(back.identity[0], r.identity[0]);
  EXPECT_EQ(back.identity[1], r.identity[1]);
  EXPECT_EQ(back.cache_path, r.cache_path);
  EXPECT_FALSE(DecodeFileRecord(bytes.data(), 1055, &back)) << "wrong size is absent";
}

TEST(CacheRecords, ProgramRecords) {
  std::vector<CacheProgramRecord> in = {{"/c/MQ1.tmp", 0x100}, {"/c/MQ2.tmp", 0x1FFF}};
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(EncodeProgramRecords(in, &bytes));
  ASSERT_EQ(bytes.size(), 2 * 524u);
  EXPECT_EQ(bytes[520], 0x00);
  EXPECT_EQ(bytes[521], 0x01);
  EXPECT_EQ(bytes[524 + 520], 0xFF);
  EXPECT_EQ(bytes[524 + 521], 0x1F);
  std::vector<CacheProgramRecord> out;
  ASSERT_TRUE(DecodeProgramRecords(bytes.data(), bytes.size(), &out));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].cache_path, "/c/MQ2.tmp");
  EXPECT_EQ(out[1].pmt_pid, 0x1FFF);
  EXPECT_FALSE(DecodeProgramRecords(bytes.data(), 600, &out));
}

TEST(CacheRecords, TempRecordComparedWordsAt520And1056) {
  TempCacheRecord r;
  r.media_path = "/m/a.mpg";
  r.original_size = 123456789;
  r.content_word = 0xAABBCCDD;
  r.content_crc = 0x01020304;
  r.cache_path = "/c/MQ9.tmp";
  r.original_mtime = 1600000000;
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(EncodeTempRecord(r, &bytes));
  ASSERT_EQ(bytes.size(), 1064u);
  uint64_t size = 0, time = 0;
  for (int i = 7; i >= 0; --i) size = size << 8 | bytes[520 + i];
  for (int i = 7; i >= 0; --i) time = time << 8 | bytes[1056 + i];
  EXPECT_EQ(size, 123456789u);
  EXPECT_EQ(time, 1600000000u);
  EXPECT_EQ(bytes[528], 0xDD);
  EXPECT_EQ(bytes[532], 0x04);
  TempCacheRecord back;
  ASSERT_TRUE(DecodeTempRecord(bytes.data(), bytes.size(), &back));
  EXPECT_EQ(back.media_path, r.media_path);
  EXPECT_EQ(back.cache_path, r.cache_path);
  EXPECT_EQ(back.content_word, r.content_word);
  EXPECT_EQ(back.original_mtime, r.original_mtime);
  EXPECT_FALSE(DecodeTempRecord(bytes.data(), 1056, &back));
}

TEST(CacheRecords, PathThatDoesNotFitIsRefusedNeverCut) {
  CacheFileRecord r;
  r.media_path = "/" + std::string(258, 'a');  // 259 units: fits with its terminator
  EXPECT_TRUE(FitsRecordPath(r.media_path));
  std::vector<uint8_t> bytes;
  EXPECT_TRUE(EncodeFileRecord(r, &bytes));
  r.media_path += "b";  // 260 units: no room for the terminator
  EXPECT_FALSE(FitsRecordPath(r.media_path));
  EXPECT_FALSE(EncodeFileRecord(r, &bytes));
  EXPECT_TRUE(bytes.empty());
}

TEST(CacheKeys, BaseKeysAndFormats) {
  EXPECT_STREQ(CacheBaseKey(CacheKind::kVR), "Software\\Halvern\\Marquel\\VRCache");
  EXPECT_STREQ(CacheBaseKey(CacheKind::kTS), "Software\\Halvern\\Marquel\\TSCache");
  EXPECT_STREQ(CacheBaseKey(CacheKind::kOther), "Software\\Halvern\\Marquel\\OtherCache");
  EXPECT_STREQ(CacheBaseKey(CacheKind::kAVI), "Software\\Halvern\\Marquel\\AVICache");
  EXPECT_STREQ(CacheBaseKey(CacheKind::kTemp), "Software\\Halvern\\Marquel\\TempCache");
  EXPECT_EQ(CacheEntryKeyPath(CacheKind::kVR, CacheSubKeyName("/a\\b/c.vob")),
            "Software\\Halvern\\Marquel\\VRCache\\/a%5Cb/c.vob");
  CacheKind kind;
  const CacheKind expected[17] = {
      CacheKind::kTemp,  CacheKind::kTemp,  CacheKind::kTemp,  CacheKind::kTemp,  CacheKind::kTemp,
      CacheKind::kOther, CacheKind::kVR,    CacheKind::kVR,    CacheKind::kAVI,   CacheKind::kAVI,
      CacheKind::kTS,    CacheKind::kOther, CacheKind::kOther, CacheKind::kOther, CacheKind::kOther,
      CacheKind::kOther, CacheKind::kOther};
  for (int32_t f = 0; f < 17; ++f) {
    ASSERT_TRUE(CacheKindForFormat(f, &kind)) << f;
    EXPECT_EQ(kind, expected[f]) << f;
  }
  // The formats known by their first bytes (MKV ... raw MPEG-4 video) use the other cache.
  for (int32_t f = 17; f <= 26; ++f) {
    ASSERT_TRUE(CacheKindForFormat(f, &kind)) << f;
    EXPECT_EQ(kind, CacheKind::kOther) << f;
  }
  EXPECT_FALSE(CacheKindForFormat(27, &kind));
  EXPECT_FALSE(CacheKindForFormat(-1, &kind));
  EXPECT_TRUE(CacheKindFromName("tscache", &kind));
  EXPECT_EQ(kind, CacheKind::kTS);
}

}  // namespace
}  // namespace marquel
