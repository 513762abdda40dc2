#include "media/mqinfo_temp.h"

#include "platform/env.h"
#include "platform/files.h"

namespace marquel {
namespace {

constexpr size_t kMaxTempPath = 260;

// Appends "/" + name to *path and makes that folder when it does not exist.
bool EnterFolder(std::string* path, const char* name) {
  *path += "/";
  *path += name;
  return FileExists(*path) || MakeFolder(*path) || FileExists(*path);
}

}  // namespace

bool GetMQInfoFolder(std::string* folder) {
  if (folder == nullptr) return false;
  std::string path;
  if (!GetSpecialFolder(&path, CSIDL_APPDATA, true) || !EnterFolder(&path, "Halvern") ||
      !EnterFolder(&path, "MQInfo")) {
    folder->clear();
    return false;
  }
  *folder = path;
  return true;
}

uint32_t GetMQInfoTempFileName(const std::string& prefix, uint32_t unique, std::string* result) {
  std::string folder;
  std::string name;
  if (result == nullptr || !GetMQInfoFolder(&folder)) return 0;
  const uint32_t number = MakeTempFileName(folder, prefix, unique, &name);
  if (number != 0) *result = name;
  return number;
}

uint32_t GetTempFolderTempFileName(const std::string& prefix, uint32_t unique,
                                   std::string* result) {
  std::string name;
  if (result == nullptr || CurrentEnv()->TempFolder().size() > kMaxTempPath) return 0;
  const uint32_t number = GetTempFolderFileName(prefix, unique, &name);
  if (number != 0) *result = name;
  return number;
}

}  // namespace marquel
