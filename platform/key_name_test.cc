#include "platform/key_name.h"

#include <gtest/gtest.h>

namespace marquel {
namespace {

TEST(KeyNameTest, PlainPathIsItsOwnKeyName) {
  EXPECT_EQ(FileKeyName("/home/ann/Videos/clip 1.ts"), "/home/ann/Videos/clip 1.ts");
  EXPECT_EQ(PathFromKeyName("/home/ann/Videos/clip 1.ts"), "/home/ann/Videos/clip 1.ts");
}

TEST(KeyNameTest, BackslashAndPercentAreEncodedReversibly) {
  const std::string path = "/v/a\\b%5C%25%.ts";
  const std::string key = FileKeyName(path);
  EXPECT_EQ(key, "/v/a%5Cb%255C%2525%25.ts");
  EXPECT_EQ(key.find('\\'), std::string::npos);  // one key name, never a key path
  EXPECT_EQ(PathFromKeyName(key), path);
}

TEST(KeyNameTest, RoundTripsEveryAwkwardName) {
  for (const std::string path :
       {"/", "/%", "/\\", "/\\\\", "/%%", "/%5", "/a%", "/x/%2", "/d\\e%f/g\xE9\x80"}) {
    EXPECT_EQ(PathFromKeyName(FileKeyName(path)), path) << path;
  }
}

TEST(KeyNameTest, DecodingIgnoresCaseOfHexDigitsAndKeepsStrayPercents) {
  EXPECT_EQ(PathFromKeyName("/a%5cb"), "/a\\b");  // the store may hand back either case
  EXPECT_EQ(PathFromKeyName("/a%41%2"), "/a%41%2");
}

}  // namespace
}  // namespace marquel
