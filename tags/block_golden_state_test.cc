// Golden blocks of the state tags (17, 251, 252) and of the other special ids (253, 254),
// written out by hand. I = 333333 = 0x051615 is the default interval; it is written as
// the three bytes 15 16 05 after each state item. CRC bytes come from zlib's crc32.
#include <gtest/gtest.h>

#include "block_test_util.h"

namespace marquel {
namespace {

using namespace blocktest;

constexpr int64_t I = 333333;

Pairs Grid(int64_t from, int64_t to, int32_t value) {
  Pairs out;
  for (int64_t t = from; t <= to; t += I) out.emplace_back(t, value);
  return out;
}

TEST(BlockGoldenState, ConstantStateIsOneStateItemAndOneEndItem) {
  // Tag 17 (2 bits, type 3), interval I, value 1 at 0, I, 2I, 3I, 4I.
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
       0x13, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x01, 0x00, 0x18, 0xDC, 0xB6, 0x25},
      // rel (time 0), tag 17 (state item); abs (time 4I), tag 17 (end item).
      {0x01, 0x11, 0x00, 0x11, 0xEE, 0xAC, 0x51, 0xCC},
      // 00010 00010 + pad: 0001'0000 1000'0000.
      {0x10, 0x80, 0xE6, 0xA3, 0x83, 0x8E},
      // 00 00 00: step 0. 11 (1 | 2) and 15 16 05 shifted by two bits: C5 45 81 + 01...;
      // previous is still 0, so 4I = 1333332 = 0x145854 is an absolute entry: groups
      // 5854 0014 0000 0000 -> (01)010110 (00)010101 (00)000000 (00)000101 00 00 00 00;
      // then the end item 00 and the pad.
      {0x00, 0x00, 0x00, 0xC5, 0x45, 0x81, 0x56, 0x15, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00,
       0xD4, 0xD2, 0xED, 0x75},
  });
  BlockContent c;
  AddPlain(c, 17, Grid(0, 4 * I, 1));
  c.tags[17].interval = I;
  EXPECT_EQ(Encode(c), golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  EXPECT_EQ(SamplesOf(back, 17), Grid(0, 4 * I, 1));
  EXPECT_EQ(back.tags[17].interval, I);
  EXPECT_TRUE(back.tags[17].interval_set);
}

TEST(BlockGoldenState, RunsBreakByValueAndByGap) {
  // Tag 252 (2 bits, type 3): 1 at 0 and I, 0 at 2I, 3I and 10I, 1 at 11I.
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00,
       0x20, 0x00, 0x00, 0x00, 0x0D, 0x00, 0x00, 0x01, 0x00, 0x3D, 0x66, 0xC9, 0xF2},
      // t=0: rel, state 1 | t=2I: rel, state 0 | t=10I: abs, end (gap of 7I after sample
      // 3) | t=11I: rel, state 1, end (last sample).
      {0x01, 0xFC, 0x01, 0xFC, 0x00, 0xFC, 0x01, 0xFC, 0xFC, 0x5C, 0xE1, 0x00, 0x90},
      // five times 00010 + pad.
      {0x10, 0x84, 0x21, 0x00, 0x1B, 0xFE, 0x2E, 0x3C},
      // 00 00 00 | 11 15 16 05 | 2I = 666666 = 2A 2C 0A | 10 15 16 05 |
      // 10I - 2I >= 1000000: abs 3333330 = 0x32DCD2 (DCD2 0032 0000 0000) | 00 |
      // I: 15 16 05 | 11 15 16 05 | 00 | pad. After the first state item everything is
      // shifted by two bits, after the second by four, after the end item by six.
      {0x00, 0x00, 0x00, 0xC5, 0x45, 0x81, 0x4A, 0x8B, 0x02, 0xA1, 0x51,
       0x60, 0x5D, 0xCD, 0x20, 0x03, 0x20, 0x00, 0x00, 0x00, 0x00, 0x54,
       0x58, 0x17, 0x15, 0x16, 0x05, 0x00, 0x38, 0x19, 0xAD, 0xC6},
  });
  BlockContent c;
  AddPlain(c, 252, {{0, 1}, {I, 1}, {2 * I, 0}, {3 * I, 0}, {10 * I, 0}, {11 * I, 1}});
  // Interval 0 is written as the default I.
  EXPECT_EQ(Encode(c), golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  // The value change fills state 1 from the run start (exclusive) to 2I (exclusive); the
  // end item at 10I fills state 0 from 2I up to and including 10I, across the gap.
  Pairs expected = {{0, 1}, {I, 1}};
  for (const auto& p : Grid(2 * I, 10 * I, 0)) expected.push_back(p);
  expected.emplace_back(11 * I, 1);
  EXPECT_EQ(SamplesOf(back, 252), expected);
}

