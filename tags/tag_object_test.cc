// TagObject: inserts, lookups, raw length rules, the memory block and its figures.
#include "tags/tag_object.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace marquel {
namespace {

int32_t ValueAt(TagObject& tag, int64_t t) {
  SampleRecord r;
  EXPECT_EQ(tag.Get(t, &r), 1) << "at " << t;
  return r.nValue;
}

TEST(TagObjectTest, SameTimeCodeTwiceKeepsOneRecordWithTheSecondValue) {
  TagObject tag(16);
  EXPECT_EQ(tag.Insert(MakePlainSample(500, 1)), 1);
  EXPECT_EQ(tag.Insert(MakePlainSample(500, 2)), 1);
  EXPECT_EQ(tag.Count(), 1);
  EXPECT_EQ(ValueAt(tag, 500), 2);
}

TEST(TagObjectTest, TimeBetweenTwoSamplesIsNotFound) {
  TagObject tag(16);
  tag.Insert(MakePlainSample(1000, 1));
  tag.Insert(MakePlainSample(2000, 2));
  SampleRecord r;
  EXPECT_EQ(tag.Get(1500, &r), 0) << "no nearest-sample answer";
  EXPECT_EQ(tag.Get(999, &r), 0);
  EXPECT_EQ(tag.Get(2001, &r), 0);
  EXPECT_EQ(ValueAt(tag, 2000), 2) << "the block's last time code is found through the file";
}

TEST(TagObjectTest, EmptyTagAnswersMinusOne) {
  TagObject tag(16);
  SampleRecord r;
  EXPECT_EQ(tag.Get(0, &r), -1);
  tag.Insert(MakePlainSample(1, 1));
  tag.Clear();
  EXPECT_EQ(tag.Get(1, &r), -1);
  EXPECT_EQ(tag.Count(), 0);
}

TEST(TagObjectTest, LookupsThroughTheBlockAndTheFileAgree) {
  TagObject tag(16);
  for (int i = 0; i < 5000; ++i) tag.Insert(MakePlainSample(i * 10, i));
  EXPECT_EQ(tag.BlockCount(), 1) << "appends after the block stay out of it";
  EXPECT_EQ(ValueAt(tag, 10), 1);
  EXPECT_EQ(tag.BlockCount(), TagObject::kBlockStep) << "a lookup fills it to its capacity";
  // Sequential and backward lookups, inside and outside the block's window.
  for (int i = 0; i < 5000; i += 7) EXPECT_EQ(ValueAt(tag, i * 10), i);
  for (int i = 4999; i >= 0; i -= 13) EXPECT_EQ(ValueAt(tag, i * 10), i);
  // An insert inside a full block lives in the file only and is still found.
  ValueAt(tag, 20000);
  tag.Insert(MakePlainSample(20005, -1));
  EXPECT_EQ(ValueAt(tag, 20005), -1);
  EXPECT_EQ(ValueAt(tag, 20010), 2001);
}

TEST(TagObjectTest, FirstRawSampleFixesTheSampleSize) {
  TagObject tag(29);
  uint8_t bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(tag.Insert(MakeRawSample(100, 8, bytes)), 1);
  EXPECT_EQ(tag.Kind(), kRawSample);
  EXPECT_EQ(tag.RawSampleSize(), 8);
  EXPECT_EQ(tag.Insert(MakeRawSample(200, 4, nullptr)), -1) << "other length, no bytes";
  EXPECT_EQ(tag.Insert(MakeRawSample(100, 4, nullptr)), -1) << "equal time, other length";
  EXPECT_EQ(tag.Insert(MakeRawSample(400, 8, bytes)), 1);
  EXPECT_EQ(tag.Insert(MakePlainSample(500, 1)), 0) << "a plain sample into a raw tag";
  EXPECT_EQ(tag.Count(), 2);
  SampleRecord r;
  ASSERT_EQ(tag.Get(100, &r), 1);
  ASSERT_NE(r.pBuffer, nullptr);
  EXPECT_EQ(r.nValue, 8);
  EXPECT_EQ(r.pBuffer[7], 8);
  FreeSampleBuffer(r.pBuffer);
}

TEST(TagObjectTest, RawSamplesLongerThanTheFirstAreKeptWhole) {
  TagObject tag(29);
  uint8_t first[2] = {1, 2};
  std::vector<uint8_t> longer(3000);
  for (size_t i = 0; i < longer.size(); ++i) longer[i] = static_cast<uint8_t>(i);
  ASSERT_EQ(tag.Insert(MakeRawSample(100, 2, first)), 1);
  ASSERT_EQ(tag.Insert(MakeRawSample(200, 3000, longer.data())), 1);
  ASSERT_EQ(tag.Insert(MakeRawSample(100, 9, longer.data())), 1) << "a replacement, longer";
  EXPECT_EQ(tag.RawSampleSize(), 2) << "the first sample's size stays the tag's";
  EXPECT_EQ(tag.Count(), 2);
  for (auto [t, n] : {std::pair<int64_t, int32_t>{100, 9}, {200, 3000}}) {
    SampleRecord r;
    ASSERT_EQ(tag.Get(t, &r), 1);
    ASSERT_EQ(r.nValue, n);
    EXPECT_EQ(std::memcmp(r.pBuffer, longer.data(), n), 0);
    FreeSampleBuffer(r.pBuffer);
  }
  // A batch takes them too.
  std::vector<SampleRecord> run = {MakeRawSample(300, 1, first),
                                   MakeRawSample(400, 2999, longer.data())};
  std::vector<uint8_t> stored(2);
  EXPECT_EQ(tag.InsertSorted(run.data(), 2, stored.data()), 2);
  EXPECT_EQ(stored, (std::vector<uint8_t>{1, 1}));
  SampleRecord r;
  ASSERT_EQ(tag.Get(400, &r), 1);
  EXPECT_EQ(r.nValue, 2999);
  EXPECT_EQ(r.pBuffer[2998], longer[2998]);
  FreeSampleBuffer(r.pBuffer);
}

TEST(TagObjectTest, TheMemoryBlockHoldsABoundedNumberOfBytes) {
  TagObject tag(29);
  uint8_t first[1] = {1};
  std::vector<uint8_t> big(256 * 1024, 0x33);
  ASSERT_EQ(tag.Insert(MakeRawSample(0, 1, first)), 1);
  for (int i = 1; i <= 8; ++i)
    ASSERT_EQ(tag.Insert(MakeRawSample(i, static_cast<int32_t>(big.size()), big.data())), 1);
  SampleRecord r;
  ASSERT_EQ(tag.Get(0, &r), 1);
  FreeSampleBuffer(r.pBuffer);
  EXPECT_LE(tag.BlockCount(), 1 + kTagBlockBytes / static_cast<int64_t>(32 + big.size()))
      << "a lookup reloads records only up to the byte bound";
  ASSERT_EQ(tag.Get(8, &r), 1);
  EXPECT_EQ(r.nValue, static_cast<int32_t>(big.size()));
  EXPECT_EQ(r.pBuffer[big.size() - 1], 0x33);
  FreeSampleBuffer(r.pBuffer);
}

TEST(TagObjectTest, ReadsOfLongSamplesStopAtTheirByteBound) {
  TagObject tag(32);
  std::vector<uint8_t> big(kMaxRawSampleBytes, 0x44);
  for (int i = 0; i < 6; ++i)
    ASSERT_EQ(tag.Insert(MakeRawSample(i, static_cast<int32_t>(big.size()), big.data())), 1);
  SampleRecord out[3];
  EXPECT_EQ(tag.ReadPeriod(0, -1, out, 3, 3 * kMaxRawSampleBytes / 2), 2)
      << "stops once 1.5 MiB are in";
  FreeSampleBuffers(out, 2);
  EXPECT_EQ(tag.ReadPeriod(0, -1, out, 3, 1), 1) << "at least one sample";
  FreeSampleBuffers(out, 1);
  // The serialiser's cursor reads chunks of at most kStorePieceBytes and still sees all.
  int64_t seen = 0;
  for (TagRecordCursor c(&tag); c.Valid(); c.Next()) {
    EXPECT_EQ(c.Current().llTimeCode, seen);
    EXPECT_EQ(c.Current().pBuffer[big.size() - 1], 0x44);
    ++seen;
  }
  EXPECT_EQ(seen, 6);
}

TEST(TagObjectTest, InsertSortedTellsWhichRecordsItKept) {
  TagObject tag(29);
  uint8_t b[2] = {1, 2};
  ASSERT_EQ(tag.Insert(MakeRawSample(0, 2, b)), 1);
  std::vector<SampleRecord> run = {MakeRawSample(10, 2, b), MakePlainSample(20, 5),
                                   MakeRawSample(30, 1, b)};
  std::vector<uint8_t> stored(3, 9);
  EXPECT_EQ(tag.InsertSorted(run.data(), 3, stored.data()), 2);
  EXPECT_EQ(stored, (std::vector<uint8_t>{1, 0, 1})) << "the plain sample is refused";
  tag.SetValid(false);
  EXPECT_EQ(tag.InsertSorted(run.data(), 1, stored.data()), 0);
  EXPECT_EQ(stored[0], 0) << "a tag that is not valid keeps nothing";
}

TEST(TagObjectTest, EqualRawTimeCodeReplacesOrEmpties) {
  TagObject tag(29);
  uint8_t a[4] = {1, 1, 1, 1};
  uint8_t b[4] = {2, 2, 2, 2};
  uint8_t c[2] = {3, 3};
  tag.Insert(MakeRawSample(10, 4, a));
  EXPECT_EQ(tag.Insert(MakeRawSample(10, 4, b)), 1);
  SampleRecord r;
  ASSERT_EQ(tag.Get(10, &r), 1);
  EXPECT_EQ(r.pBuffer[0], 2);
  FreeSampleBuffer(r.pBuffer);
  EXPECT_EQ(tag.Insert(MakeRawSample(10, 2, c)), 1) << "another length with bytes";
  ASSERT_EQ(tag.Get(10, &r), 1);
  EXPECT_EQ(r.nValue, 2);
  EXPECT_EQ(r.pBuffer[1], 3);
  FreeSampleBuffer(r.pBuffer);
  EXPECT_EQ(tag.Insert(MakeRawSample(10, 2, nullptr)), 1) << "same length, no bytes: emptied";
  ASSERT_EQ(tag.Get(10, &r), 1);
  EXPECT_EQ(r.pBuffer, nullptr);
  EXPECT_EQ(r.nValue, 2);
}

TEST(TagObjectTest, LargeRawSampleCapsTheBlockAtSixteen) {
  TagObject tag(29);
  std::vector<uint8_t> big(TagObject::kLargeRawBytes, 0x5a);
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(tag.Insert(MakeRawSample(i * 1000, TagObject::kLargeRawBytes, big.data())), 1);
  }
  EXPECT_EQ(tag.BlockCapacity(), TagObject::kLargeRawBlockCap);
  SampleRecord first;
  ASSERT_EQ(tag.Get(0, &first), 1);
  FreeSampleBuffer(first.pBuffer);
  EXPECT_EQ(tag.BlockCount(), 16) << "a lookup reloads at most 16 records";
  EXPECT_EQ(tag.Count(), 20);
  EXPECT_EQ(tag.Memory(), 32 * 16 + 16 * 8);
  SampleRecord r;
  ASSERT_EQ(tag.Get(19000, &r), 1);
  EXPECT_EQ(r.pBuffer[51199], 0x5a);
  FreeSampleBuffer(r.pBuffer);
}

