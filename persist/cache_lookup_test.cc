// Finding a cache entry by content: the indexed lookup answers as reading every entry does.
#include <gtest/gtest.h>

#include <random>

#include "cache_test_util.h"
#include "persist/cache_entry.h"
#include "persist/cache_keys.h"
#include "persist/cache_records.h"
#include "platform/access_reg.h"

namespace marquel {
namespace {

using cachetest::ScopedMemoryDataHome;

// Writes an entry of `kind` named `name` as the cache writer leaves it.
void PutEntry(CacheKind kind, const std::string& name, const std::string& media, uint64_t identity,
              uint32_t content) {
  const std::string path = CacheEntryKeyPath(kind, name);
  AccessReg reg;
  ASSERT_TRUE(reg.CreateKey(HKEY_CURRENT_USER, path.c_str()));
  ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, path.c_str()));
  CacheFileRecord record;
  record.media_path = media;
  record.cache_path = test::TestPath("cache/" + name);
  record.identity[0] = identity;
  record.identity[1] = 1;
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(EncodeFileRecord(record, &bytes));
  ASSERT_TRUE(reg.SetValue(CacheRecordValue(kind), bytes.data(), REG_BINARY,
                           static_cast<uint32_t>(bytes.size())));
  ASSERT_TRUE(reg.SetDword(kContentInfoValue, content));
  ASSERT_TRUE(reg.SetDword(kIdValue, 1));
}

// The answer of reading every entry: the first complete one with the same content and
// identity whose own file is gone.
std::string FirstByScan(CacheKind kind, uint64_t identity, uint32_t content) {
  for (const CacheEntry& e : ListCacheEntries(kind)) {
    if (e.Complete() && e.has_content && e.content == content && e.file.identity[0] == identity &&
        e.file.identity[1] == 1 && !FileExists(e.file.media_path)) {
      return e.sub_key;
    }
  }
  return "";
}

TEST(CacheLookup, TheContentLookupFindsTheEntryAFullScanFinds) {
  ScopedMemoryDataHome memory;
  std::mt19937 random(1125);
  const std::string present = cachetest::MakeFile("present.ts", 100, 1);
  for (int i = 0; i < 150; ++i) {
    const std::string name = "/gone/" + std::to_string(random() % 120) + ".ts";
    // Some entries name a file that is still there: those are never taken over.
    PutEntry(CacheKind::kVR, name, random() % 6 == 0 ? present : name, random() % 3, random() % 8);
    if (random() % 10 == 0) {
      AccessReg reg(HKEY_CURRENT_USER, CacheEntryKeyPath(CacheKind::kVR, name).c_str());
      reg.DeleteValue(CacheRecordValue(CacheKind::kVR));  // incomplete: never found
    }
  }
  PutEntry(CacheKind::kTS, "/gone/ts.ts", "/gone/ts.ts", 0, 0);  // another kind
  int found = 0;
  for (uint64_t identity = 0; identity < 3; ++identity) {
    for (uint32_t content = 0; content < 9; ++content) {
      ContentSample sample;
      sample.taken = true;
      sample.crc = content;
      const uint64_t words[2] = {identity, 1};
      CacheEntry entry;
      const std::string expected = FirstByScan(CacheKind::kVR, identity, content);
      const bool hit =
          FindCacheEntry(CacheKind::kVR, test::TestPath("new.ts"), words, sample, &entry);
      EXPECT_EQ(hit ? entry.sub_key : "", expected) << identity << " " << content;
      found += hit;
    }
  }
  EXPECT_GT(found, 5);  // the sets are random, but not so sparse that nothing matches
}

}  // namespace
}  // namespace marquel
