#include "tags/bit_buffer.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "platform/crc32.h"

namespace marquel {
namespace {

std::vector<uint8_t> Contents(const BitBuffer& b) {
  return std::vector<uint8_t>(b.data(), b.data() + b.size());
}

TEST(BitBuffer, WritesMostSignificantBitFirst) {
  BitBuffer b;
  b.WriteBits(1, 1);
  b.WriteBits(0, 2);
  b.WriteBits(0x5, 3);  // 101
  b.PadToByte();        // 1 00 101 00
  EXPECT_EQ(Contents(b), (std::vector<uint8_t>{0x94}));
  b.WriteBits(0x12345678, 32);
  b.PadToByte();
  EXPECT_EQ(Contents(b), (std::vector<uint8_t>{0x94, 0x12, 0x34, 0x56, 0x78}));
}

TEST(BitBuffer, KeepsOnlyTheLowBitsOfAValue) {
  BitBuffer b;
  b.WriteBits(0xFFFFFFF5, 4);  // 0101
  b.WriteBits(0xFFFFFFFF, 4);
  b.PadToByte();
  EXPECT_EQ(Contents(b), (std::vector<uint8_t>{0x5F}));
}

TEST(BitBuffer, PartialByteIsHiddenUntilPadded) {
  BitBuffer b;
  b.WriteBits(0x3, 5);
  EXPECT_EQ(b.size(), 0u);
  EXPECT_EQ(b.bit_count(), 5u);
  b.PadToByte();
  EXPECT_EQ(b.size(), 1u);
  EXPECT_EQ(b.bit_count(), 8u);
  b.PadToByte();  // already on a boundary: nothing added
  EXPECT_EQ(b.size(), 1u);
}

TEST(BitBuffer, CrcIsAppendedBigEndianAfterPadding) {
  BitBuffer b;
  const char text[] = "123456789";
  for (int i = 0; i < 9; ++i) b.WriteBits(static_cast<uint8_t>(text[i]), 8);
  b.AppendCrc();
  // The check value of the IEEE CRC-32 is 0xCBF43926.
  std::vector<uint8_t> want(text, text + 9);
  for (uint8_t x : {0xCB, 0xF4, 0x39, 0x26}) want.push_back(x);
  EXPECT_EQ(Contents(b), want);
  EXPECT_TRUE(b.HasValidCrc());
}

TEST(BitBuffer, EmptyStreamGetsCrcZero) {
  BitBuffer b;
  b.AppendCrc();
  EXPECT_EQ(Contents(b), (std::vector<uint8_t>{0, 0, 0, 0}));
  EXPECT_TRUE(b.HasValidCrc());
}

TEST(BitBuffer, CrcCheckFailsOnDamageAndOnShortBuffers) {
  BitBuffer b;
  b.WriteBits(0xAB, 8);
  b.AppendCrc();
  std::vector<uint8_t> bytes = Contents(b);
  bytes[0] ^= 0x01;
  BitBuffer damaged;
  damaged.Assign(bytes.data(), bytes.size());
  EXPECT_FALSE(damaged.HasValidCrc());
  BitBuffer tiny;
  tiny.Assign(bytes.data(), 3);
  EXPECT_FALSE(tiny.HasValidCrc());
}

TEST(BitBuffer, ReadsBackWhatWasWritten) {
  std::mt19937 rng(7);
  std::vector<std::pair<uint32_t, int>> fields;
  BitBuffer b(4);  // small on purpose: it must grow
  for (int i = 0; i < 5000; ++i) {
    int bits = static_cast<int>(rng() % 33);
    uint32_t value = rng();
    if (bits < 32) value &= (uint32_t{1} << bits) - 1;
    fields.emplace_back(value, bits);
    b.WriteBits(value, bits);
  }
  b.PadToByte();
  for (const auto& [value, bits] : fields) {
    uint32_t got = 0xDEAD;
    ASSERT_TRUE(b.ReadBits(bits, &got));
    ASSERT_EQ(got, value);
  }
  // Only the padding of the last byte is left.
  EXPECT_LT(b.bit_count() - b.read_position(), 8u);
  uint32_t v;
  EXPECT_FALSE(b.ReadBits(8, &v));
}

TEST(BitBuffer, ReadPastTheEndFailsAndKeepsThePosition) {
  BitBuffer b;
  b.WriteBits(0xA5, 8);
  b.PadToByte();
  uint32_t v;
  ASSERT_TRUE(b.ReadBits(3, &v));
  EXPECT_EQ(v, 5u);  // 101
  EXPECT_FALSE(b.ReadBits(6, &v));
  EXPECT_EQ(b.read_position(), 3u);
  ASSERT_TRUE(b.ReadBits(5, &v));
  EXPECT_EQ(v, 0x05u);  // 00101
}

TEST(BitBuffer, ByteReadsNeedABoundaryAndStopAtTheEnd) {
  BitBuffer b;
  for (uint8_t x : {1, 2, 3, 4, 5}) b.WriteBits(x, 8);
  EXPECT_EQ(b.size(), 4u);  // the fifth byte waits in the writer
  b.PadToByte();
  EXPECT_EQ(b.size(), 5u);
  uint8_t out[8] = {};
  EXPECT_EQ(b.ReadBytes(out, 2), 2u);
  EXPECT_EQ(out[1], 2);
  uint32_t v;
  b.ReadBits(1, &v);
  EXPECT_EQ(b.ReadBytes(out, 2), 0u);  // off a byte boundary
  b.SetReadPosition(16);
  EXPECT_EQ(b.ReadBytes(out, 8), 3u);
  EXPECT_EQ(out[2], 5);
  b.Rewind();
  EXPECT_EQ(b.read_position(), 0u);
  b.SetReadPosition(1000);  // clamped
  EXPECT_EQ(b.read_position(), 40u);
}

TEST(BitBuffer, UnalignedByteRunsKeepTheirBits) {
  BitBuffer b;
  b.WriteBits(1, 1);
  const uint8_t bytes[] = {0xFF, 0x00, 0x81};
  b.WriteBytes(bytes, 3);
  b.PadToByte();
  // 1 11111111 00000000 10000001 + 7 pad bits
  EXPECT_EQ(Contents(b), (std::vector<uint8_t>{0xFF, 0x80, 0x40, 0x80}));
}

TEST(BitBuffer, AssignReplacesContentAndClearKeepsCapacity) {
  BitBuffer b(100);
  EXPECT_GE(b.capacity(), 100u);
  b.WriteBits(0xFFFF, 16);
  const uint8_t bytes[] = {9, 8, 7};
  b.Assign(bytes, 3);
  EXPECT_EQ(Contents(b), (std::vector<uint8_t>{9, 8, 7}));
  b.Clear();
  EXPECT_EQ(b.size(), 0u);
  EXPECT_GE(b.capacity(), 100u);
}

TEST(BitReader, ReadsAcrossTheEndOfItsSpanWithoutOverrun) {
  // Three bytes: the fast path must not load past them.
  const uint8_t span[] = {0x12, 0x34, 0x56};
  BitReader r(span, 3);
  uint32_t v;
  ASSERT_TRUE(r.ReadBits(4, &v));
  ASSERT_TRUE(r.ReadBits(20, &v));
  EXPECT_EQ(v, 0x23456u);
  EXPECT_FALSE(r.ReadBits(1, &v));
  EXPECT_EQ(r.BitsLeft(), 0u);
  BitReader bad(span, 3);
  EXPECT_FALSE(bad.ReadBits(33, &v));
  uint8_t out[3];
  BitReader bytes(span, 3);
  ASSERT_TRUE(bytes.ReadBits(4, &v));
  EXPECT_FALSE(bytes.ReadBytes(out, 3));  // only 20 bits left
  ASSERT_TRUE(bytes.ReadBytes(out, 2));
  EXPECT_EQ(out[0], 0x23);
  EXPECT_EQ(out[1], 0x45);
}

}  // namespace
}  // namespace marquel
