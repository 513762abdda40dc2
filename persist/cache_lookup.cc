// Finding the cache entry of a media file, by name and by content.
#include <sys/stat.h>

#include <cerrno>

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

// The path an entry's record names; false when it has no record.
bool RecordPath(const CacheEntry& entry, std::string* path) {
  if (entry.kind == CacheKind::kTemp ? !entry.has_temp_record : !entry.has_file_record)
    return false;
  *path = entry.kind == CacheKind::kTemp ? entry.temp.media_path : entry.file.media_path;
  return true;
}

// Whether a content match may take over the entry of `entryPath`: only when that file is
// gone (renamed, moved) or is `mediaPath` itself under another name (a hard link, or a
// spelling on a volume that ignores case). A copy beside its original is another file.
bool EntryFileMayBeTakenOver(const std::string& entryPath, const std::string& mediaPath) {
  struct stat of_entry, of_media;
  if (stat(entryPath.c_str(), &of_entry) != 0) return errno == ENOENT || errno == ENOTDIR;
  return stat(mediaPath.c_str(), &of_media) == 0 && of_entry.st_dev == of_media.st_dev &&
         of_entry.st_ino == of_media.st_ino;
}

// The entries of `kind` whose "CONTENTINFO" is `content`, in creation order, found through
// the store's index rather than by reading every entry.
std::vector<CacheEntry> EntriesWithContent(CacheKind kind, uint32_t content) {
  AccessReg base;
  std::vector<std::string> names;
  const uint8_t bytes[4] = {static_cast<uint8_t>(content), static_cast<uint8_t>(content >> 8),
                            static_cast<uint8_t>(content >> 16),
                            static_cast<uint8_t>(content >> 24)};
  if (!base.Open(HKEY_CURRENT_USER, CacheBaseKey(kind)) ||
      !base.FindSubKeysByValue(kContentInfoValue, bytes, sizeof bytes, &names)) {
    return {};
  }
  base.Close();
  std::vector<CacheEntry> entries;
  for (const std::string& name : names) {
    CacheEntry entry;
    if (ReadCacheEntry(kind, name, &entry)) entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace

bool FindEntryByPath(CacheKind kind, const std::string& mediaPath, CacheEntry* out) {
  if (out == nullptr) return false;
  bool folds = false;
  for (const std::string& name : CacheLookupKeyNames(mediaPath, &folds)) {
    CacheEntry entry;
    std::string path;
    if (!ReadCacheEntry(kind, name, &entry) || !RecordPath(entry, &path)) continue;
    if (path == mediaPath || (folds && EqualsIgnoreCase(path, mediaPath))) {
      *out = std::move(entry);
      return true;
    }
  }
  return false;
}

bool FindCacheEntry(CacheKind kind, const std::string& mediaPath, const uint64_t identity[2],
                    const ContentSample& sample, CacheEntry* out) {
  if (out == nullptr || kind == CacheKind::kTemp) return false;
  CacheEntry entry;
  if (FindEntryByPath(kind, mediaPath, &entry) && entry.Complete() &&
      SameIdentity(entry.file, identity) && entry.has_content &&
      entry.content == ContentValue(sample)) {
    *out = std::move(entry);
    return true;
  }
  // A file whose name or folder changed keeps its cache: the first entry with the same
  // content and identity words is the file's, unless that entry's own file is still there.
  if (!sample.taken) return false;
  for (CacheEntry& candidate : EntriesWithContent(kind, sample.crc)) {
    if (candidate.Complete() && candidate.has_content && candidate.content == sample.crc &&
        SameIdentity(candidate.file, identity) &&
        EntryFileMayBeTakenOver(candidate.file.media_path, mediaPath)) {
      *out = std::move(candidate);
      return true;
    }
  }
  return false;
}

bool FindTempCacheEntry(const std::string& mediaPath, CacheEntry* out) {
  return FindEntryByPath(CacheKind::kTemp, mediaPath, out);
}

}  // namespace marquel
