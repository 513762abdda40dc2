// Golden blocks written out by hand from the format description: the writer must
// produce them byte for byte and the reader must give the samples back.
//
// Every stream ends in the CRC-32 (zlib / IEEE 802.3) of its bytes, big-endian; the
// header's last four bytes are the CRC-32 of its first 22. Those CRC bytes were taken
// from zlib's crc32 over the hand-written bytes. Header layout: 01 01 | FA 01 00 00 |
// length size | data size | tag-id size | 00 00 01 00 | CRC.
#include <gtest/gtest.h>

#include "block_test_util.h"
#include "log/log_capture.h"
#include "platform/crc32.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

using namespace blocktest;

// Checks the writer's bytes and that every stream carries a correct CRC.
void ExpectWrites(const BlockContent& c, const Bytes& golden) {
  EXPECT_EQ(Encode(c), golden);
  ASSERT_GE(golden.size(), kBlockHeaderSize);
  EXPECT_TRUE(BlockHeaderCrcOk(golden.data()));
}

TEST(BlockGolden, EmptyProgramIsHeaderAndThreeBareCrcs) {
  const Bytes golden = Cat({
      // 01 01: version; FA 01 00 00: identifier; sizes 4 (length), 4 (data), 4 (tag id);
      // 00 00 01 00: capacity 256; CRC of the 22 bytes before.
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00,
       0x04, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x01, 0x00, 0x75, 0xD1, 0xC1, 0xD7},
      {0x00, 0x00, 0x00, 0x00},  // tag-id stream: the CRC of nothing is 0
      {0x00, 0x00, 0x00, 0x00},  // length stream
      {0x00, 0x00, 0x00, 0x00},  // data stream
  });
  BlockContent empty;
  ExpectWrites(empty, golden);
  EXPECT_EQ(golden.size(), 26u + 4 + 4 + 4);
  EXPECT_EQ(Predict(empty).Total(), 38u);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  EXPECT_EQ(back.HighestTagId(), -1);
}

TEST(BlockGolden, OneValueSample) {
  // Tag 16 (16 bits, type 0), one sample: time 100, value 0x1234.
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,
       0x09, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x01, 0x00, 0x23, 0xC8, 0xAC, 0x65},
      // 01: relative time entry; 10: tag 16; then CRC.
      {0x01, 0x10, 0x45, 0x75, 0x33, 0xDA},
      // width 16 as 5 bits 10000, padded with zeros: 1000'0000.
      {0x80, 0x3F, 0xBA, 0x6C, 0xAD},
      // 64 00 00: 100 - 0 in three bytes, least significant first; 12 34: the value.
      {0x64, 0x00, 0x00, 0x12, 0x34, 0xF3, 0xD0, 0xA2, 0xF6},
  });
  BlockContent c;
  AddPlain(c, 16, {{100, 0x1234}});
  ExpectWrites(c, golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  EXPECT_EQ(SamplesOf(back, 16), (Pairs{{100, 0x1234}}));
  // Prediction truncates each stream's bits: the 5 length bits count as 0 bytes and the
  // 40 data bits as 5, so the query says 45 while the block holds 46 bytes.
  BlockSizes p = Predict(c);
  EXPECT_EQ(p.tag_id_size, 6u);
  EXPECT_EQ(p.length_size, 4u);
  EXPECT_EQ(p.data_size, 9u);
  EXPECT_EQ(p.Total(), 45u);
  EXPECT_EQ(golden.size(), 46u);
}

TEST(BlockGolden, StepOf999999IsRelativeAnd1000000IsAbsolute) {
  // Tag 2 (8 bits): (5, A1), (1000004, B2), (2000004, C3).
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
       0x15, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x01, 0x00, 0x11, 0x06, 0x9C, 0xCF},
      // rel, tag 2, rel, tag 2, abs, tag 2.
      {0x01, 0x02, 0x01, 0x02, 0x00, 0x02, 0x55, 0x68, 0xF3, 0x41},
      // 01000 01000 01000 + one pad bit: 0100'0010 0001'0000.
      {0x42, 0x10, 0x9E, 0x21, 0x2F, 0x1C},
      // 05 00 00 (5 - 0), A1; 3F 42 0F (999999 = 0x0F423F), B2;
      // 84 84 00 1E 00 00 00 00: 2000004 = 0x1E8484 as 16-bit groups, low group first;
      // C3.
      {0x05, 0x00, 0x00, 0xA1, 0x3F, 0x42, 0x0F, 0xB2, 0x84, 0x84, 0x00,
       0x1E, 0x00, 0x00, 0x00, 0x00, 0xC3, 0xDC, 0x8A, 0xFF, 0x48},
  });
  BlockContent c;
  AddPlain(c, 2, {{5, 0xA1}, {1000004, 0xB2}, {2000004, 0xC3}});
  ExpectWrites(c, golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  EXPECT_EQ(SamplesOf(back, 2), (Pairs{{5, 0xA1}, {1000004, 0xB2}, {2000004, 0xC3}}));
}

