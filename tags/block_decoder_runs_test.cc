// The reader's run path against its entry-by-entry path: every block, as written or
// damaged, must give the same result, reason, statistics and samples both ways.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>

#include "block_lockstep_content.h"
#include "block_reader_paths.h"
#include "block_test_util.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

using namespace blocktest;

// The first difference between two contents, or "" when they hold the same.
std::string Difference(const BlockContent& a, const BlockContent& b) {
  for (int32_t id = 0; id < kTagIdCount; ++id) {
    const BlockTagSamples& x = a.tags[id];
    const BlockTagSamples& y = b.tags[id];
    std::ostringstream where;
    where << "tag " << id << ": ";
    if (x.present != y.present || x.valid != y.valid || x.raw != y.raw)
      return where.str() + "flags";
    if (x.interval != y.interval || x.interval_set != y.interval_set)
      return where.str() + "interval";
    if (x.size() != y.size()) return where.str() + "sample count";
    for (size_t i = 0; i < x.size(); ++i) {
      if (x.times[i] != y.times[i] || x.values[i] != y.values[i])
        return where.str() + "sample " + std::to_string(i);
      if (x.raw && !std::equal(x.RawData(i), x.RawData(i) + x.values[i], y.RawData(i)))
        return where.str() + "bytes of sample " + std::to_string(i);
    }
  }
  return "";
}

struct Outcome {
  int32_t result = 0;
  BlockRejection why = BlockRejection::kNone;
  BlockReadStats stats;
  BlockContent content;
};

Outcome Read(const Bytes& block, ReaderPaths paths, const BlockReadOptions& options = {}) {
  Outcome o;
  o.result = DecodeBlockBytes(block.data(), block.size(), options, &o.content, &o.why, &o.stats,
                              nullptr, paths);
  return o;
}

void ExpectSameBothWays(const Bytes& block, const std::string& what,
                        const BlockReadOptions& options = {}) {
  Outcome runs = Read(block, ReaderPaths::kRunsAndEntries, options);
  Outcome entries = Read(block, ReaderPaths::kEntriesOnly, options);
  ASSERT_EQ(runs.result, entries.result) << what;
  ASSERT_EQ(runs.why, entries.why) << what;
  EXPECT_EQ(runs.stats.entries, entries.stats.entries) << what;
  EXPECT_EQ(runs.stats.skipped_entries, entries.stats.skipped_entries) << what;
  EXPECT_EQ(runs.stats.filled_samples, entries.stats.filled_samples) << what;
  EXPECT_EQ(runs.stats.dropped_samples, entries.stats.dropped_samples) << what;
  EXPECT_EQ(Difference(runs.content, entries.content), "") << what;
}

// Replaces a stream's CRC by the right one for its (changed) bytes, so that the damage
// reaches the decoding instead of the CRC check.
void FixCrc(Bytes& block, size_t start, size_t size) {
  uint32_t crc = Crc32Ieee(block.data() + start, size - kBlockCrcSize);
  for (int k = 0; k < 4; ++k)
    block[start + size - kBlockCrcSize + k] = static_cast<uint8_t>(crc >> (24 - 8 * k));
}

TEST(BlockDecoderRuns, WrittenBlocksReadTheSameBothWays) {
  for (uint64_t seed = 1; seed <= 400; ++seed) {
    Bytes block = Encode(LockstepContent(seed));
    ExpectSameBothWays(block, "seed " + std::to_string(seed));
  }
}

// Refused tags: their lanes never open and a refused delta tag's sums go nowhere.
TEST(BlockDecoderRuns, RefusedTagsReadTheSameBothWays) {
  BlockReadOptions options;
  options.accept = [](int32_t id) { return id != 254 && id != 19 && id != 31; };
  for (uint64_t seed = 500; seed < 600; ++seed) {
    Bytes block = Encode(LockstepContent(seed));
    ExpectSameBothWays(block, "seed " + std::to_string(seed), options);
  }
}

