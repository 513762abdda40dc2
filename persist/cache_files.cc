// Cache files: new files in the cache folder, the DVD side file, writing a block.
#include "cache_files.h"

#include <cstdio>

#include "media/mqinfo_temp.h"
#include "persist/cache_keys.h"

namespace marquel {
namespace {

// The folder part of a path ("/" for a file in the root).
std::string FolderOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder == "/" ? "/" + name : folder + "/" + name;
}

}  // namespace

std::string SideFilePath(const std::string& mediaPath) {
  std::string folder = Join(FolderOf(FolderOf(mediaPath)), kSideFolderName);
  return Join(folder, NameOf(mediaPath) + kSideFileExtension);
}

bool MakeCacheFile(std::string* path) {
  return path != nullptr && GetMQInfoTempFileName(kCacheFilePrefix, 0, path) != 0;
}

int32_t WriteBlockFile(const std::string& path, size_t index, const CacheBlockWriter& write) {
  FileHandle file = OpenFileHandle(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                   CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  if (file == kInvalidFileHandle) {
    RemoveFile(path);
    return -1;
  }
  int32_t result = write ? write(index, file) : -1;
  bool closed = CloseFileHandle(file);
  if (result != 1 || !closed) {
    RemoveFile(path);
    return -1;
  }
  return 1;
}

bool WriteSideFile(const std::string& mediaPath, size_t index, const CacheBlockWriter& write,
                   std::string* written) {
  std::string side = SideFilePath(mediaPath);
  std::string folder = FolderOf(side);
  if (!FileExists(folder) && !MakeFolder(folder)) return false;
  std::string partial;
  if (MakeTempFileName(folder, kCacheFilePrefix, 0, &partial) == 0) return false;
  if (WriteBlockFile(partial, index, write) != 1) return false;
  if (std::rename(partial.c_str(), side.c_str()) != 0) {
    RemoveFile(partial);
    return false;
  }
  *written = side;
  return true;
}

}  // namespace marquel
