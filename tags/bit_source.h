// A fast most-significant-bit-first reader for the block decoder's hot loop.
//
// It holds the next bits at the top of a 64-bit word and refills that word eight bytes
// at a time while eight bytes remain, then byte by byte, so that a read of up to 32 bits
// is a shift and a compare. It never reads past the span it was given. Meant to live in
// a local variable of one function, where the compiler can keep it in registers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace marquel {

class BitSource {
 public:
  BitSource(const uint8_t* data, size_t size)
      : begin_(data),
        next_(data),
        end_(data + size),
        whole_word_limit_(size >= 8 ? static_cast<int64_t>(size - 8) * 8 + 7 : -1),
        size_bits_(static_cast<uint64_t>(size) * 8) {}

  // Reads `bits` (1..32) bits into *value; false, with nothing consumed, when fewer remain.
  bool Read(int bits, uint32_t* value) {
    if (avail_ < bits) {
      Refill();
      if (avail_ < bits) return false;
    }
    *value = static_cast<uint32_t>(word_ >> (64 - bits));
    word_ <<= bits;
    avail_ -= bits;
    return true;
  }

  // Reading by position. A loop that keeps the bit position itself and reads at it
  // makes no step depend on the last one's load: the next position is known before the
  // bits at this one arrive.

  // The read position, in bits from the start of the span.
  uint64_t Tell() const {
    return static_cast<uint64_t>(next_ - begin_) * 8 - static_cast<uint64_t>(avail_);
  }
  // Moves the read position to `bit` (at most the span's size in bits).
  void Seek(uint64_t bit) {
    next_ = begin_ + bit / 8;
    word_ = 0;
    avail_ = 0;
    uint32_t skipped;
    if (bit % 8 != 0) Read(static_cast<int>(bit % 8), &skipped);
  }
  // Reads `bits` (1..32) at bit `pos` without moving the reader; false when the span
  // ends first.
  bool ReadAt(uint64_t pos, int bits, uint32_t* value) const {
    uint64_t wide;
    if (!BitsAt(pos, bits, &wide)) return false;
    *value = static_cast<uint32_t>(wide);
    return true;
  }
  // ReadAt for 1..kWindowBits bits.
  bool BitsAt(uint64_t pos, int bits, uint64_t* value) const {
    uint64_t window;
    if (!WindowAt(pos, &window)) return BitsAtNearEnd(pos, bits, value);
    *value = window >> (64 - bits);
    return true;
  }
  // The bits from `pos` on, at the top of *window; at least kWindowBits of them are the
  // stream's (the rest are what follows them in memory). False, with nothing loaded, when
  // the eight bytes from pos / 8 would pass the span's end.
  static constexpr int kWindowBits = 57;
  bool WindowAt(uint64_t pos, uint64_t* window) const {
    if (static_cast<int64_t>(pos) > whole_word_limit_) return false;
    uint64_t w;
    std::memcpy(&w, begin_ + pos / 8, sizeof w);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    w = __builtin_bswap64(w);
#endif
    *window = w << (pos % 8);
    return true;
  }

  // Whether the span holds n bytes from bit `pos` on.
  bool HasBytesAt(uint64_t pos, uint64_t n) const {
    return pos <= size_bits_ && (size_bits_ - pos) / 8 >= n;
  }
  // Copies the n bytes at bit `pos` to out, which HasBytesAt has found there (as
  // ReadBytes does, `out_room` of n + 8 or more lets it write eight bytes at a time).
  void CopyKnownAt(uint64_t pos, uint8_t* out, uint64_t n, uint64_t out_room) const {
    if (n > 0)
      CopyShifted(begin_ + pos / 8, static_cast<int>(pos % 8), out, static_cast<size_t>(n),
                  out_room >= n + 8);
  }

  // Bits not yet read.
  uint64_t BitsLeft() const {
    return static_cast<uint64_t>(end_ - next_) * 8 + avail_;
  }

  // Copies n bytes (8 bits each) to out, or skips them when out is null; false, with
  // nothing consumed, when fewer bits remain. Works on the span directly, eight bytes a
  // step, and then takes up the bit position after them. With `out_room` of n + 8 or
  // more, the last step writes eight bytes too (those past n are of no meaning).
  bool ReadBytes(uint8_t* out, uint64_t n, uint64_t out_room = 0) {
    if (BitsLeft() / 8 < n) return false;
    if (n == 0) return true;
    // Short runs with room to spill come out of the word itself, seven bytes at a time,
    // while the span has eight bytes to top the word up from.
    if (out != nullptr && out_room >= n + 8 && n <= 32) {
      while (n > 0 && end_ - next_ >= 8) {
        TopUp();  // 56 bits or more held
        const uint64_t k = n < 7 ? n : 7;
        uint64_t w = word_;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        w = __builtin_bswap64(w);
#endif
        std::memcpy(out, &w, 8);
        out += k;
        n -= k;
        word_ <<= 8 * k;
        avail_ -= static_cast<int>(8 * k);
      }
      if (n == 0) return true;
    }
    // The read position: bit `shift` of byte `at` (avail_ bits end at next_).
    const uint8_t* at = next_ - (avail_ + 7) / 8;
    const int shift = (8 - (avail_ & 7)) & 7;
    if (out != nullptr) CopyShifted(at, shift, out, static_cast<size_t>(n), out_room >= n + 8);
    next_ = at + n;
    word_ = 0;
    avail_ = 0;
    if (shift != 0) {
      uint32_t skipped;
      Read(shift, &skipped);
    }
    return true;
  }

