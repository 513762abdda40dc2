#include "tags/block_writer.h"

#include <gtest/gtest.h>

#include <limits>

#include "block_test_util.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

using namespace blocktest;

constexpr int64_t I = kDefaultStateInterval;

// The tag-id stream of the block of `c`, without its CRC.
Bytes TagIdStream(const BlockContent& c) {
  BlockContentSource source(c);
  EncodedBlock block;
  EXPECT_EQ(EncodeBlock(source, &block), 1);
  return Bytes(block.tag_ids.data(), block.tag_ids.data() + block.tag_ids.size() - 4);
}

TEST(BlockWriter, StreamsAndHeaderAgree) {
  BlockContent c;
  AddPlain(c, 16, {{1, 1}, {2, 2}});
  AddRaw(c, 29, 3, {1, 2, 3});
  BlockContentSource source(c);
  EncodedBlock block;
  ASSERT_EQ(EncodeBlock(source, &block), 1);
  EXPECT_EQ(block.header.size(), kBlockHeaderSize);
  EXPECT_GE(block.header.capacity(), kBlockHeaderBufferSize);
  for (const BitBuffer* s : {&block.tag_ids, &block.lengths, &block.data})
    EXPECT_TRUE(s->HasValidCrc());
  BlockHeader h = ParseBlockHeader(block.header.data());
  EXPECT_EQ(h.version_first, 1);
  EXPECT_EQ(h.version_second, 1);
  EXPECT_EQ(h.identifier, 0xFA010000u);
  EXPECT_EQ(h.tag_id_size, block.tag_ids.size());
  EXPECT_EQ(h.length_size, block.lengths.size());
  EXPECT_EQ(h.data_size, block.data.size());
  EXPECT_EQ(h.capacity, 256u);
  EXPECT_TRUE(BlockHeaderCrcOk(block.header.data()));
}

TEST(BlockWriter, PreviousTimeMovesOnlyWithATimeEntry) {
  // Tag 17 writes nothing at 500000 (same state, sample 1); tag 2's sample at 1200000 is
  // therefore 1200000 after the last time entry (at 0) and goes out absolute.
  BlockContent c;
  AddPlain(c, 17, {{0, 1}, {500000, 1}, {2500000, 1}});
  AddPlain(c, 2, {{1200000, 7}});
  EXPECT_EQ(TagIdStream(c), (Bytes{0x01, 0x11, 0x00, 0x02, 0x00, 0x11}));
  // Without the silent step the same gap stays relative.
  BlockContent d;
  AddPlain(d, 2, {{500000, 1}, {1200000, 7}});
  EXPECT_EQ(TagIdStream(d), (Bytes{0x01, 0x02, 0x01, 0x02}));
}

TEST(BlockWriter, SamplesOfOneStepShareOneTimeEntryInIdOrder) {
  BlockContent c;
  AddPlain(c, 200, {{10, 1}});
  AddPlain(c, 3, {{10, 2}});
  AddPlain(c, 100, {{10, 3}, {20, 4}});
  EXPECT_EQ(TagIdStream(c), (Bytes{0x01, 3, 100, 200, 0x01, 100}));
}

TEST(BlockWriter, RawCountIsCutToWhatItsFieldHolds) {
  // Tag 31 counts in 4 bits: a 20-byte sample goes out as its first 15 bytes.
  BlockContent c;
  Bytes twenty(20);
  for (int i = 0; i < 20; ++i) twenty[i] = static_cast<uint8_t>(i + 1);
  AddRaw(c, 31, 5, twenty);
  BlockContent back;
  ASSERT_EQ(Decode(Encode(c), &back), 1);
  ASSERT_EQ(back.tags[31].size(), 1u);
  EXPECT_EQ(RawOf(back, 31, 0), Bytes(twenty.begin(), twenty.begin() + 15));
}

TEST(BlockWriter, PlainSampleInARawTagHasNoBytes) {
  BlockContent c;
  AddPlain(c, 29, {{5, 1234}});  // a plain sample under a raw-data tag id
  AddPlain(c, 2, {{6, 9}});
  BlockContent back;
  ASSERT_EQ(Decode(Encode(c), &back), 1);
  ASSERT_EQ(back.tags[29].size(), 1u);
  EXPECT_EQ(back.tags[29].values[0], 0);
  EXPECT_EQ(SamplesOf(back, 2), (Pairs{{6, 9}}));  // the streams stayed in step
}

TEST(BlockWriter, StateValueMinusOneNeverWritesAStateItem) {
  // -1 is the "nothing written yet" mark, so a sample of -1 matches it: only the end
  // item of the last sample is written.
  BlockContent c;
  AddPlain(c, 17, {{0, -1}, {I, -1}});
  EXPECT_EQ(TagIdStream(c), (Bytes{0x01, 0x11}));
  BlockContent back;
  ASSERT_EQ(Decode(Encode(c), &back), 1);
  EXPECT_TRUE(back.tags[17].present);
  EXPECT_TRUE(back.tags[17].empty());  // an end item without a run adds nothing
}

TEST(BlockWriter, OtherStateValuesAreOredWithTwoInTheirWidth) {
  BlockContent c;
  AddPlain(c, 17, {{0, 5}});  // (5 | 2) in 2 bits = 3: state 1
  BlockContent back;
  ASSERT_EQ(Decode(Encode(c), &back), 1);
  EXPECT_EQ(SamplesOf(back, 17), (Pairs{{0, 1}}));
}

