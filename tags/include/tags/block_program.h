// The data block codec applied to a program store (MQOneProgram).
//
// Writing fills the program's four serialisation buffers; the persistence layer then
// stores them (cache file, program-stream packs, transport packets). Reading works the
// other way round: a stored block is first put into the four buffers (from a temporary
// cache file here, or out of a media file by the persistence layer), then converted into
// the program's tags.
//
// Buffer convention. After WriteProgramBlock or a successful read, m_ptpTagID,
// m_ptpDataLength and m_ptpData each hold exactly their stream, CRC included, and
// m_ptpHeader holds the 26-byte header in the first 26 of its 52 bytes. bitPosition is
// the number of bits written into the buffer (the stream's size times 8; 208 for the
// header). A stream that WriteProgramBlock spilled keeps its first part in its spill file
// (ProgramBuffer); without one, bytes.size() is the stream's size. Read a stream of any
// size with ProgramBuffer::ForEachChunk.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tags/block_content.h"
#include "tags/block_reader.h"
#include "tags/block_writer.h"
#include "tags/mq_one_program.h"

namespace marquel {

// The program's tags as the block writer reads them: each tag's records in order,
// through TagRecordCursor. The program must outlive the source.
class ProgramBlockSource : public BlockSampleSource {
 public:
  explicit ProgramBlockSource(MQOneProgram& program) : program_(program) {}
  int32_t HighestTagId() override { return program_.HighestTagId(); }
  std::unique_ptr<BlockTagCursor> OpenTag(int32_t tag_id) override;
  int64_t Interval(int32_t tag_id) override;
  // Whether a tag's records could not be read: a cursor then ended early, so what the
  // writer saw is not the whole program.
  bool ReadFailed() const { return read_failed_; }

 private:
  MQOneProgram& program_;
  bool read_failed_ = false;
};

// Writes the program's block into its four buffers (made anew). A stream whose bytes pass
// `spill_threshold` is spilled to a temporary file past it, so the memory a write takes
// stays bounded whatever the samples add up to. Returns 1, or -1 when the block cannot be
// written (a stream beyond the 32-bit size fields, a spill that failed, or a record file
// that could not be read); the buffers are then released and no spill file stays.
int32_t WriteProgramBlock(MQOneProgram& program, size_t spill_threshold = kStreamSpillThreshold);

// The block-size query: the predicted size of the block as it would be written now
// (header included; see PredictBlockSizes for how each stream is counted).
int64_t QueryProgramBlockSize(MQOneProgram& program);
// The same for the samples of the half-open period [start, end) (end below 0: up to the
// last sample).
int64_t QueryProgramBlockPeriodSize(MQOneProgram& program, int64_t start, int64_t end);

// The block held in the program's buffers in its stored form (header, tag-id, length
// and data streams), all in memory. Empty when a buffer is missing (the missing one is
// logged) or a spilled stream cannot be read back. Writers stream the buffers instead.
std::vector<uint8_t> ProgramBlockBytes(MQOneProgram& program);

// Puts a stored block's parts into the program's four buffers, replacing them: the
// 26 header bytes and the three streams (each with its CRC).
void SetProgramBlockBuffers(MQOneProgram& program, const uint8_t* header,
                            std::vector<uint8_t> tag_ids, std::vector<uint8_t> lengths,
                            std::vector<uint8_t> data);

// Converts the block held in the program's buffers into its tags (a spilled stream is
// read back into memory first: the decoder needs each stream whole). Every stream's CRC is
// checked first; a mismatch (or a block the reader rejects) returns 0 and changes
// nothing. Otherwise every existing tag is cleared, the session's acceptance callback is
// asked about each tag of the block (its answer becomes the tag's valid flag), the
// samples are appended in order (TagObject::BulkAppend), the state tags' intervals are
// set as read, and every memory block is flushed to its record file. Returns 1; 0 for a
// rejected block or missing buffers; -1 when the store fails to take the samples.
// *why and *stats (when given) tell what the reader found; max_filled_samples bounds the
// samples that state runs may add (BlockReadOptions).
int32_t LoadProgramBlock(MQOneProgram& program, BlockRejection* why = nullptr,
                         BlockReadStats* stats = nullptr,
                         uint64_t max_filled_samples = kDefaultMaxFilledSamples);

// Loads already decoded content into the program as LoadProgramBlock does after its
// checks. Raw samples longer than the tag's first sample or than kMaxRawSampleBytes are
// left out (the store refuses them) and counted in *dropped. Returns 1, or -1 on a store
// failure.
int32_t StoreBlockContent(MQOneProgram& program, const BlockContent& content,
                          uint64_t* dropped = nullptr);

}  // namespace marquel
