// The pack walker: packs in order and back to back, whatever the chunk size, own packs
// marked, start-code bytes inside a payload never cutting a pack.
#include "media/ps_pack_walker.h"

#include <gtest/gtest.h>

#include <vector>

#include "ps_test_builder.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using pstest::Bytes;

struct Walked {
  std::vector<PackSpan> packs;
  int64_t first = -1;
  bool failed = false;
};

Walked Walk(const std::string& path, int64_t from, int64_t to, bool mpeg1, size_t chunk) {
  Walked w;
  FileHandle f = OpenRegularFile(path, GENERIC_READ);
  EXPECT_NE(f, kInvalidFileHandle);
  PsPackWalker walker(f, from, to, mpeg1, chunk);
  PackSpan span;
  while (walker.Next(&span)) w.packs.push_back(span);
  w.first = walker.first_pack();
  w.failed = walker.failed();
  CloseFileHandle(f);
  return w;
}

void ExpectBackToBack(const Walked& w, int64_t to) {
  ASSERT_FALSE(w.packs.empty());
  EXPECT_EQ(w.packs.front().offset, w.first);
  for (size_t i = 1; i < w.packs.size(); ++i)
    ASSERT_EQ(w.packs[i - 1].offset + w.packs[i - 1].length, w.packs[i].offset) << i;
  EXPECT_EQ(w.packs.back().offset + w.packs.back().length, to);
}

TEST(PsPackWalker, AnFfmpegProgramStreamIsWalkedBackToBackWhateverTheChunk) {
  for (const char* name : {"mpeg2ps.mpg", "mpeg1.mpg", "svcd.mpg", "dvd.vob"}) {
    const std::string path = pstest::MediaPath(name);
    const int64_t size = static_cast<int64_t>(pstest::ReadAll(path).size());
    const bool mpeg1 = std::string(name) == "mpeg1.mpg";
    Walked big = Walk(path, 0, size, mpeg1, PsPackWalker::kDefaultChunkBytes);
    Walked small = Walk(path, 0, size, mpeg1, 4099);
    SCOPED_TRACE(name);
    EXPECT_FALSE(big.failed);
    EXPECT_EQ(big.first, 0);
    ExpectBackToBack(big, size);
    ASSERT_EQ(small.packs.size(), big.packs.size());
    for (size_t i = 0; i < big.packs.size(); ++i) {
      EXPECT_EQ(small.packs[i].offset, big.packs[i].offset);
      EXPECT_EQ(small.packs[i].length, big.packs[i].length);
      EXPECT_FALSE(big.packs[i].own_data);
    }
    EXPECT_GT(big.packs.back().clock.Full(), big.packs.front().clock.Full());
  }
}

TEST(PsPackWalker, ARegionStartingInsideAPackBeginsAtTheNextPack) {
  const std::string path = pstest::MediaPath("mpeg2ps.mpg");
  const int64_t size = static_cast<int64_t>(pstest::ReadAll(path).size());
  Walked whole = Walk(path, 0, size, false, 1 << 20);
  ASSERT_GT(whole.packs.size(), 3u);
  const int64_t inside = whole.packs[2].offset + 7;
  Walked part = Walk(path, inside, size, false, 1 << 20);
  EXPECT_EQ(part.first, whole.packs[3].offset);
  ExpectBackToBack(part, size);
}

TEST(PsPackWalker, OwnPacksAreMarkedAndPayloadStartCodesDoNotCutAPack) {
  Bytes stream;
  pstest::Append(&stream, pstest::Mpeg2Pack(1000, 0, 25200));
  // A video payload that holds the bytes of a pack start code.
  pstest::Append(&stream, pstest::RawPacket(0xE0, {0, 0, 1, 0xBA, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  pstest::Append(&stream, pstest::Mpeg2Pack(2000, 0, 25200));
  pstest::Append(&stream, pstest::RawPacket(0xFA, Bytes(100, 0x55)));
  pstest::Append(&stream, pstest::Mpeg2Pack(3000, 0, 25200));
  pstest::Append(&stream, pstest::RawPacket(0xC0, Bytes(50, 0x11)));
  pstest::Append(&stream, {0, 0, 1, 0xB9});
  const std::string path = test::TestPath("own.mpg");
  pstest::WriteAll(path, stream);
  Walked w = Walk(path, 0, static_cast<int64_t>(stream.size()), false, 64);
  ASSERT_EQ(w.packs.size(), 3u);
  EXPECT_FALSE(w.packs[0].own_data);
  EXPECT_TRUE(w.packs[1].own_data);
  EXPECT_FALSE(w.packs[2].own_data);
  EXPECT_EQ(w.packs[1].clock.base, 2000u);
  ExpectBackToBack(w, static_cast<int64_t>(stream.size()));
}

TEST(PsPackWalker, ARegionWithoutAPackHasNoneAndARunPastTheCeilingFails) {
  const std::string path = test::TestPath("noise.mpg");
  pstest::WriteAll(path, Bytes(5000, 0x47));
  Walked none = Walk(path, 0, 5000, false, 1000);
  EXPECT_TRUE(none.packs.empty());
  EXPECT_EQ(none.first, 5000);
  EXPECT_FALSE(none.failed);
  Bytes huge = pstest::Mpeg2Pack(1, 0, 25200);
  huge.resize(PsPackWalker::kMaxPackBytes + 4096, 0x47);
  huge.push_back(0);
  pstest::WriteAll(path, huge);
  Walked failed = Walk(path, 0, static_cast<int64_t>(huge.size()) - 1, false, 1 << 16);
  EXPECT_TRUE(failed.failed);
}

}  // namespace
}  // namespace marquel
