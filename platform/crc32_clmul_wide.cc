// The reflected IEEE CRC-32 by folding 256 bytes a step, on processors with carry-less
// multiplication of 512-bit registers (VPCLMULQDQ with AVX-512).
//
// Four registers of four 128-bit lanes each absorb 64 bytes a step, each lane moved on
// by 2048 bits onto the next 256 bytes (see crc32_fold.h). At the end the registers fold
// into one by 512 bits, its four lanes into its last by 384, 256 and 128 bits, and that
// lane reduces to the 32-bit remainder.
#include "crc32_fold.h"
#include "crc32_internal.h"

namespace marquel::crc32_internal {

#if MARQUEL_CRC_CLMUL

namespace {

constexpr size_t kWideStep = 256;

#define MARQUEL_WIDE_TARGET __attribute__((target("avx512f,avx512vl,vpclmulqdq,pclmul,sse4.1")))

MARQUEL_WIDE_TARGET inline __m512i Load64(const uint8_t* q) {
  return _mm512_loadu_si512(q);
}

MARQUEL_WIDE_TARGET inline __m128i LoadLane(const uint8_t* q) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
}
// A lane's constants (high and low half) in every lane of a register.
MARQUEL_WIDE_TARGET inline __m512i Every(int64_t high, int64_t low) {
  return _mm512_set_epi64(high, low, high, low, high, low, high, low);
}

// Each lane of x moved on by the constants k (one lane's, in every lane), plus next.
MARQUEL_WIDE_TARGET inline __m512i FoldLanes(__m512i x, __m512i k, __m512i next) {
  const __m512i lo = _mm512_clmulepi64_epi128(x, k, 0x00);
  const __m512i hi = _mm512_clmulepi64_epi128(x, k, 0x11);
  return _mm512_ternarylogic_epi64(lo, hi, next, 0x96);  // lo ^ hi ^ next
}

// Folds 256 bytes or more (a multiple of 16) into the state.
MARQUEL_WIDE_TARGET uint32_t FoldWide(uint32_t state, const uint8_t* p, size_t n) {
  const __m512i by2048 = Every(0x01322d1430, 0x011542778a);
  const __m512i by512 = Every(0x01c6e41596, 0x0154442bd4);  // FoldBy512's
  const __m128i first = _mm_cvtsi32_si128(static_cast<int>(state));
  __m512i x0 = _mm512_xor_si512(Load64(p), _mm512_zextsi128_si512(first));
  __m512i x1 = Load64(p + 64), x2 = Load64(p + 128), x3 = Load64(p + 192);
  p += kWideStep;
  n -= kWideStep;
  for (; n >= kWideStep; p += kWideStep, n -= kWideStep) {
    x0 = FoldLanes(x0, by2048, Load64(p));
    x1 = FoldLanes(x1, by2048, Load64(p + 64));
    x2 = FoldLanes(x2, by2048, Load64(p + 128));
    x3 = FoldLanes(x3, by2048, Load64(p + 192));
  }
  x1 = FoldLanes(x0, by512, x1);
  x2 = FoldLanes(x1, by512, x2);
  x3 = FoldLanes(x2, by512, x3);
  for (; n >= 64; p += 64, n -= 64) x3 = FoldLanes(x3, by512, Load64(p));
  // The register's four lanes into its last, then the remaining 16-byte pieces.
  alignas(64) uint8_t lanes[64];
  _mm512_store_si512(lanes, x3);
  __m128i x = LoadLane(lanes + 48);
  x = FoldLane(LoadLane(lanes), FoldBy384(), x);
  x = FoldLane(LoadLane(lanes + 16), FoldBy256(), x);
  x = FoldLane(LoadLane(lanes + 32), FoldBy128(), x);
  for (; n >= 16; p += 16, n -= 16) x = FoldLane(x, FoldBy128(), LoadLane(p));
  return ReduceLane(x);
}

}  // namespace

bool HaveWideClmul() {
  static const bool have = HaveClmul() && __builtin_cpu_supports("avx512f") &&
                           __builtin_cpu_supports("avx512vl") &&
                           __builtin_cpu_supports("vpclmulqdq");
  return have;
}

uint32_t IeeeUpdateWideClmul(uint32_t state, const uint8_t* data, size_t size) {
  return FoldThenTable(state, data, size, 2 * kWideStep, FoldWide, IeeeUpdateClmul);
}

// Other processor families: see the stubs in crc32_clmul.cc.
#endif

}  // namespace marquel::crc32_internal
