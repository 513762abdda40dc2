// Period editing on programs: copy, move, delete, time offsets, valid intervals.
#include "tags/period_edit.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <vector>

#include "platform/temp_folders.h"

namespace marquel {
namespace {

std::vector<int64_t> Times(MQOneProgram& p, int32_t tag) {
  int64_t n = p.QueryOneTagSize(tag);
  std::vector<SampleRecord> recs(static_cast<size_t>(n));
  if (n > 0) p.GetDataAll(tag, recs.data(), n);
  std::vector<int64_t> out;
  for (auto& r : recs) out.push_back(r.llTimeCode);
  FreeSampleBuffers(recs.data(), n);
  return out;
}

std::set<std::string> RecordFiles() {
  std::set<std::string> out;
  for (const auto& e : std::filesystem::directory_iterator(ProcessTempFolder()))
    if (e.path().filename().string().rfind("MQT", 0) == 0) out.insert(e.path().string());
  return out;
}

// A program whose tag 16 holds 5000 samples in record files that are then cut to nothing.
void FillAndCutRecords(MQOneProgram& p) {
  const std::set<std::string> before = RecordFiles();
  for (int32_t i = 0; i < 5000; ++i) ASSERT_EQ(p.InsertOne(16, MakePlainSample(i * 10, i)), 1);
  ASSERT_EQ(p.FlushAllMemoryBlocks(), 1);
  int cut = 0;
  for (const std::string& f : RecordFiles())
    if (!before.count(f)) {
      std::filesystem::resize_file(f, 0);
      ++cut;
    }
  ASSERT_GT(cut, 0);
}

TEST(PeriodTest, RecordsThatCannotBeReadAreAFailedReadNotAnEmptyTag) {
  MQOneProgram p;
  FillAndCutRecords(p);
  std::vector<SampleRecord> out(10);
  EXPECT_EQ(p.GetDataAll(16, out.data(), 10), kReadFailed);
  EXPECT_EQ(p.GetDataPeriod(16, 0, 1000, out.data(), 10), kReadFailed);
}

TEST(PeriodTest, AMoveWhoseSourceCannotBeReadFailsAndCopiesNothing) {
  MQOneProgram source;
  FillAndCutRecords(source);
  MQOneProgram target;
  EXPECT_EQ(
      CopyPeriodBetweenPrograms(source, target, TagScope::OneTag(16), 0, 0, 100000, 1, 1, true),
      -1);
  EXPECT_EQ(target.QueryOneTagSize(16), 0);
}

TEST(StretchTest, FormulaScalesTheTargetStartToo) {
  EXPECT_EQ(StretchTimeCode(1000, 100, 150, 1, 1), 1050);
  // 2/1: ((1000 - 100) + 150) * 2 = 2100, not 1000 + 50 * 2.
  EXPECT_EQ(StretchTimeCode(1000, 100, 150, 2, 1), 2100);
  // Product first, then truncation toward zero.
  EXPECT_EQ(StretchTimeCode(0, 0, 7, 1, 2), 3);
  EXPECT_EQ(StretchTimeCode(0, 0, -7, 1, 2), -3);
  EXPECT_EQ(StretchTimeCode(0, 0, 3, 3, 2), 4);
  const int64_t wrapped = static_cast<int64_t>(static_cast<uint64_t>(INT64_MAX / 2) * 4u);
  EXPECT_EQ(StretchTimeCode(0, 0, INT64_MAX / 2, 4, 4), wrapped / 4)
      << "the product wraps as 64-bit arithmetic does";
  EXPECT_EQ(StretchTimeCode(0, 0, INT64_MIN, 1, -1), INT64_MIN) << "no trap on MIN / -1";
}

TEST(PeriodTest, EndEqualToASampleExcludesIt) {
  MQOneProgram p;
  for (int64_t t : {100, 200, 300}) p.InsertOne(16, MakePlainSample(t, 1));
  EXPECT_EQ(p.QueryOneTagPeriodSize(16, 100, 300), 2);
  EXPECT_EQ(p.QueryOneTagPeriodSize(16, 100, -1), 3) << "a negative end runs to the last";
  EXPECT_EQ(p.QueryOneTagPeriodSize(16, 300, 300), 0);
  EXPECT_EQ(p.DeleteDataPeriodForOneTag(16, 100, 300), 1);
  EXPECT_EQ(Times(p, 16), std::vector<int64_t>({300}));
}

TEST(PeriodTest, CopyWithEqualRatioShiftsByTheStartDifference) {
  MQOneProgram src, dst;
  for (int64_t t : {100, 150, 199, 200}) src.InsertOne(16, MakePlainSample(t, 7));
  ASSERT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 1000, 100, 200, 3, 3, false), 1);
  EXPECT_EQ(Times(dst, 16), std::vector<int64_t>({1000, 1050, 1099}));
  EXPECT_EQ(Times(src, 16).size(), 4u) << "copy leaves the source";
}

