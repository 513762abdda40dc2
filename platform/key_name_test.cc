#include "platform/key_name.h"

#include <gtest/gtest.h>

#include "platform/reg_types.h"
#include "platform/text.h"
#include "sha256.h"

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
  for (const std::string path : {"/", "/%", "/\\", "/\\\\", "/%%", "/%5", "/a%", "/x/%2", "#a",
                                 "/#", "/d\\e%f/g\xE9\x80", "/^", "/^^A", "/A^a", "/Z/zZ%5E"}) {
    EXPECT_EQ(PathFromKeyName(FileKeyName(path, true)), path) << path;
    EXPECT_EQ(PathFromKeyName(FileKeyName(path, false)), path) << path;
  }
}

TEST(KeyNameTest, DecodingIgnoresCaseOfHexDigitsAndKeepsStrayMarks) {
  EXPECT_EQ(PathFromKeyName("/a%5cb%5e"), "/a\\b^");  // the store may hand back either case
  EXPECT_EQ(PathFromKeyName("/a%41%2"), "/a%41%2");
  EXPECT_EQ(PathFromKeyName("/a^1^"), "/a^1^");
}

TEST(KeyNameTest, ANameOpeningWithAHashIsNeverTakenForAHashedOne) {
  EXPECT_EQ(FileKeyName("#clip.ts", true), "%23clip.ts");
  EXPECT_EQ(FileKeyName("/a#b", true), "/a#b");
  EXPECT_FALSE(IsHashedKeyName(FileKeyName("#clip.ts", true)));
}

TEST(KeyNameTest, Sha256GivesTheStandardDigests) {
  auto hex = [](std::string_view text) {
    std::string out;
    for (uint8_t b : Sha256(text)) {
      out.push_back("0123456789abcdef"[b >> 4]);
      out.push_back("0123456789abcdef"[b & 15]);
    }
    return out;
  };
  EXPECT_EQ(hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(hex(std::string(1000, 'a')),
            "41edece42d63e8d9bf515a9ba6932e1c20cbc9f5a5d134645adb5db1b9737ea3");
}

TEST(KeyNameTest, APathOfManyCapitalsTooLongForAReadableKeyGetsAHashedOne) {
  std::string path = "/media/";
  while (path.size() < 200) path += "ABCDEFGHIJ";
  path += ".ts";
  ASSERT_GT(Utf16Length(FileKeyName(path, true)), kMaxKeyNameChars);
  std::string key = FittingFileKeyName(path, true);
  EXPECT_EQ(key.size(), kHashedKeyNameLength);
  EXPECT_TRUE(IsHashedKeyName(key));
  EXPECT_EQ(key, HashedFileKeyName(path, true));
  EXPECT_EQ(PathFromKeyName(key), "") << "a hashed name tells no path";
  // On a volume that ignores case the capitals cost nothing: the readable name fits.
  EXPECT_EQ(FittingFileKeyName(path, false), path);
}

TEST(KeyNameTest, ANameThatFitsStaysReadableUpTo255Units) {
  std::string fits = "/" + std::string(254, 'a');
  EXPECT_EQ(FittingFileKeyName(fits, true), fits);
  std::string longer = fits + "a";
  EXPECT_TRUE(IsHashedKeyName(FittingFileKeyName(longer, true)));
}

TEST(KeyNameTest, HashedNamesTellCaseApartOnlyWhereTheVolumeDoesSo) {
  std::string upper = "/v/" + std::string(300, 'A');
  std::string lower = "/v/" + std::string(300, 'a');
  EXPECT_NE(HashedFileKeyName(upper, true), HashedFileKeyName(lower, true));
  EXPECT_EQ(HashedFileKeyName(upper, false), HashedFileKeyName(lower, false));
  EXPECT_NE(HashedFileKeyName(lower + "1", true), HashedFileKeyName(lower + "2", true));
}

}  // namespace
}  // namespace marquel
