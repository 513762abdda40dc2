// The pieces both folding CRC paths share: folding one 128-bit lane into another, and
// reducing the last lane to the 32-bit remainder.
//
// A lane of the reflected IEEE CRC-32 moves D bits on when its two 64-bit halves are
// multiplied (without carries) by x^(D+32) and x^(D-32) modulo the polynomial and the
// products are added to the lane D bits further. The constants below are those powers,
// bit-reflected and shifted left by one, as the low and high halves of a lane; the last
// steps use x^64 and the Barrett constant floor(x^64 / P). The table path is the
// reference that tests hold the folding paths against.
#pragma once

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>

#include <cstdint>

#define MARQUEL_CRC_CLMUL 1
#define MARQUEL_CLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

namespace marquel::crc32_internal {

// The constants of a move by 128, 256, 384 and 512 bits (x^(D+32) low, x^(D-32) high).
MARQUEL_CLMUL_TARGET inline __m128i FoldBy128() {
  return _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);
}
MARQUEL_CLMUL_TARGET inline __m128i FoldBy256() {
  return _mm_set_epi64x(0x015a546366, 0x00f1da05aa);
}
MARQUEL_CLMUL_TARGET inline __m128i FoldBy384() {
  return _mm_set_epi64x(0x0174359406, 0x003db1ecdc);
}
MARQUEL_CLMUL_TARGET inline __m128i FoldBy512() {
  return _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);
}

// x moved on by the constants k, plus next.
MARQUEL_CLMUL_TARGET inline __m128i FoldLane(__m128i x, __m128i k, __m128i next) {
  __m128i lo = _mm_clmulepi64_si128(x, k, 0x00);
  __m128i hi = _mm_clmulepi64_si128(x, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

// The remainder of the last lane: 128 bits to 64, then a Barrett reduction to 32.
MARQUEL_CLMUL_TARGET inline uint32_t ReduceLane(__m128i x) {
  const __m128i k5 = _mm_set_epi64x(0, 0x0163cd6124);
  const __m128i poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);
  const __m128i low32 = _mm_setr_epi32(~0, 0, ~0, 0);
  __m128i t = _mm_clmulepi64_si128(x, FoldBy128(), 0x10);
  x = _mm_xor_si128(_mm_srli_si128(x, 8), t);
  t = _mm_srli_si128(x, 4);
  x = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x, low32), k5, 0x00), t);
  t = _mm_clmulepi64_si128(_mm_and_si128(x, low32), poly, 0x10);
  t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), poly, 0x00);
  x = _mm_xor_si128(x, t);
  return static_cast<uint32_t>(_mm_extract_epi32(x, 1));
}

}  // namespace marquel::crc32_internal

#endif
