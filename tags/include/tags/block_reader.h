// Reading one program's data block back into per-tag sample lists.
//
// The three streams are checked against their CRCs first; any mismatch rejects the whole
// block. The entries are then decoded in lockstep and the state tags' runs are rebuilt.
// A rejected block leaves the output untouched: no partial data is ever kept.
// docs/block-format.md gives the exact bits and the choices made where the format
// leaves room.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "tags/block_content.h"

namespace marquel {

// Why a block was rejected.
enum class BlockRejection {
  kNone = 0,
  kHeaderCrc,          // the header's CRC does not match
  kTagIdCrc,           // the tag-id stream's CRC does not match (or it has no room for one)
  kLengthCrc,          // the same for the length stream
  kDataCrc,            // the same for the data stream
  kBadStateItem,       // a state tag's item is neither 0 (end) nor 2 or 3 (state)
  kLengthStreamShort,  // the length stream ends before the tag-id stream does
  kDataStreamShort,    // the data stream ends inside an entry
  kTruncated,          // fewer bytes than the header announces
};

// A short English reason, e.g. "length stream CRC mismatch".
const char* BlockRejectionText(BlockRejection why);

// The default bound on the samples that state runs may add by filling (see below).
constexpr uint64_t kDefaultMaxFilledSamples = uint64_t{1} << 24;

struct BlockReadOptions {
  // Asked once per tag id that the block holds sample entries for; its answer becomes the
  // tag's valid flag, and the samples of a tag found invalid are ignored. Null accepts
  // every tag.
  std::function<bool(int32_t tag_id)> accept;
  // State runs fill in the samples between their start and their end. Past this many
  // filled samples in one block the fills stop (the block is still accepted and
  // BlockReadStats::fill_truncated is set), so that a crafted or damaged block cannot make
  // the reader allocate without bound.
  uint64_t max_filled_samples = kDefaultMaxFilledSamples;
};

// What the reader noticed in an accepted block.
struct BlockReadStats {
  uint64_t entries = 0;          // time and sample entries read
  uint64_t skipped_entries = 0;  // sample entries with a width of 0
  uint64_t filled_samples = 0;   // samples added by state runs
  uint64_t dropped_samples = 0;  // samples not after their tag's previous one, left out
  bool fill_truncated = false;   // max_filled_samples was reached
};

// Decodes a block from its three streams (each ending in its CRC). On success returns 1
// and replaces *out with the block's tags; on rejection returns 0, sets *why (when given)
// and leaves *out as it was.
int32_t DecodeBlock(const uint8_t* tag_ids, size_t tag_ids_size, const uint8_t* lengths,
                    size_t lengths_size, const uint8_t* data, size_t data_size,
                    const BlockReadOptions& options, BlockContent* out,
                    BlockRejection* why = nullptr, BlockReadStats* stats = nullptr);

// Decodes a block in its stored form (header, tag-id, length and data streams). The
// header CRC is checked first. Bytes after the data stream are ignored; *consumed (when
// given) receives the block's length. Results as DecodeBlock.
int32_t DecodeBlockBytes(const uint8_t* bytes, size_t size, const BlockReadOptions& options,
                         BlockContent* out, BlockRejection* why = nullptr,
                         BlockReadStats* stats = nullptr, size_t* consumed = nullptr);

}  // namespace marquel
