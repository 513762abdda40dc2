#include "media/probe_source.h"

#include <algorithm>
#include <cstring>

namespace marquel {

int64_t FileProbeSource::Seek(int64_t offset) {
  if (handle_ == kInvalidFileHandle) return -1;
  const int64_t at = SeekFile(handle_, offset, FILE_BEGIN);
  if (at >= 0) position_ = at;
  return at;
}

int64_t FileProbeSource::Read(void* buffer, uint32_t n) {
  uint32_t got = 0;
  if (handle_ == kInvalidFileHandle || !ReadFile(handle_, buffer, n, &got)) return -1;
  bytes_read_ += got;
  position_ += got;
  read_extent_ = std::max<uint64_t>(read_extent_, static_cast<uint64_t>(position_));
  return got;
}

int64_t MemoryProbeSource::Seek(int64_t offset) {
  if (offset < 0) return -1;
  // Like a file: a position past the end is allowed, and reads there give 0 bytes.
  position_ = static_cast<size_t>(offset);
  return offset;
}

int64_t MemoryProbeSource::Read(void* buffer, uint32_t n) {
  if (position_ >= size_) return 0;
  const size_t count = std::min<size_t>(n, size_ - position_);
  std::memcpy(buffer, data_ + position_, count);
  position_ += count;
  bytes_read_ += count;
  return static_cast<int64_t>(count);
}

}  // namespace marquel