TEST(TagObjectTest, ARawTagsBlockIsCountedInBytes) {
  TagObject tag(29);
  const int32_t size = TagObject::kLargeRawBytes - 1;
  std::vector<uint8_t> bytes(size, 1);
  for (int i = 0; i < 40; ++i) tag.Insert(MakeRawSample(i, size, bytes.data()));
  EXPECT_LT(tag.BlockCapacity(), TagObject::kBlockStep);
  EXPECT_LE(int64_t{tag.BlockCapacity()} * (32 + size), kTagBlockBytes);
  SampleRecord first;
  ASSERT_EQ(tag.Get(0, &first), 1);
  FreeSampleBuffer(first.pBuffer);
  EXPECT_EQ(tag.BlockCount(), tag.BlockCapacity()) << "a lookup fills the block to its bytes";
}

TEST(TagObjectTest, TheBlocksOfAllTagsStopCachingPastTheirSharedBudget) {
  std::vector<std::unique_ptr<TagObject>> tags;
  std::vector<uint8_t> bytes(kMaxRawSampleBytes, 6);
  const int n = static_cast<int>(kAllBlocksBytes / kMaxRawSampleBytes) + 8;
  for (int i = 0; i < n; ++i) {
    auto tag = std::make_unique<TagObject>(29);
    ASSERT_EQ(tag->Insert(MakeRawSample(1, kMaxRawSampleBytes, bytes.data())), 1);
    SampleRecord r;
    ASSERT_EQ(tag->Get(1, &r), 1);
    EXPECT_EQ(r.pBuffer[0], 6) << "a lookup answers whether or not the block caches";
    FreeSampleBuffer(r.pBuffer);
    tags.push_back(std::move(tag));
  }
  int cached = 0;
  for (auto& tag : tags) cached += tag->BlockCount();
  EXPECT_LE(int64_t{cached} * kMaxRawSampleBytes, kAllBlocksBytes + kMaxRawSampleBytes);
  EXPECT_LT(cached, n);
}

