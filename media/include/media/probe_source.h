// Where the content probes of file type detection read from: an open file, or bytes in
// memory (used by tests and by the fuzzers). Each probe makes a handful of large reads,
// so one indirect call per read costs nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/files.h"

namespace marquel {

class ProbeSource {
 public:
  virtual ~ProbeSource() = default;
  // Moves the read position to `offset` from the start. Returns the new position, or -1.
  virtual int64_t Seek(int64_t offset) = 0;
  // Reads up to n bytes at the read position and advances it. Returns the count read
  // (fewer than n only at the end of the data), or -1 when the read fails.
  virtual int64_t Read(void* buffer, uint32_t n) = 0;
  // Whether reads can succeed at all (a file source on an invalid handle cannot).
  virtual bool IsValid() const = 0;
};

// Reads an open file through the platform calls. The first read that starts inside the
// file's head (its first kHeadBytes bytes, the most any probe looks at) reads the whole
// head once, and every later read inside it is served from memory, so detection reads each
// byte of the file at most once and never more than kHeadBytes of a transport stream.
// Counts the bytes it has read from the file and notes the furthest byte it has read, so
// that tests can check how much of a file detection touches.
class FileProbeSource : public ProbeSource {
 public:
  static constexpr uint32_t kHeadBytes = 512000;
  explicit FileProbeSource(FileHandle handle) : handle_(handle) {}
  int64_t Seek(int64_t offset) override;
  int64_t Read(void* buffer, uint32_t n) override;
  bool IsValid() const override { return handle_ != kInvalidFileHandle; }
  uint64_t bytes_read() const { return bytes_read_; }
  // One past the last byte any read has returned (0 before the first read).
  uint64_t read_extent() const { return read_extent_; }

 private:
  // Reads the head into head_ once; false when that read fails.
  bool LoadHead();

  FileHandle handle_;
  int64_t position_ = 0;
  uint64_t bytes_read_ = 0;
  uint64_t read_extent_ = 0;
  bool head_loaded_ = false;
  std::vector<uint8_t> head_;
};

// Reads a caller's buffer, which must outlive the source.
class MemoryProbeSource : public ProbeSource {
 public:
  MemoryProbeSource(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  int64_t Seek(int64_t offset) override;
  int64_t Read(void* buffer, uint32_t n) override;
  bool IsValid() const override { return true; }
  uint64_t bytes_read() const { return bytes_read_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t position_ = 0;
  uint64_t bytes_read_ = 0;
};

}  // namespace marquel
