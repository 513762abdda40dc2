// Finding the cache entry of a media file, by name and by content.
#include "persist/cache_entry.h"
#include "platform/access_reg.h"
#include "platform/text.h"

namespace marquel {
namespace {

bool SameIdentity(const CacheFileRecord& record, const uint64_t identity[2]) {
  return record.identity[0] == identity[0] && record.identity[1] == identity[1];
}

// The value "CONTENTINFO" holds for a file: its fingerprint, or 0 when it has none.
uint32_t ContentValue(const ContentSample& sample) {
  return sample.taken ? sample.crc : 0;
}

}  // namespace

bool FindCacheEntry(CacheKind kind, const std::string& mediaPath, const uint64_t identity[2],
                    const ContentSample& sample, CacheEntry* out) {
  if (out == nullptr || kind == CacheKind::kTemp) return false;
  CacheEntry entry;
  if (ReadCacheEntry(kind, CacheSubKeyName(mediaPath), &entry) && entry.Complete() &&
      EqualsIgnoreCase(entry.file.media_path, mediaPath) && SameIdentity(entry.file, identity) &&
      entry.has_content && entry.content == ContentValue(sample)) {
    *out = std::move(entry);
    return true;
  }
  // A file whose name or folder changed keeps its cache: the first entry with the same
  // content and identity words is the file's.
  if (!sample.taken) return false;
  for (CacheEntry& candidate : ListCacheEntries(kind)) {
    if (candidate.Complete() && candidate.has_content && candidate.content == sample.crc &&
        SameIdentity(candidate.file, identity)) {
      *out = std::move(candidate);
      return true;
    }
  }
  return false;
}

bool FindTempCacheEntry(const std::string& mediaPath, CacheEntry* out) {
  if (out == nullptr) return false;
  CacheEntry entry;
  if (!ReadCacheEntry(CacheKind::kTemp, CacheSubKeyName(mediaPath), &entry) ||
      !entry.has_temp_record || !EqualsIgnoreCase(entry.temp.media_path, mediaPath)) {
    return false;
  }
  *out = std::move(entry);
  return true;
}

}  // namespace marquel
