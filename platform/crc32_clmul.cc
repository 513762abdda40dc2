// The reflected IEEE CRC-32 by folding with carry-less multiplication.
//
// Four 128-bit lanes each absorb 16 bytes a step: a lane's value is multiplied (without
// carries) by x^(512+32) and x^(512-32) modulo the polynomial and added to the next 64
// bytes, which keeps the remainder unchanged while the data moves on. At the end the
// lanes fold into one, the 128 bits fold to 64, and a Barrett reduction gives the 32-bit
// remainder. The constants are those powers of x modulo the polynomial, bit-reflected,
// and the Barrett constant floor(x^64 / P); the table path is the reference that tests
// hold this one against.
#include "crc32_internal.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define MARQUEL_CRC_CLMUL 1
#endif

namespace marquel::crc32_internal {

#if MARQUEL_CRC_CLMUL

namespace {

constexpr size_t kFoldStep = 64;

#define MARQUEL_CLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

MARQUEL_CLMUL_TARGET inline __m128i Load(const uint8_t* q) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
}

// x times the two constants of k (low and high halves), plus next.
MARQUEL_CLMUL_TARGET inline __m128i FoldLane(__m128i x, __m128i k, __m128i next) {
  __m128i lo = _mm_clmulepi64_si128(x, k, 0x00);
  __m128i hi = _mm_clmulepi64_si128(x, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

// Folds 64 bytes or more (a multiple of 16) into the state.
MARQUEL_CLMUL_TARGET uint32_t Fold(uint32_t state, const uint8_t* p, size_t n) {
  const __m128i k1k2 = _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);
  const __m128i k3k4 = _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);
  const __m128i k5 = _mm_set_epi64x(0, 0x0163cd6124);
  const __m128i poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);
  const __m128i low32 = _mm_setr_epi32(~0, 0, ~0, 0);
  __m128i x1 = _mm_xor_si128(Load(p), _mm_cvtsi32_si128(static_cast<int>(state)));
  __m128i x2 = Load(p + 16), x3 = Load(p + 32), x4 = Load(p + 48);
  p += kFoldStep;
  n -= kFoldStep;
  for (; n >= kFoldStep; p += kFoldStep, n -= kFoldStep) {
    x1 = FoldLane(x1, k1k2, Load(p));
    x2 = FoldLane(x2, k1k2, Load(p + 16));
    x3 = FoldLane(x3, k1k2, Load(p + 32));
    x4 = FoldLane(x4, k1k2, Load(p + 48));
  }
  // Four lanes into one, then the remaining 16-byte pieces.
  x1 = FoldLane(x1, k3k4, x2);
  x1 = FoldLane(x1, k3k4, x3);
  x1 = FoldLane(x1, k3k4, x4);
  for (; n >= 16; p += 16, n -= 16) x1 = FoldLane(x1, k3k4, Load(p));

  // 128 bits to 64.
  __m128i t = _mm_clmulepi64_si128(x1, k3k4, 0x10);
  x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), t);
  t = _mm_srli_si128(x1, 4);
  x1 = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x1, low32), k5, 0x00), t);

  // Barrett reduction to 32 bits.
  t = _mm_clmulepi64_si128(_mm_and_si128(x1, low32), poly, 0x10);
  t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), poly, 0x00);
  x1 = _mm_xor_si128(x1, t);
  return static_cast<uint32_t>(_mm_extract_epi32(x1, 1));
}

}  // namespace

bool HaveClmul() {
  static const bool have = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return have;
}

uint32_t IeeeUpdateClmul(uint32_t state, const uint8_t* data, size_t size) {
  if (size < 2 * kFoldStep) return IeeeUpdateTable(state, data, size);
  size_t whole = size & ~size_t{15};
  state = Fold(state, data, whole);
  return IeeeUpdateTable(state, data + whole, size - whole);
}

#else  // no carry-less multiplication on this processor family

bool HaveClmul() {
  return false;
}

uint32_t IeeeUpdateClmul(uint32_t state, const uint8_t* data, size_t size) {
  return IeeeUpdateTable(state, data, size);
}

#endif

}  // namespace marquel::crc32_internal
