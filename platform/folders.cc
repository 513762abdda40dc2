// Path calls: existence, status, temporary names, folders, separators, volume names.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/env.h"
#include "platform/files.h"

namespace marquel {
namespace {

constexpr int CSIDL_LOCAL_APPDATA = 28;  // the same folder on this platform

std::string JoinPath(const std::string& folder, const std::string& name) {
  if (folder.empty() || folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

std::string TempName(const std::string& folder, const std::string& prefix, uint32_t number) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "%X", number);
  return JoinPath(folder, prefix + hex + ".tmp");
}

// Makes `path` and any missing parents; true when it is a folder afterwards.
bool MakeFolders(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !MakeFolders(path.substr(0, slash))) {
    return false;
  }
  return mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
}

}  // namespace

bool FileExists(const std::string& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

namespace {

int FillStatus(const struct stat& st, FileStatusRecord* status) {
  status->size = static_cast<int64_t>(st.st_size);
  status->mtime = static_cast<int64_t>(st.st_mtime);
  status->mode = static_cast<uint32_t>(st.st_mode);
  return 0;
}

}  // namespace

int FileStatus(const std::string& path, FileStatusRecord* status) {
  struct stat st;
  if (status == nullptr || path.empty() || stat(path.c_str(), &st) != 0) return -1;
  return FillStatus(st, status);
}

int FileHandleStatus(FileHandle h, FileStatusRecord* status) {
  struct stat st;
  if (status == nullptr || fstat(h, &st) != 0) return -1;
  return FillStatus(st, status);
}

uint32_t MakeTempFileName(const std::string& folder, const std::string& prefix, uint32_t unique,
                          std::string* nameOut) {
  if (nameOut == nullptr) return 0;
  if (unique != 0) {
    *nameOut = TempName(folder, prefix, unique & 0xFFFF);
    return unique;
  }
  // Start from a number that differs between processes and calls, then walk on until a
  // name is free, as GetTempFileName does.
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  uint32_t number = static_cast<uint32_t>(now.tv_nsec ^ (getpid() << 4)) & 0xFFFF;
  for (uint32_t tries = 0; tries < 0xFFFF; ++tries, number = (number + 1) & 0xFFFF) {
    if (number == 0) continue;
    std::string name = TempName(folder, prefix, number);
    int fd = open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (fd >= 0) {
      close(fd);
      *nameOut = name;
      return number;
    }
    if (errno != EEXIST) return 0;
  }
  return 0;
}

uint32_t GetTempFolderFileName(const std::string& prefix, uint32_t unique, std::string* nameOut) {
  return MakeTempFileName(CurrentEnv()->TempFolder(), prefix, unique, nameOut);
}

bool RemoveFile(const std::string& path) {
  return !path.empty() && unlink(path.c_str()) == 0;
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

bool MakeFolder(const std::string& path) {
  return !path.empty() && mkdir(path.c_str(), 0777) == 0;
}

bool GetSpecialFolder(std::string* out, int folder, bool create) {
  if (out == nullptr) return false;
  out->clear();
  if (folder != CSIDL_APPDATA && folder != CSIDL_LOCAL_APPDATA) return false;
  std::string path = CurrentEnv()->AppDataFolder();
  if (path.empty()) return false;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode)) return false;
  } else if (!create || !MakeFolders(path)) {
    return false;
  }
  *out = path;
  return true;
}

void NormalizePathSeparators(std::string& path, bool toBackslash) {
  const char from = toBackslash ? '/' : '\\';
  const char to = toBackslash ? '\\' : '/';
  for (char& c : path) {
    if (c == from) c = to;
  }
}

bool GetFileSystemName(const std::string& path, std::string* nameOut) {
  if (nameOut == nullptr) return false;
  *nameOut = CurrentEnv()->FileSystemName(path);
  return !nameOut->empty();
}

}  // namespace marquel
