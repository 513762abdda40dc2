// Property tests: random programs of every tag type go write -> read -> write and the
// two blocks are identical; what is read equals what was written, as far as the format
// keeps it (values in their width, raw counts in their field).
//
// State tags are drawn from what the run-length coding represents exactly: samples on
// their interval grid without gaps, with runs of any length. Samples off the grid or
// across gaps are rebuilt onto the grid by the reader (see docs/block-format.md), which
// the golden tests pin.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "block_test_util.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

using namespace blocktest;

// Tag ids covering every type: 0 (several widths), 1 (254), 2 (253), 3 (17, 252),
// 4 (251), 5 (raw, several count widths).
const int32_t kPlainIds[] = {2, 3, 15, 16, 19, 20, 25, 114, 122, 129, 176, 250, 253, 254};
const int32_t kStateIds[] = {17, 251, 252};
const int32_t kRawIds[] = {29, 31, 32, 68, 112, 123, 124, 125, 126, 127, 130, 136, 140};

class Generator {
 public:
  explicit Generator(uint64_t seed) : rng_(seed) {}

  uint64_t Next() { return rng_(); }
  int64_t Uniform(int64_t lo, int64_t hi) {
    return std::uniform_int_distribution<int64_t>(lo, hi)(rng_);
  }
  bool Chance(int percent) { return Uniform(0, 99) < percent; }

  // A step between two time codes, biased towards the 1000000 boundary.
  int64_t Step() {
    switch (Uniform(0, 6)) {
      case 0:
        return Uniform(1, 10);
      case 1:
        return 999999;
      case 2:
        return 1000000;
      case 3:
        return 1000001;
      case 4:
        return Uniform(1, 1 << 20);
      case 5:
        return Uniform(1, int64_t{1} << 40);
      default:
        return Uniform(1, 5000000);
    }
  }

  // Ascending time codes shared by the plain and raw tags, so that steps hold several.
  std::vector<int64_t> TimePool(int n) {
    std::vector<int64_t> pool;
    int64_t t = Chance(20) ? -Uniform(1, 1 << 23) : Uniform(0, 3000000);
    for (int i = 0; i < n; ++i) {
      pool.push_back(t);
      t += Step();
    }
    return pool;
  }

  std::vector<int64_t> Subset(const std::vector<int64_t>& pool) {
    std::vector<int64_t> out;
    int percent = static_cast<int>(Uniform(5, 100));
    for (int64_t t : pool)
      if (Chance(percent)) out.push_back(t);
    return out;
  }

 private:
  std::mt19937_64 rng_;
};

BlockContent RandomContent(uint64_t seed) {
  Generator g(seed);
  BlockContent c;
  std::vector<int64_t> pool = g.TimePool(static_cast<int>(g.Uniform(1, 80)));
  for (int32_t id : kPlainIds) {
    if (!g.Chance(50)) continue;
    for (int64_t t : g.Subset(pool)) c.tags[id].AddPlain(t, static_cast<int32_t>(g.Next()));
  }
  for (int32_t id : kRawIds) {
    if (!g.Chance(40)) continue;
    int width = kTagDefinitions[id].nBits;
    int64_t max_count = std::min<int64_t>((int64_t{1} << width) - 1, 40);
    for (int64_t t : g.Subset(pool)) {
      // Now and then a sample longer than its count field can say.
      int64_t n = g.Chance(5) ? max_count + g.Uniform(1, 5) : g.Uniform(0, max_count);
      Bytes bytes(static_cast<size_t>(n));
      for (auto& b : bytes) b = static_cast<uint8_t>(g.Next());
      AddRaw(c, id, t, bytes);
    }
  }
  for (int32_t id : kStateIds) {
    if (!g.Chance(60)) continue;
    int64_t interval = g.Chance(10) ? 0 : g.Uniform(1, (1 << 24) - 1);
    int64_t step = interval == 0 ? kDefaultStateInterval : interval;
    int64_t t = g.Uniform(0, int64_t{1} << 36);
    int n = static_cast<int>(g.Uniform(1, 60));
    int32_t value = static_cast<int32_t>(g.Uniform(0, 1));
    for (int i = 0; i < n; ++i, t += step) {
      if (g.Chance(25)) value ^= 1;
      c.tags[id].AddPlain(t, value);
    }
    c.tags[id].interval = interval;
  }
  return c;
}

