#include "bit_source.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "tags/bit_buffer.h"
#include "width_queue.h"

namespace marquel {
namespace {

std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> bytes(n);
  for (auto& b : bytes) b = static_cast<uint8_t>(rng());
  return bytes;
}

// Random reads of 1 to 32 bits and byte runs at every bit offset give what the plain
// reader gives, up to the last bit and no further.
TEST(BitSource, AgreesWithThePlainReaderToTheLastBit) {
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    std::vector<uint8_t> bytes = RandomBytes(seed * 7 % 97 + 1, seed);
    BitSource fast(bytes.data(), bytes.size());
    BitReader plain(bytes.data(), bytes.size());
    std::mt19937 rng(seed + 1000);
    while (true) {
      ASSERT_EQ(fast.BitsLeft(), plain.BitsLeft());
      if (rng() % 4 == 0) {
        size_t n = rng() % 20;
        std::vector<uint8_t> a(n + 1, 0xEE), b(n + 1, 0xEE);
        bool ok_plain = plain.ReadBytes(b.data(), n);
        ASSERT_EQ(fast.ReadBytes(a.data(), n), ok_plain);
        ASSERT_EQ(a, b) << "seed " << seed;  // nothing written past n bytes either
        if (!ok_plain) break;
        continue;
      }
      int bits = static_cast<int>(rng() % 32) + 1;
      uint32_t a = 0, b = 0;
      bool ok_plain = plain.ReadBits(bits, &b);
      ASSERT_EQ(fast.Read(bits, &a), ok_plain) << "seed " << seed;
      if (!ok_plain) break;
      ASSERT_EQ(a, b) << "seed " << seed << " bits " << bits;
    }
  }
}

// With room to spill, whole steps of eight are written; the first n bytes are the same
// and the position after them too.
TEST(BitSource, SpillingCopiesGiveTheSameBytes) {
  std::vector<uint8_t> bytes = RandomBytes(80, 21);
  for (int lead = 0; lead < 8; ++lead) {
    for (size_t n = 1; n <= 30; ++n) {
      BitSource spill(bytes.data(), bytes.size());
      BitReader plain(bytes.data(), bytes.size());
      uint32_t v = 0, w = 0;
      if (lead > 0) {
        ASSERT_TRUE(spill.Read(lead, &v));
        ASSERT_TRUE(plain.ReadBits(lead, &w));
      }
      std::vector<uint8_t> a(n + 8), b(n);
      ASSERT_TRUE(spill.ReadBytes(a.data(), n, a.size()));
      ASSERT_TRUE(plain.ReadBytes(b.data(), n));
      EXPECT_TRUE(std::equal(b.begin(), b.end(), a.begin())) << "lead " << lead << " n " << n;
      ASSERT_TRUE(spill.Read(11, &v));
      ASSERT_TRUE(plain.ReadBits(11, &w));
      EXPECT_EQ(v, w) << "lead " << lead << " n " << n;
    }
  }
}

TEST(BitSource, SkippedBytesMoveThePositionLikeReadOnes) {
  std::vector<uint8_t> bytes = RandomBytes(64, 9);
  for (int lead = 0; lead < 8; ++lead) {
    BitSource skip(bytes.data(), bytes.size());
    BitSource read(bytes.data(), bytes.size());
    uint32_t v, w;
    if (lead > 0) {
      ASSERT_TRUE(skip.Read(lead, &v));
      ASSERT_TRUE(read.Read(lead, &w));
    }
    std::vector<uint8_t> sink(13);
    ASSERT_TRUE(skip.ReadBytes(nullptr, 13));
    ASSERT_TRUE(read.ReadBytes(sink.data(), 13));
    ASSERT_TRUE(skip.Read(19, &v));
    ASSERT_TRUE(read.Read(19, &w));
    EXPECT_EQ(v, w) << "lead " << lead;
  }
}

TEST(BitSource, AReadThatDoesNotFitConsumesNothing) {
  const uint8_t bytes[3] = {0xAB, 0xCD, 0xEF};
  BitSource s(bytes, sizeof bytes);
  uint32_t v = 0;
  ASSERT_TRUE(s.Read(4, &v));
  EXPECT_FALSE(s.Read(21, &v));
  EXPECT_FALSE(s.ReadBytes(nullptr, 3));
  EXPECT_EQ(s.BitsLeft(), 20u);
  ASSERT_TRUE(s.Read(20, &v));
  EXPECT_EQ(v, 0xBCDEFu);
}

// The queue gives every whole 5-bit item of the stream, in order, and then nothing.
TEST(WidthQueue, GivesEveryWholeItemOfTheStream) {
  for (size_t size = 0; size < 400; size += 7) {
    for (bool deposit : {false, true}) {
      std::vector<uint8_t> bytes = RandomBytes(size, static_cast<uint32_t>(size) + 3);
      WidthQueue queue(bytes.data(), bytes.size(), deposit);
      BitReader plain(bytes.data(), bytes.size());
      size_t items = 0;
      for (size_t n = queue.Refill(); n > 0; n = queue.Refill()) {
        ASSERT_LE(n, WidthQueue::kBatch);
        for (size_t i = 0; i < n; ++i, ++items) {
          uint32_t expected;
          ASSERT_TRUE(plain.ReadBits(5, &expected)) << "size " << size;
          ASSERT_EQ(queue.items()[i], expected) << "size " << size << " item " << items;
        }
      }
      EXPECT_EQ(items, size * 8 / 5) << "size " << size;
      EXPECT_EQ(queue.Refill(), 0u);
    }
  }
}

