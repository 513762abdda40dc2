// Reading, finding, listing and deleting cache entries.
//
// An entry is the sub-key of one media file under a cache kind's base key. Values of the
// wrong size count as absent, so a damaged entry reads as an entry without that value;
// the lookups use only entries whose values are all present.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "persist/cache_fingerprint.h"
#include "persist/cache_keys.h"
#include "persist/cache_records.h"

namespace marquel {

// The most programs a TS entry may list (a session holds at most 8).
constexpr uint32_t kMaxCachePrograms = 8;

struct CacheEntry {
  CacheKind kind = CacheKind::kVR;
  std::string sub_key;  // the entry's own key name under the base key
  bool has_id = false;
  uint32_t id = 0;
  bool has_content = false;
  uint32_t content = 0;  // "CONTENTINFO"
  bool has_file_record = false;
  CacheFileRecord file;                      // VR, TS, AVI, other
  std::vector<CacheProgramRecord> programs;  // TS: "TSINFO", "TSPROGRAMS" records
  bool has_temp_record = false;
  TempCacheRecord temp;  // temp cache

  // The entry's full key under the current user's root.
  std::string KeyPath() const { return CacheEntryKeyPath(kind, sub_key); }
  // The media file the entry is about: the record's path, else the key name's path.
  std::string MediaPath() const;
  // Every cache file the entry names, each once, in program order.
  std::vector<std::string> CacheFiles() const;
  // The cache files the entry may delete along with itself: those directly in the cache
  // folder with the cache-file shape, and for a VR entry its media file's side file
  // exactly (SideFilePath). A record naming any other file never costs that file.
  std::vector<std::string> RemovableFiles() const;
  // The cache file of program 0 ("" when none).
  std::string FirstCacheFile() const;
  // Whether the values its kind needs are present: the file record (and for TS the
  // program records), or the temp record.
  bool Complete() const;
};

// Reads the entry `subKey` of `kind`. False when the sub-key does not exist.
bool ReadCacheEntry(CacheKind kind, const std::string& subKey, CacheEntry* out);

// Every entry of a kind, in the store's enumeration order.
std::vector<CacheEntry> ListCacheEntries(CacheKind kind);

// The id the next new entry of `kind` takes: "NextID", 0 when absent, 1000 and more
// read as 0.
uint32_t ReadNextId(CacheKind kind);

// Deletes an entry's sub-key, then the cache files it may delete (RemovableFiles). True
// when the sub-key is gone afterwards (also when it never existed).
bool DeleteCacheEntry(CacheKind kind, const std::string& subKey);

// Deletes the first entry (in enumeration order) whose "ID" is `id`, with its cache files.
// True when one was deleted.
bool EvictCacheId(CacheKind kind, uint32_t id);

// The entry of `mediaPath` in `kind` under one of its key names (CacheLookupKeyNames):
// one whose record names exactly this path, or, while the file's volume ignores case,
// this path in another spelling. A key name alone proves nothing (a hashed one may be
// shared, and the store folds case), so the record decides. The entry may lack other
// values. False when there is none.
bool FindEntryByPath(CacheKind kind, const std::string& mediaPath, CacheEntry* out);

// Finds the entry of a media file in the VR, TS, AVI or other cache. By name: the file's
// entry (FindEntryByPath) with the same identity words and whose "CONTENTINFO" is the
// fingerprint (0 when not taken). Else, when the fingerprint was taken, by content: the
// first complete entry whose "CONTENTINFO" is the fingerprint, whose identity words are
// equal and whose own media file is gone (the file was renamed or moved) or is this very
// file (another name of it). A copy whose original is still there has no entry yet:
// the two keep an entry each. False when neither finds one.
bool FindCacheEntry(CacheKind kind, const std::string& mediaPath, const uint64_t identity[2],
                    const ContentSample& sample, CacheEntry* out);

// Finds the temp-cache entry of a media file (FindEntryByPath). False when there is none.
bool FindTempCacheEntry(const std::string& mediaPath, CacheEntry* out);

}  // namespace marquel
