// Bit streams of the serialised data block.
//
// BitBuffer is the buffer type of a program's four serialisation streams (tag ids, data,
// data lengths, header). It is written as a bit stream, most significant bit first: the
// first bit written becomes bit 7 of the first byte, so a 32-bit field lands big-endian.
// A finished stream is padded with zero bits to a whole byte and closed by the CRC-32 of
// all its bytes as a 32-bit big-endian field. The same buffer is read back bit by bit
// or byte by byte through its own read position. Given a threshold, a buffer sets its
// stored bytes aside in a temporary file (tags/stream_spill.h) whenever it would grow past
// it, so that a stream of any size is written in bounded memory.
//
// BitReader reads a borrowed span of bytes the same way, without copying it.
//
// Neither class throws, and no read goes past the bytes held: a read that would fails
// and leaves the position where it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "tags/stream_spill.h"

namespace marquel {

// Reads a span of bytes as a bit stream, most significant bit first. The span must
// outlive the reader.
class BitReader {
 public:
  BitReader() = default;
  BitReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  // Reads `bits` bits (0..32) into *value. False, with nothing consumed, when fewer
  // bits remain.
  bool ReadBits(int bits, uint32_t* value) {
    if (bits <= 0) {
      *value = 0;
      return bits == 0;
    }
    if (bits > 32 || BitsLeft() < static_cast<uint64_t>(bits)) return false;
    size_t byte = static_cast<size_t>(pos_ >> 3);
    int skip = static_cast<int>(pos_ & 7);
    uint64_t window;
    if (byte + 8 <= size_) {
      window = Load64(data_ + byte);
    } else {
      window = 0;
      for (size_t i = 0; i < 8; ++i)
        window = window << 8 | (byte + i < size_ ? data_[byte + i] : 0);
    }
    *value = static_cast<uint32_t>((window << skip) >> (64 - bits));
    pos_ += static_cast<uint64_t>(bits);
    return true;
  }

  // Copies n whole bytes (8 bits each, at any bit position) into out. False, with
  // nothing consumed, when fewer bits remain.
  bool ReadBytes(uint8_t* out, size_t n);

  // Moves the position to `bit` (clamped to the end of the span).
  void Seek(uint64_t bit) {
    uint64_t end = static_cast<uint64_t>(size_) * 8;
    pos_ = bit < end ? bit : end;
  }
  uint64_t BitsLeft() const { return static_cast<uint64_t>(size_) * 8 - pos_; }
  uint64_t bit_position() const { return pos_; }
  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  // Eight bytes as a big-endian number, in one load.
  static uint64_t Load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
  }

  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  uint64_t pos_ = 0;
};

// A growable byte buffer written and read as a bit stream. Movable, not copyable.
class BitBuffer {
 public:
  BitBuffer() = default;
  // An empty buffer with room for `capacity` bytes before it grows.
  explicit BitBuffer(size_t capacity) { Reserve(capacity); }
  BitBuffer(BitBuffer&&) = default;
  BitBuffer& operator=(BitBuffer&&) = default;
  BitBuffer(const BitBuffer&) = delete;
  BitBuffer& operator=(const BitBuffer&) = delete;

  // Makes room for `capacity` bytes in all without growing again.
  void Reserve(size_t capacity);
  // Bytes the buffer holds room for.
  size_t capacity() const { return storage_.size() > kSlack ? storage_.size() - kSlack : 0; }
  // Empties the buffer (writing and reading start again at bit 0), its spill file
  // included; keeps the capacity and the spill threshold.
  void Clear();
  // Replaces the content with a copy of n bytes; the read position goes to 0.
  void Assign(const uint8_t* bytes, size_t n);
  // Hands the stored bytes over (exactly size() of them, without copying) and leaves the
  // buffer empty, without capacity. Bits not yet stored (see size()) are dropped.
  std::vector<uint8_t> ReleaseBytes();

  // --- Spilling ----------------------------------------------------------------------

  // From now on, when the buffer must grow past `bytes` stored bytes, they go to its spill
  // file and the memory is written again from its start; growth by doubling stops at
  // `bytes` (a single write larger than that still gets its room). 0, the default, keeps
  // every byte in memory. The stream is then the spilled bytes followed by those in
  // memory: size(), data() and the reads cover the bytes in memory only, stream_size()
  // and ForEachChunk the whole stream. A spill that fails drops its bytes and sets
  // spill_failed(); the stream is lost and the writer must fail.
  void SetSpillThreshold(size_t bytes) { spill_threshold_ = bytes; }
  // Bytes of the stream set aside in the spill file.
  uint64_t spilled() const { return spilled_; }
  bool spill_failed() const { return spill_failed_; }
  // Bytes of the whole stream: spilled and in memory.
  uint64_t stream_size() const { return spilled_ + size_; }
  // Hands the stream's bytes to `f` in order, in chunks of at most `max_chunk` bytes.
  // False when the spill file cannot be read back or `f` stops.
  bool ForEachChunk(size_t max_chunk, const StreamChunkFn& f) const {
    return ForEachStreamChunk(spill_.get(), storage_.data(), size_, max_chunk, f);
  }
  // Hands the spill file over (null when nothing was spilled); the buffer keeps the
  // bytes in memory as its whole content. Take it before ReleaseBytes.
  std::unique_ptr<StreamSpill> ReleaseSpill();

