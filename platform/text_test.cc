#include "platform/text.h"

#include <gtest/gtest.h>

namespace marquel {
namespace {

TEST(TextTest, Utf8AndUtf16RoundTrip) {
  const std::string text = "/video/Caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x8E\xAC.ts";
  const std::u16string wide = Utf8ToUtf16(text);
  EXPECT_EQ(wide, u"/video/Caf\u00e9 \u65e5\u672c \U0001F3AC.ts");
  EXPECT_EQ(Utf16ToUtf8(wide), text);
  EXPECT_EQ(Utf16Length(text), wide.size());
  EXPECT_TRUE(IsValidUtf8(text));
}

TEST(TextTest, InvalidBytesSurviveTheRoundTrip) {
  // A Latin-1 file name, a lone continuation byte, an overlong "/" and a cut sequence.
  const std::string bytes = std::string("caf\xE9") + "\x80" + "\xC0\xAF" + "\xE6\x97";
  EXPECT_FALSE(IsValidUtf8(bytes));
  const std::u16string wide = Utf8ToUtf16(bytes);
  EXPECT_EQ(wide[3], char16_t{0xDCE9});
  EXPECT_EQ(Utf16ToUtf8(wide), bytes);
  EXPECT_EQ(Utf16Length(bytes), wide.size());
}

TEST(TextTest, LoneSurrogatesOutsideTheByteRangeBecomeReplacementCharacters) {
  const std::u16string wide = {u'a', char16_t{0xD800}, u'b', char16_t{0xDC10}};
  EXPECT_EQ(Utf16ToUtf8(wide),
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD");
}

TEST(TextTest, WideRecordRefusesTextThatDoesNotFit) {
  char16_t record[6];
  EXPECT_TRUE(CopyToWideRecord("abcde", record, 6));
  EXPECT_EQ(WideRecordToUtf8(record, 6), "abcde");
  EXPECT_FALSE(CopyToWideRecord("abcdef", record, 6));
  for (char16_t c : record) EXPECT_EQ(c, 0);                     // nothing cut, nothing left behind
  EXPECT_TRUE(CopyToWideRecord("\xF0\x9F\x8E\xAC", record, 3));  // a pair and the zero
  EXPECT_FALSE(CopyToWideRecord("ab\xF0\x9F\x8E\xAC", record, 4));
}

TEST(TextTest, WideRecordWithoutTerminatorStopsAtCapacity) {
  const char16_t record[3] = {u'x', u'y', u'z'};
  EXPECT_EQ(WideRecordToUtf8(record, 3), "xyz");
}

TEST(TextTest, CaseFoldingTouchesOnlyAsciiLetters) {
  EXPECT_EQ(CompareIgnoreCase(u"C:/Video/A.TS", u"c:/video/a.ts"), 0);
  EXPECT_NE(CompareIgnoreCase(u"\u00c9", u"\u00e9"), 0);  // É and é differ in the C locale
  EXPECT_EQ(CompareIgnoreCase(std::string("ABC[x]"), std::string("abc[X]")), 0);
  EXPECT_NE(CompareIgnoreCase(std::string("\xC3\x89"), std::string("\xC3\xA9")), 0);
  // As _wcsicmp: letters compare as lower case, so "_" (0x5F) sorts before "a".
  EXPECT_LT(CompareIgnoreCase(u"_", u"A"), 0);
  EXPECT_LT(CompareIgnoreCase(std::string("ab"), std::string("ABC")), 0);
  EXPECT_GT(CompareIgnoreCase(u"abd", u"ABC"), 0);
  EXPECT_EQ(AsciiLower("MiXeD-1"), "mixed-1");
  EXPECT_TRUE(EqualsIgnoreCase("TSCache", "tscache"));
}

}  // namespace
}  // namespace marquel
