// The writer's run path against its step-by-step path: for every input both must write
// the same bytes and predict the same sizes. The inputs are made for runs: tags sampled
// together on one time grid, with the things that end a run mixed in (a state change, a
// state gap, a tag missing from a step or sampled between steps, a jump of 1000000 or
// more, the end of a cursor's batch).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "block_lockstep_content.h"
#include "block_reader_paths.h"
#include "block_test_util.h"
#include "block_writer_paths.h"
#include "log/log_capture.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

using namespace blocktest;

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

// Tag 254 (8 bits) counting far past 255 in steps of 0 to 255, beside a state tag whose
// changes send steps through the run's entry-by-entry writer and reader.
BlockContent CounterContent() {
  BlockContent c;
  uint32_t counter = 0;
  for (int i = 0; i < 5000; ++i) {
    const int64_t t = 1000 + int64_t{i} * 3003;
    counter += static_cast<uint32_t>(i * 37 % 256);
    c.tags[16].AddPlain(t, i);
    c.tags[254].AddPlain(t, static_cast<int32_t>(counter));
    c.tags[252].AddPlain(t, i / 64 % 2);
  }
  c.tags[252].interval = 3003;
  return c;
}

BlockContent DecodedBy(const Bytes& block, ReaderPaths paths) {
  BlockContent back;
  EXPECT_EQ(DecodeBlockBytes(block.data(), block.size(), BlockReadOptions(), &back, nullptr,
                             nullptr, nullptr, paths),
            1);
  return back;
}

TEST(BlockRuns, ADeltaCounterComesBackPastItsWidthByEveryPath) {
  BlockContent c = CounterContent();
  c.tags[254].values.back() = c.tags[254].values[4998] + 255;  // the largest step there is
  ASSERT_GT(c.tags[254].values.back(), 500000);
  BlockContentSource source(c);
  log::LogCapture log;
  const Bytes runs = Written(source, WriterPaths::kRunsAndSteps);
  ASSERT_EQ(runs, Written(source, WriterPaths::kStepsOnly));
  EXPECT_TRUE(log.Lines().empty());
  for (ReaderPaths paths : {ReaderPaths::kRunsAndEntries, ReaderPaths::kEntriesOnly}) {
    BlockContent back = DecodedBy(runs, paths);
    EXPECT_EQ(SamplesOf(back, 254), SamplesOf(c, 254));
    EXPECT_EQ(SamplesOf(back, 252), SamplesOf(c, 252));
  }
}

TEST(BlockRuns, ADeltaStepTooLargeIsLoggedByEveryWriterPath) {
  // The counter falls at one step inside a run: both paths write its low 8 bits and log.
  BlockContent c = CounterContent();
  c.tags[254].values[2500] = 3;
  BlockContentSource source(c);
  for (WriterPaths paths : {WriterPaths::kRunsAndSteps, WriterPaths::kStepsOnly}) {
    log::LogCapture log;
    Written(source, paths);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_TRUE(log.Has("tag 254 (delta, width 8)"));
  }
}

}  // namespace
}  // namespace marquel
