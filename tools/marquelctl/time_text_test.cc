// The time and number parser of marquelctl at its edges.
#include "time_text.h"

#include <gtest/gtest.h>

#include <climits>

namespace marquel::ctl {
namespace {

int64_t Ticks(const std::string& text) {
  int64_t ticks = 0;
  std::string error;
  EXPECT_TRUE(ParseTime(text, &ticks, &error)) << text << ": " << error;
  return ticks;
}

std::string Refusal(const std::string& text) {
  int64_t ticks = 0;
  std::string error;
  EXPECT_FALSE(ParseTime(text, &ticks, &error)) << text << " gave " << ticks;
  return error;
}

TEST(TimeText, PlainNumbersAreTicks) {
  EXPECT_EQ(Ticks("0"), 0);
  EXPECT_EQ(Ticks("1234567"), 1234567);
  EXPECT_EQ(Ticks("010"), 10);
}

TEST(TimeText, SecondsMillisecondsAndClockFormsBecomeTicks) {
  EXPECT_EQ(Ticks("62.5s"), 625000000);
  EXPECT_EQ(Ticks("1500ms"), 15000000);
  EXPECT_EQ(Ticks("0.0001ms"), 1);
  EXPECT_EQ(Ticks("01:02:03.5"), (3723 * 10 + 5) * 1000000LL);
  EXPECT_EQ(Ticks("2:03"), 123 * kTicksPerSecond);
  EXPECT_EQ(Ticks("100:00:00"), 360000 * kTicksPerSecond);
  EXPECT_EQ(Ticks("1.00000000s"), kTicksPerSecond);  // zeros past a tick are no fraction
}

TEST(TimeText, ANegativeTimeIsTakenInEveryForm) {
  EXPECT_EQ(Ticks("-1"), -1);
  EXPECT_EQ(Ticks("-62.5s"), -625000000);
  EXPECT_EQ(Ticks("-0:01"), -kTicksPerSecond);
}

TEST(TimeText, FractionsOfATickAreRefused) {
  EXPECT_NE(Refusal("10.5").find("fraction of a tick"), std::string::npos);
  EXPECT_NE(Refusal("0.00000001s").find("finer than one tick"), std::string::npos);
  Refusal("0.00001ms");
}

TEST(TimeText, SixtyMinutesOrSecondsInAClockAreRefused) {
  EXPECT_NE(Refusal("1:60").find("seconds"), std::string::npos);
  EXPECT_NE(Refusal("1:60:00").find("minutes"), std::string::npos);
  Refusal("1:2:3:4");
  Refusal("1::2");
}

TEST(TimeText, TimesBeyondSixtyFourBitsAreRefused) {
  EXPECT_EQ(Ticks("9223372036854775807"), INT64_MAX);
  EXPECT_NE(Refusal("9223372036854775808").find("64 bits"), std::string::npos);
  Refusal("922337203686s");
  Refusal("256204779:00:00");
  Refusal("99999999999999999999999999");
}

TEST(TimeText, OtherTextIsRefused) {
  for (const char* text : {"", "-", "s", "ms", "1e3", "0x10", "+5", " 5", "5 s", "1.5.5s", "--5"})
    Refusal(text);
}

TEST(TimeText, DecimalNumbersAreNeverOctalOrHex) {
  int64_t v = 0;
  EXPECT_TRUE(ParseDecimal("010", &v));
  EXPECT_EQ(v, 10);
  EXPECT_TRUE(ParseDecimal("09", &v));
  EXPECT_EQ(v, 9);
  EXPECT_TRUE(ParseDecimal("-9223372036854775808", &v));
  EXPECT_EQ(v, INT64_MIN);
  EXPECT_FALSE(ParseDecimal("9223372036854775808", &v));
  EXPECT_FALSE(ParseDecimal("0x10", &v));
  EXPECT_FALSE(ParseDecimal("", &v));
}

TEST(TimeText, PrintedTimesReadBackTheSame) {
  for (int64_t ticks : {int64_t{0}, int64_t{1}, int64_t{625000000}, int64_t{37235000000},
                        int64_t{-15000000}, INT64_MAX, INT64_MIN + 1}) {
    for (TimeFormat f : {TimeFormat::kTicks, TimeFormat::kSeconds, TimeFormat::kHms}) {
      int64_t back = 0;
      std::string error;
      ASSERT_TRUE(ParseTime(FormatTime(ticks, f), &back, &error)) << FormatTime(ticks, f) << error;
      EXPECT_EQ(back, ticks) << FormatTime(ticks, f);
    }
  }
  EXPECT_EQ(FormatTime(625000000, TimeFormat::kSeconds), "62.5s");
  EXPECT_EQ(FormatTime(37235000000, TimeFormat::kHms), "1:02:03.5");
}

}  // namespace
}  // namespace marquel::ctl
