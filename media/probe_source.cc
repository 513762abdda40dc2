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

bool FileProbeSource::LoadHead() {
  head_loaded_ = true;
  head_.resize(kHeadBytes);
  uint32_t got = 0;
  if (SeekFile(handle_, 0, FILE_BEGIN) != 0 || !ReadFile(handle_, head_.data(), kHeadBytes, &got)) {
    head_.clear();
    return false;
  }
  head_.resize(got);
  bytes_read_ += got;
  read_extent_ = std::max<uint64_t>(read_extent_, got);
  return true;
}

int64_t FileProbeSource::Read(void* buffer, uint32_t n) {
  if (handle_ == kInvalidFileHandle) return -1;
  if (position_ >= 0 && position_ < static_cast<int64_t>(kHeadBytes) && !head_loaded_) LoadHead();
  const int64_t head_size = static_cast<int64_t>(head_.size());
  // Served from the head when the read lies inside it, or reaches the end of a file
  // shorter than the head. The file position follows, for callers that read on.
  if (position_ >= 0 && position_ < head_size &&
      (position_ + n <= head_size || head_size < static_cast<int64_t>(kHeadBytes))) {
    const size_t count = std::min<size_t>(n, static_cast<size_t>(head_size - position_));
    std::memcpy(buffer, head_.data() + position_, count);
    position_ += static_cast<int64_t>(count);
    SeekFile(handle_, position_, FILE_BEGIN);
    return static_cast<int64_t>(count);
  }
  if (head_loaded_ && head_size < static_cast<int64_t>(kHeadBytes) && position_ >= head_size) {
    return 0;  // past the end of a short file
  }
  if (head_loaded_ && SeekFile(handle_, position_, FILE_BEGIN) != position_) return -1;
  uint32_t got = 0;
  if (!ReadFile(handle_, buffer, n, &got)) return -1;
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
