#include "platform/key_name.h"

#include <gtest/gtest.h>

namespace marquel {
namespace {

TEST(KeyNameTest, PlainLowerCasePathIsItsOwnKeyName) {
  EXPECT_EQ(FileKeyName("/home/ann/videos/clip 1.ts", true), "/home/ann/videos/clip 1.ts");
  EXPECT_EQ(PathFromKeyName("/home/ann/videos/clip 1.ts"), "/home/ann/videos/clip 1.ts");
}

TEST(KeyNameTest, BackslashPercentAndCaretAreEncodedReversibly) {
  const std::string path = "/v/a\\b%5C%25%^.ts";
  const std::string key = FileKeyName(path, true);
  EXPECT_EQ(key, "/v/a%5Cb%255^C%2525%25%5E.ts");
  EXPECT_EQ(key.find('\\'), std::string::npos);  // one key name, never a key path
  EXPECT_EQ(PathFromKeyName(key), path);
}

// The store folds ASCII case in key names. On a volume that tells case apart, the two
// files "/v/A.ts" and "/v/a.ts" must still get keys the store keeps apart.
TEST(KeyNameTest, CapitalsAreMarkedOnVolumesThatTellCaseApart) {
  EXPECT_EQ(FileKeyName("/v/A.ts", true), "/v/^A.ts");
  EXPECT_EQ(FileKeyName("/v/a.ts", true), "/v/a.ts");
  EXPECT_NE(FileKeyName("/v/A.ts", true).size(), FileKeyName("/v/a.ts", true).size());
  EXPECT_EQ(PathFromKeyName("/v/^A.ts"), "/v/A.ts");
  // The store may hand a key back in the case it was first written in.
  EXPECT_EQ(PathFromKeyName("/v/^a.ts"), "/v/A.ts");
}

// On a volume that ignores case, every spelling of a name is the same file, and the
// keys differ only in case, which the store folds.
TEST(KeyNameTest, CapitalsStayOnVolumesThatIgnoreCase) {
  EXPECT_EQ(FileKeyName("/media/stick/Clip.TS", false), "/media/stick/Clip.TS");
  EXPECT_EQ(PathFromKeyName(FileKeyName("/media/stick/Clip.TS", false)), "/media/stick/Clip.TS");
}

TEST(KeyNameTest, RoundTripsEveryAwkwardName) {
  for (const std::string path : {"/", "/%", "/\\", "/\\\\", "/%%", "/%5", "/a%", "/x/%2",
                                 "/d\\e%f/g\xE9\x80", "/^", "/^^A", "/A^a", "/Z/zZ%5E"}) {
    EXPECT_EQ(PathFromKeyName(FileKeyName(path, true)), path) << path;
    EXPECT_EQ(PathFromKeyName(FileKeyName(path, false)), path) << path;
  }
}

TEST(KeyNameTest, DecodingIgnoresCaseOfHexDigitsAndKeepsStrayMarks) {
  EXPECT_EQ(PathFromKeyName("/a%5cb%5e"), "/a\\b^");  // the store may hand back either case
  EXPECT_EQ(PathFromKeyName("/a%41%2"), "/a%41%2");
  EXPECT_EQ(PathFromKeyName("/a^1^"), "/a^1^");
}

}  // namespace
}  // namespace marquel
