// The ways the reflected IEEE CRC-32 is computed. Crc32IeeeUpdate picks the fastest
// one the processor offers; all are exposed here so that tests can hold them against
// each other.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marquel::crc32_internal {

// Table-driven, eight bytes a step; runs on every processor.
uint32_t IeeeUpdateTable(uint32_t state, const uint8_t* data, size_t size);

// The folding paths' common frame: data of at least `least` bytes has its whole 16-byte
// lanes folded by `fold` and the rest by the table; shorter data goes to `shorter`.
template <class Fold, class Shorter>
uint32_t FoldThenTable(uint32_t state, const uint8_t* data, size_t size, size_t least, Fold fold,
                       Shorter shorter) {
  if (size < least) return shorter(state, data, size);
  const size_t whole = size & ~size_t{15};
  return IeeeUpdateTable(fold(state, data, whole), data + whole, size - whole);
}

// Whether this processor has carry-less multiplication (PCLMULQDQ with SSE4.1).
bool HaveClmul();

// Folds 64 bytes a step with carry-less multiplication; needs HaveClmul(). Any size and
// alignment: the head and tail that do not fill a 16-byte lane go through the table.
uint32_t IeeeUpdateClmul(uint32_t state, const uint8_t* data, size_t size);

// Whether this processor folds 512-bit registers too (VPCLMULQDQ with AVX-512).
bool HaveWideClmul();

// Folds 256 bytes a step; needs HaveWideClmul(). Any size and alignment, as
// IeeeUpdateClmul.
uint32_t IeeeUpdateWideClmul(uint32_t state, const uint8_t* data, size_t size);

}  // namespace marquel::crc32_internal
