// Two-handle move and copy: PMT PID matching, program creation, time arithmetic.
#include <gtest/gtest.h>

#include "files/marquel_files.h"
#include "files_test_util.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using testing_files::CountingFiles;

using testing_files::kSomeType;

class TwoHandleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    src_ = table_.OpenFile(test::TestPath("src.ts"), kSomeType, 0, 0, nullptr, 0, 0, -1);
    dst_ = table_.OpenFile(test::TestPath("dst.ts"), kSomeType, 0, 0, nullptr, 0, 0, -1);
  }
  int32_t ValueAt(int32_t h, int32_t program, int32_t tag, int64_t t) {
    SampleRecord r;
    return table_.GetOne(h, program, tag, t, &r) == 1 ? r.nValue : -999;
  }
  CountingFiles table_;
  int32_t src_ = -1;
  int32_t dst_ = -1;
};

TEST_F(TwoHandleTest, ProgramsAreMatchedByPMTPIDAndMadeWhenMissing) {
  int32_t p = -1;
  table_.SetPMTPID(src_, 0, 100);
  table_.InsertNewProgram(src_, 200, &p);
  table_.InsertOne(src_, 0, 16, MakePlainSample(10, 1));
  table_.InsertOne(src_, p, 16, MakePlainSample(10, 2));
  // The target holds PMT PID 200 as its program 0 and has no program 100.
  table_.SetPMTPID(dst_, 0, 200);
  ASSERT_EQ(table_.CopyDataPeriod(dst_, src_, 1000, 0, -1, 1, 1), 1);
  int32_t count = 0;
  table_.GetMQProgramCounts(dst_, &count);
  EXPECT_EQ(count, 2);
  int32_t pids[2];
  table_.GetMQPMTPIDS(dst_, 2, pids);
  EXPECT_EQ(pids[0], 200);
  EXPECT_EQ(pids[1], 100);
  EXPECT_EQ(ValueAt(dst_, 0, 16, 1010), 2) << "PMT PID 200's samples";
  EXPECT_EQ(ValueAt(dst_, 1, 16, 1010), 1) << "PMT PID 100's samples";
  EXPECT_EQ(table_.QueryOneTagSize(src_, 0, 16), 1) << "copy leaves the source";
}

TEST_F(TwoHandleTest, MoveRemovesTheSourcePeriod) {
  for (int64_t t : {0, 10, 20, 30}) table_.InsertOne(src_, 0, 16, MakePlainSample(t, 1));
  ASSERT_EQ(table_.MoveDataPeriodForOneTag(dst_, src_, 16, 500, 10, 30, 2, 1), 1);
  EXPECT_EQ(table_.QueryOneTagSize(src_, 0, 16), 2);
  EXPECT_EQ(table_.QueryOneTagSize(dst_, 0, 16), 2);
  EXPECT_EQ(ValueAt(dst_, 0, 16, (500 - 10 + 10) * 2), 1);
  EXPECT_EQ(ValueAt(dst_, 0, 16, (500 - 10 + 20) * 2), 1);
}

TEST_F(TwoHandleTest, MoveWithinOneFile) {
  for (int64_t t : {100, 110, 120, 130}) table_.InsertOne(src_, 0, 16, MakePlainSample(t, 1));
  ASSERT_EQ(table_.MoveDataPeriod(src_, src_, 120, 100, 140, 1, 1), 1);
  SampleRecord out[4];
  ASSERT_EQ(table_.GetDataAll(src_, 0, 16, out, 4), 2);
  EXPECT_EQ(out[0].llTimeCode, 140);
  EXPECT_EQ(out[1].llTimeCode, 150);
}

TEST_F(TwoHandleTest, CategoryForms) {
  table_.InsertOne(src_, 0, 16, MakePlainSample(5, 1));  // category 0
  table_.InsertOne(src_, 0, 64, MakePlainSample(5, 1));  // category 1
  ASSERT_EQ(table_.CopyDataPeriodForOneCategory(dst_, src_, 1, 0, 0, -1, 1, 1), 1);
  EXPECT_EQ(table_.QueryOneTagSize(dst_, 0, 64), 1);
  EXPECT_EQ(table_.QueryOneTagSize(dst_, 0, 16), 0);
  ASSERT_EQ(table_.MoveDataPeriodForOneCategory(dst_, src_, 0, 0, 0, -1, 1, 1), 1);
  EXPECT_EQ(table_.QueryOneTagSize(dst_, 0, 16), 1);
  EXPECT_EQ(table_.QueryOneTagSize(src_, 0, 16), 0);
  EXPECT_EQ(table_.CopyDataPeriodForOneTag(dst_, src_, 64, 0, 0, -1, 1, 1), 1);
}

TEST_F(TwoHandleTest, BadHandlesAndZeroDenominator) {
  table_.InsertOne(src_, 0, 16, MakePlainSample(5, 1));
  EXPECT_EQ(table_.CopyDataPeriod(dst_, 7, 0, 0, -1, 1, 1), -1);
  EXPECT_EQ(table_.CopyDataPeriod(-1, src_, 0, 0, -1, 1, 1), -1);
  EXPECT_EQ(table_.MoveDataPeriod(2048, src_, 0, 0, -1, 1, 1), -1);
  EXPECT_EQ(table_.CopyDataPeriod(dst_, src_, 0, 0, -1, 1, 0), -1);
  EXPECT_EQ(table_.QueryOneTagSize(src_, 0, 16), 1);
}

TEST_F(TwoHandleTest, AFullTargetSkipsTheProgram) {
  int32_t p = -1;
  for (int32_t pid = 1; pid <= 7; ++pid) table_.InsertNewProgram(dst_, pid, &p);
  table_.SetPMTPID(src_, 0, 999);
  table_.InsertOne(src_, 0, 16, MakePlainSample(5, 1));
  EXPECT_EQ(table_.MoveDataPeriod(dst_, src_, 0, 0, -1, 1, 1), 1);
  EXPECT_EQ(table_.QueryOneTagSize(src_, 0, 16), 1) << "skipped, so not moved either";
}

}  // namespace
}  // namespace marquel
