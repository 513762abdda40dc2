// Where the block writer's entries go: counted (for the size prediction) or stored in
// the three stream buffers. Both keep their state in plain members so that the writer,
// which holds its sink in a local variable, can keep that state in registers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "bit_out.h"
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
  BitCount TakeData() const { return BitCount{data_bits}; }
  void PutData(const BitCount& d) { data_bits = d.bits; }
  void DataBytes(const uint8_t*, size_t n) { data_bits += static_cast<uint64_t>(n) * 8; }
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
  // The data stream's bits and room, for a loop to work on in a local variable (whose
  // fields the compiler keeps in registers) and to give back with PutData. Nothing else
  // may write the data stream in between.
  BitRoom TakeData() const { return BitRoom{data_, data_end_}; }
  void PutData(const BitRoom& d) { data_ = d.bits; }
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