TEST(PeriodTest, RatioTwoDoublesTheTargetStart) {
  MQOneProgram src, dst;
  src.InsertOne(16, MakePlainSample(100, 1));
  src.InsertOne(16, MakePlainSample(150, 2));
  ASSERT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 1000, 100, -1, 2, 1, false), 1);
  EXPECT_EQ(Times(dst, 16), std::vector<int64_t>({2000, 2100}));
}

TEST(PeriodTest, NegativeRatioAndCollapsingRatio) {
  MQOneProgram src, dst, collapsed;
  for (int64_t t = 0; t < 10; ++t) src.InsertOne(16, MakePlainSample(t, static_cast<int32_t>(t)));
  ASSERT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 0, 0, -1, -1, 1, false), 1);
  EXPECT_EQ(Times(dst, 16).front(), -9);
  EXPECT_EQ(dst.QueryOneTagSize(16), 10);
  // 1/4 maps four samples onto one time: the last one copied wins, as single inserts do.
  ASSERT_EQ(CopyPeriodBetweenPrograms(src, collapsed, TagScope::All(), 0, 0, -1, 1, 4, false), 1);
  EXPECT_EQ(Times(collapsed, 16), std::vector<int64_t>({0, 1, 2}));
  SampleRecord r;
  ASSERT_EQ(collapsed.GetOne(16, 1, &r), 1);
  EXPECT_EQ(r.nValue, 7);
  EXPECT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 0, 0, -1, 1, 0, false), -1)
      << "a zero denominator is refused";
}

TEST(PeriodTest, MoveWithinOneProgramDeletesWhatLandsInTheSourcePeriod) {
  MQOneProgram p;
  for (int64_t t : {100, 110, 120, 130}) p.InsertOne(16, MakePlainSample(t, 1));
  // [100, 140) moves by +20: 120 and 130 come back inside the source period and go again.
  ASSERT_EQ(CopyPeriodBetweenPrograms(p, p, TagScope::All(), 120, 100, 140, 1, 1, true), 1);
  EXPECT_EQ(Times(p, 16), std::vector<int64_t>({140, 150}));
}

TEST(PeriodTest, ScopesSelectTagsAndCategories) {
  MQOneProgram src, byTag, byCategory;
  src.InsertOne(16, MakePlainSample(5, 1));   // category 0
  src.InsertOne(64, MakePlainSample(5, 1));   // category 1
  src.InsertOne(176, MakePlainSample(5, 1));  // category 3
  ASSERT_EQ(CopyPeriodBetweenPrograms(src, byTag, TagScope::OneTag(64), 0, 0, -1, 1, 1, false), 1);
  EXPECT_EQ(byTag.QueryTagCount(), 1);
  EXPECT_NE(byTag.Tag(64), nullptr);
  ASSERT_EQ(
      CopyPeriodBetweenPrograms(src, byCategory, TagScope::Category(3), 0, 0, -1, 1, 1, false), 1);
  EXPECT_EQ(byCategory.QueryTagCount(), 1);
  EXPECT_NE(byCategory.Tag(176), nullptr);
  EXPECT_EQ(src.DeleteDataPeriodForOneCategory(1, 0, -1), 1);
  EXPECT_EQ(src.QueryOneTagSize(64), 0);
  EXPECT_EQ(src.QueryOneTagSize(16), 1);
}

