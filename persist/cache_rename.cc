// Carrying a media file's cache entries over to a new name.
#include <algorithm>

#include "media/file_type.h"
#include "persist/cache_entry.h"
#include "persist/cache_keys.h"
#include "persist/cache_sweep.h"
#include "persist/cache_writer.h"
#include "platform/access_reg.h"
#include "platform/text.h"

namespace marquel {
namespace {

// Writes `entry`'s values under its sub-key (made when missing). False on a failure.
bool WriteEntryValues(const CacheEntry& entry) {
  std::vector<uint8_t> record;
  bool encoded = entry.kind == CacheKind::kTemp ? EncodeTempRecord(entry.temp, &record)
                                                : EncodeFileRecord(entry.file, &record);
  if (!encoded) return false;
  AccessReg reg;
  std::string path = entry.KeyPath();
  if (!reg.CreateKey(HKEY_CURRENT_USER, path.c_str()) || !reg.Open(HKEY_CURRENT_USER, path.c_str()))
    return false;
  bool ok = reg.SetValue(CacheRecordValue(entry.kind), record.data(), REG_BINARY,
                         static_cast<uint32_t>(record.size()));
  if (ok && entry.has_id) ok = reg.SetDword(kIdValue, entry.id);
  if (ok && entry.has_content) ok = reg.SetDword(kContentInfoValue, entry.content);
  if (ok && entry.kind == CacheKind::kTS) {
    std::vector<uint8_t> programs;
    ok = EncodeProgramRecords(entry.programs, &programs) &&
         reg.SetValue(kTSInfoValue, programs.data(), REG_BINARY,
                      static_cast<uint32_t>(programs.size())) &&
         reg.SetDword(kTSProgramsValue, static_cast<uint32_t>(entry.programs.size()));
  }
  return ok;
}

// Entries already kept for `newPath` belong to a file that is being replaced: the one
// under the key of now and one left under the other folding of the name by an earlier
// version, which a later lookup would otherwise still find. The entry being renamed
// (under `oldKey`) and the files in `keep` stay.
int32_t DropReplacedEntries(CacheKind kind, const std::string& newPath, const std::string& oldKey,
                            const std::vector<std::string>& keep) {
  for (const std::string& name : CacheLookupKeyNames(newPath)) {
    CacheEntry replaced;
    if (!ReadCacheEntry(kind, name, &replaced) || EqualsIgnoreCase(replaced.KeyPath(), oldKey))
      continue;
    CacheEntry same_file;  // the lookup's own test of the path the entry names
    if (!FindEntryByPath(kind, newPath, &same_file) || same_file.KeyPath() != replaced.KeyPath())
      continue;
    AccessReg reg;
    if (!reg.DeleteKey(HKEY_CURRENT_USER, replaced.KeyPath().c_str())) return -1;
    for (const std::string& f : replaced.RemovableFiles()) {
      if (std::find(keep.begin(), keep.end(), f) == keep.end() && FileExists(f)) RemoveFile(f);
    }
  }
  return 1;
}

int32_t RenameOne(CacheKind kind, const std::string& oldPath, const std::string& newPath) {
  CacheEntry entry;
  if (!FindEntryByPath(kind, oldPath, &entry) || !entry.Complete()) return 1;
  const std::string old_key = entry.KeyPath();
  const std::string new_sub_key = CacheSubKeyName(newPath);
  const bool same_key = EqualsIgnoreCase(entry.sub_key, new_sub_key);
  if (kind == CacheKind::kTemp) {
    entry.temp.media_path = newPath;
  } else {
    entry.file.media_path = newPath;
  }
  entry.sub_key = new_sub_key;
  if (DropReplacedEntries(kind, newPath, old_key, entry.CacheFiles()) != 1) return -1;
  if (!WriteEntryValues(entry)) {
    if (!same_key) {
      AccessReg reg;
      reg.DeleteKey(HKEY_CURRENT_USER, entry.KeyPath().c_str());
    }
    return -1;
  }
  if (!same_key) {
    AccessReg reg;
    reg.DeleteKey(HKEY_CURRENT_USER, old_key.c_str());
  }
  return 1;
}

}  // namespace

int32_t CacheRename(const std::string& oldPath, const std::string& newPath, int32_t format) {
  if (oldPath.empty() || newPath.empty() || !FitsRecordPath(newPath)) return -1;
  if (oldPath == newPath) return 1;
  // Only a regular file (or a name not taken yet) can be a media file to carry tags.
  if (FileExists(newPath) && !IsRegularFile(newPath)) return -1;
  CacheWriteLock lock;
  CacheKind only;
  bool one_kind = format != 0 && CacheKindForFormat(format, &only);
  // A format recognised by its first bytes may still have tags in the temp cache from when
  // it had no code; they go along.
  const bool with_temp = IsMagicNumberFormat(static_cast<uint32_t>(format));
  int32_t result = 1;
  for (int32_t i = 0; i < kCacheKindCount; ++i) {
    CacheKind kind = static_cast<CacheKind>(i);
    if (one_kind && kind != only && !(with_temp && kind == CacheKind::kTemp)) continue;
    if (RenameOne(kind, oldPath, newPath) != 1) result = -1;
  }
  return result;
}

}  // namespace marquel