// What the reader must give back for the samples of one non-state tag.
void ExpectReadBack(const BlockTagSamples& in, const BlockTagSamples& out, int32_t id) {
  int width = kTagDefinitions[id].nBits;
  uint32_t mask = (uint32_t{1} << width) - 1;
  ASSERT_EQ(in.size(), out.size()) << "tag " << id;
  EXPECT_EQ(in.times, out.times) << "tag " << id;
  uint32_t sum = 0, previous = 0;  // a delta tag's running sum, as the reader keeps it
  for (size_t i = 0; i < in.size(); ++i) {
    if (kTagDefinitions[id].nType == kTagTypeDelta) {
      // Each step is written in its width and the reader adds them up unmasked.
      const uint32_t value = static_cast<uint32_t>(in.values[i]);
      sum += (value - previous) & mask;
      previous = value;
      EXPECT_EQ(static_cast<uint32_t>(out.values[i]), sum) << "tag " << id << " sample " << i;
    } else if (in.raw) {
      size_t n = std::min<size_t>(static_cast<size_t>(in.values[i]), mask);
      ASSERT_EQ(out.values[i], static_cast<int32_t>(n)) << "tag " << id;
      EXPECT_TRUE(std::equal(in.RawData(i), in.RawData(i) + n, out.RawData(i))) << "tag " << id;
    } else {
      // Values come back in their width.
      EXPECT_EQ(static_cast<uint32_t>(out.values[i]), static_cast<uint32_t>(in.values[i]) & mask)
          << "tag " << id << " sample " << i;
    }
  }
}

TEST(BlockRoundTrip, WriteReadWriteIsByteIdentical) {
  for (uint64_t seed = 1; seed <= 300; ++seed) {
    BlockContent original = RandomContent(seed);
    Bytes first = Encode(original);
    BlockContent back;
    BlockRejection why;
    ASSERT_EQ(Decode(first, &back, &why), 1) << "seed " << seed << ": " << BlockRejectionText(why);
    ASSERT_EQ(Encode(back), first) << "seed " << seed;
    for (int32_t id : kPlainIds) ExpectReadBack(original.tags[id], back.tags[id], id);
    for (int32_t id : kRawIds) ExpectReadBack(original.tags[id], back.tags[id], id);
    for (int32_t id : kStateIds) {
      EXPECT_EQ(SamplesOf(back, id), SamplesOf(original, id)) << "seed " << seed << " tag " << id;
      if (!original.tags[id].empty()) {
        int64_t iv = original.tags[id].interval;
        EXPECT_EQ(back.tags[id].interval, iv == 0 ? kDefaultStateInterval : iv);
      }
    }
  }
}

TEST(BlockRoundTrip, PredictionIsNeverAboveTheBlockAndAtMostTwoBelow) {
  for (uint64_t seed = 1000; seed < 1300; ++seed) {
    BlockContent c = RandomContent(seed);
    uint64_t predicted = Predict(c).Total();
    uint64_t written = Encode(c).size();
    ASSERT_LE(predicted, written) << seed;
    ASSERT_LE(written - predicted, 2u) << seed;  // the tag-id stream never pads
  }
}

TEST(BlockRoundTrip, StateSamplesOffTheGridReadBackSafely) {
  // Arbitrary state samples: the rebuilt runs are ascending, hold only 0 and 1, and a
  // second round changes nothing once the samples lie on the rebuilt grid.
  for (uint64_t seed = 5000; seed < 5300; ++seed) {
    Generator g(seed);
    BlockContent c;
    int64_t t = g.Uniform(0, 1 << 30);
    for (int i = 0, n = static_cast<int>(g.Uniform(1, 40)); i < n; ++i) {
      c.tags[17].AddPlain(t, static_cast<int32_t>(g.Uniform(0, 1)));
      t += g.Chance(70) ? kDefaultStateInterval : g.Uniform(1, 10 * kDefaultStateInterval);
    }
    BlockContent back;
    ASSERT_EQ(Decode(Encode(c), &back), 1) << seed;
    const BlockTagSamples& s = back.tags[17];
    ASSERT_FALSE(s.empty()) << seed;
    EXPECT_EQ(s.times.front(), c.tags[17].times.front()) << seed;
    for (size_t i = 0; i < s.size(); ++i) {
      EXPECT_TRUE(s.values[i] == 0 || s.values[i] == 1) << seed;
      if (i > 0) {
        EXPECT_LT(s.times[i - 1], s.times[i]) << seed;
      }
    }
    EXPECT_LE(s.times.back(), c.tags[17].times.back()) << seed;
  }
}

}  // namespace
}  // namespace marquel