// Tag 254 (8 bits, type 1) with four samples, one every 10 time units from 10: the writer
// must write the block of the data stream `data`, logging the tag only when `logged`, and
// the reader give back `back`.
void ExpectDeltaBlock(const std::vector<int32_t>& values, const Bytes& data, bool logged,
                      const Pairs& back) {
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00,
       0x14, 0x00, 0x00, 0x00, 0x0C, 0x00, 0x00, 0x01, 0x00, 0x54, 0xAB, 0xA4, 0xA9},
      {0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE, 0xE5, 0x69, 0x74, 0x0F},
      // four times 01000, padded: 0100'0010 0001'0000 1000'0000.
      {0x42, 0x10, 0x80, 0x2B, 0x25, 0x11, 0xCD},
      data,
  });
  BlockContent c;
  for (size_t i = 0; i < values.size(); ++i)
    c.tags[254].AddPlain(10 * static_cast<int64_t>(i + 1), values[i]);
  log::LogCapture log;
  ExpectWrites(c, golden);
  EXPECT_EQ(log.Has("tag 254 (delta, width 8)"), logged);
  BlockContent read;
  ASSERT_EQ(Decode(golden, &read), 1);
  EXPECT_EQ(SamplesOf(read, 254), back);
}

TEST(BlockGolden, DeltaTagCountsPastItsWidth) {
  // 100, 300, 500, 700: the steps 100, 200, 200, 200 fit in 8 bits, and the reader's sum
  // is not cut to them. Each step: 0A 00 00 (10 since the last time entry), then
  // 64 (100 - 0) or C8 (200).
  ExpectDeltaBlock({100, 300, 500, 700},
                   {0x0A, 0x00, 0x00, 0x64, 0x0A, 0x00, 0x00, 0xC8, 0x0A, 0x00,
                    0x00, 0xC8, 0x0A, 0x00, 0x00, 0xC8, 0x8D, 0xCD, 0x1D, 0xB4},
                   false, {{10, 100}, {20, 300}, {30, 500}, {40, 700}});
}

TEST(BlockGolden, DeltaTagWithFallingValuesIsWrittenCutAndLogged) {
  // 10, 15, 12, 0: the differences 0A (10 - 0), 05 (15 - 10), FD (12 - 15 = -3) and
  // F4 (0 - 12 = -12) in 8 bits. The running sum is a plain one: 10, 15,
  // 15 + 253 = 268, 268 + 244 = 512.
  ExpectDeltaBlock({10, 15, 12, 0}, {0x0A, 0x00, 0x00, 0x0A, 0x0A, 0x00, 0x00, 0x05, 0x0A, 0x00,
                                     0x00, 0xFD, 0x0A, 0x00, 0x00, 0xF4, 0x76, 0xFE, 0x64, 0x34},
                   true, {{10, 10}, {20, 15}, {30, 268}, {40, 512}});
}

TEST(BlockGolden, NarrowFieldsShareBytes) {
  // Tag 20 (4 bits), tag 25 (1 bit), tag 253 (1 bit, type 2), all at times 0 and 7.
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00,
       0x0C, 0x00, 0x00, 0x00, 0x0C, 0x00, 0x00, 0x01, 0x00, 0x64, 0xC3, 0x91, 0xF5},
      {0x01, 0x14, 0x19, 0xFD, 0x01, 0x14, 0x19, 0xFD, 0x55, 0xFB, 0xEB, 0xE5},
      // 00100 00001 00001 00100 00001 00001 + 2 pad bits:
      // 0010'0000 0100'0010 0100'0000 1000'0100.
      {0x20, 0x42, 0x40, 0x84, 0xE8, 0xC4, 0x21, 0xB0},
      // 00 00 00 (time 0); 1001 (9), 1, 0 and the first two bits of the next time byte
      // 07 -> 1001'1000 = 98; the rest of 07 (000111) + 00 -> 1C; 00; 000000 + 11 -> 03;
      // 11 (rest of 15), 0, 1, pad -> 1101'0000 = D0.
      {0x00, 0x00, 0x00, 0x98, 0x1C, 0x00, 0x03, 0xD0, 0x33, 0x65, 0xDA, 0x88},
  });
  BlockContent c;
  AddPlain(c, 20, {{0, 9}, {7, 15}});
  AddPlain(c, 25, {{0, 1}, {7, 0}});
  AddPlain(c, 253, {{0, 0}, {7, 1}});
  ExpectWrites(c, golden);
  BlockSizes p = Predict(c);
  EXPECT_EQ(p.length_size, 3u + 4);  // 30 bits -> 3 bytes, one short of the 4 written
  EXPECT_EQ(p.data_size, 7u + 4);    // 60 bits -> 7 bytes, one short of the 8 written
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  EXPECT_EQ(SamplesOf(back, 20), (Pairs{{0, 9}, {7, 15}}));
  EXPECT_EQ(SamplesOf(back, 25), (Pairs{{0, 1}, {7, 0}}));
  EXPECT_EQ(SamplesOf(back, 253), (Pairs{{0, 0}, {7, 1}}));
}

