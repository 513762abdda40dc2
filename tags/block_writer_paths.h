// The block writer with a choice of paths, so that tests can hold the run path against
// the step-by-step path: both must write the same bytes for every input.
#pragma once

#include "tags/block_writer.h"

namespace marquel {

enum class WriterPaths {
  kRunsAndSteps,  // what WriteBlock and PredictBlockSizes do
  kStepsOnly,     // every step on its own, never a run
};

// WriteBlock and PredictBlockSizes by the chosen paths.
int32_t WriteBlock(BlockSampleSource& source, const BlockStreams& out, WriterPaths paths);
BlockSizes PredictBlockSizes(BlockSampleSource& source, WriterPaths paths);

}  // namespace marquel
