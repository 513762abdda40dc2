// Writing the temp-cache entry of a program-stream media file.
#include "persist/cache_sweep.h"
#include "persist/cache_writer.h"
#include "platform/access_reg.h"
#include "platform/text.h"

namespace marquel {
namespace {

// Removes the cache file of an entry that a new record replaced.
void RemoveReplacedFile(const CacheEntry& old, bool existed, const std::string& newFile) {
  if (existed && old.has_temp_record && !old.temp.cache_path.empty() &&
      old.temp.cache_path != newFile && IsInCacheFolder(old.temp.cache_path)) {
    RemoveFile(old.temp.cache_path);
  }
}

}  // namespace

int32_t WriteTempCacheEntry(const TempCacheRecord& record, uint32_t contentInfo) {
  std::vector<uint8_t> bytes;
  if (!EncodeTempRecord(record, &bytes)) return 0;
  AccessReg reg;
  const char* base = CacheBaseKey(CacheKind::kTemp);
  if (!reg.CreateKey(HKEY_CURRENT_USER, base)) return 0;
  uint32_t next = ReadNextId(CacheKind::kTemp);

  std::string sub_key = CacheSubKeyName(record.media_path);
  CacheEntry previous;  // whatever the sub-key of this name holds now
  bool had_previous = ReadCacheEntry(CacheKind::kTemp, sub_key, &previous);
  // The file's entry under its other key name (written while its volume answered
  // otherwise about case) is replaced by this one, and its sub-key goes.
  CacheEntry elsewhere;
  const bool moved = FindTempCacheEntry(record.media_path, &elsewhere) &&
                     !EqualsIgnoreCase(elsewhere.sub_key, sub_key);
  const CacheEntry& own = moved ? elsewhere : previous;
  // The same file as before (path, original size and time) keeps its id.
  bool same = (moved || had_previous) && own.has_temp_record && own.has_id &&
              own.id < kCacheIdCount && EqualsIgnoreCase(own.temp.media_path, record.media_path) &&
              own.temp.original_size == record.original_size &&
              own.temp.original_mtime == record.original_mtime;
  uint32_t id = same ? own.id : next;

  std::string key_path = CacheEntryKeyPath(CacheKind::kTemp, sub_key);
  if (!reg.CreateKey(HKEY_CURRENT_USER, key_path.c_str()) ||
      !reg.Open(HKEY_CURRENT_USER, key_path.c_str()))
    return 0;
  if (!reg.SetValue(kTempInfoWriteName, bytes.data(), REG_BINARY,
                    static_cast<uint32_t>(bytes.size())))
    return 0;
  if (!reg.SetDword(kIdValue, id) || !reg.SetDword(kContentInfoValue, contentInfo)) {
    // The record already names the new cache file; without its id the entry is dropped,
    // so that it names no file the caller may remove.
    reg.Close();
    reg.DeleteKey(HKEY_CURRENT_USER, key_path.c_str());
    if (had_previous && previous.has_temp_record && previous.temp.cache_path != record.cache_path &&
        IsInCacheFolder(previous.temp.cache_path))
      RemoveFile(previous.temp.cache_path);
    return 0;
  }
  if (!same) {
    AccessReg base_key;
    if (base_key.Open(HKEY_CURRENT_USER, base)) base_key.SetDword(kNextIdValue, id + 1);
  }
  RemoveReplacedFile(previous, had_previous, record.cache_path);
  AccessReg drop;
  if (moved && drop.DeleteKey(HKEY_CURRENT_USER, elsewhere.KeyPath().c_str())) {
    RemoveReplacedFile(elsewhere, true, record.cache_path);
  }
  return 1;
}

}  // namespace marquel
