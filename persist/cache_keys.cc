// Names of the per-user caches.
#include "persist/cache_keys.h"

#include "media/file_type.h"
#include "platform/env.h"
#include "platform/key_name.h"
#include "platform/text.h"

namespace marquel {

const char* CacheBaseKey(CacheKind kind) {
  switch (kind) {
    case CacheKind::kVR:
      return "Software\\Halvern\\Marquel\\VRCache";
    case CacheKind::kTS:
      return "Software\\Halvern\\Marquel\\TSCache";
    case CacheKind::kOther:
      return "Software\\Halvern\\Marquel\\OtherCache";
    case CacheKind::kAVI:
      return "Software\\Halvern\\Marquel\\AVICache";
    case CacheKind::kTemp:
      return "Software\\Halvern\\Marquel\\TempCache";
  }
  return "";
}

const char* CacheKindName(CacheKind kind) {
  switch (kind) {
    case CacheKind::kVR:
      return "VRCache";
    case CacheKind::kTS:
      return "TSCache";
    case CacheKind::kOther:
      return "OtherCache";
    case CacheKind::kAVI:
      return "AVICache";
    case CacheKind::kTemp:
      return "TempCache";
  }
  return "";
}

bool CacheKindFromName(const std::string& name, CacheKind* kind) {
  for (int32_t i = 0; i < kCacheKindCount; ++i) {
    CacheKind k = static_cast<CacheKind>(i);
    if (EqualsIgnoreCase(name, CacheKindName(k))) {
      if (kind != nullptr) *kind = k;
      return true;
    }
  }
  return false;
}

const char* CacheRecordValue(CacheKind kind) {
  switch (kind) {
    case CacheKind::kVR:
      return kVRInfoValue;
    case CacheKind::kTemp:
      return kTempInfoWriteName;
    default:
      return kFileInfoValue;
  }
}

std::string CacheEntryKeyPath(CacheKind kind, const std::string& subKeyName) {
  return std::string(CacheBaseKey(kind)) + "\\" + subKeyName;
}

bool SplitCacheEntryKeyPath(const std::string& keyPath, CacheKind* kind, std::string* subKey) {
  for (int32_t i = 0; i < kCacheKindCount; ++i) {
    CacheKind k = static_cast<CacheKind>(i);
    std::string base = std::string(CacheBaseKey(k)) + "\\";
    if (keyPath.size() <= base.size() ||
        !EqualsIgnoreCase(std::string_view(keyPath).substr(0, base.size()), base))
      continue;
    std::string rest = keyPath.substr(base.size());
    if (rest.find('\\') != std::string::npos) return false;
    if (kind != nullptr) *kind = k;
    if (subKey != nullptr) *subKey = rest;
    return true;
  }
  return false;
}

namespace {

// Whether the volume of a media file ignores case. The volume is asked about the file's
// folder, which is still there when the file is not (a cache entry is also looked up for
// a file that was deleted or moved away).
bool VolumeFoldsCase(const std::string& mediaPath) {
  std::string folder = mediaPath.substr(0, mediaPath.find_last_of('/') + 1);
  if (folder.empty()) folder = mediaPath;
  return CurrentEnv()->IsCaseInsensitiveVolume(folder);
}

}  // namespace

std::string CacheSubKeyName(const std::string& mediaPath) {
  return FittingFileKeyName(mediaPath, !VolumeFoldsCase(mediaPath));
}

std::vector<std::string> CacheLookupKeyNames(const std::string& mediaPath, bool* folds) {
  const bool folding = VolumeFoldsCase(mediaPath);
  if (folds != nullptr) *folds = folding;
  std::vector<std::string> names{FittingFileKeyName(mediaPath, !folding)};
  std::string other = FittingFileKeyName(mediaPath, folding);
  if (!EqualsIgnoreCase(other, names[0])) names.push_back(std::move(other));
  return names;
}

bool CacheKindForFormat(int32_t format, CacheKind* kind) {
  CacheKind k;
  switch (format) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
      k = CacheKind::kTemp;
      break;
    case 6:
    case 7:
      k = CacheKind::kVR;
      break;
    case 8:
    case 9:
      k = CacheKind::kAVI;
      break;
    case 10:
      k = CacheKind::kTS;
      break;
    case 5:
    case 11:
    case 12:
    case 13:
    case 14:
    case 15:
    case 16:
      k = CacheKind::kOther;
      break;
    default:
      if (!IsMagicNumberFormat(static_cast<uint32_t>(format))) return false;
      k = CacheKind::kOther;
  }
  if (kind != nullptr) *kind = k;
  return true;
}

}  // namespace marquel
