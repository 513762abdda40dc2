#include "tags/block_reader.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "block_decoder.h"
#include "block_reader_paths.h"
#include "tags/block_format.h"

namespace marquel {

const char* BlockRejectionText(BlockRejection why) {
  switch (why) {
    case BlockRejection::kNone:
      return "accepted";
    case BlockRejection::kHeaderCrc:
      return "header CRC mismatch";
    case BlockRejection::kTagIdCrc:
      return "tag-id stream CRC mismatch";
    case BlockRejection::kLengthCrc:
      return "length stream CRC mismatch";
    case BlockRejection::kDataCrc:
      return "data stream CRC mismatch";
    case BlockRejection::kBadStateItem:
      return "state item other than 2 or 3";
    case BlockRejection::kLengthStreamShort:
      return "length stream ends early";
    case BlockRejection::kDataStreamShort:
      return "data stream ends inside an entry";
    case BlockRejection::kTruncated:
      return "block shorter than its header announces";
  }
  return "unknown";
}

int32_t DecodeBlock(const uint8_t* tag_ids, size_t tag_ids_size, const uint8_t* lengths,
                    size_t lengths_size, const uint8_t* data, size_t data_size,
                    const BlockReadOptions& options, BlockContent* out, BlockRejection* why,
                    BlockReadStats* stats) {
  return DecodeBlock(tag_ids, tag_ids_size, lengths, lengths_size, data, data_size, options, out,
                     why, stats, ReaderPaths::kRunsAndEntries);
}

int32_t DecodeBlock(const uint8_t* tag_ids, size_t tag_ids_size, const uint8_t* lengths,
                    size_t lengths_size, const uint8_t* data, size_t data_size,
                    const BlockReadOptions& options, BlockContent* out, BlockRejection* why,
                    BlockReadStats* stats, ReaderPaths paths) {
  BlockRejection reason = BlockRejection::kNone;
  if (!StreamCrcOk(tag_ids, tag_ids_size)) {
    reason = BlockRejection::kTagIdCrc;
  } else if (!StreamCrcOk(lengths, lengths_size)) {
    reason = BlockRejection::kLengthCrc;
  } else if (!StreamCrcOk(data, data_size)) {
    reason = BlockRejection::kDataCrc;
  }
  BlockReadStats local_stats;
  if (reason == BlockRejection::kNone) {
    // An empty output is decoded into directly, so that a reader that clears and
    // reuses its content keeps its memory; a rejection empties it again, which leaves
    // it as it was. Content that holds tags is replaced only on success.
    std::unique_ptr<BlockContent> scratch;
    BlockContent* target = out;
    if (!out->Empty()) {
      scratch = std::make_unique<BlockContent>();
      target = scratch.get();
    }
    Decoder decoder(options, target, &local_stats, paths == ReaderPaths::kRunsAndEntries);
    WidthQueue widths(lengths, lengths_size - kBlockCrcSize);
    reason = decoder.Run(tag_ids, tag_ids_size - kBlockCrcSize, widths,
                         BitSource(data, data_size - kBlockCrcSize));
    decoder.CloseLanes();
    if (reason != BlockRejection::kNone) {
      target->Clear();
    } else if (scratch) {
      std::swap(*out, *scratch);
    }
  }
  if (why) *why = reason;
  if (stats) *stats = reason == BlockRejection::kNone ? local_stats : BlockReadStats();
  return reason == BlockRejection::kNone ? 1 : 0;
}

int32_t DecodeBlockBytes(const uint8_t* bytes, size_t size, const BlockReadOptions& options,
                         BlockContent* out, BlockRejection* why, BlockReadStats* stats,
                         size_t* consumed) {
  return DecodeBlockBytes(bytes, size, options, out, why, stats, consumed,
                          ReaderPaths::kRunsAndEntries);
}

int32_t DecodeBlockBytes(const uint8_t* bytes, size_t size, const BlockReadOptions& options,
                         BlockContent* out, BlockRejection* why, BlockReadStats* stats,
                         size_t* consumed, ReaderPaths paths) {
  auto reject = [&](BlockRejection r) {
    if (why) *why = r;
    if (stats) *stats = BlockReadStats();
    return 0;
  };
  if (size < kBlockHeaderSize) return reject(BlockRejection::kTruncated);
  if (!BlockHeaderCrcOk(bytes)) return reject(BlockRejection::kHeaderCrc);
  BlockHeader h = ParseBlockHeader(bytes);
  uint64_t total = uint64_t{kBlockHeaderSize} + h.tag_id_size + h.length_size + h.data_size;
  if (total > size) return reject(BlockRejection::kTruncated);
  const uint8_t* ids = bytes + kBlockHeaderSize;
  const uint8_t* lengths = ids + h.tag_id_size;
  const uint8_t* data = lengths + h.length_size;
  if (consumed) *consumed = static_cast<size_t>(total);
  return DecodeBlock(ids, h.tag_id_size, lengths, h.length_size, data, h.data_size, options, out,
                     why, stats, paths);
}

}  // namespace marquel
