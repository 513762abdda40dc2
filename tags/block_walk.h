// One tag as the block writer walks it, and the small codings the writer's two paths
// (step by step, and runs of repeating steps) share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "tags/block_content.h"

namespace marquel {

// The writer reads the tags' next samples into the caches a window of this many steps at
// a time, one window ahead. A window's arrays fit the second-level cache many times over.
constexpr size_t kWarmWindow = 256;

// One tag while the writer walks it.
struct TagWalk {
  int64_t cur_time = 0;  // time of the current sample, times[pos]
  const int64_t* times = nullptr;
  const int32_t* values = nullptr;
  size_t pos = 0;
  size_t count = 0;
  BlockSampleBatch batch;  // the current batch (for the bytes of raw samples)
  bool done = false;       // no sample left
  int32_t id = 0;
  int32_t type = 0;
  bool plain = false;         // types 0 and 2: the value as it is
  int width = 0;              // value width, 0..31 (what the 5-bit length item can say)
  uint32_t mask = 0;          // the low `width` bits
  int64_t interval = 0;       // state tags: the interval written (0 became the default)
  uint64_t index = 0;         // state tags: index of the current sample among the tag's
  int64_t prev_time = 0;      // state tags: time of the sample before the current one
  uint32_t prev_value = 0;    // delta tags: the previous sample's value (0 before the first)
  int64_t last_written = -1;  // state tags: the last state value written, -1 for none
  // Delta tags: every step written, or-ed together. A bit above `mask` means a step did
  // not fit its width (a first value of 2^width or more, a fall, or a larger step), so
  // the reader's running sum will not give the values back.
  uint32_t steps_seen = 0;
  std::unique_ptr<BlockTagCursor> cursor;

  void Fetch() {
    pos = 0;
    done = !cursor->Next(&batch) || batch.count == 0;
    count = done ? 0 : batch.count;
    times = batch.times;
    values = batch.values;
    if (!done) cur_time = times[0];
  }
  // Moves to the next sample; the bytes of the one left behind may go.
  void Advance() {
    if (++pos < count) {
      cur_time = times[pos];
    } else {
      Fetch();
    }
  }
  // Reads the samples [pos + from, pos + to) of the batch into the caches, one array at
  // a time. The writer reads a program's arrays side by side, more streams than the
  // processor's prefetchers follow; read one by one, each is a stream they do follow.
  void Warm(size_t from, size_t to) const;
};

// The byte count written for a raw sample of `value` bytes at `bytes`: none for a sample
// without bytes, and at most what the length field (`mask`) can hold. The streams stay in
// step either way.
inline uint32_t RawByteCount(const uint8_t* bytes, int32_t value, uint32_t mask) {
  uint32_t n = bytes != nullptr && value > 0 ? static_cast<uint32_t>(value) : 0;
  return n < mask ? n : mask;
}

// Whether `later` - `earlier` exceeds twice `interval`, without overflow.
inline bool GapExceeds(int64_t earlier, int64_t later, int64_t interval) {
  int64_t gap, twice;
  if (__builtin_sub_overflow(later, earlier, &gap) || __builtin_mul_overflow(interval, 2, &twice))
    return static_cast<__int128>(later) - earlier > static_cast<__int128>(interval) * 2;
  return gap > twice;
}

// A 24-bit field of three bytes, the least significant first, as the bit writer takes it.
inline uint32_t ThreeBytesLowFirst(uint64_t v) {
  return static_cast<uint32_t>((v & 0xFF) << 16 | (v & 0xFF00) | ((v >> 16) & 0xFF));
}

}  // namespace marquel
