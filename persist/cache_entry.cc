// Reading, listing and deleting cache entries.
#include "persist/cache_entry.h"

#include <algorithm>
#include <memory>

#include "persist/cache_sweep.h"
#include "persist/cache_writer.h"
#include "platform/access_reg.h"
#include "platform/files.h"
#include "platform/key_name.h"

namespace marquel {
namespace {

// Key names are at most 255 UTF-16 units, so at most 765 UTF-8 bytes.
constexpr uint32_t kKeyNameBytes = 1024;

bool ReadBinary(AccessReg& key, const char* name, size_t size, std::vector<uint8_t>* out) {
  uint32_t n = static_cast<uint32_t>(size);
  std::unique_ptr<uint8_t[]> bytes = key.QueryBinary(name, &n);
  if (!bytes || n != size) return false;
  out->assign(bytes.get(), bytes.get() + n);
  return true;
}

void ReadTsPrograms(AccessReg& key, CacheEntry* out) {
  uint32_t count = 0;
  if (!key.QueryDword(kTSProgramsValue, &count) || count == 0 || count > kMaxCachePrograms) return;
  std::vector<uint8_t> bytes;
  if (!ReadBinary(key, kTSInfoValue, count * kProgramRecordSize, &bytes)) return;
  DecodeProgramRecords(bytes.data(), bytes.size(), &out->programs);
}

}  // namespace

std::string CacheEntry::MediaPath() const {
  if (has_temp_record) return temp.media_path;
  if (has_file_record) return file.media_path;
  return PathFromKeyName(sub_key);
}

std::vector<std::string> CacheEntry::CacheFiles() const {
  std::vector<std::string> files;
  auto add = [&files](const std::string& path) {
    if (!path.empty() && std::find(files.begin(), files.end(), path) == files.end()) {
      files.push_back(path);
    }
  };
  if (has_file_record) add(file.cache_path);
  for (const CacheProgramRecord& p : programs) add(p.cache_path);
  if (has_temp_record) add(temp.cache_path);
  return files;
}

std::vector<std::string> CacheEntry::RemovableFiles() const {
  std::vector<std::string> files;
  for (const std::string& path : CacheFiles()) {
    const bool side = kind == CacheKind::kVR && has_file_record && !file.media_path.empty() &&
                      path == SideFilePath(file.media_path);
    if (side || IsInCacheFolder(path)) files.push_back(path);
  }
  return files;
}

std::string CacheEntry::FirstCacheFile() const {
  if (!programs.empty()) return programs[0].cache_path;
  if (has_temp_record) return temp.cache_path;
  return has_file_record ? file.cache_path : std::string();
}

bool CacheEntry::Complete() const {
  switch (kind) {
    case CacheKind::kTemp:
      return has_temp_record;
    case CacheKind::kTS:
      return has_file_record && !programs.empty();
    default:
      return has_file_record;
  }
}

bool ReadCacheEntry(CacheKind kind, const std::string& subKey, CacheEntry* out) {
  if (out == nullptr || subKey.empty()) return false;
  AccessReg key;
  if (!key.Open(HKEY_CURRENT_USER, CacheEntryKeyPath(kind, subKey).c_str())) return false;
  *out = CacheEntry{};
  out->kind = kind;
  out->sub_key = subKey;
  out->has_id = key.QueryDword(kIdValue, &out->id);
  out->has_content = key.QueryDword(kContentInfoValue, &out->content);
  std::vector<uint8_t> bytes;
  if (kind == CacheKind::kTemp) {
    out->has_temp_record = ReadBinary(key, kTempInfoReadName, kTempRecordSize, &bytes) &&
                           DecodeTempRecord(bytes.data(), bytes.size(), &out->temp);
  } else {
    out->has_file_record = ReadBinary(key, CacheRecordValue(kind), kFileRecordSize, &bytes) &&
                           DecodeFileRecord(bytes.data(), bytes.size(), &out->file);
  }
  if (kind == CacheKind::kTS) ReadTsPrograms(key, out);
  return true;
}

std::vector<CacheEntry> ListCacheEntries(CacheKind kind) {
  std::vector<std::string> names;
  {
    AccessReg base;
    if (!base.Open(HKEY_CURRENT_USER, CacheBaseKey(kind))) return {};
    char name[kKeyNameBytes];
    for (uint32_t i = 0; base.EnumKey(i, name, sizeof name); ++i) names.emplace_back(name);
  }
  std::vector<CacheEntry> entries;
  for (const std::string& name : names) {
    CacheEntry entry;
    if (ReadCacheEntry(kind, name, &entry)) entries.push_back(std::move(entry));
  }
  return entries;
}

uint32_t ReadNextId(CacheKind kind) {
  AccessReg base;
  uint32_t next = 0;
  if (!base.Open(HKEY_CURRENT_USER, CacheBaseKey(kind)) || !base.QueryDword(kNextIdValue, &next)) {
    return 0;
  }
  return next >= kCacheIdCount ? 0 : next;
}

bool DeleteCacheEntry(CacheKind kind, const std::string& subKey) {
  CacheWriteLock lock;
  CacheEntry entry;
  if (!ReadCacheEntry(kind, subKey, &entry)) return true;
  // The sub-key goes first: a failure then leaves a stray file, never an entry that
  // names a file which is gone. A stray file goes at the next sweep.
  AccessReg reg;
  if (!reg.DeleteKey(HKEY_CURRENT_USER, entry.KeyPath().c_str())) return false;
  for (const std::string& file : entry.RemovableFiles()) {
    if (FileExists(file)) RemoveFile(file);
  }
  return true;
}

bool EvictCacheId(CacheKind kind, uint32_t id) {
  std::string victim;
  {
    AccessReg base;
    if (!base.Open(HKEY_CURRENT_USER, CacheBaseKey(kind))) return false;
    char name[kKeyNameBytes];
    for (uint32_t i = 0; victim.empty() && base.EnumKey(i, name, sizeof name); ++i) {
      AccessReg entry;
      uint32_t value = 0;
      if (entry.Open(HKEY_CURRENT_USER, CacheEntryKeyPath(kind, name).c_str()) &&
          entry.QueryDword(kIdValue, &value) && value == id) {
        victim = name;
      }
    }
  }
  return !victim.empty() && DeleteCacheEntry(kind, victim);
}

}  // namespace marquel
