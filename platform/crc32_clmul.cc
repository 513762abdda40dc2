// The reflected IEEE CRC-32 by folding with carry-less multiplication.
//
// Four 128-bit lanes each absorb 16 bytes a step, each moved on by 512 bits onto the
// next 64 bytes (see crc32_fold.h), which keeps the remainder unchanged while the data
// moves on. At the end the lanes fold into one, which reduces to the 32-bit remainder.
#include "crc32_fold.h"
#include "crc32_internal.h"

namespace marquel::crc32_internal {

#if MARQUEL_CRC_CLMUL

namespace {

constexpr size_t kFoldStep = 64;

MARQUEL_CLMUL_TARGET inline __m128i Load(const uint8_t* q) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
}

// Folds 64 bytes or more (a multiple of 16) into the state.
MARQUEL_CLMUL_TARGET uint32_t Fold(uint32_t state, const uint8_t* p, size_t n) {
  const __m128i by512 = FoldBy512(), by128 = FoldBy128();
  __m128i x1 = _mm_xor_si128(Load(p), _mm_cvtsi32_si128(static_cast<int>(state)));
  __m128i x2 = Load(p + 16), x3 = Load(p + 32), x4 = Load(p + 48);
  p += kFoldStep;
  n -= kFoldStep;
  for (; n >= kFoldStep; p += kFoldStep, n -= kFoldStep) {
    x1 = FoldLane(x1, by512, Load(p));
    x2 = FoldLane(x2, by512, Load(p + 16));
    x3 = FoldLane(x3, by512, Load(p + 32));
    x4 = FoldLane(x4, by512, Load(p + 48));
  }
  // Four lanes into one, then the remaining 16-byte pieces.
  x1 = FoldLane(x1, by128, x2);
  x1 = FoldLane(x1, by128, x3);
  x1 = FoldLane(x1, by128, x4);
  for (; n >= 16; p += 16, n -= 16) x1 = FoldLane(x1, by128, Load(p));
  return ReduceLane(x1);
}

}  // namespace

bool HaveClmul() {
  static const bool have = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return have;
}

uint32_t IeeeUpdateClmul(uint32_t state, const uint8_t* data, size_t size) {
  return FoldThenTable(state, data, size, 2 * kFoldStep, Fold, IeeeUpdateTable);
}

#else  // no carry-less multiplication on this processor family: both folding paths

bool HaveClmul() {
  return false;
}

bool HaveWideClmul() {
  return false;
}

uint32_t IeeeUpdateClmul(uint32_t state, const uint8_t* data, size_t size) {
  return IeeeUpdateTable(state, data, size);
}

uint32_t IeeeUpdateWideClmul(uint32_t state, const uint8_t* data, size_t size) {
  return IeeeUpdateTable(state, data, size);
}

#endif

}  // namespace marquel::crc32_internal
