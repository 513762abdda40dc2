// The MQ information packet: every field in order, the run of one-bits, the strict reader.
#include "media/mq_ts_info.h"

#include <gtest/gtest.h>

#include <vector>

namespace marquel {
namespace {

using Bytes = std::vector<uint8_t>;

MQTsInfo Info(size_t programs) {
  MQTsInfo info;
  info.original_mtime = 0x0102030405060708;
  info.original_size = 0x1122334455;
  info.mq_pid = 8160;
  info.merge_mtime = 0x0A0B0C0D0E0F1011;
  for (size_t i = 0; i < programs; ++i) {
    info.programs.push_back(
        {static_cast<uint16_t>(0x100 + i), static_cast<int64_t>(1000 * (i + 1))});
  }
  return info;
}

Bytes Unit(const MQTsInfo& info, int32_t unit = 188) {
  Bytes out;
  EXPECT_TRUE(SerialiseMQTsInfo(info, unit, &out));
  return out;
}

TEST(MQTsInfo, EveryFieldIsWrittenInOrder) {
  const Bytes u = Unit(Info(1));
  ASSERT_EQ(u.size(), 188u);
  const Bytes head = {0x47, 0x40, 0xE1, 0x10, 0x00, 0xFE, 0xF0, 0x4D, 0xFF, 0xFF, 0x01, 0x00, 0x00,
                      0xF0, 0x2E, 0xE0, 0x06, 'M',  'Q',  'D',  'A',  'T',  'A',  0xE1, 0x08, 1,
                      2,    3,    4,    5,    6,    7,    8,    0xE2, 0x08, 0,    0,    0,    0x11,
                      0x22, 0x33, 0x44, 0x55, 0xE3, 0x02, 0,    1,    0xE4, 0x02, 0x1F, 0xE0, 0xE5,
                      0x08, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11, 0x01, 0x00, 0x40, 0x0A,
                      0xF0, 0x08, 0,    0,    0,    0,    0,    0,    0x03, 0xE8};
  EXPECT_EQ(Bytes(u.begin(), u.begin() + head.size()), head);
}

TEST(MQTsInfo, TheTrailingRunIsCountedInBits) {
  // One program: 113 one-bits, 14 bytes of 0xFF and one bit; then zero bits to the byte.
  const Bytes one = Unit(Info(1));
  const size_t end1 = 61 + 14;
  for (size_t i = end1; i < end1 + 14; ++i) EXPECT_EQ(one[i], 0xFF) << i;
  EXPECT_EQ(one[end1 + 14], 0x80);
  // Eight programs: 15 one-bits.
  const Bytes eight = Unit(Info(8));
  const size_t end8 = 61 + 14 * 8;
  EXPECT_EQ(eight[end8], 0xFF);
  EXPECT_EQ(eight[end8 + 1], 0xFE);
  // Three programs: 85 bits, 10 bytes and 5 bits.
  const Bytes three = Unit(Info(3));
  EXPECT_EQ(three[61 + 42 + 10], 0xF8);
}

TEST(MQTsInfo, TheUnitOf192BeginsWithFourFFBytesAnd204WithSixteen) {
  const Bytes u192 = Unit(Info(2), 192);
  ASSERT_EQ(u192.size(), 192u);
  EXPECT_EQ(Bytes(u192.begin(), u192.begin() + 5), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0x47}));
  const Bytes u204 = Unit(Info(2), 204);
  ASSERT_EQ(u204.size(), 204u);
  for (size_t i = 0; i < 16; ++i) EXPECT_EQ(u204[i], 0xFF);
  EXPECT_EQ(u204[16], 0x47);
  EXPECT_EQ(Bytes(u204.begin() + 16, u204.end()), Unit(Info(2)));
}

TEST(MQTsInfo, WhatIsWrittenReadsBackForEveryUnitSize) {
  for (const int32_t unit : {188, 192, 204}) {
    const MQTsInfo info = Info(8);
    const Bytes u = Unit(info, unit);
    const auto back = ParseMQTsInfo(u.data(), unit, 9000, 9000 + unit);
    ASSERT_TRUE(back.has_value()) << unit;
    EXPECT_EQ(back->original_mtime, info.original_mtime);
    EXPECT_EQ(back->original_size, info.original_size);
    EXPECT_EQ(back->mq_pid, 8160);
    EXPECT_EQ(back->merge_mtime, info.merge_mtime);
    ASSERT_EQ(back->programs.size(), 8u);
    EXPECT_EQ(back->programs[7].pmt_pid, 0x107);
    EXPECT_EQ(back->programs[7].end_offset, 8000);
  }
}

TEST(MQTsInfo, TheWriterRefusesNoProgramsNineProgramsAndOddUnits) {
  Bytes out;
  EXPECT_FALSE(SerialiseMQTsInfo(Info(0), 188, &out));
  EXPECT_FALSE(SerialiseMQTsInfo(Info(9), 188, &out));
  EXPECT_FALSE(SerialiseMQTsInfo(Info(1), 190, &out));
  EXPECT_TRUE(out.empty());
}

TEST(MQTsInfo, TheReaderRejectsAnyChangedFixedByte) {
  const Bytes good = Unit(Info(2));
  ASSERT_TRUE(ParseMQTsInfo(good.data(), 188, 5000, 5188));
  // Every byte of the opening, the tags, the marker and the per-program fixed fields.
  std::vector<size_t> fixed;
  for (size_t i = 0; i < 23; ++i) fixed.push_back(i);
  for (size_t i : {23, 24, 33, 34, 43, 44, 47, 48, 51, 52}) fixed.push_back(i);
  for (size_t k = 0; k < 2; ++k) {
    for (size_t i = 2; i < 6; ++i) fixed.push_back(61 + 14 * k + i);
  }
  for (size_t i : fixed) {
    Bytes bad = good;
    bad[i] ^= 0x01;
    EXPECT_FALSE(ParseMQTsInfo(bad.data(), 188, 5000, 5188)) << "byte " << i;
  }
}

TEST(MQTsInfo, TheReaderRejectsBadCountsPidsAndEndOffsets) {
  const Bytes good = Unit(Info(2));
  auto with = [&](size_t at, std::initializer_list<uint8_t> bytes) {
    Bytes b = good;
    size_t i = at;
    for (uint8_t v : bytes) b[i++] = v;
    return ParseMQTsInfo(b.data(), 188, 5000, 5188).has_value();
  };
  EXPECT_FALSE(with(45, {0, 0}));        // no programs
  EXPECT_FALSE(with(45, {0, 9}));        // nine programs
  EXPECT_FALSE(with(49, {0x20, 0x00}));  // MQ PID beyond 13 bits
  EXPECT_FALSE(with(61, {0xFF, 0xFF}));  // PMT PID beyond 13 bits
  // The second program ends before the first; an end past the unit; an end of 0.
  EXPECT_FALSE(with(75 + 6, {0, 0, 0, 0, 0, 0, 0x01, 0x00}));
  EXPECT_FALSE(with(75 + 6, {0, 0, 0, 0, 0, 0, 0x13, 0x89}));
  EXPECT_FALSE(with(61 + 6, {0, 0, 0, 0, 0, 0, 0, 0}));
  // The unit must lie inside the file, and the unit size be known.
  EXPECT_FALSE(ParseMQTsInfo(good.data(), 188, 5000, 5100));
  EXPECT_FALSE(ParseMQTsInfo(good.data(), 190, 5000, 5190));
  EXPECT_TRUE(with(75 + 6, {0, 0, 0, 0, 0, 0, 0x13, 0x88}));  // ends at the unit: fine
}

}  // namespace
}  // namespace marquel
