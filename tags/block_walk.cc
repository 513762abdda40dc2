#include "block_walk.h"

#include <algorithm>

namespace marquel {

void TagWalk::Warm(size_t from, size_t to) const {
  const size_t a = std::min(pos + from, count);
  const size_t b = std::min(pos + to, count);
  if (a >= b) return;
  // One request per 64-byte line. The times, the most lines, go by prefetch, which does
  // not hold the loop up while they come; the rest by loads, which are never dropped (the
  // sum only keeps them from being optimised away). That mix measured fastest.
  for (size_t i = a; i < b; i += 64 / sizeof *times) __builtin_prefetch(times + i);
  uint64_t sum = 0;
  for (size_t i = a; i < b; i += 64 / sizeof *values) sum += static_cast<uint64_t>(values[i]);
  const uint64_t* offsets = batch.raw_offsets;
  if (offsets != nullptr) {
    for (size_t i = a; i < b; i += 64 / sizeof *offsets) sum += offsets[i];
    const uint64_t first = offsets[a], last = offsets[b - 1];
    if (first != BlockSampleBatch::kNoBytes && last != BlockSampleBatch::kNoBytes)
      for (uint64_t o = first; o < last; o += 64) sum += batch.raw_base[o];
  }
  asm volatile("" : : "r"(sum));
}

}  // namespace marquel
