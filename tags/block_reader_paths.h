// The block reader with a choice of paths, so that tests can hold the run path against
// the entry-by-entry path: both must decode every block, good or damaged, the same way.
#pragma once

#include "tags/block_reader.h"

namespace marquel {

enum class ReaderPaths {
  kRunsAndEntries,  // what DecodeBlock and DecodeBlockBytes do
  kEntriesOnly,     // every entry by the main loop, never a run
};

// DecodeBlock and DecodeBlockBytes by the chosen paths.
int32_t DecodeBlock(const uint8_t* tag_ids, size_t tag_ids_size, const uint8_t* lengths,
                    size_t lengths_size, const uint8_t* data, size_t data_size,
                    const BlockReadOptions& options, BlockContent* out, BlockRejection* why,
                    BlockReadStats* stats, ReaderPaths paths);
int32_t DecodeBlockBytes(const uint8_t* bytes, size_t size, const BlockReadOptions& options,
                         BlockContent* out, BlockRejection* why, BlockReadStats* stats,
                         size_t* consumed, ReaderPaths paths);

}  // namespace marquel
