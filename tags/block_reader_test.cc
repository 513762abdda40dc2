#include "tags/block_reader.h"

#include <gtest/gtest.h>

#include <limits>

#include <map>

#include "block_test_util.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

using namespace blocktest;

constexpr int64_t I = kDefaultStateInterval;

// Offsets of the streams inside a stored block.
struct Layout {
  size_t tag_ids, lengths, data, end;
};
Layout LayoutOf(const Bytes& block) {
  BlockHeader h = ParseBlockHeader(block.data());
  Layout l;
  l.tag_ids = kBlockHeaderSize;
  l.lengths = l.tag_ids + h.tag_id_size;
  l.data = l.lengths + h.length_size;
  l.end = l.data + h.data_size;
  return l;
}

// Packs (value, bits) fields most significant bit first and pads to a byte.
Bytes Pack(const std::vector<std::pair<uint32_t, int>>& fields) {
  BitBuffer b;
  for (const auto& [v, n] : fields) b.WriteBits(v, n);
  b.PadToByte();
  return Bytes(b.data(), b.data() + b.size());
}

// The four 16-bit groups of an absolute time entry, low group first.
std::vector<std::pair<uint32_t, int>> AbsTime(int64_t t) {
  std::vector<std::pair<uint32_t, int>> out;
  for (int g = 0; g < 4; ++g) out.emplace_back(static_cast<uint32_t>(t >> (16 * g)) & 0xFFFF, 16);
  return out;
}

Bytes SampleBlock() {
  BlockContent c;
  AddPlain(c, 16, {{100, 0x1234}, {200, 0x4321}});
  AddPlain(c, 17, {{0, 1}, {I, 1}});
  return Encode(c);
}

// A program that already holds something, to see that a rejection leaves it alone.
BlockContent Prefilled() {
  BlockContent c;
  AddPlain(c, 5, {{1, 1}});
  return c;
}

