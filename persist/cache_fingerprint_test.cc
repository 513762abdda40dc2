// The content sample of a media file: the words the caches keep about its bytes at 3172.
#include "persist/cache_fingerprint.h"

#include <gtest/gtest.h>

#include "cache_test_util.h"
#include "platform/crc32.h"

namespace marquel {
namespace {

using cachetest::Bytes;

// A file of `size` bytes, zero but for 0x11 0x22 0x33 0x44 from byte 3172 on (as far as
// the file reaches) and a marker in the middle of the sample.
std::string SampleFile(const std::string& name, size_t size) {
  Bytes bytes(size, 0);
  const uint8_t word[4] = {0x11, 0x22, 0x33, 0x44};
  for (size_t i = 0; i < 4 && 3172 + i < size; ++i) bytes[3172 + i] = word[i];
  if (size > 6000) bytes[6000] = 0x5A;
  std::string path = test::TestPath(name);
  cachetest::WriteAll(path, bytes);
  return path;
}

TEST(ContentSample, WholeSampleGivesTheLittleEndianWordAndTheCrc) {
  std::string path = SampleFile("whole.mpg", 8292);
  ContentSample sample = ReadContentSample(path);
  EXPECT_TRUE(sample.taken);
  EXPECT_EQ(sample.first_word, 0x44332211u);
  Bytes bytes = cachetest::ReadAll(path);
  EXPECT_EQ(sample.crc, Crc32Ieee(bytes.data() + 3172, 5120));
  EXPECT_NE(sample.crc, 0u);
  // Bytes past the sample do not count.
  std::string longer = SampleFile("longer.mpg", 20000);
  EXPECT_EQ(ReadContentSample(longer).crc, sample.crc);
}

TEST(ContentSample, OneByteShortOfTheSampleHasNoFingerprint) {
  ContentSample sample = ReadContentSample(SampleFile("short.mpg", 8291));
  EXPECT_FALSE(sample.taken);
  EXPECT_EQ(sample.crc, 0u);
  EXPECT_EQ(sample.first_word, 0x44332211u) << "the first word is kept all the same";
}

TEST(ContentSample, FewerThanFourBytesGiveTheirCount) {
  EXPECT_EQ(ReadContentSample(SampleFile("three.mpg", 3175)).first_word, 3u);
  EXPECT_EQ(ReadContentSample(SampleFile("one.mpg", 3173)).first_word, 1u);
  EXPECT_EQ(ReadContentSample(SampleFile("none.mpg", 3172)).first_word, 0u);
  EXPECT_EQ(ReadContentSample(SampleFile("tiny.mpg", 10)).first_word, 0u);
  EXPECT_FALSE(ReadContentSample(SampleFile("four.mpg", 3176)).taken);
  EXPECT_EQ(ReadContentSample(SampleFile("four.mpg", 3176)).first_word, 0x44332211u);
  EXPECT_FALSE(ReadContentSample(test::TestPath("missing.mpg")).taken);
}

}  // namespace
}  // namespace marquel
