// The writer's run path against its step-by-step path: for every input both must write
// the same bytes and predict the same sizes. The inputs are made for runs: tags sampled
// together on one time grid, with the things that end a run mixed in (a state change, a
// state gap, a tag missing from a step or sampled between steps, a jump of 1000000 or
// more, the end of a cursor's batch).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "block_test_util.h"
#include "block_writer_paths.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

using namespace blocktest;

// Every tag type, and widths from 1 to 30 bits; tags 33 and 34 make a step's data pass
// 64 bits between raw samples.
const int32_t kIds[] = {2,  16, 17,  19,  20,  25,  29,  31,  32,
                        33, 34, 114, 122, 123, 251, 252, 253, 254};

// Hands out each tag's samples in batches of random sizes, as a program's stored tags
// come in batches.
class ChoppedSource : public BlockSampleSource {
 public:
  ChoppedSource(const BlockContent& content, uint64_t seed) : inner_(content), seed_(seed) {}
  int32_t HighestTagId() override { return inner_.HighestTagId(); }
  int64_t Interval(int32_t id) override { return inner_.Interval(id); }
  std::unique_ptr<BlockTagCursor> OpenTag(int32_t id) override {
    auto inner = inner_.OpenTag(id);
    if (!inner) return nullptr;
    return std::make_unique<Cursor>(std::move(inner), seed_ + static_cast<uint64_t>(id));
  }

 private:
  class Cursor : public BlockTagCursor {
   public:
    Cursor(std::unique_ptr<BlockTagCursor> inner, uint64_t seed)
        : inner_(std::move(inner)), rng_(seed) {}
    bool Next(BlockSampleBatch* batch) override {
      if (left_ == 0) {
        if (!inner_->Next(&whole_)) return false;
        at_ = 0;
        left_ = whole_.count;
      }
      size_t n = std::min(left_, std::uniform_int_distribution<size_t>(1, 40)(rng_));
      *batch = whole_;
      batch->times += at_;
      batch->values += at_;
      if (batch->raw_offsets != nullptr) batch->raw_offsets += at_;
      batch->count = n;
      at_ += n;
      left_ -= n;
      return true;
    }

   private:
    std::unique_ptr<BlockTagCursor> inner_;
    std::mt19937_64 rng_;
    BlockSampleBatch whole_;
    size_t at_ = 0;
    size_t left_ = 0;
  };
  BlockContentSource inner_;
  uint64_t seed_;
};

// A program whose tags mostly share every step of one time grid.
BlockContent LockstepContent(uint64_t seed) {
  std::mt19937_64 rng(seed);
  auto uniform = [&rng](int64_t lo, int64_t hi) {
    return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
  };
  auto chance = [&](int per_mille) { return uniform(0, 999) < per_mille; };
  const int steps = static_cast<int>(uniform(1, 400));
  std::vector<int64_t> grid;
  int64_t t = uniform(-5, 3000000);
  for (int i = 0; i < steps; ++i) {
    grid.push_back(t);
    t += chance(10) ? uniform(1000000, 3000000) : chance(20) ? 0 : uniform(1, 700000);
  }
  const int missing = static_cast<int>(uniform(0, 60));  // per mille of samples left out
  BlockContent c;
  for (int32_t id : kIds) {
    if (chance(150)) continue;
    BlockTagSamples& tag = c.tags[id];
    const int32_t type = kTagDefinitions[id].nType;
    if (IsStateTagType(type)) tag.interval = chance(300) ? 0 : uniform(1, 900000);
    int32_t state = static_cast<int32_t>(uniform(0, 1));
    const bool bytes_less = chance(100);  // a raw tag of plain samples: no bytes at all
    for (int64_t time : grid) {
      if (chance(missing)) continue;
      if (chance(5)) time += 1;  // a sample between the grid's steps
      if (!tag.times.empty() && time < tag.times.back()) time = tag.times.back();
      if (IsStateTagType(type)) {
        if (chance(30)) state ^= 1;
        tag.AddPlain(time, state);
      } else if (type == kTagTypeRaw && !bytes_less) {
        std::vector<uint8_t> bytes(static_cast<size_t>(uniform(0, chance(50) ? 300 : 20)));
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
        tag.AddRaw(time, bytes.data(), static_cast<int32_t>(bytes.size()));
      } else {
        tag.AddPlain(time, static_cast<int32_t>(rng()));
      }
    }
  }
  return c;
}

Bytes Written(BlockSampleSource& source, WriterPaths paths) {
  EncodedBlock block;
  EXPECT_EQ(
      WriteBlock(source, BlockStreams{&block.tag_ids, &block.lengths, &block.data, &block.header},
                 paths),
      1);
  return block.Bytes();
}

TEST(BlockRuns, RunsWriteWhatTheStepsWrite) {
  for (uint64_t seed = 1; seed <= 400; ++seed) {
    BlockContent c = LockstepContent(seed);
    BlockContentSource source(c);
    Bytes runs = Written(source, WriterPaths::kRunsAndSteps);
    ASSERT_EQ(runs, Written(source, WriterPaths::kStepsOnly)) << "seed " << seed;
    EXPECT_EQ(PredictBlockSizes(source, WriterPaths::kRunsAndSteps).Total(),
              PredictBlockSizes(source, WriterPaths::kStepsOnly).Total())
        << "seed " << seed;
  }
}

TEST(BlockRuns, RunsStopAtTheEndsOfBatches) {
  for (uint64_t seed = 1000; seed < 1200; ++seed) {
    BlockContent c = LockstepContent(seed);
    ChoppedSource runs_source(c, seed), steps_source(c, seed);
    ASSERT_EQ(Written(runs_source, WriterPaths::kRunsAndSteps),
              Written(steps_source, WriterPaths::kStepsOnly))
        << "seed " << seed;
  }
}

// A long clean run: every tag on every step, states constant. Its block must read back
// as written, which ties the run path to the reader and not only to the other path.
TEST(BlockRuns, ALongRunReadsBack) {
  BlockContent c;
  for (int i = 0; i < 5000; ++i) {
    const int64_t t = 40000 + int64_t{i} * 3003;
    c.tags[16].AddPlain(t, i * 7);
    c.tags[254].AddPlain(t, i * i);
    c.tags[252].AddPlain(t, 1);
    const uint8_t raw[3] = {static_cast<uint8_t>(i), 0x5A, static_cast<uint8_t>(i >> 8)};
    c.tags[32].AddRaw(t, raw, 3);
  }
  c.tags[252].interval = 3003;
  BlockContent back;
  ASSERT_EQ(Decode(Encode(c), &back), 1);
  EXPECT_EQ(SamplesOf(back, 16), SamplesOf(c, 16));
  EXPECT_EQ(SamplesOf(back, 252), SamplesOf(c, 252));
  ASSERT_EQ(back.tags[254].size(), 5000u);
  for (size_t i = 0; i < 5000; ++i) EXPECT_EQ(back.tags[254].values[i] & 0xFF, (i * i) & 0xFF);
  ASSERT_EQ(back.tags[32].size(), 5000u);
  for (size_t i = 0; i < 5000; i += 997) EXPECT_EQ(RawOf(back, 32, i), RawOf(c, 32, i));
}

}  // namespace
}  // namespace marquel
