// The routers: empty slots, handles out of range, program indexes, and their answers.
#include <gtest/gtest.h>

#include "files/marquel_files.h"
#include "files_test_util.h"
#include "testsupport/file_size_limit.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using testing_files::CountingFiles;

using testing_files::kSomeType;

// Every router answers -1 for this handle (and never indexes the table with it).
void ExpectEmptySlotAnswers(MarquelFiles& t, int32_t h) {
  SampleRecord r;
  SampleRecord many[2];
  int32_t ids[2];
  int64_t starts[2], ends[2];
  int32_t n = 0;
  int64_t address = 0;
  std::string name;
  EXPECT_EQ(t.InsertOne(h, 0, 16, MakePlainSample(1, 1)), -1);
  EXPECT_EQ(t.InsertMany(h, 0, 16, many, 2), -1);
  EXPECT_EQ(t.GetOne(h, 0, 16, 1, &r), -1);
  EXPECT_EQ(t.GetDataPeriod(h, 0, 16, 0, -1, many, 2), -1);
  EXPECT_EQ(t.GetDataAll(h, 0, 16, many, 2), -1);
  EXPECT_EQ(t.QueryOneTagSize(h, 0, 16), -1);
  EXPECT_EQ(t.QueryOneTagPeriodSize(h, 0, 16, 0, -1), -1);
  EXPECT_EQ(t.QueryTagCount(h, 0), -1);
  EXPECT_EQ(t.QueryTagList(h, 0, ids, 2), -1);
  EXPECT_EQ(t.QueryRawDataTagCount(h, 0), -1);
  EXPECT_EQ(t.QueryRawDataTagList(h, 0, ids, ids, 2), -1);
  EXPECT_EQ(t.QueryRawDataTagSampleSize(h, 0, 29, &n), -1);
  EXPECT_EQ(t.SetTimeIntervalForTag(h, 0, 16, 5), -1);
  EXPECT_EQ(t.QueryValidIntervalSize(h, 0, 16), -1);
  EXPECT_EQ(t.QueryValidInterval(h, 0, 16, 2, starts, ends), -1);
  EXPECT_EQ(t.MinusTimeOffset(h, 0, 5), -1);
  EXPECT_EQ(t.MinusTimeOffsetForOneCategory(h, 0, 1, 5), -1);
  EXPECT_EQ(t.MinustTimeOffsetForOneTag(h, 0, 16, 5), -1);
  EXPECT_EQ(t.DeleteDataPeriod(h, 0, -1), -1);
  EXPECT_EQ(t.DeleteDataPeriodForOneTag(h, 16, 0, -1), -1);
  EXPECT_EQ(t.DeleteDataPeriodForOneCategory(h, 1, 0, -1), -1);
  EXPECT_EQ(t.GetMQProgramCounts(h, &n), -1);
  EXPECT_EQ(t.GetMQPMTPIDS(h, 1, ids), -1);
  EXPECT_EQ(t.InsertNewProgram(h, 256, &n), -1);
  EXPECT_EQ(t.SetPMTPID(h, 0, 256), -1);
  EXPECT_EQ(t.QueryMQExisted(h), -1);
  EXPECT_EQ(t.GetMQDataStartAddress(h, &address), -1);
  EXPECT_EQ(t.QueryOriginalFileSizeAndMTime(h, nullptr, nullptr), -1);
  EXPECT_EQ(t.FileRename(h, "/x"), -1);
  EXPECT_EQ(t.QueryFilename(h, &name), -1);
  EXPECT_EQ(t.QueryOneFileMemory(h), -1);
  EXPECT_EQ(t.QueryRefCount(h), -1);
  EXPECT_EQ(t.CleanFile(h), -1);
  EXPECT_EQ(t.Session(h), nullptr);
  EXPECT_EQ(t.SetMinTimeInterval(h, 5), 1) << "accepted whatever the handle";
}

TEST(RoutesTest, EmptySlotsAndHandlesOutOfRange) {
  CountingFiles table;
  table.OpenFile(test::TestPath("open.mpg"), kSomeType, 0, 0, nullptr, 0, 0, -1);
  for (int32_t h : {1, 2047, 2048, 5000, -1, -2, INT32_MIN, INT32_MAX}) {
    SCOPED_TRACE(h);
    ExpectEmptySlotAnswers(table, h);
  }
}

TEST(RoutesTest, ProgramIndexesBeyondTheCount) {
  CountingFiles table;
  int32_t h = table.OpenFile(test::TestPath("p.mpg"), kSomeType, 0, 0, nullptr, 0, 0, -1);
  SampleRecord r;
  for (int32_t p : {1, 8, -1, INT32_MAX}) {
    EXPECT_EQ(table.InsertOne(h, p, 16, MakePlainSample(1, 1)), -1);
    EXPECT_EQ(table.GetOne(h, p, 16, 1, &r), -1);
    EXPECT_EQ(table.QueryOneTagSize(h, p, 16), -1);
    EXPECT_EQ(table.QueryTagCount(h, p), -1);
    EXPECT_EQ(table.QueryRawDataTagCount(h, p), -1);
    EXPECT_EQ(table.MinusTimeOffset(h, p, 1), -1);
    EXPECT_EQ(table.SetPMTPID(h, p, 1), -1);
  }
  EXPECT_EQ(table.InsertOne(h, 0, 16, MakePlainSample(1, 1)), 1);
}