TEST(BlockReader, DamagedLengthCrcRejectsWhileHeaderCrcIsGood) {
  Bytes block = SampleBlock();
  Layout l = LayoutOf(block);
  block[l.data - 1] ^= 0x40;  // last byte of the length stream's CRC
  EXPECT_TRUE(BlockHeaderCrcOk(block.data()));
  BlockContent out = Prefilled();
  BlockRejection why;
  EXPECT_EQ(Decode(block, &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kLengthCrc);
  EXPECT_EQ(SamplesOf(out, 5), (Pairs{{1, 1}}));
  EXPECT_FALSE(out.tags[16].present);
}

TEST(BlockReader, EveryStreamCrcIsChecked) {
  const Bytes good = SampleBlock();
  Layout l = LayoutOf(good);
  struct Case {
    size_t offset;
    BlockRejection why;
  } cases[] = {{l.tag_ids, BlockRejection::kTagIdCrc},
               {l.lengths, BlockRejection::kLengthCrc},
               {l.data + 2, BlockRejection::kDataCrc},
               {l.end - 1, BlockRejection::kDataCrc},
               {3, BlockRejection::kHeaderCrc}};
  for (const Case& k : cases) {
    Bytes block = good;
    block[k.offset] ^= 0x01;
    BlockContent out = Prefilled();
    BlockRejection why = BlockRejection::kNone;
    EXPECT_EQ(Decode(block, &out, &why), 0) << k.offset;
    EXPECT_EQ(why, k.why) << k.offset;
    EXPECT_EQ(SamplesOf(out, 5), (Pairs{{1, 1}}));
  }
}

TEST(BlockReader, StreamTooShortForItsCrcIsACrcFailure) {
  Bytes block = BuildBlock({}, {}, {});
  // The same streams, but the tag-id stream is given as 3 bytes long.
  BlockContent out;
  BlockRejection why;
  EXPECT_EQ(
      DecodeBlock(block.data() + 26, 3, block.data() + 30, 4, block.data() + 34, 4, {}, &out, &why),
      0);
  EXPECT_EQ(why, BlockRejection::kTagIdCrc);
}

TEST(BlockReader, TruncatedBlockIsRejected) {
  Bytes block = SampleBlock();
  block.pop_back();
  BlockContent out;
  BlockRejection why;
  EXPECT_EQ(Decode(block, &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kTruncated);
  Bytes tiny(10, 0);
  EXPECT_EQ(Decode(tiny, &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kTruncated);
}

TEST(BlockReader, StateItemOtherThanTwoOrThreeRejects) {
  // rel 0, tag 17 with width 2 and item 01.
  Bytes block = BuildBlock({0x01, 0x11}, {0x10}, {0x00, 0x00, 0x00, 0x40});
  BlockContent out = Prefilled();
  BlockRejection why;
  EXPECT_EQ(Decode(block, &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kBadStateItem);
  EXPECT_EQ(SamplesOf(out, 5), (Pairs{{1, 1}}));
}

TEST(BlockReader, StreamsEndingInsideAnEntryReject) {
  BlockContent out;
  BlockRejection why;
  // A sample entry but no length item.
  EXPECT_EQ(Decode(BuildBlock({0x01, 0x10}, {}, {0, 0, 0}), &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kLengthStreamShort);
  // A 16-bit value with only 8 bits of data.
  EXPECT_EQ(Decode(BuildBlock({0x01, 0x10}, {0x80}, {0, 0, 0, 0x12}), &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kDataStreamShort);
  // A time entry without its bytes.
  EXPECT_EQ(Decode(BuildBlock({0x00}, {}, {1, 2, 3}), &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kDataStreamShort);
  // A raw count beyond the data: tag 29, count 0x7FFF.
  EXPECT_EQ(Decode(BuildBlock({0x01, 0x1D}, {0x80}, {0, 0, 0, 0x7F, 0xFF, 1, 2}), &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kDataStreamShort);
}

TEST(BlockReader, WidthZeroSkipsTheEntryWithoutData) {
  // rel 0; tag 2 width 0 (skipped); tag 3 width 8 value 0x55.
  Bytes block = BuildBlock({0x01, 0x02, 0x03}, {0x02, 0x00}, {0, 0, 0, 0x55});  // 00000 01000
  BlockContent out;
  BlockReadStats stats;
  ASSERT_EQ(Decode(block, &out, nullptr, &stats), 1);
  EXPECT_FALSE(out.tags[2].present);
  EXPECT_EQ(SamplesOf(out, 3), (Pairs{{0, 0x55}}));
  EXPECT_EQ(stats.skipped_entries, 1u);
}

TEST(BlockReader, WidthComesFromTheBlockNotTheTable) {
  // Tag 2 (8 bits in the table) stored with width 12: 0xABC.
  Bytes block = BuildBlock({0x01, 0x02}, {0x60}, {0, 0, 0, 0xAB, 0xC0});
  BlockContent out;
  ASSERT_EQ(Decode(block, &out), 1);
  EXPECT_EQ(SamplesOf(out, 2), (Pairs{{0, 0xABC}}));
}

TEST(BlockReader, AcceptanceIsAskedOncePerTagAndRefusedTagsKeepNoSamples) {
  BlockContent c;
  AddPlain(c, 16, {{1, 1}, {2, 2}});
  AddPlain(c, 18, {{1, 3}, {2, 4}});
  AddPlain(c, 17, {{0, 1}, {I, 1}, {2 * I, 1}});
  Bytes block = Encode(c);
  std::map<int32_t, int> asked;
  BlockReadOptions options;
  options.accept = [&](int32_t id) {
    ++asked[id];
    return id != 18 && id != 17;
  };
  BlockContent out;
  ASSERT_EQ(DecodeBlockBytes(block.data(), block.size(), options, &out), 1);
  EXPECT_EQ(asked, (std::map<int32_t, int>{{16, 1}, {17, 1}, {18, 1}}));
  EXPECT_EQ(SamplesOf(out, 16), (Pairs{{1, 1}, {2, 2}}));
  EXPECT_TRUE(out.tags[18].present);
  EXPECT_FALSE(out.tags[18].valid);
  EXPECT_TRUE(out.tags[18].empty());
  EXPECT_FALSE(out.tags[17].valid);
  EXPECT_TRUE(out.tags[17].empty());
}

TEST(BlockReader, IntervalZeroInABlockStepsByTheDefault) {
  // rel 0; tag 17 state 1 with interval 00 00 00; abs 3I; tag 17 end.
  std::vector<std::pair<uint32_t, int>> fields = {{0, 24}, {3, 2}, {0, 24}};
  for (const auto& f : AbsTime(3 * I)) fields.push_back(f);
  fields.emplace_back(0, 2);
  Bytes block = BuildBlock({0x01, 0x11, 0x00, 0x11}, {0x10, 0x80}, Pack(fields));
  BlockContent out;
  ASSERT_EQ(Decode(block, &out), 1);
  EXPECT_EQ(SamplesOf(out, 17), (Pairs{{0, 1}, {I, 1}, {2 * I, 1}, {3 * I, 1}}));
  EXPECT_EQ(out.tags[17].interval, I);
}

TEST(BlockReader, FillsStopAtTheBound) {
  BlockContent c;
  Pairs grid;
  for (int i = 0; i <= 100; ++i) grid.emplace_back(i * I, 1);
  AddPlain(c, 17, grid);
  Bytes block = Encode(c);
  BlockReadOptions options;
  options.max_filled_samples = 10;
  BlockContent out;
  BlockReadStats stats;
  ASSERT_EQ(DecodeBlockBytes(block.data(), block.size(), options, &out, nullptr, &stats), 1);
  EXPECT_TRUE(stats.fill_truncated);
  EXPECT_EQ(stats.filled_samples, 10u);
  EXPECT_EQ(out.tags[17].size(), 11u);  // the run's first sample and ten filled ones
}

TEST(BlockReader, FillsThatReachTheBoundExactlyAreWhole) {
  BlockContent c;
  Pairs grid;
  for (int i = 0; i <= 10; ++i) grid.emplace_back(i * I, 1);
  AddPlain(c, 17, grid);
  BlockReadOptions options;
  options.max_filled_samples = 10;
  BlockContent out;
  BlockReadStats stats;
  Bytes block = Encode(c);
  ASSERT_EQ(DecodeBlockBytes(block.data(), block.size(), options, &out, nullptr, &stats), 1);
  EXPECT_FALSE(stats.fill_truncated);
  EXPECT_EQ(stats.filled_samples, 10u);
  EXPECT_EQ(SamplesOf(out, 17), grid);
  options.max_filled_samples = 0;  // no filling at all: only the run's first sample
  ASSERT_EQ(DecodeBlockBytes(block.data(), block.size(), options, &out, nullptr, &stats), 1);
  EXPECT_TRUE(stats.fill_truncated);
  EXPECT_EQ(SamplesOf(out, 17), (Pairs{{0, 1}}));
}

// A run filled up to the end of the time range: the fill's times stay exact and nothing
// past the last one is computed as a signed overflow.
TEST(BlockReader, FillsNearTheEndOfTheTimeRange) {
  const int64_t top = std::numeric_limits<int64_t>::max() - 4 * I - 3;
  BlockContent c;
  Pairs grid;
  for (int i = 0; i <= 4; ++i) grid.emplace_back(top + i * I, 1);
  AddPlain(c, 17, grid);
  BlockContent out;
  ASSERT_EQ(Decode(Encode(c), &out), 1);
  EXPECT_EQ(SamplesOf(out, 17), grid);
}

TEST(BlockReader, SamplesNotAfterTheTagsLastOneAreLeftOut) {
  // abs 2000000, tag 2 = 1; abs 1000000, tag 2 = 2 (earlier: left out); tag 3 = 3.
  Bytes block = BuildBlock(
      {0x00, 0x02, 0x00, 0x02, 0x03}, {0x42, 0x10},
      {0x84, 0x80, 0x00, 0x1E, 0, 0, 0, 0, 0x01, 0x42, 0x40, 0x00, 0x0F, 0, 0, 0, 0, 0x02, 0x03});
  BlockContent out;
  BlockReadStats stats;
  ASSERT_EQ(Decode(block, &out, nullptr, &stats), 1);
  EXPECT_EQ(SamplesOf(out, 2), (Pairs{{2000000, 1}}));
  EXPECT_EQ(SamplesOf(out, 3), (Pairs{{1000000, 3}}));
  EXPECT_EQ(stats.dropped_samples, 1u);
}

TEST(BlockReader, SameStateAgainAddsASampleAndFillsOnlyAfterIt) {
  // rel 0 / 17 state 1; abs 5I / 17 state 1 again (no end between); abs 7I / 17 end.
  std::vector<std::pair<uint32_t, int>> fields = {{0, 24}, {3, 2}, {0x15, 8}, {0x16, 8}, {0x05, 8}};
  for (const auto& f : AbsTime(5 * I)) fields.push_back(f);
  fields.insert(fields.end(), {{3, 2}, {0x15, 8}, {0x16, 8}, {0x05, 8}});
  for (const auto& f : AbsTime(7 * I)) fields.push_back(f);
  fields.emplace_back(0, 2);
  Bytes block = BuildBlock({0x01, 0x11, 0x00, 0x11, 0x00, 0x11}, {0x10, 0x84}, Pack(fields));
  BlockContent out;
  ASSERT_EQ(Decode(block, &out), 1);
  // The run keeps its start; the end fills only after the last sample (5I).
  EXPECT_EQ(SamplesOf(out, 17), (Pairs{{0, 1}, {5 * I, 1}, {6 * I, 1}, {7 * I, 1}}));
}

TEST(BlockReader, EndItemWithoutARunAddsNothing) {
  Bytes block = BuildBlock({0x01, 0x11}, {0x10}, Pack({{0, 24}, {0, 2}}));
  BlockContent out;
  ASSERT_EQ(Decode(block, &out), 1);
  EXPECT_TRUE(out.tags[17].present);
  EXPECT_TRUE(out.tags[17].empty());
}

TEST(BlockReader, RunLeftOpenAtTheEndKeepsOnlyItsSamples) {
  // rel 0 / tag 17 state 0 + interval; nothing ends the run.
  Bytes block =
      BuildBlock({0x01, 0x11}, {0x10}, Pack({{0, 24}, {2, 2}, {0x15, 8}, {0x16, 8}, {0x05, 8}}));
  BlockContent out;
  ASSERT_EQ(Decode(block, &out), 1);
  EXPECT_EQ(SamplesOf(out, 17), (Pairs{{0, 0}}));
}

TEST(BlockReader, RelativeStepIsSigned) {
  // rel 0x800000 = -8388608; tag 2 = 1.
  Bytes block = BuildBlock({0x01, 0x02}, {0x40}, {0x00, 0x00, 0x80, 0x01});
  BlockContent out;
  ASSERT_EQ(Decode(block, &out), 1);
  EXPECT_EQ(SamplesOf(out, 2), (Pairs{{-8388608, 1}}));
}

TEST(BlockReader, RejectionTextsNameTheStream) {
  EXPECT_STREQ(BlockRejectionText(BlockRejection::kLengthCrc), "length stream CRC mismatch");
  EXPECT_STREQ(BlockRejectionText(BlockRejection::kNone), "accepted");
}

}  // namespace
}  // namespace marquel

namespace marquel {
namespace {

using namespace blocktest;

// An empty output is decoded into directly and keeps its memory for the next block; a
// block rejected half way leaves it empty again, with nothing of the block in it.
TEST(BlockReader, EmptyOutputIsReusedAndEmptiedAgainOnRejection) {
  BlockContent c;
  for (int64_t t = 0; t < 5000; ++t) c.tags[16].AddPlain(t * 10, static_cast<int32_t>(t));
  Bytes block = Encode(c);
  BlockContent out;
  ASSERT_EQ(Decode(block, &out, nullptr), 1);
  ASSERT_EQ(out.tags[16].size(), 5000u);
  const int64_t* memory = out.tags[16].times.data();
  out.Clear();
  ASSERT_TRUE(out.Empty());
  ASSERT_EQ(Decode(block, &out, nullptr), 1);
  EXPECT_EQ(out.tags[16].times.data(), memory);
  EXPECT_EQ(out.tags[16].times, c.tags[16].times);

  // Cut the data stream inside a raw sample that comes last, so that the entries before
  // it decode and the stream then ends early.
  BlockContent refused;
  refused.tags[16] = c.tags[16];
  refused.tags[29].AddRaw(50000, reinterpret_cast<const uint8_t*>("abc"), 3);
  Bytes whole = Encode(refused);
  Layout l = LayoutOf(whole);
  auto part = [&](size_t from, size_t to) {
    return Bytes(whole.begin() + static_cast<ptrdiff_t>(from),
                 whole.begin() + static_cast<ptrdiff_t>(to));
  };
  Bytes cut = BuildBlock(part(l.tag_ids, l.lengths - 4), part(l.lengths, l.data - 4),
                         part(l.data, l.end - 4 - 2));
  out.Clear();
  BlockRejection why;
  EXPECT_EQ(Decode(cut, &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kDataStreamShort);
  EXPECT_TRUE(out.Empty());
}

}  // namespace
}  // namespace marquel

namespace marquel {
namespace {

using namespace blocktest;

// A raw count from a damaged block may be near 2^31. Once the tag's lane is open the count
// is still held against the stream first, so that no room is ever reserved for bytes the
// stream does not have.
TEST(BlockReader, HugeRawCountInALaneIsRefusedBeforeAnyRoomIsMade) {
  // rel 0, tag 32 (30-bit count) with 1 byte "A"; rel 1, tag 32 with count 2^30 - 1.
  const Bytes ids = {0x01, 0x20, 0x01, 0x20};
  const Bytes lengths = {0xF7, 0xC0};  // 30, 30 in 5 bits each
  BitBuffer data;
  data.WriteBits(0, 24);
  data.WriteBits(1, 30);
  data.WriteBits('A', 8);
  data.WriteBits(0x010000, 24);  // the step of 1, least significant byte first
  data.WriteBits((1u << 30) - 1, 30);
  data.WriteBits(0xFFFF, 16);  // far fewer bytes than announced
  data.PadToByte();
  Bytes block = BuildBlock(ids, lengths, Bytes(data.data(), data.data() + data.size()));
  BlockContent out;
  BlockRejection why;
  EXPECT_EQ(Decode(block, &out, &why), 0);
  EXPECT_EQ(why, BlockRejection::kDataStreamShort);
  EXPECT_TRUE(out.Empty());
  EXPECT_LT(out.tags[32].raw_bytes.capacity(), size_t{1} << 20);
}

}  // namespace
}  // namespace marquel
