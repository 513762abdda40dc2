// Finding a media file's cache entries by its path.
#include "cache_lookup.h"

#include <filesystem>

namespace marquel::ctl {

std::string Absolute(const std::string& path) {
  std::error_code ec;
  std::filesystem::path p = std::filesystem::absolute(path, ec);
  return ec ? path : p.lexically_normal().string();
}

std::vector<CacheKind> AllCacheKinds() {
  std::vector<CacheKind> kinds;
  for (int32_t i = 0; i < kCacheKindCount; ++i) kinds.push_back(static_cast<CacheKind>(i));
  return kinds;
}

std::vector<CacheEntry> EntriesOf(const std::string& file, const std::vector<CacheKind>& kinds) {
  std::vector<CacheEntry> found;
  for (CacheKind kind : kinds) {
    CacheEntry e;
    if (FindEntryByPath(kind, file, &e) || ReadCacheEntry(kind, CacheSubKeyName(file), &e))
      found.push_back(std::move(e));
  }
  return found;
}

bool HasCachedTags(const std::string& file) {
  for (const CacheEntry& e : EntriesOf(file, AllCacheKinds()))
    if (e.Complete()) return true;
  return false;
}

}  // namespace marquel::ctl
