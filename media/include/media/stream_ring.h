// A byte ring buffer between file reads and the stream parsers.
//
// A stream reader appends whatever a file read returned and then peeks, reads, skips and
// searches whole structures out of the ring. When a structure turns out to be incomplete
// it restores the read position saved by Mark() and waits for the next append. The same
// ring also serves as a collect buffer and, through WriteBits(), as a bit writer.
//
// Indices lie in 0 .. capacity-1 and wrap at capacity. The bytes held are
// (write - read + capacity) mod capacity, so a ring of capacity c holds at most c-1 bytes:
// one slot always stays free. Append() does not check for room; appending more than
// FreeSpace() overwrites unread bytes (inside the data array, never outside it) and sets
// the overrun flag. Callers keep appends within FreeSpace().
//
// Bit mode. WriteBits() stores bits most significant bit first: the first bit written
// becomes bit 7 of its byte. While a byte is partly filled (BitsPending() > 0) the ring is
// in bit mode, and Append() writes each byte as 8 bits through the bit writer. FlushBits()
// completes the partial byte, filling its remaining low bits from the padding pattern
// (SetBitPadding(), 0x00 unless changed; MPEG stuffing uses 0xFF), and returns to byte
// mode. The padding pattern is the second bit-state field and is saved by Mark().
//
// Not thread-safe: one reader owns a ring. No operation throws or allocates except
// Create().
#pragma once

#include <cstdint>
#include <memory>

namespace marquel {

class StreamRing {
 public:
  // A ring without data; Create() gives it its array. Count() is 0 until then.
  StreamRing() = default;
  // As StreamRing() followed by Create(capacity); check capacity() > 0 for success.
  explicit StreamRing(int32_t capacity) { Create(capacity); }
  ~StreamRing() = default;
  StreamRing(const StreamRing&) = delete;
  StreamRing& operator=(const StreamRing&) = delete;

  // Allocates a data array of `capacity` bytes (0 gives 16), freeing any earlier one, and
  // sets indices, bit state and flags to 0. Returns false, leaving a ring of capacity 0,
  // when capacity is negative or the memory cannot be had.
  bool Create(int32_t capacity);
  // Frees the data array; the ring then has capacity 0 and holds nothing.
  void Destroy();
  // Empties the ring: write = read = 0, bit state, padding and overrun flag cleared.
  void Reset();

  int32_t capacity() const { return capacity_; }
  // Bytes held: (write - read + capacity) mod capacity; 0 when the capacity is 0.
  int32_t Count() const;
  // Bytes that can be appended without overwriting unread data: capacity - 1 - Count().
  int32_t FreeSpace() const { return capacity_ > 0 ? capacity_ - 1 - Count() : 0; }
  // write == read and no overrun.
  bool IsEmpty() const { return write_ == read_ && !overrun_; }
  // write + 1 == read, or write == read + capacity - 1 (one slot always stays free).
  bool IsFull() const;
  // True once an Append() has gone beyond the free space; cleared by Reset(), TakeAll()
  // and FlushBits().
  bool Overrun() const { return overrun_; }

  // Address of the byte at the read index (nullptr without data). Only
  // ContiguousCount() bytes follow it before the array wraps.
  const uint8_t* ReadPointer() const { return data_ ? data_.get() + read_ : nullptr; }
  // Held bytes readable at ReadPointer() without wrapping.
  int32_t ContiguousCount() const;
  // The held byte `offset` places after the read index; offset must be < Count().
  uint8_t At(int32_t offset) const { return data_[Wrap(read_ + offset)]; }

  // Byte mode: copies n bytes at the write index (at most two copies, whatever n) and
  // advances it. Bit mode: writes each byte as 8 bits. n <= 0 does nothing.
  void Append(const void* bytes, int32_t n);
  // Copies min(n, Count()) bytes from the read index to out, in order across the wrap,
  // and advances the read index. Returns the count copied.
  int32_t Read(void* out, int32_t n);
  // As Read() but leaves the read index where it was.
  int32_t Peek(void* out, int32_t n) const;
  // As Read() without copying. Returns the count skipped.
  int32_t Skip(int32_t n);
  // Copies every held byte to out (which must have room for Count() bytes), empties the
  // ring and clears the overrun flag. Returns the count copied; 0 on an empty ring.
  int32_t TakeAll(void* out);

  // Saves / restores the read index, bit count, partial byte, padding and overrun flag.
  // The write index is not part of the saved state, so bytes appended after Mark()
  // stay held after Restore().
  void Mark();
  void Restore();

  // Moves the read index to the first 0 of the next 00 00 xx (xx non-zero), the start of
  // a start-code prefix, stepping over non-zero bytes. Deciding at a 0 needs at least 4
  // held bytes; with fewer it stops on that 0. Returns the bytes stepped over.
  int32_t SkipToZeroPair();
  // Moves the read index to the next held byte equal to value; when none is held it
  // skips every held byte. Returns the bytes skipped.
  int32_t SkipToByte(uint8_t value);

  // Bit writer: appends the low `bits` bits of value (1..32, others ignored), most
  // significant first. Each byte completed is stored at the write index.
  void WriteBits(uint32_t value, int32_t bits);
  // In bit mode stores the partial byte (low bits from the padding pattern) at the write
  // index and advances it; then clears the bit state and the overrun flag.
  void FlushBits();
  // Bits pending in the partial byte (0 = byte mode).
  int32_t BitsPending() const { return bit_count_; }
  // Pattern whose low bits fill the partial byte at FlushBits().
  void SetBitPadding(uint8_t pattern) { bit_padding_ = pattern; }
  uint8_t bit_padding() const { return bit_padding_; }

 private:
  struct Saved {
    int32_t read = 0;
    int32_t bit_count = 0;
    uint8_t partial = 0;
    uint8_t bit_padding = 0;
    bool overrun = false;
  };

  int32_t Wrap(int32_t index) const { return index >= capacity_ ? index - capacity_ : index; }
  void CopyOut(void* out, int32_t n) const;
  void StoreBytes(const uint8_t* bytes, int32_t n);
  void PutBitByte(uint8_t byte);

  std::unique_ptr<uint8_t[]> data_;
  int32_t capacity_ = 0;
  int32_t write_ = 0;
  int32_t read_ = 0;
  int32_t bit_count_ = 0;
  uint8_t partial_ = 0;
  uint8_t bit_padding_ = 0;
  bool overrun_ = false;
  Saved saved_;
};

}  // namespace marquel
