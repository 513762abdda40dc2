#include "platform/crc32.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

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
  std::vector<uint8_t> pat = {0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1, 0x00,
                              0x00, 0x00, 0x01, 0xF0, 0x00};
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
