// The length stream of a block, decoded ahead a batch at a time.
//
// Length items are 5 bits wide, so every 5 bytes of the stream hold exactly 8 of them,
// starting on a byte boundary. The queue decodes whole groups of 5 bytes with shifts
// alone and only the stream's last few bytes item by item, which keeps the work per
// item small and the block decoder's main loop free of a second bit reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace marquel {

class WidthQueue {
 public:
  static constexpr size_t kBatch = 256;  // a multiple of 8, so batches start on bytes
  // Follows the last item of a batch (an item is at most 31).
  static constexpr uint8_t kEndMark = 0xFF;

  // `deposit`: decode with the bit deposit instruction where it is fast (tests turn it
  // off to check the other way).
  WidthQueue(const uint8_t* data, size_t size, bool deposit = true)
      : next_(data), end_(data + size), deposit_(deposit && HaveFastDeposit()) {
    items_[0] = kEndMark;
  }

  // Decodes the next items (up to kBatch) into items(), followed by kEndMark, and
  // returns their count; 0 once the stream holds no whole item more.
  size_t Refill() {
    count_ = Decode(0);
    items_[count_] = kEndMark;
    return count_;
  }

  // Makes at least n (at most kBatch) items follow `next`, a position in items(), where
  // the stream has them: the items from `next` on move to the front, and more are
  // decoded after them. Returns where `next`'s item now is; *enough tells whether n
  // items follow it.
  const uint8_t* Ensure(const uint8_t* next, size_t n, bool* enough) {
    const size_t left = count_ - static_cast<size_t>(next - items_);
    *enough = left >= n;
    if (*enough) return next;
    std::memmove(items_, next, left);
    count_ = left;
    for (size_t more = 1; count_ < n && more > 0; count_ += more) more = Decode(count_);
    items_[count_] = kEndMark;
    *enough = count_ >= n;
    return items_;
  }

  const uint8_t* items() const { return items_; }

 private:
  // Decodes items after the first `n` of items_; returns how many it added.
  size_t Decode(size_t n) {
    const size_t first = n;
    // While eight bytes can be loaded, the group's five come in one load.
    n = deposit_ ? DecodeGroupsByDeposit(n) : DecodeGroups(n);
    while (n + 8 <= kBatch && end_ - next_ >= 5) {
      uint64_t x = uint64_t{next_[0]} << 32 | uint64_t{next_[1]} << 24 | uint64_t{next_[2]} << 16 |
                   uint64_t{next_[3]} << 8 | next_[4];
      for (int k = 0; k < 8; ++k) items_[n + k] = static_cast<uint8_t>((x >> (35 - 5 * k)) & 31);
      next_ += 5;
      n += 8;
    }
    if (n > first || n + 8 > kBatch) return n - first;
    // Fewer than 5 bytes remain: as many whole items as their bits hold.
    size_t bits = static_cast<size_t>(end_ - next_) * 8;
    uint64_t x = 0;
    for (const uint8_t* p = next_; p < end_; ++p) x = x << 8 | *p;
    for (size_t k = 0; (k + 1) * 5 <= bits && n < kBatch; ++k, ++n)
      items_[n] = static_cast<uint8_t>((x >> (bits - 5 * (k + 1))) & 31);
    next_ = end_;
    return n - first;
  }

  // Whole groups of 8 items while eight bytes can be loaded, from items_[n] on; returns
  // the new count.
  size_t DecodeGroups(size_t n) {
    while (n + 8 <= kBatch && end_ - next_ >= 8) {
      const uint64_t x = LoadGroup();
      for (int k = 0; k < 8; ++k) items_[n + k] = static_cast<uint8_t>((x >> (35 - 5 * k)) & 31);
      next_ += 5;
      n += 8;
    }
    return n;
  }
  // The group's 40 bits, item 0 highest.
  uint64_t LoadGroup() const {
    uint64_t w;
    std::memcpy(&w, next_, sizeof w);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    w = __builtin_bswap64(w);
#endif
    return w >> 24;
  }
#if defined(__x86_64__) && defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  // The same with one bit deposit per group: the 40 bits go to the low 5 bits of 8 bytes,
  // item 7 in the lowest byte, and a byte swap puts item 0 first in memory.
  __attribute__((target("bmi2"))) size_t DecodeGroupsByDeposit(size_t n) {
    while (n + 8 <= kBatch && end_ - next_ >= 8) {
      const uint64_t items =
          __builtin_bswap64(__builtin_ia32_pdep_di(LoadGroup(), 0x1F1F1F1F1F1F1F1Full));
      std::memcpy(items_ + n, &items, sizeof items);
      next_ += 5;
      n += 8;
    }
    return n;
  }
  // Whether the bit deposit is there and fast: the first two generations of one maker's
  // processors have it in microcode, slower than the plain loop.
  static bool HaveFastDeposit() {
    static const bool fast = __builtin_cpu_supports("bmi2") && !__builtin_cpu_is("znver1") &&
                             !__builtin_cpu_is("znver2");
    return fast;
  }
#else
  size_t DecodeGroupsByDeposit(size_t n) {
    return DecodeGroups(n);
  }
  static bool HaveFastDeposit() {
    return false;
  }
#endif

  const uint8_t* next_;
  const uint8_t* end_;
  const bool deposit_;
  size_t count_ = 0;  // items decoded into items_
  uint8_t items_[kBatch + 1];
};

}  // namespace marquel
