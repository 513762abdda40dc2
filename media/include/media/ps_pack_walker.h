// Walks the packs of a region of a program-stream file in order, reading it in chunks, so
// that a pass over any size of file holds one chunk in memory.
//
// A pack runs from its 00 00 01 BA to the next one (or to the region's end): its header,
// its system header and packets (each skipped by its length, so start-code bytes inside a
// payload never cut a pack), and any bytes that follow before the next pack start. Each
// pack that holds a packet of the server's own streams (0xFA, 0xFF) is marked as such.
// Bytes before the region's first pack are passed over (first_pack() tells where it is).
#pragma once

#include <cstdint>
#include <vector>

#include "media/pack_clock.h"
#include "platform/files.h"

namespace marquel {

struct PackSpan {
  int64_t offset = 0;     // in the file
  uint32_t length = 0;    // the pack with the bytes that follow it up to the next pack
  bool own_data = false;  // carries the server's own packets
  PackClock clock;
};

class PsPackWalker {
 public:
  // The largest pack the walker takes; a longer run without a pack start fails the walk.
  static constexpr uint32_t kMaxPackBytes = 1 << 20;

  static constexpr size_t kDefaultChunkBytes = 2u << 20;

  // Walks [from, to) of `file` (not owned), a program stream of MPEG-1 (mpeg1 true) or
  // MPEG-2 layout, reading `chunk` bytes at a time.
  PsPackWalker(FileHandle file, int64_t from, int64_t to, bool mpeg1,
               size_t chunk = kDefaultChunkBytes);
  PsPackWalker(const PsPackWalker&) = delete;
  PsPackWalker& operator=(const PsPackWalker&) = delete;

  // The next pack into *span. False at the region's end, and on a read failure or a pack
  // longer than kMaxPackBytes (failed() then tells).
  bool Next(PackSpan* span);
  bool failed() const { return failed_; }
  // Where the region's first pack starts (the region's end when it holds none); known
  // after the first Next().
  int64_t first_pack() const { return first_pack_; }

 private:
  bool Fill(size_t keep_from);
  size_t PackEnd(size_t start, bool* own) const;

  FileHandle file_;
  int64_t read_at_;
  int64_t to_;
  bool mpeg1_;
  size_t chunk_;
  std::vector<uint8_t> buffer_;
  size_t begin_ = 0;         // first unwalked byte in buffer_
  size_t end_ = 0;           // bytes held in buffer_
  int64_t buffer_offset_ = 0;  // file offset of buffer_[0]
  int64_t first_pack_ = -1;
  bool failed_ = false;
};

}  // namespace marquel
