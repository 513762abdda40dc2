// Per-process temporary folders: making and locking the own one, removing ended ones.
#include "platform/temp_folders.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "platform/env.h"

namespace marquel {
namespace {

constexpr char kLockName[] = "lock";

// A folder this process made and locked; the lock lives as long as lock_fd is open.
struct OwnFolder {
  pid_t pid;
  std::string root;
  std::string folder;
  int lock_fd;
};

std::mutex g_mutex;
// Never destroyed: temporary files may still be made while the process exits.
std::vector<OwnFolder>* g_own = new std::vector<OwnFolder>();

void Pause(long milliseconds) {
  struct timespec t = {0, milliseconds * 1000000L};
  nanosleep(&t, nullptr);
}

// Whether `fd` is still the file at `path` (not unlinked or replaced meanwhile).
bool IsFileAt(int fd, const std::string& path) {
  struct stat held, named;
  return fstat(fd, &held) == 0 && lstat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
         held.st_ino == named.st_ino && held.st_nlink > 0;
}

// A folder of this user that nobody else can write into (or nothing to use at all).
bool IsPrivateFolder(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == getuid() &&
         (st.st_mode & 022) == 0;
}

bool AllDigits(const char* name) {
  if (*name == '\0') return false;
  for (const char* p = name; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
  }
  return true;
}

// Unlinks every file in `folder` but `keep` (sub-folders stay). False when the folder
// could not be read.
bool RemoveFilesIn(const std::string& folder, const char* keep) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return false;
  const int dfd = dirfd(dir);
  while (struct dirent* e = readdir(dir)) {
    const std::string name = e->d_name;
    if (name == "." || name == ".." || (keep != nullptr && name == keep)) continue;
    unlinkat(dfd, e->d_name, 0);
  }
  closedir(dir);
  return true;
}

// Makes (or takes over) the folder of process `pid` in `root` and locks it. A clean-up
// that holds the lock of a same-numbered ended process for a moment is waited for.
int LockOwnFolder(const std::string& folder) {
  const std::string lock_path = folder + "/" + kLockName;
  for (int attempt = 0; attempt < 200; ++attempt) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return -1;
    int fd = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
      if (errno != ENOENT) return -1;
      continue;  // a clean-up removed the folder between the two calls
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      close(fd);
      Pause(10);
      continue;
    }
    if (!IsFileAt(fd, lock_path)) {
      close(fd);
      continue;
    }
    // Files of an ended process that had the same number are not ours to keep.
    RemoveFilesIn(folder, kLockName);
    return fd;
  }
  return -1;
}

// Removes an own folder and drops its lock when nothing but the lock is left in it; a
// folder that still holds files keeps its lock unless `always` (the process is ending:
// the next clean-up removes the folder then). Under g_mutex.
void Release(OwnFolder& own, bool always) {
  DIR* dir = opendir(own.folder.c_str());
  bool only_lock = dir != nullptr;
  while (struct dirent* e = dir != nullptr ? readdir(dir) : nullptr) {
    const std::string name = e->d_name;
    if (name != "." && name != ".." && name != kLockName) only_lock = false;
  }
  if (dir != nullptr) closedir(dir);
  if (only_lock) {
    unlink((own.folder + "/" + kLockName).c_str());
    rmdir(own.folder.c_str());
  }
  if (only_lock || always) {
    close(own.lock_fd);
    own.lock_fd = -1;
  }
}

// At a normal exit the own folders go, when nothing but the lock is left in them.
void RemoveOwnFoldersAtExit() {
  std::lock_guard<std::mutex> lock(g_mutex);
  const pid_t self = getpid();
  for (OwnFolder& own : *g_own) {
    if (own.pid == self && own.lock_fd >= 0) Release(own, true);
  }
}

bool ProcessExists(pid_t pid) {
  return kill(pid, 0) == 0 || errno == EPERM;
}

// Removes the folder `name` of the root when its process has ended. True when removed.
bool RemoveIfEnded(const std::string& root, const std::string& name) {
  const std::string folder = root + "/" + name;
  struct stat st;
  if (lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  const std::string lock_path = folder + "/" + kLockName;
  int fd = open(lock_path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    // No lock: a process that died before it made one, or one making its folder now.
    const bool missing = errno == ENOENT;
    const long pid = std::strtol(name.c_str(), nullptr, 10);
    if (!missing || pid <= 0 || ProcessExists(static_cast<pid_t>(pid))) return false;
    RemoveFilesIn(folder, nullptr);
    return rmdir(folder.c_str()) == 0;
  }
  bool removed = false;
  if (flock(fd, LOCK_EX | LOCK_NB) == 0 && IsFileAt(fd, lock_path)) {
    RemoveFilesIn(folder, kLockName);
    unlink(lock_path.c_str());
    removed = rmdir(folder.c_str()) == 0;
  }
  close(fd);  // drops the lock
  return removed;
}

}  // namespace

std::string TempFoldersRoot() {
  return CurrentEnv()->TempFolder() + "/marquel-" + std::to_string(getuid());
}

std::string ProcessTempFolder() {
  const std::string root = TempFoldersRoot();
  const pid_t self = getpid();
  std::lock_guard<std::mutex> lock(g_mutex);
  for (const OwnFolder& own : *g_own) {
    if (own.pid == self && own.root == root && own.lock_fd >= 0) return own.folder;
  }
  if (mkdir(root.c_str(), 0700) != 0 && errno != EEXIST) return std::string();
  if (!IsPrivateFolder(root)) return std::string();
  const std::string folder = root + "/" + std::to_string(self);
  const int fd = LockOwnFolder(folder);
  if (fd < 0) return std::string();
  // A folder of an earlier temp folder (tests change TMPDIR) goes once it is empty, so
  // that its lock does not hold a descriptor for the rest of the process.
  for (OwnFolder& own : *g_own) {
    if (own.pid == self && own.lock_fd >= 0) Release(own, false);
  }
  static bool registered = false;
  if (!registered) registered = std::atexit(RemoveOwnFoldersAtExit) == 0;
  g_own->push_back(OwnFolder{self, root, folder, fd});
  return folder;
}

int RemoveEndedProcessTempFolders() {
  const std::string root = TempFoldersRoot();
  if (!IsPrivateFolder(root)) return 0;
  const std::string self = std::to_string(getpid());
  std::vector<std::string> names;
  if (DIR* dir = opendir(root.c_str())) {
    while (struct dirent* e = readdir(dir)) {
      if (AllDigits(e->d_name) && self != e->d_name) names.emplace_back(e->d_name);
    }
    closedir(dir);
  }
  int removed = 0;
  for (const std::string& name : names) {
    if (RemoveIfEnded(root, name)) ++removed;
  }
  return removed;
}

}  // namespace marquel
