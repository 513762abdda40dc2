// marquelctl's checks of tag ids and values against the tag definition table.
#include "sample_check.h"

#include <gtest/gtest.h>

#include "command_names.h"

namespace marquel::ctl {
namespace {

TEST(SampleCheck, AValueWiderThanTheTagIsRefusedWithTheWidthNamed) {
  int32_t stored = -1;
  std::string error;
  EXPECT_FALSE(CheckPlainValue(40, 300, false, &stored, &error));
  EXPECT_EQ(error,
            "tag 40 holds 8-bit values (0..255); 300 does not fit; use --truncate to store its "
            "low bits");
  EXPECT_FALSE(CheckPlainValue(40, -6, false, &stored, &error));
  EXPECT_TRUE(CheckPlainValue(40, 255, false, &stored, &error));
  EXPECT_EQ(stored, 255);
}

TEST(SampleCheck, TruncateKeepsTheLowBitsOnPurpose) {
  int32_t stored = -1;
  std::string error;
  EXPECT_TRUE(CheckPlainValue(40, 300, true, &stored, &error));
  EXPECT_EQ(stored, 44);
  EXPECT_FALSE(CheckPlainValue(40, int64_t{1} << 40, true, &stored, &error));
}

TEST(SampleCheck, AStateTagTakesZeroOrOneOnly) {
  int32_t stored = -1;
  std::string error;
  ASSERT_TRUE(IsStateTag(17));
  EXPECT_TRUE(CheckPlainValue(17, 1, false, &stored, &error));
  EXPECT_FALSE(CheckPlainValue(17, 2, true, &stored, &error));
  EXPECT_NE(error.find("state tag"), std::string::npos);
  EXPECT_NE(TagRulesHelp().find("17, 251, 252"), std::string::npos);
}

TEST(SampleCheck, RawSamplesLongerThanTheLengthFieldAreRefused) {
  std::string error;
  EXPECT_TRUE(CheckRawLength(31, 15, &error));
  EXPECT_FALSE(CheckRawLength(31, 16, &error));
  EXPECT_NE(error.find("1 to 15 bytes"), std::string::npos);
  EXPECT_FALSE(CheckRawLength(40, 1, &error));
  int32_t stored = 0;
  EXPECT_FALSE(CheckPlainValue(29, 1, false, &stored, &error));
  EXPECT_FALSE(CheckPlainValue(255, 1, false, &stored, &error));
}

TEST(SampleCheck, ADeltaTagTakesOnlyValuesThatRiseByStepsItsWidthHolds) {
  std::string error;
  EXPECT_TRUE(CheckDeltaSteps(254, {{0, 5}, {10, 200}, {20, 455}}, &error)) << error;
  EXPECT_FALSE(CheckDeltaSteps(254, {{0, 5}, {10, 4}}, &error));
  EXPECT_NE(error.find("4 after 5 does not fit"), std::string::npos) << error;
  EXPECT_FALSE(CheckDeltaSteps(254, {{10, 300}, {0, 10}}, &error));  // in time order
  EXPECT_FALSE(CheckDeltaSteps(254, {{0, 256}}, &error));
  EXPECT_TRUE(CheckDeltaSteps(40, {{0, 5}, {10, 4}}, &error));
  int32_t stored = 0;
  EXPECT_TRUE(CheckPlainValue(254, 455, false, &stored, &error));  // a sum of steps
  EXPECT_EQ(stored, 455);
}

TEST(SampleCheck, ATagIdOutsideTheTableIsNamed) {
  std::string error;
  EXPECT_FALSE(CheckTagId(300, &error));
  EXPECT_EQ(error, "no such tag id 300 (tag ids are 0-255)");
  EXPECT_FALSE(CheckTagId(-1, &error));
  EXPECT_TRUE(CheckTagId(255, &error));
}

TEST(CommandNames, AMistypedCommandFindsTheNearestOne) {
  const std::vector<std::string> names = {"status", "tags", "get", "put", "shift", "delete"};
  EXPECT_EQ(NearestName("stauts", names), "status");
  EXPECT_EQ(NearestName("gte", names), "get");
  EXPECT_EQ(NearestName("delet", names), "delete");
  EXPECT_EQ(NearestName("frobnicate", names), "");
  EXPECT_EQ(NearestName(std::string(10000, 'x'), names), "");
}

}  // namespace
}  // namespace marquel::ctl
