// Whole-buffer positional reads and writes for the record files.
//
// The platform's file calls move a shared file position; the descriptor pool shares one
// descriptor between accesses, so record files use pread/pwrite through these.
#pragma once

#include <errno.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace marquel {

inline bool ReadAt(int fd, uint64_t offset, void* buffer, size_t n) {
  auto* p = static_cast<uint8_t*>(buffer);
  while (n > 0) {
    ssize_t got = ::pread(fd, p, n, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    p += got;
    offset += static_cast<uint64_t>(got);
    n -= static_cast<size_t>(got);
  }
  return true;
}

inline bool WriteAt(int fd, uint64_t offset, const void* buffer, size_t n) {
  auto* p = static_cast<const uint8_t*>(buffer);
  while (n > 0) {
    ssize_t put = ::pwrite(fd, p, n, static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    p += put;
    offset += static_cast<uint64_t>(put);
    n -= static_cast<size_t>(put);
  }
  return true;
}

}  // namespace marquel