TEST(TagObjectTest, TheLargestRawSampleStillHasABlockOfOne) {
  TagObject tag(29);
  std::vector<uint8_t> bytes(kMaxRawSampleBytes, 2);
  ASSERT_EQ(tag.Insert(MakeRawSample(0, kMaxRawSampleBytes, bytes.data())), 1);
  EXPECT_EQ(tag.Insert(MakeRawSample(1, kMaxRawSampleBytes + 1, nullptr)), 0);
  EXPECT_EQ(tag.BlockCapacity(), 1);
}

TEST(TagObjectTest, IntervalIsMeasuredFromTheFirstTwoRecordsWithAFloor) {
  TagObject tag(16);
  tag.Insert(MakePlainSample(0, 0));
  tag.Insert(MakePlainSample(1000, 0));
  EXPECT_EQ(tag.Interval(), 0) << "measured before an insert, from records 0 and 1";
  tag.Insert(MakePlainSample(5000000, 0));
  EXPECT_EQ(tag.Interval(), TagObject::kMinMeasuredInterval);

  TagObject wide(17);
  wide.Insert(MakePlainSample(0, 0));
  wide.Insert(MakePlainSample(400000, 0));
  wide.Insert(MakePlainSample(500000, 0));
  EXPECT_EQ(wide.Interval(), 400000);
  wide.Insert(MakePlainSample(-5, 0));
  wide.Insert(MakePlainSample(-4, 0));
  EXPECT_EQ(wide.Interval(), 400000) << "measured once";
  EXPECT_FALSE(wide.IntervalSet());
}