TEST(BlockGolden, RawTags) {
  // Tag 29 (16-bit count): DE AD at 50; tag 31 (4-bit count): 01 02 03 at 50;
  // tag 32 (30-bit count): FF at 60.
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
       0x17, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x01, 0x00, 0x78, 0x50, 0xCE, 0x99},
      {0x01, 0x1D, 0x1F, 0x01, 0x20, 0x6C, 0x3E, 0xA4, 0x2B},
      // 10000 00100 11110 + pad: 1000'0001 0011'1100.
      {0x81, 0x3C, 0x4C, 0x2E, 0xC7, 0x72},
      // 32 00 00 (time 50); 00 02 (count 2), DE AD; 0011 (count 3) then 01 02 03 and the
      // time step 0A 00 00 shifted by four bits: 30 10 20 30 A0 00 0(0); the 30-bit count 1
      // (29 zeros, then 1) and FF: ...0 00 00 00 01|111111 -> 7F, 11 + pad -> C0.
      {0x32, 0x00, 0x00, 0x00, 0x02, 0xDE, 0xAD, 0x30, 0x10, 0x20, 0x30, 0xA0,
       0x00, 0x00, 0x00, 0x00, 0x00, 0x7F, 0xC0, 0x4A, 0x1A, 0x3D, 0xBA},
  });
  BlockContent c;
  AddRaw(c, 29, 50, {0xDE, 0xAD});
  AddRaw(c, 31, 50, {0x01, 0x02, 0x03});
  AddRaw(c, 32, 60, {0xFF});
  ExpectWrites(c, golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  ASSERT_EQ(back.tags[29].size(), 1u);
  EXPECT_TRUE(back.tags[29].raw);
  EXPECT_EQ(back.tags[29].times[0], 50);
  EXPECT_EQ(RawOf(back, 29, 0), (Bytes{0xDE, 0xAD}));
  EXPECT_EQ(RawOf(back, 31, 0), (Bytes{0x01, 0x02, 0x03}));
  ASSERT_EQ(back.tags[32].size(), 1u);
  EXPECT_EQ(back.tags[32].times[0], 60);
  EXPECT_EQ(RawOf(back, 32, 0), (Bytes{0xFF}));
}

TEST(BlockGolden, TwoProgramsBackToBack) {
  // Program A: tags 64 (16 bits) and 65 (8 bits) at 2^40.
  const Bytes program_a = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
       0x0F, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x01, 0x00, 0xD0, 0x78, 0x90, 0x91},
      {0x00, 0x40, 0x41, 0x0E, 0xE3, 0xE7, 0x11},  // abs, tag 64, tag 65
      {0x82, 0x00, 0x48, 0x6C, 0xE8, 0x36},        // 10000 01000 + pad
      // 2^40 = 0x0000'0100'0000'0000: groups 0000, 0000, 0100, 0000; BE EF; 7F.
      {0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0xBE, 0xEF, 0x7F, 0x1B, 0x6C, 0xEA, 0xCC},
  });
  // Program B: tag 176 at 3 and 4, tag 142 at 4 (lower id first within the step).
  const Bytes program_b = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
       0x0D, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x01, 0x00, 0x41, 0xBE, 0x06, 0x76},
      {0x01, 0xB0, 0x01, 0x8E, 0xB0, 0x89, 0x93, 0xFC, 0x49},
      {0x42, 0x10, 0x9E, 0x21, 0x2F, 0x1C},  // 01000 x3 + pad
      // 03 00 00, 01; 01 00 00, 09 (tag 142), 02 (tag 176).
      {0x03, 0x00, 0x00, 0x01, 0x01, 0x00, 0x00, 0x09, 0x02, 0x16, 0x74, 0x08, 0x1B},
  });
  BlockContent a, b;
  AddPlain(a, 64, {{int64_t{1} << 40, 0xBEEF}});
  AddPlain(a, 65, {{int64_t{1} << 40, 0x7F}});
  AddPlain(b, 176, {{3, 1}, {4, 2}});
  AddPlain(b, 142, {{4, 9}});
  ExpectWrites(a, program_a);
  ExpectWrites(b, program_b);
  // Stored one after the other, each block says where it ends.
  Bytes both = Cat({program_a, program_b});
  BlockContent back_a, back_b;
  size_t used = 0;
  ASSERT_EQ(DecodeBlockBytes(both.data(), both.size(), {}, &back_a, nullptr, nullptr, &used), 1);
  EXPECT_EQ(used, program_a.size());
  ASSERT_EQ(DecodeBlockBytes(both.data() + used, both.size() - used, {}, &back_b), 1);
  EXPECT_EQ(SamplesOf(back_a, 64), (Pairs{{int64_t{1} << 40, 0xBEEF}}));
  EXPECT_EQ(SamplesOf(back_a, 65), (Pairs{{int64_t{1} << 40, 0x7F}}));
  EXPECT_EQ(SamplesOf(back_b, 142), (Pairs{{4, 9}}));
  EXPECT_EQ(SamplesOf(back_b, 176), (Pairs{{3, 1}, {4, 2}}));
  EXPECT_FALSE(back_b.tags[64].present);
}

