// Where the block writer's entries go: counted (for the size prediction) or stored in
// the three stream buffers. Both keep their state in plain members so that the writer,
// which holds its sink in a local variable, can keep that state in registers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tags/bit_buffer.h"

namespace marquel {

// Counts the bits each stream would receive.
struct CountingSink {
  uint64_t tag_bytes = 0;
  uint64_t length_bits = 0;
  uint64_t data_bits = 0;
  void Reserve(size_t, size_t) {}
  void ReserveData(size_t) {}
  void Tag(uint8_t) { ++tag_bytes; }
  void Length(uint32_t) { length_bits += 5; }
  void TagPattern(const uint8_t*, size_t, size_t count) { tag_bytes += count; }
  void LengthBits(uint32_t, int bits) { length_bits += static_cast<uint64_t>(bits); }
  void Data(uint32_t, int bits) { data_bits += static_cast<uint64_t>(bits); }
  void DataPush(uint64_t, int bits) { data_bits += static_cast<uint64_t>(bits); }
  void DataDrain() {}
  void DataPushBytes(const uint8_t*, size_t n) { data_bits += static_cast<uint64_t>(n) * 8; }
  void DataBytes(const uint8_t*, size_t n) { data_bits += static_cast<uint64_t>(n) * 8; }
};

// Bits written most significant first into memory a writer has made room for: pending
// bits gather in the low end of a 64-bit word and go out 32 at a time.
struct BitOut {
  uint8_t* at = nullptr;
  uint64_t acc = 0;
  int pending = 0;  // 0..31 between calls

  // Appends the low `bits` bits (0..32) of value, which must have no higher bits set.
  void Put(uint32_t value, int bits) {
    acc = (acc << bits) | value;
    pending += bits;
    if (pending >= 32) {
      pending -= 32;
      uint32_t word = __builtin_bswap32(static_cast<uint32_t>(acc >> pending));
      std::memcpy(at, &word, 4);
      at += 4;
    }
  }
  // Appends the low `bits` bits of value (no higher bits set) without storing anything;
  // the pending bits must stay within 64.
  void Push(uint64_t value, int bits) {
    acc = (acc << bits) | value;
    pending += bits;
  }
  // Stores the whole bytes pending (at most 63 bits) and leaves 0 to 7 bits pending. It
  // writes eight bytes at once, with no test, so there must be room for eight.
  void Drain() {
    const uint64_t top = (acc << (63 - pending)) << 1;
    const uint64_t word = __builtin_bswap64(top);
    std::memcpy(at, &word, 8);
    at += pending >> 3;
    pending &= 7;
  }
  // Appends n bytes, 8 bits each: eight at a time, then the last few as one item. At most
  // 7 bits may be pending before, and at most 7 are after. It writes up to eight bytes
  // past the n bytes' end, and reads only the n bytes.
  void PushBytes(const uint8_t* bytes, size_t n) {
    const int p = pending;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
      uint64_t chunk;
      std::memcpy(&chunk, bytes + i, 8);
      chunk = __builtin_bswap64(chunk);
      const uint64_t out = __builtin_bswap64(((acc << (63 - p)) << 1) | chunk >> p);
      std::memcpy(at, &out, 8);
      at += 8;
      acc = chunk;  // its low p bits are still pending
    }
    if (i < n) Push(LastBytes(bytes, n, n - i), static_cast<int>(8 * (n - i)));
    Drain();
  }
  // The last `tail` (1..7) of the n bytes as a big-endian number, read without going
  // outside the n bytes.
  static uint64_t LastBytes(const uint8_t* bytes, size_t n, size_t tail) {
    if (n >= 8) {
      uint64_t w;
      std::memcpy(&w, bytes + n - 8, 8);
      return __builtin_bswap64(w) & ((uint64_t{1} << (8 * tail)) - 1);
    }
    if (n >= 4) {  // two 4-byte loads that overlap
      uint32_t hi, lo;
      std::memcpy(&hi, bytes, 4);
      std::memcpy(&lo, bytes + n - 4, 4);
      const int low_bits = static_cast<int>(8 * (n - 4));
      return uint64_t{__builtin_bswap32(hi)} << low_bits |
             (__builtin_bswap32(lo) & ((uint64_t{1} << low_bits) - 1));
    }
    uint64_t v = 0;
    for (size_t j = 0; j < n; ++j) v = v << 8 | bytes[j];
    return v;
  }
  // Stores the pending bits, the last byte padded with zero bits.
  void Flush() {
    while (pending >= 8) {
      pending -= 8;
      *at++ = static_cast<uint8_t>(acc >> pending);
    }
    if (pending > 0) *at++ = static_cast<uint8_t>(acc << (8 - pending));
    pending = 0;
    acc = 0;
  }
};

