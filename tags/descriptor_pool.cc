#include "descriptor_pool.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace marquel {

PooledFile::PooledFile(std::string path) : path_(std::move(path)) {}

PooledFile::~PooledFile() {
  DescriptorPool::Instance().Forget(this);
}

FileLease::FileLease(PooledFile* file)
    : file_(file), fd_(DescriptorPool::Instance().Acquire(file)) {}

FileLease::~FileLease() {
  if (fd_ >= 0) DescriptorPool::Instance().Release(file_);
}

DescriptorPool& DescriptorPool::Instance() {
  // Never destroyed: record files may be released during static destruction.
  static DescriptorPool* pool = new DescriptorPool;
  return *pool;
}

int DescriptorPool::Budget() {
  struct rlimit lim;
  if (getrlimit(RLIMIT_NOFILE, &lim) != 0 || lim.rlim_cur == RLIM_INFINITY) return 256;
  rlim_t quarter = lim.rlim_cur / 4;
  return static_cast<int>(std::clamp<rlim_t>(quarter, 8, 256));
}

int DescriptorPool::OpenCount() {
  std::lock_guard<std::mutex> lock(mu_);
  return open_;
}

bool DescriptorPool::EvictOneLocked() {
  // The oldest file that no access is using.
  for (auto it = lru_.rbegin(); it != lru_.rend(); ++it) {
    PooledFile* victim = *it;
    if (victim->pins_ > 0) continue;
    ::close(victim->fd_);
    victim->fd_ = -1;
    victim->listed_ = false;
    lru_.erase(std::next(it).base());
    --open_;
    return true;
  }
  return false;
}

int DescriptorPool::Acquire(PooledFile* file) {
  std::lock_guard<std::mutex> lock(mu_);
  if (file->fd_ < 0) {
    int budget = Budget();
    while (open_ >= budget && EvictOneLocked()) {
    }
    int fd = ::open(file->path_.c_str(), O_RDWR | O_CLOEXEC);
    // Another part of the process may hold descriptors too: make room and retry once.
    while (fd < 0 && (errno == EMFILE || errno == ENFILE) && EvictOneLocked()) {
      fd = ::open(file->path_.c_str(), O_RDWR | O_CLOEXEC);
    }
    if (fd < 0) return -1;
    file->fd_ = fd;
    lru_.push_front(file);
    file->lru_pos_ = lru_.begin();
    file->listed_ = true;
    ++open_;
  } else if (file->lru_pos_ != lru_.begin()) {
    lru_.splice(lru_.begin(), lru_, file->lru_pos_);
  }
  ++file->pins_;
  return file->fd_;
}

void DescriptorPool::Release(PooledFile* file) {
  std::lock_guard<std::mutex> lock(mu_);
  --file->pins_;
}

void DescriptorPool::Forget(PooledFile* file) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!file->listed_) return;
  ::close(file->fd_);
  file->fd_ = -1;
  lru_.erase(file->lru_pos_);
  file->listed_ = false;
  --open_;
}

}  // namespace marquel