// Reading by position gives what reading in order gives, at every bit position and
// width, up to the last bit and no further; Tell and Seek agree with the reads.
TEST(BitSource, ReadAtAgreesWithReadingInOrder) {
  for (size_t size : {0, 1, 7, 8, 9, 15, 16, 40}) {
    std::vector<uint8_t> bytes = RandomBytes(size, static_cast<uint32_t>(size) + 11);
    const BitSource at(bytes.data(), bytes.size());
    for (uint64_t pos = 0; pos <= size * 8 + 3; ++pos) {
      for (int bits = 1; bits <= 32; ++bits) {
        BitReader plain(bytes.data(), bytes.size());
        plain.Seek(std::min<uint64_t>(pos, size * 8));
        uint32_t expected = 0, got = 0;
        const bool ok = pos <= size * 8 && plain.ReadBits(bits, &expected);
        ASSERT_EQ(at.ReadAt(pos, bits, &got), ok) << size << " " << pos << " " << bits;
        if (ok) {
          ASSERT_EQ(got, expected) << size << " " << pos << " " << bits;
        }
        // A window holds the same bits at its top, where it can be loaded at all.
        uint64_t window = 0;
        const bool windowed = at.WindowAt(pos, &window);
        ASSERT_EQ(windowed, pos / 8 + 8 <= size) << size << " " << pos;
        if (windowed && ok && bits <= BitSource::kWindowBits) {
          ASSERT_EQ(static_cast<uint32_t>(window >> (64 - bits)), expected) << size << " " << pos;
        }
      }
      if (pos <= size * 8) {
        BitSource s(bytes.data(), bytes.size());
        s.Seek(pos);
        EXPECT_EQ(s.Tell(), pos);
        EXPECT_EQ(s.BitsLeft(), size * 8 - pos);
      }
    }
  }
}

// Up to 57 bits by position, near the end of the span too, are what two reads in order
// give; bits the span does not hold are found missing.
TEST(BitSource, WideReadsByPositionAgreeWithReadingInOrder) {
  for (size_t size : {0, 1, 7, 8, 9, 15, 16, 40}) {
    std::vector<uint8_t> bytes = RandomBytes(size, static_cast<uint32_t>(size) + 5);
    const BitSource at(bytes.data(), bytes.size());
    for (uint64_t pos = 0; pos <= size * 8 + 3; ++pos) {
      for (int bits = 1; bits <= BitSource::kWindowBits; ++bits) {
        BitReader plain(bytes.data(), bytes.size());
        plain.Seek(std::min<uint64_t>(pos, size * 8));
        const int high_bits = bits > 32 ? bits - 32 : 0;
        uint32_t high = 0, low = 0;
        const bool ok = pos <= size * 8 && (high_bits == 0 || plain.ReadBits(high_bits, &high)) &&
                        plain.ReadBits(bits - high_bits, &low);
        uint64_t got = 0;
        ASSERT_EQ(at.BitsAt(pos, bits, &got), ok) << size << " " << pos << " " << bits;
        if (ok) {
          ASSERT_EQ(got, uint64_t{high} << (bits - high_bits) | low)
              << size << " " << pos << " " << bits;
        }
      }
    }
  }
}

// Copying by position gives what ReadBytes gives, with room to spill or without, and
// bytes the span does not hold are found missing.
TEST(BitSource, CopyingByPositionAgreesWithReadBytes) {
  std::vector<uint8_t> bytes = RandomBytes(61, 5);
  for (uint64_t pos = 0; pos < 61 * 8; pos += 3) {
    for (uint64_t n = 0; n < 30; n += 5) {
      BitSource s(bytes.data(), bytes.size());
      s.Seek(pos);
      std::vector<uint8_t> expected(n + 8, 0xEE), spilled(n + 8, 0xEE), tight(n, 0xEE);
      const bool ok = s.ReadBytes(expected.data(), n);
      const BitSource at(bytes.data(), bytes.size());
      ASSERT_EQ(at.HasBytesAt(pos, n), ok) << pos << " " << n;
      if (!ok) continue;
      at.CopyKnownAt(pos, spilled.data(), n, n + 8);
      at.CopyKnownAt(pos, tight.data(), n, n);
      EXPECT_TRUE(std::equal(tight.begin(), tight.end(), expected.begin())) << pos << " " << n;
      EXPECT_TRUE(std::equal(tight.begin(), tight.end(), spilled.begin())) << pos << " " << n;
    }
  }
}

// Ensure keeps the items in order wherever it moves them, gives as many as asked while
// the stream has them, and says so when it has not.
TEST(WidthQueue, EnsureKeepsTheItemsInOrder) {
  for (size_t size = 0; size < 400; size += 37) {
    std::vector<uint8_t> bytes = RandomBytes(size, static_cast<uint32_t>(size) + 9);
    const size_t total = size * 8 / 5;
    WidthQueue queue(bytes.data(), bytes.size());
    BitReader plain(bytes.data(), bytes.size());
    std::mt19937 rng(static_cast<uint32_t>(size));
    const uint8_t* next = queue.items();
    size_t taken = 0;
    while (true) {
      const size_t want = 1 + rng() % 200;
      bool enough = false;
      next = queue.Ensure(next, want, &enough);
      ASSERT_EQ(enough, taken + want <= total) << size << " " << taken << " " << want;
      if (!enough) break;
      const size_t use = rng() % (want + 1);
      for (size_t i = 0; i < use; ++i, ++taken) {
        uint32_t expected;
        ASSERT_TRUE(plain.ReadBits(5, &expected));
        ASSERT_EQ(next[i], expected) << "size " << size << " item " << taken;
      }
      next += use;
    }
  }
}

}  // namespace
}  // namespace marquel