// Writes the entries into the three stream buffers, through pointers into room that
// Reserve makes before each step.
class BufferSink {
 public:
  BufferSink(BitBuffer* tag_ids, BitBuffer* lengths, BitBuffer* data)
      : tag_buffer_(tag_ids), length_buffer_(lengths), data_buffer_(data) {}

  // Makes room for `entries` sample or time entries plus `extra` bytes of raw data.
  void Reserve(size_t entries, size_t extra) {
    // A 5-bit item or a data item may complete a 4-byte word: 8 bytes of margin.
    step_data_ = entries * 8 + 8;
    if (static_cast<size_t>(tag_end_ - tag_at_) < entries ||
        static_cast<size_t>(length_end_ - lengths_.at) < entries + 8 ||
        static_cast<size_t>(data_end_ - data_.at) < step_data_ + extra)
      *this = Grown(*this, entries, extra);
  }
  // Makes room for `n` more bytes of raw data in the data stream, on top of the room the
  // last Reserve made for its entries: the entries after the bytes still need theirs.
  void ReserveData(size_t n) {
    if (static_cast<size_t>(data_end_ - data_.at) < step_data_ + n)
      *this = Grown(*this, 0, step_data_ + n);
  }
  void Tag(uint8_t id) { *tag_at_++ = id; }
  void Length(uint32_t width) { lengths_.Put(width, 5); }
  // Appends the first `count` bytes of `pattern`, copying all `padded` of them (a
  // multiple of 32, for which Reserve made room) in whole 32-byte pieces.
  void TagPattern(const uint8_t* pattern, size_t padded, size_t count) {
    for (size_t i = 0; i < padded; i += 32) std::memcpy(tag_at_ + i, pattern + i, 32);
    tag_at_ += count;
  }
  // Appends the low `bits` bits (0..32) of `items`, several length items at once.
  void LengthBits(uint32_t items, int bits) { lengths_.Put(items, bits); }
  void Data(uint32_t value, int bits) { data_.Put(value, bits); }
  // Data bits gathered without a store; DataDrain stores them. Up to 64 bits may gather
  // after a drain, of which it leaves at most 7 pending.
  void DataPush(uint64_t value, int bits) { data_.Push(value, bits); }
  void DataDrain() { data_.Drain(); }
  // BitOut::PushBytes: from at most 7 bits pending, to at most 7; room for n + 8 bytes
  // must have been made.
  void DataPushBytes(const uint8_t* bytes, size_t n) { data_.PushBytes(bytes, n); }
  // Appends n bytes, 8 bits each; the room must have been reserved.
  void DataBytes(const uint8_t* bytes, size_t n) {
    if (n == 0) return;  // bytes may be null then
    if (data_.pending == 0) {
      std::memcpy(data_.at, bytes, n);
      data_.at += n;
      return;
    }
    // Off a byte boundary, eight bytes a step: the pending bits lead, the chunk follows,
    // and the chunk's last `pending` bits stay pending.
    const int p = data_.pending;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
      uint64_t chunk;
      std::memcpy(&chunk, bytes + i, 8);
      chunk = __builtin_bswap64(chunk);
      uint64_t out = __builtin_bswap64(data_.acc << (64 - p) | chunk >> p);
      std::memcpy(data_.at, &out, 8);
      data_.at += 8;
      data_.acc = chunk;
    }
    if (i + 4 <= n) {
      uint32_t word;
      std::memcpy(&word, bytes + i, 4);
      data_.Put(__builtin_bswap32(word), 32);
      i += 4;
    }
    for (; i < n; ++i) data_.Put(bytes[i], 8);
  }
  // Stores what is pending; each stream ends padded to a byte.
  void Finish();

 private:
  // The sink with new room. It takes and gives the sink by value, so that a writer that
  // keeps its sink in a local variable never hands out that variable's address, and the
  // compiler can keep it in registers.
  static BufferSink Grown(BufferSink sink, size_t entries, size_t extra);
  void Grow(size_t entries, size_t extra);
  void Commit();

  BitBuffer* tag_buffer_;
  BitBuffer* length_buffer_;
  BitBuffer* data_buffer_;
  uint8_t* tag_at_ = nullptr;
  uint8_t* tag_end_ = nullptr;
  BitOut lengths_;
  uint8_t* length_end_ = nullptr;
  BitOut data_;
  uint8_t* data_end_ = nullptr;
  size_t step_data_ = 8;  // the data room the last Reserve asked for
};

}  // namespace marquel