TEST(RoutesTest, SamplesThroughTheTable) {
  CountingFiles table;
  int32_t h = table.OpenFile(test::TestPath("s.mpg"), kSomeType, 0, 0, nullptr, 0, 0, -1);
  SampleRecord batch[3] = {MakePlainSample(10, 1), MakePlainSample(20, 2), MakePlainSample(30, 3)};
  EXPECT_EQ(table.InsertMany(h, 0, 16, batch, 3), 3);
  EXPECT_EQ(table.InsertMany(h, 0, 16, batch, -3), 0);
  EXPECT_EQ(table.InsertMany(h, 0, 16, nullptr, 3), 0);
  EXPECT_EQ(table.InsertOne(h, 0, 300, MakePlainSample(1, 1)), 0) << "tag id out of range";
  SampleRecord r;
  EXPECT_EQ(table.GetOne(h, 0, 16, 20, &r), 1);
  EXPECT_EQ(r.nValue, 2);
  EXPECT_EQ(table.GetOne(h, 0, 16, 25, &r), 0);
  EXPECT_EQ(table.QueryOneTagPeriodSize(h, 0, 16, 10, 30), 2);
  SampleRecord out[3];
  EXPECT_EQ(table.GetDataPeriod(h, 0, 16, 10, 30, out, 3), 2);
  EXPECT_EQ(table.GetDataAll(h, 0, 16, out, 3), 3);
  EXPECT_EQ(out[2].llTimeCode, 30);
  uint8_t bytes[4] = {1, 2, 3, 4};
  EXPECT_EQ(table.InsertOne(h, 0, 29, MakeRawSample(5, 4, bytes)), 1);
  int32_t size = 0;
  EXPECT_EQ(table.QueryRawDataTagSampleSize(h, 0, 29, &size), 1);
  EXPECT_EQ(size, 4);
  EXPECT_EQ(table.QueryRawDataTagCount(h, 0), 1);
  EXPECT_EQ(table.QueryTagCount(h, 0), 1);
  EXPECT_EQ(table.SetTimeIntervalForTag(h, 0, 16, 400000), 1);
  EXPECT_EQ(table.SetTimeIntervalForTag(h, 0, 17, 400000), -1);
  EXPECT_EQ(table.QueryValidIntervalSize(h, 0, 16), 1);
  EXPECT_EQ(table.MinustTimeOffsetForOneTag(h, 0, 16, 15), 1);
  EXPECT_EQ(table.QueryOneTagSize(h, 0, 16), 2);
  EXPECT_EQ(table.DeleteDataPeriodForOneTag(h, 16, 0, 10), 1);
  EXPECT_EQ(table.QueryOneTagSize(h, 0, 16), 1);
}

TEST(RoutesTest, ProgramsAndFacts) {
  CountingFiles table;
  int32_t h = table.OpenFile(test::TestPath("t.ts"), 10, 0, 0, nullptr, 0, 0, -1);
  int32_t count = 0;
  EXPECT_EQ(table.GetMQProgramCounts(h, &count), 1);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(table.GetMQProgramCounts(h, nullptr), -1);
  int32_t index = -1;
  EXPECT_EQ(table.InsertNewProgram(h, 4097, &index), 1);
  EXPECT_EQ(index, 1);
  int32_t pids[2];
  EXPECT_EQ(table.GetMQPMTPIDS(h, 1, pids), -1);
  EXPECT_EQ(table.GetMQPMTPIDS(h, 2, pids), 1);
  EXPECT_EQ(pids[1], 4097);
  EXPECT_EQ(table.SetPMTPID(h, 1, 4098), 1);
  EXPECT_EQ(table.QueryMQExisted(h), 0);
  int64_t address = 12345;
  EXPECT_EQ(table.GetMQDataStartAddress(h, &address), 1);
  EXPECT_EQ(address, 12345) << "an absent start address is not written";
  uint64_t size = 9;
  int64_t mtime = 9;
  EXPECT_EQ(table.QueryOriginalFileSizeAndMTime(h, &size, &mtime), 1);
  EXPECT_EQ(size, 0u);
  std::string renamed = test::TestPath("renamed.ts");
  EXPECT_EQ(table.FileRename(h, renamed), 1);
  EXPECT_EQ(table.FindFile(renamed), h);
}

// The delete must rewrite a page of each program and cannot: it fails in program 0 and
// stops there, as within a program, so program 1 keeps every sample.
TEST(RoutesTest, TheCategoryDeleteStopsAtTheFirstFailingProgram) {
  CountingFiles table;
  int32_t h = table.OpenFile(test::TestPath("t.ts"), 10, 0, 0, nullptr, 0, 0, -1);
  int32_t second = -1;
  ASSERT_EQ(table.InsertNewProgram(h, 4097, &second), 1);
  constexpr int32_t kTag = 40;  // category 0
  constexpr int32_t kCount = 200000;
  for (int32_t program : {0, second})
    for (int32_t i = 0; i < kCount; ++i)
      table.InsertOne(h, program, kTag, MakePlainSample(i, i & 0xFF));
  {
    test::ScopedFileSizeLimit no_writes(0);
    EXPECT_EQ(table.DeleteDataPeriodForOneCategory(h, 0, 0, 10001), -1);
  }
  EXPECT_EQ(table.QueryOneTagSize(h, second, kTag), kCount);
}

}  // namespace
}  // namespace marquel
