// A process-wide pool of open file descriptors for the tags' record files.
//
// A server may hold thousands of record files (100 open media files x 30 tags), more than
// the usual limit of 1024 descriptors. Each record file therefore keeps only its path and
// borrows a descriptor from the pool for each disk access. The pool keeps at most a
// budget of descriptors open (a quarter of RLIMIT_NOFILE, at most 256), closing the least
// recently used one that no access is using when it needs room; a closed file is
// reopened by path on its next access.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <string>

namespace marquel {

class DescriptorPool;

// One pooled file: a path and, while the pool keeps it open, a descriptor.
class PooledFile {
 public:
  explicit PooledFile(std::string path);
  // Closes the descriptor (if open) and leaves the pool. The file itself stays.
  ~PooledFile();
  PooledFile(const PooledFile&) = delete;
  PooledFile& operator=(const PooledFile&) = delete;

  const std::string& path() const { return path_; }

 private:
  friend class DescriptorPool;
  friend class FileLease;
  std::string path_;
  int fd_ = -1;
  int pins_ = 0;
  bool listed_ = false;
  std::list<PooledFile*>::iterator lru_pos_;
};

// A descriptor borrowed for one access; it stays open while the lease lives.
class FileLease {
 public:
  explicit FileLease(PooledFile* file);
  ~FileLease();
  FileLease(const FileLease&) = delete;
  FileLease& operator=(const FileLease&) = delete;
  // The descriptor, or -1 when the file could not be opened.
  int fd() const { return fd_; }

 private:
  PooledFile* file_;
  int fd_;
};

class DescriptorPool {
 public:
  static DescriptorPool& Instance();

  // Descriptors open now (for tests and the docs' claims).
  int OpenCount();
  // The budget now: min(256, RLIMIT_NOFILE soft limit / 4), at least 8.
  static int Budget();

 private:
  friend class PooledFile;
  friend class FileLease;
  int Acquire(PooledFile* file);
  void Release(PooledFile* file);
  void Forget(PooledFile* file);
  bool EvictOneLocked();

  std::mutex mu_;
  std::list<PooledFile*> lru_;  // open files, most recently used first
  int open_ = 0;
};

}  // namespace marquel