TEST(BlockGoldenState, GapsBeforeSampleThreeDoNotEndARun) {
  // Tag 17: 0 at 0, 10I (a gap at sample 1) and 11I (last).
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
       0x13, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x01, 0x00, 0x18, 0xDC, 0xB6, 0x25},
      {0x01, 0x11, 0x00, 0x11, 0xEE, 0xAC, 0x51, 0xCC},  // rel, state; abs, end
      {0x10, 0x80, 0xE6, 0xA3, 0x83, 0x8E},
      // 00 00 00 | 10 15 16 05 | 11I = 3666663 = 0x37F327: F327 0037 0000 0000 | 00.
      {0x00, 0x00, 0x00, 0x85, 0x45, 0x81, 0x7C, 0xB9, 0xC0, 0x0D, 0xC0, 0x00, 0x00, 0x00, 0x00,
       0xC7, 0xD7, 0x55, 0x46},
  });
  BlockContent c;
  AddPlain(c, 17, {{0, 0}, {10 * I, 0}, {11 * I, 0}});
  EXPECT_EQ(Encode(c), golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  EXPECT_EQ(SamplesOf(back, 17), Grid(0, 11 * I, 0));
}

TEST(BlockGoldenState, SpecialIds17To254InOneStep) {
  // At 1000000 and 1000001: tag 17 (interval 0 -> I) 0, 0; tag 251 (type 4, interval
  // 150000 = 0x0249F0) 1, 0; tag 252 (interval 1) 1 only; tag 253 (1 bit) 1, 0;
  // tag 254 (8-bit delta) 200, 300.
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0B, 0x00, 0x00, 0x00,
       0x1F, 0x00, 0x00, 0x00, 0x11, 0x00, 0x00, 0x01, 0x00, 0xD4, 0x34, 0xD0, 0xBC},
      // abs; 17, 251, 252 (state), 252 (end: last sample), 253, 254 |
      // rel; 17 (end), 251 (state), 251 (end), 253, 254.
      {0x00, 0x11, 0xFB, 0xFC, 0xFC, 0xFD, 0xFE, 0x01, 0x11, 0xFB, 0xFB, 0xFD, 0xFE, 0x9D, 0x8B,
       0x3B, 0x54},
      // 00010 x4, 00001, 01000, 00010 x3, 00001, 01000 (55 bits) + pad.
      {0x10, 0x84, 0x20, 0xA0, 0x42, 0x10, 0x50, 0xA1, 0x8E, 0x39, 0x74},
      // 42 40 00 0F 00 00 00 00 (1000000 = 0x0F4240, absolute: 1000000 - 0 is not below
      // 1000000) | 10 15 16 05 | 11 F0 49 02 | 11 01 00 00 | 00 | 1 | C8 |
      // 01 00 00 | 00 | 10 F0 49 02 | 00 | 0 | 64 (300 - 200 = 100).
      {0x42, 0x40, 0x00, 0x0F, 0x00, 0x00, 0x00, 0x00, 0x85, 0x45, 0x81,
       0x7F, 0x04, 0x90, 0x2C, 0x04, 0x00, 0x00, 0xE4, 0x00, 0x80, 0x00,
       0x17, 0x82, 0x48, 0x10, 0x64, 0x95, 0xF3, 0x28, 0xE8},
  });
  constexpr int64_t t1 = 1000000, t2 = 1000001;
  BlockContent c;
  AddPlain(c, 17, {{t1, 0}, {t2, 0}});
  AddPlain(c, 251, {{t1, 1}, {t2, 0}});
  c.tags[251].interval = 150000;
  AddPlain(c, 252, {{t1, 1}});
  c.tags[252].interval = 1;
  AddPlain(c, 253, {{t1, 1}, {t2, 0}});
  AddPlain(c, 254, {{t1, 200}, {t2, 300}});
  EXPECT_EQ(Encode(c), golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  // Tag 17's run of 0 from t1 ends at t2, which is less than one interval later: only
  // the run's first sample comes back.
  EXPECT_EQ(SamplesOf(back, 17), (Pairs{{t1, 0}}));
  EXPECT_EQ(back.tags[17].interval, I);
  EXPECT_EQ(SamplesOf(back, 251), (Pairs{{t1, 1}, {t2, 0}}));
  EXPECT_EQ(back.tags[251].interval, 150000);
  EXPECT_EQ(SamplesOf(back, 252), (Pairs{{t1, 1}}));
  EXPECT_EQ(back.tags[252].interval, 1);
  EXPECT_EQ(SamplesOf(back, 253), (Pairs{{t1, 1}, {t2, 0}}));
  EXPECT_EQ(SamplesOf(back, 254), (Pairs{{t1, 200}, {t2, 300}}));
}

}  // namespace
}  // namespace marquel