// Damage in any stream: widths of 0 and out of step, missing bytes, samples that go back
// in time, ids changed inside a step. The CRCs are made right again so that every
// damage is decoded.
TEST(BlockDecoderRuns, DamagedBlocksReadTheSameBothWays) {
  std::mt19937_64 rng(77);
  for (uint64_t seed = 1000; seed < 1600; ++seed) {
    Bytes block = Encode(LockstepContent(seed));
    const BlockHeader h = ParseBlockHeader(block.data());
    const size_t starts[3] = {kBlockHeaderSize, kBlockHeaderSize + h.tag_id_size,
                              kBlockHeaderSize + h.tag_id_size + h.length_size};
    const size_t sizes[3] = {h.tag_id_size, h.length_size, h.data_size};
    const size_t stream = rng() % 3;
    if (sizes[stream] <= kBlockCrcSize) continue;
    const size_t body = sizes[stream] - kBlockCrcSize;
    for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) {
      const size_t at = starts[stream] + rng() % body;
      block[at] = rng() % 2 ? static_cast<uint8_t>(rng()) : static_cast<uint8_t>(block[at] ^ 1);
    }
    FixCrc(block, starts[stream], sizes[stream]);
    ExpectSameBothWays(block, "seed " + std::to_string(seed) + " stream " + std::to_string(stream));
  }
}

// Tags 16, 19 and 20 at each of `steps` steps, 10 apart: length items 16, 16, 4 a step.
BlockContent ThreeTagSteps(int steps) {
  BlockContent c;
  for (int i = 0; i < steps; ++i) {
    c.tags[16].AddPlain(1000 + i * 10, i);
    c.tags[19].AddPlain(1000 + i * 10, 2 * i);
    c.tags[20].AddPlain(1000 + i * 10, i % 16);
  }
  return c;
}

// Sets the 5-bit length item `item` of `block` (most significant bit first) to `width`;
// the caller mends the length stream's CRC.
void SetLengthItem(Bytes& block, size_t item, uint32_t width) {
  const BlockHeader h = ParseBlockHeader(block.data());
  const size_t start = kBlockHeaderSize + h.tag_id_size;
  for (size_t b = 0; b < 5; ++b) {
    const size_t bit = item * 5 + b;
    uint8_t& byte = block[start + bit / 8];
    const uint8_t mask = static_cast<uint8_t>(0x80u >> (bit % 8));
    byte = static_cast<uint8_t>((width >> (4 - b)) & 1 ? byte | mask : byte & ~mask);
  }
}

// A skipped entry (width 0) inside a run's step ends the run there; the rest of the step
// is read entry by entry. (The skipped entry's bits stay in the data stream, so what
// follows is read out of step, the same way on both paths.) In the run's first step, the
// run ends before any whole step, and the reading still goes on from where it ended.
TEST(BlockDecoderRuns, ASkippedEntryInsideARunsStep) {
  const Bytes written = Encode(ThreeTagSteps(200));
  for (size_t step : {1, 100}) {
    Bytes block = written;
    const BlockHeader h = ParseBlockHeader(block.data());
    SetLengthItem(block, 3 * step + 1, 0);  // tag 19's item of the step
    FixCrc(block, kBlockHeaderSize + h.tag_id_size, h.length_size);
    ExpectSameBothWays(block, "width 0 in step " + std::to_string(step));
    Outcome runs = Read(block, ReaderPaths::kRunsAndEntries);
    ASSERT_EQ(runs.result, 1) << step;
    EXPECT_EQ(runs.stats.skipped_entries, 1u) << step;
    EXPECT_GE(runs.content.tags[16].size(), step + 1) << "the steps before the damage";
  }
}

// Length items that change inside a run: one step's item, or every item from a step on.
// The steps of other widths are read entry by entry (and the run's shape made anew for
// the widths that then repeat); the data is read out of step after them, the same way on
// both paths.
TEST(BlockDecoderRuns, WidthsThatChangeInsideARun) {
  const Bytes written = Encode(ThreeTagSteps(300));
  const BlockHeader h = ParseBlockHeader(written.data());
  const size_t start = kBlockHeaderSize + h.tag_id_size;
  for (uint32_t width : {1u, 12u, 20u, 31u}) {
    Bytes one = written;
    SetLengthItem(one, 3 * 150 + 1, width);
    FixCrc(one, start, h.length_size);
    ExpectSameBothWays(one, "tag 19 at width " + std::to_string(width) + " in step 150");

    Bytes from_on = written;
    for (size_t step = 150; step < 300; ++step) SetLengthItem(from_on, 3 * step + 2, width);
    FixCrc(from_on, start, h.length_size);
    ExpectSameBothWays(from_on, "tag 20 at width " + std::to_string(width) + " from step 150");
  }
}

