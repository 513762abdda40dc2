// Writing one program's data block.
//
// The writer merges the tags' samples by time code into entries: a time entry (absolute
// for a step of 1000000 or more since the last time entry, relative otherwise) before the
// first sample entry of each time step, then one sample entry per tag with a sample at
// that time, in ascending tag id order, coded by the tag's type from the tag definition
// table. State tags (types 3 and 4) are run-length coded. docs/block-format.md gives the
// exact bits and the choices made where the format leaves room.
#pragma once

#include <cstdint>
#include <vector>

#include "tags/bit_buffer.h"
#include "tags/block_content.h"

namespace marquel {

// Sizes in bytes of a block's streams, each with its 4-byte CRC.
struct BlockSizes {
  uint64_t tag_id_size = 0;
  uint64_t length_size = 0;
  uint64_t data_size = 0;
  // The whole block: the three streams and the 26-byte header.
  uint64_t Total() const;
};

// The size prediction of a block: per stream, the exact bit count of its entries
// truncated to whole bytes, plus 4 for its CRC. A stream whose bits do not fill its last
// byte is therefore predicted one byte short of what WriteBlock stores. The result's
// Total() is the block-size query of the program. It walks the samples as the writer
// does, without storing anything.
BlockSizes PredictBlockSizes(BlockSampleSource& source);

// The four buffers a block is written into.
struct BlockStreams {
  BitBuffer* tag_ids = nullptr;
  BitBuffer* lengths = nullptr;
  BitBuffer* data = nullptr;
  BitBuffer* header = nullptr;
};

// Writes the block of `source` into the four buffers, which are emptied first and grow
// as needed (a buffer with a spill threshold sets its bytes aside past it: read it back
// with ForEachChunk). Each stream is padded to a byte and closed by its CRC; the header
// carries the streams' real sizes. Returns 1, or -1 (buffers emptied) when a stream would
// not fit the header's 32-bit size fields or could not be set aside (a full disk).
int32_t WriteBlock(BlockSampleSource& source, const BlockStreams& out);

// A block held in memory.
struct EncodedBlock {
  BitBuffer header;
  BitBuffer tag_ids;
  BitBuffer lengths;
  BitBuffer data;
  // The block as stored: header, tag-id stream, length stream, data stream (empty when a
  // spilled stream cannot be read back).
  std::vector<uint8_t> Bytes() const;
};

// WriteBlock into an EncodedBlock.
int32_t EncodeBlock(BlockSampleSource& source, EncodedBlock* out);
// The stored form of the block of `content` (empty on failure).
std::vector<uint8_t> EncodeBlockBytes(const BlockContent& content);

}  // namespace marquel
