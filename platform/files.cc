// File handle calls: open, read, write, seek, size, close.
#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "platform/fault_points.h"

namespace marquel {
namespace {

// Undecided until first use (all bits set), then 1 or 0.
std::atomic<uint32_t> g_useWideApi{0xFFFFFFFFu};

int OpenFlags(uint32_t access, uint32_t disposition) {
  int flags = O_CLOEXEC;
  const bool read = (access & GENERIC_READ) != 0;
  const bool write = (access & GENERIC_WRITE) != 0;
  flags |= (read && write) ? O_RDWR : (write ? O_WRONLY : O_RDONLY);
  switch (disposition) {
    case CREATE_NEW:
      return flags | O_CREAT | O_EXCL;
    case CREATE_ALWAYS:
      return flags | O_CREAT | O_TRUNC;
    case OPEN_EXISTING:
      return flags;
    case OPEN_ALWAYS:
      return flags | O_CREAT;
    case TRUNCATE_EXISTING:
      return write ? flags | O_TRUNC : -1;
    default:
      return -1;
  }
}

// open() that cannot wait on a FIFO or a device: O_NONBLOCK for the open only, so that
// reads and writes of the handle wait as usual afterwards.
int OpenWithoutWaiting(const std::string& path, int flags) {
  int fd;
  do {
    fd = open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  const int status = fcntl(fd, F_GETFL);
  if (status < 0 || fcntl(fd, F_SETFL, status & ~O_NONBLOCK) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

int UseWideApi() {
  uint32_t cached = g_useWideApi.load(std::memory_order_relaxed);
  if (cached == 0 || cached == 1) return static_cast<int>(cached);
  // The UTF-8 calls are the "wide" interface here: they carry every name the system
  // can meet. A race on the first call stores the same value twice.
  g_useWideApi.store(1, std::memory_order_relaxed);
  return 1;
}

FileHandle OpenFileHandle(const std::string& path, uint32_t access, uint32_t /*shareMode*/,
                          const void* /*security*/, uint32_t disposition, uint32_t /*flags*/,
                          FileHandle /*templ*/) {
  const int flags = OpenFlags(access, disposition);
  if (flags < 0 || path.empty()) {
    errno = EINVAL;
    return kInvalidFileHandle;
  }
  int fd = OpenWithoutWaiting(path, flags);
  if (fd < 0) return kInvalidFileHandle;
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    // CreateFile does not open folders without a special flag.
    close(fd);
    errno = EISDIR;
    return kInvalidFileHandle;
  }
  return fd;
}

FileHandle OpenRegularFile(const std::string& path, uint32_t access) {
  if (path.empty()) {
    errno = EINVAL;
    return kInvalidFileHandle;
  }
  const int flags = O_CLOEXEC | ((access & GENERIC_WRITE) != 0 ? O_RDWR : O_RDONLY);
  int fd = OpenWithoutWaiting(path, flags);
  if (fd < 0) return kInvalidFileHandle;
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    const bool folder = S_ISDIR(st.st_mode);
    close(fd);
    errno = folder ? EISDIR : EINVAL;
    return kInvalidFileHandle;
  }
  return fd;
}

bool ReadFile(FileHandle h, void* buffer, uint32_t n, uint32_t* read) {
  if (read != nullptr) *read = 0;
  if (h < 0 || (buffer == nullptr && n > 0)) {
    errno = EBADF;
    return false;
  }
  auto* p = static_cast<char*>(buffer);
  uint32_t done = 0;
  while (done < n) {
    ssize_t got = ::read(h, p + done, n - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      if (read != nullptr) *read = done;
      return false;
    }
    if (got == 0) break;  // end of file: success with fewer bytes
    done += static_cast<uint32_t>(got);
  }
  if (read != nullptr) *read = done;
  return true;
}

bool WriteFile(FileHandle h, const void* buffer, uint32_t n, uint32_t* written) {
  if (written != nullptr) *written = 0;
  if (h < 0 || (buffer == nullptr && n > 0)) {
    errno = EBADF;
    return false;
  }
  if (!PassFaultPoint()) return false;
  const auto* p = static_cast<const char*>(buffer);
  uint32_t done = 0;
  while (done < n) {
    ssize_t put = ::write(h, p + done, n - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {
      if (written != nullptr) *written = done;
      return false;
    }
    done += static_cast<uint32_t>(put);
  }
  if (written != nullptr) *written = done;
  return true;
}

bool ReadAllAt(FileHandle h, uint64_t offset, void* buffer, size_t n) {
  auto* p = static_cast<uint8_t*>(buffer);
  while (n > 0) {
    ssize_t got = ::pread(h, p, n, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    p += got;
    offset += static_cast<uint64_t>(got);
    n -= static_cast<size_t>(got);
  }
  return true;
}

bool WriteAllAt(FileHandle h, uint64_t offset, const void* buffer, size_t n) {
  if (!PassFaultPoint()) return false;
  auto* p = static_cast<const uint8_t*>(buffer);
  while (n > 0) {
    ssize_t put = ::pwrite(h, p, n, static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    p += put;
    offset += static_cast<uint64_t>(put);
    n -= static_cast<size_t>(put);
  }
  return true;
}

bool CloseFileHandle(FileHandle h) {
  if (h < 0) {
    errno = EBADF;
    return false;
  }
  // close() releases the descriptor even when it reports EINTR, so it is not retried.
  return close(h) == 0;
}

int64_t SeekFile(FileHandle h, int64_t offset, int method) {
  int whence;
  switch (method) {
    case FILE_BEGIN:
      whence = SEEK_SET;
      break;
    case FILE_CURRENT:
      whence = SEEK_CUR;
      break;
    case FILE_END:
      whence = SEEK_END;
      break;
    default:
      errno = EINVAL;
      return -1;
  }
  off_t pos = lseek(h, static_cast<off_t>(offset), whence);
  return pos < 0 ? -1 : static_cast<int64_t>(pos);
}

bool SyncFileHandle(FileHandle h) {
  if (!PassFaultPoint()) return false;
  int rc;
  do {
    rc = fsync(h);
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

bool SyncFolder(const std::string& folder) {
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = SyncFileHandle(fd);
  close(fd);
  return ok;
}

bool SetEndOfFile(FileHandle h) {
  if (!PassFaultPoint()) return false;
  off_t pos = lseek(h, 0, SEEK_CUR);
  if (pos < 0) return false;
  int rc;
  do {
    rc = ftruncate(h, pos);
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

bool SetFileModifiedTime(FileHandle h, int64_t mtime) {
  const struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
  return futimens(h, times) == 0;
}

bool RenameFile(const std::string& from, const std::string& to) {
  if (!PassFaultPoint()) return false;
  return std::rename(from.c_str(), to.c_str()) == 0;
}

int64_t GetFileSize64(FileHandle h) {
  struct stat st;
  if (h < 0 || fstat(h, &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

}  // namespace marquel
