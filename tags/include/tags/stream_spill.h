// Where a large stream of the data block waits while the block is written.
//
// A close serialises each program's block before it goes to its cache file. The raw
// samples of a program can add up to gigabytes, so a stream that passes a threshold sets
// its bytes aside in a temporary file of the process's own folder ("MQS<hex>.tmp",
// platform/temp_folders.h), keeping only its last part in memory, and the stream is read
// back a chunk at a time. The file goes with the object; a killed server's are removed
// with its folder at the next start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/crc32.h"

namespace marquel {

// A stream's bytes in memory pass this many before they are set aside (the writer's
// default). Each stream then holds at most about this much memory.
constexpr size_t kStreamSpillThreshold = size_t{8} << 20;
// The largest chunk a spilled stream is read back in.
constexpr size_t kStreamReadChunk = size_t{1} << 20;

// Receives the next `n` bytes of a stream; returns false to stop the walk.
using StreamChunkFn = std::function<bool(const uint8_t* bytes, size_t n)>;

// The bytes set aside from the front of one stream, in order, with their running CRC.
class StreamSpill {
 public:
  // Makes a new empty file in the process's own temporary folder; null when it cannot.
  static std::unique_ptr<StreamSpill> Create();
  // Removes the file.
  ~StreamSpill();
  StreamSpill(const StreamSpill&) = delete;
  StreamSpill& operator=(const StreamSpill&) = delete;

  // Appends n bytes to the file. False when the write fails (a full disk): the file then
  // holds an unknown part of them and the stream it belongs to is lost.
  bool Append(const uint8_t* bytes, size_t n);
  // Bytes appended.
  uint64_t size() const { return size_; }
  // The CRC-32 (IEEE) state over every byte appended: Crc32IeeeUpdate's value, not yet
  // finished, so that the bytes still in memory can be added to it.
  uint32_t crc_state() const { return crc_state_; }
  const std::string& path() const { return path_; }

  // Hands the bytes to `f` in order, in chunks of at most `max_chunk` bytes (at least 1).
  // False when the file cannot be read back whole or `f` stops.
  bool ForEachChunk(size_t max_chunk, const StreamChunkFn& f) const;

 private:
  explicit StreamSpill(std::string path) : path_(std::move(path)) {}

  std::string path_;
  uint64_t size_ = 0;
  uint32_t crc_state_ = kCrc32IeeeInit;
};

// The chunks of a stream made of the bytes of `spill` (none when null) followed by `n`
// bytes in memory: every chunk at most `max_chunk` bytes (at least 1). False when the
// spill cannot be read back or `f` stops.
bool ForEachStreamChunk(const StreamSpill* spill, const uint8_t* bytes, size_t n, size_t max_chunk,
                        const StreamChunkFn& f);

}  // namespace marquel
