#include "bit_out.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "tags/bit_buffer.h"

namespace marquel {
namespace {

// The bytes a BitBuffer stores for `lead` bits of `lead_value` followed by `bytes`.
std::vector<uint8_t> Expected(uint64_t lead_value, int lead, const std::vector<uint8_t>& bytes) {
  BitBuffer b;
  if (lead > 32) b.WriteBits(static_cast<uint32_t>(lead_value >> 32), lead - 32);
  b.WriteBits(static_cast<uint32_t>(lead_value), lead > 32 ? 32 : lead);
  b.WriteBytes(bytes.data(), bytes.size());
  b.PadToByte();
  return std::vector<uint8_t>(b.data(), b.data() + b.size());
}

// Writes the same through BitOut with `push` (PushBytes or PushWords) and a final Flush.
template <class Push>
std::vector<uint8_t> Written(uint64_t lead_value, int lead, const std::vector<uint8_t>& bytes,
                             Push push) {
  std::vector<uint8_t> out(bytes.size() + 32, 0xEE);
  BitOut bits;
  bits.at = out.data();
  bits.Push(lead_value, lead);
  push(bits);
  bits.Flush();
  out.resize(static_cast<size_t>(bits.at - out.data()));
  return out;
}

// PushBytes takes at most 7 pending bits before its bytes, PushWords up to 63.
TEST(BitOut, WordsAndBytesWriteTheSameAfterAnyPendingBits) {
  uint32_t seed = 7;
  for (size_t n = 0; n <= 40; ++n) {
    // The source holds eight readable bytes past the n, which must not be written.
    std::vector<uint8_t> source(n + 8);
    for (auto& b : source) b = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 16);
    const std::vector<uint8_t> bytes(source.begin(), source.begin() + static_cast<long>(n));
    for (int lead = 0; lead <= 63; ++lead) {
      const uint64_t lead_value = lead == 0 ? 0 : 0xA5C3F00F5AA53CC3ull >> (64 - lead);
      const auto expected = Expected(lead_value, lead, bytes);
      EXPECT_EQ(Written(lead_value, lead, bytes, [&](BitOut& b) { b.PushWords(source.data(), n); }),
                expected)
          << "n=" << n << " lead=" << lead;
      if (lead > 7) continue;
      EXPECT_EQ(Written(lead_value, lead, bytes, [&](BitOut& b) { b.PushBytes(source.data(), n); }),
                expected)
          << "n=" << n << " lead=" << lead;
    }
  }
}

TEST(BitOut, WordsLeaveTheirPendingBitsForTheNextItem) {
  // Three bits, then five bytes by words, then nine bits: the words' last byte's low
  // three bits must still be pending when the nine bits come.
  const std::vector<uint8_t> source = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xFF, 0xFF,
                                       0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  std::vector<uint8_t> out(32, 0);
  BitOut bits;
  bits.at = out.data();
  bits.Push(0b101, 3);
  bits.PushWords(source.data(), 5);
  bits.Push(0x1FF, 9);
  bits.Flush();
  out.resize(static_cast<size_t>(bits.at - out.data()));

  BitBuffer b;
  b.WriteBits(0b101, 3);
  b.WriteBytes(source.data(), 5);
  b.WriteBits(0x1FF, 9);
  b.PadToByte();
  EXPECT_EQ(out, std::vector<uint8_t>(b.data(), b.data() + b.size()));
}

}  // namespace
}  // namespace marquel