TEST(BlockGolden, Tag255IsWrittenWithWidthZeroAndSkippedOnRead) {
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
       0x08, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x01, 0x00, 0xB4, 0x19, 0xFD, 0x58},
      {0x01, 0x02, 0xFF, 0xE1, 0xB7, 0x3E, 0x2A},        // rel, tag 2, tag 255
      {0x40, 0x00, 0xB1, 0xA0, 0x5D, 0xFA},              // 01000 00000 + pad
      {0x09, 0x00, 0x00, 0x05, 0x2C, 0x26, 0x64, 0x19},  // 09 00 00, 05; tag 255: no bits
  });
  BlockContent c;
  AddPlain(c, 2, {{9, 5}});
  AddPlain(c, 255, {{9, 77}});
  ExpectWrites(c, golden);
  BlockContent back;
  BlockReadStats stats;
  ASSERT_EQ(Decode(golden, &back, nullptr, &stats), 1);
  EXPECT_EQ(SamplesOf(back, 2), (Pairs{{9, 5}}));
  EXPECT_FALSE(back.tags[255].present);
  EXPECT_EQ(stats.skipped_entries, 1u);
}

TEST(BlockGolden, AbsoluteTimeUsesAllFourGroups) {
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,
       0x0D, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x01, 0x00, 0x7E, 0x24, 0xFD, 0x69},
      {0x00, 0x02, 0xAF, 0xD7, 0x73, 0xD3},
      {0x40, 0xA4, 0xDE, 0xAE, 0x1D},  // 01000 + pad
      // 0x0123456789ABCDEF: CDEF, 89AB, 4567, 0123; then 5A.
      {0xCD, 0xEF, 0x89, 0xAB, 0x45, 0x67, 0x01, 0x23, 0x5A, 0x99, 0x13, 0x34, 0x4F},
  });
  BlockContent c;
  AddPlain(c, 2, {{0x0123456789ABCDEF, 0x5A}});
  ExpectWrites(c, golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  EXPECT_EQ(SamplesOf(back, 2), (Pairs{{0x0123456789ABCDEF, 0x5A}}));
}

TEST(BlockGolden, NegativeFirstTimeIsASigned24BitStep) {
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00,
       0x0C, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x01, 0x00, 0x6B, 0xA5, 0x3B, 0x85},
      {0x01, 0x02, 0x01, 0x02, 0x6D, 0x69, 0x3C, 0x7A},
      {0x42, 0x00, 0x83, 0x96, 0x3F, 0x78},
      // -5 - 0 is below 1000000, so relative: FB FF FF (low 24 bits of -5), 01;
      // 10 - (-5) = 15: 0F 00 00, 02.
      {0xFB, 0xFF, 0xFF, 0x01, 0x0F, 0x00, 0x00, 0x02, 0x3A, 0xDC, 0x6E, 0x43},
  });
  BlockContent c;
  AddPlain(c, 2, {{-5, 1}, {10, 2}});
  ExpectWrites(c, golden);
  BlockContent back;
  ASSERT_EQ(Decode(golden, &back), 1);
  EXPECT_EQ(SamplesOf(back, 2), (Pairs{{-5, 1}, {10, 2}}));
}

TEST(BlockGolden, Tags0And1AreNotWritten) {
  // Their samples would read back as time entries; the block holds only tag 2.
  const Bytes golden = Cat({
      {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,
       0x08, 0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x01, 0x00, 0x34, 0xB3, 0xB8, 0x26},
      {0x01, 0x02, 0xB6, 0xCC, 0x42, 0x92},
      {0x40, 0xA4, 0xDE, 0xAE, 0x1D},
      {0x06, 0x00, 0x00, 0x03, 0x9D, 0x26, 0xD1, 0x7A},  // 6 - 0, value 3
  });
  BlockContent c;
  AddPlain(c, 0, {{5, 1}});
  AddPlain(c, 1, {{5, 2}});
  AddPlain(c, 2, {{6, 3}});
  ExpectWrites(c, golden);
}

}  // namespace
}  // namespace marquel
