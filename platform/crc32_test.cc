#include "platform/crc32.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "crc32_internal.h"

namespace marquel {
namespace {

TEST(Crc32Ieee, KnownVectors) {
  EXPECT_EQ(Crc32Ieee("123456789", 9), 0xCBF43926u);
  EXPECT_EQ(Crc32Ieee("", 0), 0u);
  EXPECT_EQ(Crc32Ieee("a", 1), 0xE8B7BE43u);
  const std::string fox = "The quick brown fox jumps over the lazy dog";
  EXPECT_EQ(Crc32Ieee(fox.data(), fox.size()), 0x414FA339u);
}

TEST(Crc32Mpeg, KnownVectors) {
  EXPECT_EQ(Crc32Mpeg("123456789", 9), 0x0376E6E7u);
  EXPECT_EQ(Crc32Mpeg("", 0), 0xFFFFFFFFu);
}

// A PAT section of one program followed by its own CRC checks to 0, which is how
// receivers test MPEG-2 sections.
TEST(Crc32Mpeg, SectionWithItsCrcGivesZero) {
  std::vector<uint8_t> pat = {0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1,
                              0x00, 0x00, 0x00, 0x01, 0xF0, 0x00};
  uint32_t crc = Crc32Mpeg(pat.data(), pat.size());
  for (int shift = 24; shift >= 0; shift -= 8) pat.push_back(uint8_t(crc >> shift));
  EXPECT_EQ(Crc32Mpeg(pat.data(), pat.size()), 0u);
  // The well-known PAT of many broadcasts ends in 2A B1 04 B2.
  EXPECT_EQ(crc, 0x2AB104B2u);
}

TEST(Crc32, ChunkedFeedEqualsOneCall) {
  std::mt19937 rng(7);
  std::vector<uint8_t> data(10007);
  for (auto& b : data) b = uint8_t(rng());
  const uint32_t ieee = Crc32Ieee(data.data(), data.size());
  const uint32_t mpeg = Crc32Mpeg(data.data(), data.size());
  for (size_t chunk : {1u, 3u, 7u, 8u, 9u, 64u, 1000u}) {
    uint32_t a = kCrc32IeeeInit, m = kCrc32MpegInit;
    for (size_t off = 0; off < data.size(); off += chunk) {
      size_t n = std::min(chunk, data.size() - off);
      a = Crc32IeeeUpdate(a, data.data() + off, n);
      m = Crc32MpegUpdate(m, data.data() + off, n);
    }
    EXPECT_EQ(Crc32IeeeFinish(a), ieee) << "chunk " << chunk;
    EXPECT_EQ(m, mpeg) << "chunk " << chunk;
  }
}

// The table-driven reflected CRC agrees with the bit-at-a-time definition.
TEST(Crc32Ieee, MatchesBitwiseDefinition) {
  std::mt19937 rng(11);
  std::vector<uint8_t> data(333);
  for (auto& b : data) b = uint8_t(rng());
  uint32_t c = 0xFFFFFFFFu;
  for (uint8_t b : data) {
    c ^= b;
    for (int i = 0; i < 8; ++i) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
  }
  EXPECT_EQ(Crc32Ieee(data.data(), data.size()), ~c);
}

}  // namespace
}  // namespace marquel

namespace marquel {
namespace {

// The folding path must agree with the table path for every length around its block
// boundaries, at every alignment, and when a buffer is fed in pieces.
TEST(Crc32Ieee, FoldingAgreesWithTheTable) {
  if (!crc32_internal::HaveClmul()) GTEST_SKIP() << "no carry-less multiplication here";
  std::vector<uint8_t> data(4096 + 64);
  uint32_t seed = 7;
  for (auto& b : data) b = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 16);
  for (size_t align = 0; align < 16; ++align) {
    for (size_t n = 0; n <= 700; ++n) {
      const uint8_t* p = data.data() + align;
      ASSERT_EQ(crc32_internal::IeeeUpdateClmul(kCrc32IeeeInit, p, n),
                crc32_internal::IeeeUpdateTable(kCrc32IeeeInit, p, n))
          << "length " << n << " alignment " << align;
    }
  }
  const uint32_t whole = crc32_internal::IeeeUpdateTable(0x12345678u, data.data(), 4096);
  EXPECT_EQ(crc32_internal::IeeeUpdateClmul(0x12345678u, data.data(), 4096), whole);
  uint32_t pieces = crc32_internal::IeeeUpdateClmul(0x12345678u, data.data(), 1000);
  pieces = crc32_internal::IeeeUpdateClmul(pieces, data.data() + 1000, 3096);
  EXPECT_EQ(pieces, whole);
}

// The same for the 512-bit folding path, around its 256-byte steps and its 64-byte and
// 16-byte tails.
TEST(Crc32Ieee, WideFoldingAgreesWithTheTable) {
  if (!crc32_internal::HaveWideClmul()) GTEST_SKIP() << "no 512-bit carry-less multiplication here";
  std::vector<uint8_t> data(4096 + 64);
  uint32_t seed = 11;
  for (auto& b : data) b = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 16);
  for (size_t align = 0; align < 64; align += 7) {
    for (size_t n = 0; n <= 1600; ++n) {
      const uint8_t* p = data.data() + align;
      ASSERT_EQ(crc32_internal::IeeeUpdateWideClmul(0x9E3779B9u, p, n),
                crc32_internal::IeeeUpdateTable(0x9E3779B9u, p, n))
          << "length " << n << " alignment " << align;
    }
  }
  std::vector<uint8_t> flipped(1024, 0xA5);
  const uint32_t clean = crc32_internal::IeeeUpdateWideClmul(kCrc32IeeeInit, flipped.data(), 1024);
  for (size_t bit = 0; bit < flipped.size() * 8; bit += 29) {
    flipped[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    const uint32_t folded =
        crc32_internal::IeeeUpdateWideClmul(kCrc32IeeeInit, flipped.data(), flipped.size());
    EXPECT_NE(folded, clean) << "bit " << bit;
    EXPECT_EQ(folded,
              crc32_internal::IeeeUpdateTable(kCrc32IeeeInit, flipped.data(), flipped.size()));
    flipped[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
  }
}

// A flipped bit anywhere in a long buffer changes the folded CRC as it changes the table's.
TEST(Crc32Ieee, FoldingSeesEveryFlippedBit) {
  if (!crc32_internal::HaveClmul()) GTEST_SKIP() << "no carry-less multiplication here";
  std::vector<uint8_t> data(256, 0x5A);
  const uint32_t clean = crc32_internal::IeeeUpdateClmul(kCrc32IeeeInit, data.data(), data.size());
  for (size_t bit = 0; bit < data.size() * 8; bit += 13) {
    data[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    uint32_t folded = crc32_internal::IeeeUpdateClmul(kCrc32IeeeInit, data.data(), data.size());
    EXPECT_NE(folded, clean) << "bit " << bit;
    EXPECT_EQ(folded, crc32_internal::IeeeUpdateTable(kCrc32IeeeInit, data.data(), data.size()));
    data[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
  }
}

}  // namespace
}  // namespace marquel