  // --- Writing -----------------------------------------------------------------------

  // Appends the low `bits` bits (0..32) of value, most significant first.
  void WriteBits(uint32_t value, int bits) {
    if (bits <= 0) return;
    if (bits < 32) value &= (uint32_t{1} << bits) - 1;
    acc_ = (acc_ << bits) | value;
    pending_ += bits;
    if (pending_ >= 32) {
      pending_ -= 32;
      Store32(static_cast<uint32_t>(acc_ >> pending_));
    }
  }
  // Appends n bytes, 8 bits each (whole bytes when the stream is at a byte boundary).
  void WriteBytes(const uint8_t* bytes, size_t n);
  // Pads with zero bits up to the next byte boundary.
  void PadToByte();
  // Pads to a byte, then appends the CRC-32 of every byte of the stream (spilled ones
  // included), big-endian.
  void AppendCrc();

  // Direct writing, for writers that keep their own bit accumulator: returns where the
  // next byte goes, with room for at least `room` bytes. The buffer must hold whole
  // bytes only (nothing pending since the last PadToByte, or never written).
  uint8_t* WritableTail(size_t room) {
    if (size_ + room + kSlack > storage_.size()) Grow(size_ + room);
    return storage_.data() + size_;
  }
  // Counts n bytes written at WritableTail() as stored.
  void CommitTail(size_t n) { size_ += n; }

  // Bits written so far (padding included).
  uint64_t bit_count() const { return static_cast<uint64_t>(size_) * 8 + pending_; }
  // The bytes stored. The writer stores its bits in steps of four bytes, so up to 31
  // bits written last become visible (to size(), data() and the reads) only after
  // PadToByte() or AppendCrc().
  size_t size() const { return size_; }
  const uint8_t* data() const { return storage_.data(); }

  // --- Reading -----------------------------------------------------------------------

  // Reads `bits` bits (0..32). False, with nothing consumed, past the bytes held.
  bool ReadBits(int bits, uint32_t* value);
  // Copies up to n bytes from the read position (which must be on a byte boundary;
  // otherwise nothing is read) and returns the count copied.
  size_t ReadBytes(uint8_t* out, size_t n);
  // Read position in bits from the start.
  uint64_t read_position() const { return read_pos_; }
  // Moves the read position (clamped to the bits held).
  void SetReadPosition(uint64_t bit);
  void Rewind() { read_pos_ = 0; }

  // Whether the last 4 bytes hold, big-endian, the CRC-32 of the bytes before them.
  // False for fewer than 4 bytes.
  bool HasValidCrc() const;

 private:
  // Room kept past the data so that a 4-byte store never needs a bounds test.
  static constexpr size_t kSlack = 8;

  void Store32(uint32_t word) {
    if (size_ + kSlack > storage_.size()) Grow(size_ + 4);
    uint8_t* p = storage_.data() + size_;
    p[0] = static_cast<uint8_t>(word >> 24);
    p[1] = static_cast<uint8_t>(word >> 16);
    p[2] = static_cast<uint8_t>(word >> 8);
    p[3] = static_cast<uint8_t>(word);
    size_ += 4;
  }
  // Moves the pending whole bytes of the accumulator into storage.
  void FlushWholeBytes();
  // Makes room for `needed` stored bytes in all (counted before any spill), spilling
  // first when a threshold is set and `needed` passes it.
  void Grow(size_t needed);
  // Moves the stored bytes to the spill file.
  void Spill();

  std::vector<uint8_t> storage_;  // size() = capacity + kSlack once reserved
  size_t size_ = 0;               // bytes stored
  uint64_t acc_ = 0;              // pending bits in the low `pending_` bits
  int pending_ = 0;               // 0..31 between calls
  uint64_t read_pos_ = 0;
  size_t spill_threshold_ = 0;  // 0: never spill
  uint64_t spilled_ = 0;
  bool spill_failed_ = false;
  std::unique_ptr<StreamSpill> spill_;
};

}  // namespace marquel
