// The bit writers of the block writer's data stream: one that stores, and one with the
// same calls that only counts, for the size prediction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace marquel {

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
  // PushBytes for bytes past whose end eight more may be read, a whole word at a time,
  // after any number of pending bits (at most 63). The last word's bytes past the n are
  // written too, and left behind the position for the next writes to cover. At most 7
  // bits are pending after. It writes up to sixteen bytes past the n bytes' end.
  void PushWords(const uint8_t* bytes, size_t n) {
    if (n == 0) return Drain();
    const int p = pending;
    uint8_t* const start = at;
    uint64_t head = (acc << (63 - p)) << 1;  // the pending bits, at the top
    for (size_t i = 0; i < n; i += 8) {
      uint64_t chunk;
      std::memcpy(&chunk, bytes + i, 8);
      chunk = __builtin_bswap64(chunk);
      const uint64_t out = __builtin_bswap64(head | chunk >> p);
      std::memcpy(at, &out, 8);
      at += 8;
      head = (chunk << (63 - p)) << 1;
    }
    // More than seven bits pending before leave whole bytes of the last word in `head`.
    const uint64_t rest = __builtin_bswap64(head);
    std::memcpy(at, &rest, 8);
    at = start + (p >> 3) + n;
    pending = p & 7;
    acc = bytes[n - 1];  // its low bits are the ones still pending
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

// A BitOut with the end of its room, as a loop holds it.
struct BitRoom {
  BitOut bits;
  uint8_t* end = nullptr;

  bool HasRoom(size_t n) const { return static_cast<size_t>(end - bits.at) >= n; }
  // Asks for the lines of the n bytes from `ahead` bytes past the position to be written
  // soon. A prefetch never faults, so they may lie past the room.
  void WillWrite(size_t ahead, size_t n) const {
    for (size_t i = 0; i < n; i += 64) __builtin_prefetch(bits.at + ahead + i, 1);
  }
  void Push(uint64_t value, int n) { bits.Push(value, n); }
  void Drain() { bits.Drain(); }
  void PushBytes(const uint8_t* bytes, size_t n) { bits.PushBytes(bytes, n); }
  void PushWords(const uint8_t* bytes, size_t n) { bits.PushWords(bytes, n); }
};

// BitRoom's calls, counting the bits instead of storing them.
struct BitCount {
  uint64_t bits = 0;

  bool HasRoom(size_t) const { return true; }
  void WillWrite(size_t, size_t) const {}
  void Push(uint64_t, int n) { bits += static_cast<uint64_t>(n); }
  void Drain() {}
  void PushBytes(const uint8_t*, size_t n) { bits += static_cast<uint64_t>(n) * 8; }
  void PushWords(const uint8_t*, size_t n) { bits += static_cast<uint64_t>(n) * 8; }
};

}  // namespace marquel