TEST(TagObjectTest, ExplicitIntervalIsNotMeasured) {
  TagObject tag(16);
  tag.SetInterval(0, true);
  for (int i = 0; i < 5; ++i) tag.Insert(MakePlainSample(i * 1000000, 0));
  EXPECT_EQ(tag.Interval(), 0);
  EXPECT_TRUE(tag.IntervalSet());
}

TEST(TagObjectTest, MemoryFigure) {
  TagObject tag(16);
  EXPECT_FALSE(tag.HasRecordFile());
  EXPECT_EQ(tag.Memory(), 32 * 1024 + 128);
  tag.Insert(MakePlainSample(0, 0));
  tag.Insert(MakePlainSample(20000000, 0));
  tag.Insert(MakePlainSample(20000001, 0));
  EXPECT_EQ(tag.Memory(), 32 * 1024 + 16 * 8) << "no intervals listed yet";
  EXPECT_EQ(tag.ValidIntervalCount(), 2);
  EXPECT_EQ(tag.Memory(), 32 * 1024 + 16 * (8 + 2));
  EXPECT_EQ(tag.GrowMemoryBlock(), 1);
  EXPECT_EQ(tag.BlockCapacity(), 2048);
  EXPECT_EQ(tag.Memory(), 32 * 2048 + 16 * (8 + 2));
}

TEST(TagObjectTest, InsertFailsWhenTheRecordFileCannotBeMade) {
  setenv("TMPDIR", "/nonexistent-marquel-folder", 1);
  TagObject tag(16);
  EXPECT_EQ(tag.Insert(MakePlainSample(1, 1)), -1);
  EXPECT_FALSE(tag.HasRecordFile());
}