TEST(PeriodTest, RawSamplesAreCopiedWithTheirBytes) {
  MQOneProgram src, dst;
  uint8_t bytes[3] = {4, 5, 6};
  src.InsertOne(29, MakeRawSample(10, 3, bytes));
  src.InsertOne(29, MakeRawSample(20, 3, bytes));
  ASSERT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 100, 0, -1, 1, 1, true), 1);
  SampleRecord r;
  ASSERT_EQ(dst.GetOne(29, 120, &r), 1);
  ASSERT_NE(r.pBuffer, nullptr);
  EXPECT_EQ(r.pBuffer[2], 6);
  FreeSampleBuffer(r.pBuffer);
  EXPECT_EQ(src.QueryOneTagSize(29), 0) << "moved";
}

TEST(PeriodTest, MoveDeletesFromTheSourceOnlyWhatTheTargetKept) {
  MQOneProgram src, dst;
  std::vector<uint8_t> bytes(20, 3);
  // Tag 31 counts its bytes in 4 bits; a 20-byte sample put in behind the program's back
  // is one the target refuses.
  ASSERT_EQ(src.InsertOne(31, MakeRawSample(10, 10, bytes.data())), 1);
  ASSERT_EQ(src.Tag(31)->Insert(MakeRawSample(20, 20, bytes.data())), 1);
  ASSERT_EQ(src.InsertOne(31, MakeRawSample(30, 5, bytes.data())), 1);
  EXPECT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 1000, 0, -1, 1, 1, true), -1);
  EXPECT_EQ(dst.QueryOneTagSize(31), 2);
  EXPECT_EQ(src.QueryOneTagSize(31), 1) << "the refused sample stays";
  SampleRecord r;
  ASSERT_EQ(src.GetOne(31, 20, &r), 1);
  EXPECT_EQ(r.nValue, 20);
  FreeSampleBuffer(r.pBuffer);
}

TEST(PeriodTest, MoveIntoATagOfTheOtherKindKeepsTheSource) {
  MQOneProgram src, dst;
  uint8_t bytes[2] = {1, 2};
  ASSERT_EQ(src.InsertOne(29, MakeRawSample(10, 2, bytes)), 1);
  ASSERT_EQ(src.InsertOne(16, MakePlainSample(10, 7)), 1);
  ASSERT_EQ(dst.GetOrCreateTag(29)->Insert(MakePlainSample(5, 1)), 1);
  EXPECT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 0, 0, -1, 1, 1, true), -1);
  EXPECT_EQ(src.QueryOneTagSize(29), 1) << "the target refused it";
  EXPECT_EQ(src.QueryOneTagSize(16), 0) << "the other tag still moved";
  EXPECT_EQ(dst.QueryOneTagSize(16), 1);
}

TEST(PeriodTest, CopyIntoATagThatIsNotValidFails) {
  MQOneProgram src, dst;
  ASSERT_EQ(src.InsertOne(16, MakePlainSample(10, 7)), 1);
  dst.GetOrCreateTag(16)->SetValid(false);
  EXPECT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 0, 0, -1, 1, 1, true), -1);
  EXPECT_EQ(src.QueryOneTagSize(16), 1);
}

TEST(PeriodTest, LongRawSamplesAreCopiedInChunksBoundedInBytes) {
  MQOneProgram src, dst;
  std::vector<uint8_t> big(kMaxRawSampleBytes);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i / 4096);
  for (int i = 0; i < 10; ++i)  // 10 MiB: more than one chunk of kStorePieceBytes
    ASSERT_EQ(
        src.InsertOne(32, MakeRawSample(i * 10, static_cast<int32_t>(big.size()), big.data())), 1);
  ASSERT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 0, 0, -1, 1, 1, true), 1);
  EXPECT_EQ(dst.QueryOneTagSize(32), 10);
  EXPECT_EQ(src.QueryOneTagSize(32), 0);
  SampleRecord r;
  ASSERT_EQ(dst.GetOne(32, 90, &r), 1);
  ASSERT_EQ(r.nValue, static_cast<int32_t>(big.size()));
  EXPECT_EQ(std::vector<uint8_t>(r.pBuffer, r.pBuffer + r.nValue), big);
  FreeSampleBuffer(r.pBuffer);
}