 private:
  // Copies n bytes that start at bit `shift` (0..7) of `at`. With a shift, n + 1 bytes
  // from `at` belong to the span, which the caller has made sure of. `spill`: eight
  // bytes may be written past the n.
  void CopyShifted(const uint8_t* at, int shift, uint8_t* out, size_t n, bool spill) const {
    // Seven bytes a step, each from one 8-byte load, the last step spilling: one bounds
    // test for the run.
    if (spill && static_cast<size_t>(end_ - at) >= n + 7) {
      for (size_t i = 0; i < n; i += 7) CopySeven(at + i, shift, out + i);
      return;
    }
    // Eight bytes a step while nine can be loaded (the ninth gives the shifted-in bits)
    // and the step stays inside n; then byte by byte.
    size_t i = 0;
    for (; i + 8 <= n && at + i + 9 <= end_; i += 8) CopyStep(at + i, shift, out + i);
    if (i >= n) return;
    if (shift == 0) {
      std::memcpy(out + i, at + i, n - i);
      return;
    }
    for (; i < n; ++i) out[i] = static_cast<uint8_t>(at[i] << shift | at[i + 1] >> (8 - shift));
  }

  // Seven bytes from bit `shift` of `at` (eight bytes are read) to `out`, and an eighth
  // byte after them that lacks its last `shift` bits (eight bytes are written).
  static void CopySeven(const uint8_t* at, int shift, uint8_t* out) {
    uint64_t w;
    std::memcpy(&w, at, 8);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    w = __builtin_bswap64(__builtin_bswap64(w) << shift);
#else
    w <<= shift;
#endif
    std::memcpy(out, &w, 8);
  }

  // Eight bytes from bit `shift` of `at` (nine bytes are read) to `out`.
  static void CopyStep(const uint8_t* at, int shift, uint8_t* out) {
    uint64_t w;
    std::memcpy(&w, at, 8);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    w = __builtin_bswap64(w);
#endif
    w = w << shift | static_cast<uint64_t>(at[8] >> (8 - shift));  // 0 when shift is 0
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    w = __builtin_bswap64(w);
#endif
    std::memcpy(out, &w, 8);
  }

  // Invariant: the avail_ bits at the top of word_ are the stream's next bits, and they
  // are the last avail_ bits before next_. Bits below them are either zero or the true
  // bits that follow, so OR-ing those bits in again changes nothing.
  // Needs eight bytes left at next_.
  void TopUp() {
    uint64_t w;
    std::memcpy(&w, next_, sizeof w);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    w = __builtin_bswap64(w);
#endif
    // Whole bytes that fit below the bits held are counted; the part of one that does
    // not fit stays below avail_ and is loaded again next time.
    word_ |= w >> avail_;
    next_ += (63 - avail_) >> 3;
    avail_ |= 56;
  }
  void Refill() {
    if (end_ - next_ >= 8) {
      TopUp();
      return;
    }
    while (avail_ <= 56 && next_ < end_) {
      word_ |= uint64_t{*next_++} << (56 - avail_);
      avail_ += 8;
    }
  }

  // BitsAt for a position whose eight bytes would pass the span's end.
  bool BitsAtNearEnd(uint64_t pos, int bits, uint64_t* value) const {
    const uint64_t size_bits = static_cast<uint64_t>(end_ - begin_) * 8;
    if (pos > size_bits || size_bits - pos < static_cast<uint64_t>(bits)) return false;
    uint64_t w = 0;
    for (uint64_t i = 0; i < 8; ++i) {
      const uint64_t at = pos / 8 + i;
      w = w << 8 | (at < static_cast<uint64_t>(end_ - begin_) ? begin_[at] : 0);
    }
    *value = (w << (pos % 8)) >> (64 - bits);
    return true;
  }

  const uint8_t* begin_;
  const uint8_t* next_;
  const uint8_t* end_;
  int64_t whole_word_limit_;  // the last bit position whose eight bytes lie in the span
  uint64_t size_bits_;        // the span's size in bits
  uint64_t word_ = 0;
  int avail_ = 0;
};

}  // namespace marquel