// A state tag first met inside a run's step: it is asked about (and refused here) as the
// main loop would ask, before its items count.
TEST(BlockDecoderRuns, AStateTagFirstMetInsideARunIsAskedAbout) {
  BlockContent c;
  for (int i = 0; i < 300; ++i) {
    const int64_t t = 1000 + i * 100;
    c.tags[16].AddPlain(t, i);
    c.tags[19].AddPlain(t, i * 3);
    if (i >= 150) c.tags[17].AddPlain(t, (i / 40) % 2);
  }
  c.tags[17].interval = 100;
  Bytes block = Encode(c);
  for (bool accept_17 : {true, false}) {
    BlockReadOptions options;
    options.accept = [accept_17](int32_t id) { return id != 17 || accept_17; };
    ExpectSameBothWays(block, accept_17 ? "accepted" : "refused", options);
    Outcome runs = Read(block, ReaderPaths::kRunsAndEntries, options);
    ASSERT_EQ(runs.result, 1);
    EXPECT_EQ(runs.content.tags[17].valid, accept_17);
    EXPECT_EQ(runs.content.tags[17].size(), accept_17 ? 150u : 0u);
  }
}

// Bits gathered most significant first into bytes, for blocks made by hand.
class Bits {
 public:
  void Put(uint64_t value, int bits) {
    for (int b = bits - 1; b >= 0; --b) {
      if (count_ % 8 == 0) bytes_.push_back(0);
      if ((value >> b) & 1) bytes_.back() |= static_cast<uint8_t>(0x80u >> (count_ % 8));
      ++count_;
    }
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_;
  size_t count_ = 0;
};

// Time goes back by an absolute entry, and the steps after it repeat one another while
// still before the tag's last sample: every sample there is dropped, never stored out of
// order, and a run must leave those steps to the main loop. Once for a value tag (whose
// samples go through a lane) and once for a delta tag.
Bytes TimeGoesBack(int32_t id, int width) {
  Bytes ids;
  Bits lengths, data;
  auto absolute = [&](uint64_t t) {
    ids.push_back(0);
    data.Put((t & 0xFFFF) << 16 | ((t >> 16) & 0xFFFF), 32);
    data.Put(((t >> 32) & 0xFFFF) << 16 | t >> 48, 32);
  };
  auto sample = [&](uint32_t value) {
    ids.push_back(static_cast<uint8_t>(id));
    lengths.Put(static_cast<uint64_t>(width), 5);
    data.Put(value, width);
  };
  absolute(10000000);
  sample(1);
  absolute(10);
  sample(2);
  for (int i = 0; i < 100; ++i) {
    ids.push_back(1);
    data.Put(5 << 16, 24);  // +5, least significant byte first
    sample(3);
  }
  return BuildBlock(ids, lengths.bytes(), data.bytes());
}

TEST(BlockDecoderRuns, StepsBeforeATagsLastSampleAreDropped) {
  struct Case {
    int32_t id;
    int width;
    const char* what;
  };
  for (const Case& c : {Case{16, 16, "value tag"}, Case{254, 8, "delta tag"}}) {
    Bytes block = TimeGoesBack(c.id, c.width);
    ExpectSameBothWays(block, c.what);
    Outcome runs = Read(block, ReaderPaths::kRunsAndEntries);
    ASSERT_EQ(runs.result, 1) << c.what;
    EXPECT_EQ(SamplesOf(runs.content, c.id), (Pairs{{10000000, 1}})) << c.what;
    EXPECT_EQ(runs.stats.dropped_samples, 101u) << c.what;
  }
}

}  // namespace
}  // namespace marquel
