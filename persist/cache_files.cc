// Cache files: new files in the cache folder, the DVD side file, writing a block.
#include "cache_files.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "media/mqinfo_temp.h"
#include "persist/cache_keys.h"

namespace marquel {
namespace {

std::string NameOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder == "/" ? "/" + name : folder + "/" + name;
}

// A side file is written first as "MQ.<pid>.<n>.part" in the side folder, the folder that
// a rename can reach (short, so any side file name has a partial that fits). The pid tells
// a live writer's partial from one that a killed server left; those are removed by the
// next write into the same folder.
constexpr const char kPartialPrefix[] = "MQ.";
constexpr const char kPartialSuffix[] = ".part";

std::string PartialSidePath(const std::string& folder) {
  static std::atomic<uint32_t> next{0};
  return Join(folder, kPartialPrefix + std::to_string(getpid()) + "." +
                          std::to_string(next.fetch_add(1)) + kPartialSuffix);
}

// The writer's pid in a partial side file's name, or 0 when the name is not one.
long PartialOwner(const std::string& name) {
  const size_t prefix = sizeof(kPartialPrefix) - 1;
  const size_t suffix = sizeof(kPartialSuffix) - 1;
  if (name.size() <= prefix + suffix || name.compare(0, prefix, kPartialPrefix) != 0 ||
      name.compare(name.size() - suffix, suffix, kPartialSuffix) != 0)
    return 0;
  char* end = nullptr;
  long pid = std::strtol(name.c_str() + prefix, &end, 10);
  return end != nullptr && *end == '.' && pid > 0 ? pid : 0;
}

void RemoveDeadPartials(const std::string& folder) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return;
  while (struct dirent* e = readdir(dir)) {
    long pid = PartialOwner(e->d_name);
    if (pid != 0 && pid != getpid() && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
      RemoveFile(Join(folder, e->d_name));
  }
  closedir(dir);
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
  // A store entry names the file once we answer 1, so its bytes and its name must be on
  // the disk by then; a failed sync leaves them unknown and counts as a failed write.
  bool synced = result == 1 && SyncFileHandle(file);
  bool closed = CloseFileHandle(file);
  if (result != 1 || !synced || !closed || !SyncFolder(FolderOf(path))) {
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
  RemoveDeadPartials(folder);
  const std::string partial = PartialSidePath(folder);
  if (WriteBlockFile(partial, index, write) != 1) return false;
  if (!RenameFile(partial, side)) {
    RemoveFile(partial);
    return false;
  }
  *written = side;
  return true;
}

}  // namespace marquel