TEST(TagObjectTest, InvalidTagIgnoresInsertsWithSuccess) {
  TagObject tag(16);
  tag.SetValid(false);
  EXPECT_EQ(tag.Insert(MakePlainSample(1, 1)), 1);
  EXPECT_EQ(tag.BulkAppend(MakePlainSample(2, 1)), 1);
  tag.SetValid(true);
  EXPECT_EQ(tag.Count(), 0);
}

TEST(TagObjectTest, BulkAppendFillsBlocksAndFlushes) {
  TagObject tag(16);
  for (int i = 0; i < 2500; ++i) ASSERT_EQ(tag.BulkAppend(MakePlainSample(i, i * 2)), 1);
  EXPECT_EQ(tag.BlockCount(), 2500 - 2048) << "full blocks went to the file";
  EXPECT_EQ(tag.FlushMemoryBlock(), 1);
  EXPECT_EQ(tag.BlockCount(), 0);
  EXPECT_EQ(tag.Count(), 2500);
  EXPECT_EQ(ValueAt(tag, 2499), 4998);
  // Appended records are part of the tag before the flush too.
  TagObject other(17);
  other.BulkAppend(MakePlainSample(5, 5));
  other.BulkAppend(MakePlainSample(3, 3));  // out of order: inserted
  EXPECT_EQ(other.Count(), 2);
  EXPECT_EQ(ValueAt(other, 3), 3);
}

TEST(TagObjectTest, CursorReadsEveryRecordInOrder) {
  TagObject tag(29);
  uint8_t bytes[3] = {1, 2, 3};
  for (int i = 0; i < 2600; ++i) {
    bytes[0] = static_cast<uint8_t>(i);
    tag.Insert(MakeRawSample(i * 7, 3, bytes));
  }
  int64_t n = 0;
  for (TagRecordCursor c(&tag, 1000); c.Valid(); c.Next()) {
    ASSERT_EQ(c.Index(), n);
    ASSERT_EQ(c.Current().llTimeCode, n * 7);
    ASSERT_NE(c.Current().pBuffer, nullptr);
    ASSERT_EQ(c.Current().pBuffer[0], static_cast<uint8_t>(n));
    ++n;
  }
  EXPECT_EQ(n, 2600);
  TagObject empty(30);
  EXPECT_FALSE(TagRecordCursor(&empty).Valid());
}

TEST(TagObjectTest, StateFieldsStartUnset) {
  TagObject tag(17);
  EXPECT_EQ(tag.LastStateValue(), -1);
  EXPECT_EQ(tag.RunStartTime(), -1);
  tag.SetLastStateValue(1);
  tag.SetRunStartTime(77);
  EXPECT_EQ(tag.LastStateValue(), 1);
  EXPECT_EQ(tag.RunStartTime(), 77);
}

TEST(TagObjectTest, InsertSortedMatchesSingleInserts) {
  TagObject batch(16);
  TagObject single(16);
  for (int i = 0; i < 3000; ++i) {
    batch.Insert(MakePlainSample(i * 4, 0));
    single.Insert(MakePlainSample(i * 4, 0));
  }
  std::vector<SampleRecord> run;
  for (int i = 0; i < 4000; ++i) run.push_back(MakePlainSample(2000 + i * 2, i));
  run.push_back(MakePlainSample(1, 9));  // out of order at the end
  EXPECT_EQ(batch.InsertSorted(run.data(), static_cast<int64_t>(run.size())), 4001);
  for (auto& r : run) single.Insert(r);
  ASSERT_EQ(batch.Count(), single.Count());
  std::vector<SampleRecord> a(batch.Count()), b(single.Count());
  batch.ReadPeriod(INT64_MIN, -1, a.data(), static_cast<int64_t>(a.size()));
  single.ReadPeriod(INT64_MIN, -1, b.data(), static_cast<int64_t>(b.size()));
  for (size_t i = 0; i < a.size(); ++i) {
    ASSERT_EQ(a[i].llTimeCode, b[i].llTimeCode);
    ASSERT_EQ(a[i].nValue, b[i].nValue);
  }
}

}  // namespace
}  // namespace marquel
