// Finding a media file's entries in the per-user caches, for the commands that look at
// where a file's tags are kept.
#pragma once

#include <string>
#include <vector>

#include "persist/cache_entry.h"

namespace marquel::ctl {

// `path` made absolute and normal, as the cache records name media files; `path` itself
// when that fails.
std::string Absolute(const std::string& path);

// Every cache kind, in the order of their codes.
std::vector<CacheKind> AllCacheKinds();

// The entries of the media file `file` (absolute), one per kind of `kinds` at most.
std::vector<CacheEntry> EntriesOf(const std::string& file, const std::vector<CacheKind>& kinds);

// Whether a cache keeps tags of `file` (absolute) that the server would use: a complete
// entry of any kind. A half-written entry (a killed close) names none.
bool HasCachedTags(const std::string& file);

}  // namespace marquel::ctl
