// Writing the temp-cache entry of a program-stream media file.
#include "persist/cache_sweep.h"
#include "persist/cache_writer.h"
#include "platform/access_reg.h"
#include "platform/text.h"

namespace marquel {

int32_t WriteTempCacheEntry(const TempCacheRecord& record, uint32_t contentInfo) {
  std::vector<uint8_t> bytes;
  if (!EncodeTempRecord(record, &bytes)) return 0;
  AccessReg reg;
  const char* base = CacheBaseKey(CacheKind::kTemp);
  if (!reg.CreateKey(HKEY_CURRENT_USER, base)) return 0;
  uint32_t next = ReadNextId(CacheKind::kTemp);

  std::string sub_key = CacheSubKeyName(record.media_path);
  CacheEntry previous;
  bool had_previous = ReadCacheEntry(CacheKind::kTemp, sub_key, &previous);
  // The same file as before (path, original size and time) keeps its id.
  bool same = had_previous && previous.has_temp_record && previous.has_id &&
              previous.id < kCacheIdCount &&
              EqualsIgnoreCase(previous.temp.media_path, record.media_path) &&
              previous.temp.original_size == record.original_size &&
              previous.temp.original_mtime == record.original_mtime;
  uint32_t id = same ? previous.id : next;

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
  if (had_previous && previous.has_temp_record && !previous.temp.cache_path.empty() &&
      previous.temp.cache_path != record.cache_path && IsInCacheFolder(previous.temp.cache_path)) {
    RemoveFile(previous.temp.cache_path);
  }
  return 1;
}

}  // namespace marquel