TEST(BlockWriter, IntervalKeepsItsLow24Bits) {
  BlockContent c;
  AddPlain(c, 17, {{0, 1}});
  c.tags[17].interval = 0x1000005;
  BlockContent back;
  ASSERT_EQ(Decode(Encode(c), &back), 1);
  EXPECT_EQ(back.tags[17].interval, 5);
}

TEST(BlockWriter, PredictionMatchesTheWrittenBytesWhenStreamsEndOnByteBoundaries) {
  BlockContent c;
  // Eight length items (40 bits) and whole-byte data.
  for (int i = 0; i < 8; ++i) AddPlain(c, 2 + i, {{100, i}});
  BlockSizes p = Predict(c);
  EXPECT_EQ(p.Total(), Encode(c).size());
  EXPECT_EQ(p.length_size, 5u + 4);
}

TEST(BlockWriter, PredictionCountsEveryStreamTermTruncated) {
  BlockContent c;
  AddPlain(c, 20, {{0, 1}});  // 5 length bits, 24 + 4 data bits
  BlockSizes p = Predict(c);
  EXPECT_EQ(p.tag_id_size, 2u + 4);
  EXPECT_EQ(p.length_size, 0u + 4);
  EXPECT_EQ(p.data_size, 3u + 4);
  Bytes written = Encode(c);
  EXPECT_EQ(written.size(), p.Total() + 2);  // one padded byte more in each bit stream
}

TEST(BlockWriter, PeriodSizeCoversOnlyThePeriod) {
  BlockContent all;
  AddPlain(all, 2, {{10, 1}, {20, 2}, {30, 3}, {40, 4}});
  AddRaw(all, 29, 25, {1, 2, 3, 4});
  BlockContentSource source(all);
  BlockPeriodSource period(source, 20, 40);  // [20, 40): 20, 25, 30
  BlockContent part;
  AddPlain(part, 2, {{20, 2}, {30, 3}});
  AddRaw(part, 29, 25, {1, 2, 3, 4});
  EXPECT_EQ(PredictBlockSizes(period).Total(), Predict(part).Total());
  // The period's end is exclusive: [10, 40) leaves out 40.
  BlockPeriodSource to40(source, 10, 40);
  BlockContent first3;
  AddPlain(first3, 2, {{10, 1}, {20, 2}, {30, 3}});
  AddRaw(first3, 29, 25, {1, 2, 3, 4});
  EXPECT_EQ(PredictBlockSizes(to40).Total(), Predict(first3).Total());
  // A negative end runs to the last sample.
  BlockPeriodSource open(source, 0, -1);
  EXPECT_EQ(PredictBlockSizes(open).Total(), Predict(all).Total());
  EncodedBlock block;
  ASSERT_EQ(EncodeBlock(period, &block), 1);
  EXPECT_EQ(block.Bytes(), Encode(part));
}

TEST(BlockWriter, RewritingIntoUsedBuffersStartsAfresh) {
  BlockContent big, small;
  for (int i = 0; i < 100; ++i) AddPlain(big, 16, {{i, i}});
  AddPlain(small, 16, {{1, 1}});
  EncodedBlock block;
  BlockContentSource big_source(big), small_source(small);
  ASSERT_EQ(EncodeBlock(big_source, &block), 1);
  ASSERT_EQ(EncodeBlock(small_source, &block), 1);
  EXPECT_EQ(block.Bytes(), Encode(small));
}

}  // namespace
}  // namespace marquel

namespace marquel {
namespace {

using namespace blocktest;

// The run-ending gap test holds at the ends of the time range, where the difference of
// two times or twice the interval no longer fits 64 bits.
TEST(BlockWriter, GapTestHoldsAtTheEndsOfTheTimeRange) {
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  // Samples 0-2 never end a run; sample 3 lies far more than twice the interval after
  // sample 2 (the difference overflows 64 bits), so an end item follows it, and the last
  // sample starts a new run and ends it. Every time step here is written relative,
  // because the wrapped differences are negative or small: rel, state; rel, end; rel,
  // state, end.
  BlockContent far;
  AddPlain(far, 17, {{kMin, 1}, {kMin + 1, 1}, {kMin + 2, 1}, {kMax - 1, 1}, {kMax, 1}});
  far.tags[17].interval = 1;
  EXPECT_EQ(TagIdStream(far), (Bytes{0x01, 0x11, 0x01, 0x11, 0x01, 0x11, 0x11}));
  // An interval whose double overflows is never exceeded by a gap.
  BlockContent wide;
  AddPlain(wide, 17, {{0, 1}, {1, 1}, {2, 1}, {kMax, 1}});
  wide.tags[17].interval = kMax / 2 + 1;
  EXPECT_EQ(TagIdStream(wide), (Bytes{0x01, 0x11, 0x00, 0x11}));
}

// A long raw sample early in a step, then many entries after it in the same step: the
// room made for the step must still hold those entries after the raw bytes took theirs.
// Byte counts around the room's size hit the case whatever the room's exact size is.
TEST(BlockWriter, RawBytesEarlyInAStepLeaveRoomForTheEntriesAfterThem) {
  for (size_t n = 400; n < 700; n += 7) {
    BlockContent c;
    AddRaw(c, 29, 5, Bytes(n, 0xA5));
    for (int32_t id = 33; id <= 63; ++id) AddPlain(c, id, {{5, id}});
    Bytes block = Encode(c);
    BlockContent back;
    ASSERT_EQ(Decode(block, &back), 1) << n;
    EXPECT_EQ(RawOf(back, 29, 0), Bytes(n, 0xA5));
    for (int32_t id = 33; id <= 63; ++id) EXPECT_EQ(SamplesOf(back, id), (Pairs{{5, id}}));
  }
}

}  // namespace
}  // namespace marquel
