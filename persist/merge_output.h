// MergeOutput: the in-place merges write the media file from an offset on through one
// large buffer, so a rewrite costs one write call per block, never one per packet.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/files.h"

namespace marquel {

class MergeOutput {
 public:
  static constexpr size_t kBlockBytes = size_t{1} << 20;

  // Writes into `media` from `at` on.
  MergeOutput(FileHandle media, int64_t at) : media_(media), at_(at) {
    buffer_.reserve(kBlockBytes);
  }
  // Appends bytes; a full buffer is written first. False when a write failed.
  bool Put(const uint8_t* bytes, size_t n) {
    if (buffer_.size() + n > kBlockBytes && !Flush()) return false;
    if (n > kBlockBytes) return WriteNow(bytes, n);
    buffer_.insert(buffer_.end(), bytes, bytes + n);
    return true;
  }
  // Writes what is buffered. False when the write failed.
  bool Flush() {
    bool ok = WriteNow(buffer_.data(), buffer_.size());
    buffer_.clear();
    return ok;
  }
  // The file offset after the last byte put, written or not.
  int64_t Position() const { return at_ + static_cast<int64_t>(buffer_.size()); }

 private:
  bool WriteNow(const uint8_t* bytes, size_t n) {
    if (n == 0) return true;
    if (!WriteAllAt(media_, static_cast<uint64_t>(at_), bytes, n)) return false;
    at_ += static_cast<int64_t>(n);
    return true;
  }
  FileHandle media_;
  int64_t at_;
  std::vector<uint8_t> buffer_;
};

}  // namespace marquel
