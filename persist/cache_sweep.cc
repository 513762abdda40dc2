// The cache folder's write lock, and the sweep of cache files that no entry names.
#include "persist/cache_sweep.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <vector>

#include "log/log.h"
#include "media/mqinfo_temp.h"
#include "platform/access_reg.h"
#include "persist/merge_rollback.h"
#include "platform/env.h"

namespace marquel {
namespace {

// Every cache kind, and whatever a later version adds, lives below this key; the pending
// list (kPendingMovesKey) may carry roll-back records naming backups.
constexpr char kServerKey[] = "Software\\Halvern\\Marquel";
constexpr int kMaxKeyDepth = 8;
constexpr uint32_t kNameBytes = 1024;
constexpr size_t kMaxHexDigits = 8;

std::string LockPath() {
  const std::string data = CurrentEnv()->AppDataFolder();
  return data.empty() ? std::string() : data + "/Halvern/MQInfo.lock";
}

int OpenLock() {
  const std::string path = LockPath();
  if (path.empty()) return -1;
  // The folder of the lock is made by whoever writes first, as the cache folder is.
  std::string folder;
  if (!GetMQInfoFolder(&folder)) return -1;
  return open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
}

bool IsUpperHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
}

// Adds every cache-file name found in `text` to *names.
void CollectNames(const std::string& text, std::set<std::string>* names) {
  for (size_t at = text.find("MQ"); at != std::string::npos; at = text.find("MQ", at + 2)) {
    size_t end = at + 2;
    while (end < text.size() && end - at - 2 < kMaxHexDigits && IsUpperHex(text[end])) ++end;
    if (end > at + 2 && text.compare(end, 4, ".tmp") == 0)
      names->insert(text.substr(at, end + 4 - at));
  }
}

// The names a value's bytes hold, read as bytes and as UTF-16LE (at either alignment).
// Any mention counts: a record layout the sweep does not know still keeps its files.
void CollectFromValue(const std::vector<uint8_t>& data, std::set<std::string>* names) {
  CollectNames(std::string(data.begin(), data.end()), names);
  for (size_t start = 0; start < 2; ++start) {
    std::string narrow;
    for (size_t i = start; i + 1 < data.size(); i += 2) {
      narrow.push_back(data[i + 1] == 0 ? static_cast<char>(data[i]) : '\0');
    }
    CollectNames(narrow, names);
  }
}

// Reads every value below `keyPath` into *names. False when any part could not be read.
bool CollectFromKey(const std::string& keyPath, int depth, std::set<std::string>* names) {
  AccessReg key;
  if (!key.Open(HKEY_CURRENT_USER, keyPath.c_str())) {
    return depth == 0 && key.LastError() == ERROR_FILE_NOT_FOUND;  // nothing cached yet
  }
  char name[kNameBytes];
  uint32_t i = 0;
  for (; key.EnumValue(i, name, sizeof name); ++i) {
    uint32_t type = 0;
    std::vector<uint8_t> data;
    if (!key.QueryValue(name, &type, &data)) return false;
    CollectFromValue(data, names);
  }
  if (StoreLastError() != ERROR_NO_MORE_ITEMS) return false;
  std::vector<std::string> children;
  for (i = 0; key.EnumKey(i, name, sizeof name); ++i) children.emplace_back(name);
  if (StoreLastError() != ERROR_NO_MORE_ITEMS) return false;
  if (!children.empty() && depth >= kMaxKeyDepth) return false;
  for (const std::string& child : children) {
    if (!CollectFromKey(keyPath + "\\" + child, depth + 1, names)) return false;
  }
  return true;
}

bool SameFolder(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && S_ISDIR(sa.st_mode) &&
         sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// Takes the lock exclusively, trying for about two seconds.
bool LockExclusively(int fd) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    struct timespec pause = {0, 20 * 1000000L};
    nanosleep(&pause, nullptr);
  }
  return false;
}

int SweepFolder(const std::string& folder, const std::set<std::string>& named) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return -1;
  const int dfd = dirfd(dir);
  int removed = 0;
  while (struct dirent* e = readdir(dir)) {
    struct stat st;
    if (!IsCacheFileName(e->d_name) || named.count(e->d_name) != 0 ||
        fstatat(dfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode))
      continue;
    if (unlinkat(dfd, e->d_name, 0) == 0) ++removed;
  }
  closedir(dir);
  return removed;
}

}  // namespace

CacheWriteLock::CacheWriteLock() : fd_(OpenLock()) {
  if (fd_ < 0) return;
  int rc;
  do {
    rc = flock(fd_, LOCK_SH);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    close(fd_);
    fd_ = -1;
  }
}

CacheWriteLock::~CacheWriteLock() {
  if (fd_ >= 0) close(fd_);
}

bool IsCacheFileName(const std::string& name) {
  const size_t digits = name.size() > 6 ? name.size() - 6 : 0;
  if (digits == 0 || digits > kMaxHexDigits || name.compare(0, 2, "MQ") != 0 ||
      name.compare(name.size() - 4, 4, ".tmp") != 0)
    return false;
  for (size_t i = 2; i < 2 + digits; ++i) {
    if (!IsUpperHex(name[i])) return false;
  }
  return true;
}

bool IsInCacheFolder(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || !IsCacheFileName(path.substr(slash + 1))) return false;
  const std::string data = CurrentEnv()->AppDataFolder();
  return !data.empty() && SameFolder(path.substr(0, slash), data + "/Halvern/MQInfo");
}

int RemoveOrphanCacheFiles() {
  std::string folder;
  if (!GetMQInfoFolder(&folder)) return -1;
  const int fd = OpenLock();
  if (fd < 0) return -1;
  int removed = -1;
  std::set<std::string> named;
  if (!LockExclusively(fd)) {
    MQ_LOG("cache sweep: a write is under way, nothing removed");
  } else if (!CollectFromKey(kServerKey, 0, &named) ||
             !CollectFromKey(kPendingMovesKey, 0, &named)) {
    MQ_LOG("cache sweep: the store could not be read whole, nothing removed");
  } else {
    removed = SweepFolder(folder, named);
    MQ_LOG("cache sweep: %d file(s) that no entry names removed", removed);
  }
  close(fd);
  return removed;
}

}  // namespace marquel