TEST(PeriodTest, LargeCopyIntoTheMiddleOfAnotherTag) {
  MQOneProgram src, dst;
  std::vector<SampleRecord> many;
  for (int64_t i = 0; i < 200000; ++i) many.push_back(MakePlainSample(i * 10, 1));
  dst.GetOrCreateTag(16)->InsertSorted(many.data(), static_cast<int64_t>(many.size()));
  for (int64_t i = 0; i < 100000; ++i) src.InsertOne(16, MakePlainSample(i * 10, 2));
  ASSERT_EQ(CopyPeriodBetweenPrograms(src, dst, TagScope::All(), 1000005, 0, -1, 1, 1, false), 1);
  EXPECT_EQ(dst.QueryOneTagSize(16), 300000);
  auto times = Times(dst, 16);
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
  SampleRecord r;
  ASSERT_EQ(dst.GetOne(16, 1000005 + 500, &r), 1);
  EXPECT_EQ(r.nValue, 2);
}

TEST(OffsetTest, MinusTimeOffsetDeletesWhatWouldGoBelowZero) {
  MQOneProgram p;
  for (int64_t t : {5, 10, 15, 20}) p.InsertOne(16, MakePlainSample(t, 1));
  EXPECT_EQ(p.MinusTimeOffset(12), 1);
  EXPECT_EQ(Times(p, 16), std::vector<int64_t>({3, 8}));
}

TEST(OffsetTest, OffsetPastTheEndLeavesTheTagEmpty) {
  MQOneProgram p;
  for (int64_t t : {5, 10, 15}) p.InsertOne(16, MakePlainSample(t, 1));
  EXPECT_EQ(p.MinustTimeOffsetForOneTag(16, 100), 1);
  EXPECT_EQ(p.QueryOneTagSize(16), 0);
}

TEST(OffsetTest, CategoryFormOnlyShiftsItsCategory) {
  MQOneProgram p;
  p.InsertOne(16, MakePlainSample(50, 1));  // category 0
  p.InsertOne(64, MakePlainSample(50, 1));  // category 1
  EXPECT_EQ(p.MinusTimeOffsetForOneCategory(1, 20), 1);
  EXPECT_EQ(Times(p, 16), std::vector<int64_t>({50}));
  EXPECT_EQ(Times(p, 64), std::vector<int64_t>({30}));
}

TEST(IntervalTest, GapOfTenMillionStaysOneIntervalAndOneMoreSplits) {
  MQOneProgram p;
  p.InsertOne(16, MakePlainSample(0, 1));
  p.InsertOne(16, MakePlainSample(10000000, 1));
  EXPECT_EQ(p.QueryValidIntervalSize(16), 1);
  p.InsertOne(16, MakePlainSample(20000001, 1));
  EXPECT_EQ(p.QueryValidIntervalSize(16), 2);
  int64_t starts[3] = {-1, -1, -1};
  int64_t ends[3] = {-1, -1, -1};
  EXPECT_EQ(p.QueryValidInterval(16, 3, starts, ends), 2);
  EXPECT_EQ(starts[0], 0);
  EXPECT_EQ(ends[0], 10000000);
  EXPECT_EQ(starts[1], 20000001);
  EXPECT_EQ(ends[1], 20000001);
  EXPECT_EQ(starts[2], -1);
  int64_t one[1] = {-1};
  int64_t oneEnd[1] = {-1};
  EXPECT_EQ(p.QueryValidInterval(16, 1, one, oneEnd), 2) << "count returned, one written";
  EXPECT_EQ(one[0], 0);
  EXPECT_EQ(p.QueryValidIntervalSize(17), 0) << "no samples";
}

TEST(IntervalTest, SetIntervalNeedsATagAndMinIntervalDoesNothing) {
  MQOneProgram p;
  EXPECT_EQ(p.SetTimeIntervalForTag(16, 400000), -1);
  p.InsertOne(16, MakePlainSample(0, 1));
  EXPECT_EQ(p.SetTimeIntervalForTag(16, 400000), 1);
  EXPECT_EQ(p.Tag(16)->Interval(), 400000);
  EXPECT_TRUE(p.Tag(16)->IntervalSet());
  EXPECT_EQ(p.SetMinTimeInterval(5), 1);
  EXPECT_EQ(p.Tag(16)->Interval(), 400000);
}

}  // namespace
}  // namespace marquel
