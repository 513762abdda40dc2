// The pieces of the program-stream writers (ps_store_write.cc): the clock of the
// stream before the data, the program's four streams fed through the pack muxer, and a
// writer that puts the finished packs into a file in large blocks.
#pragma once

#include <cstdint>
#include <vector>

#include "media/mq_pack_muxer.h"
#include "platform/files.h"
#include "tags/mq_one_program.h"

namespace marquel {

// Bytes the clock scan reads before the MQ start address, at most.
constexpr int64_t kClockScanBytes = 65536;
// Bytes per read of the clock scan, and per chunk of a stream fed to the muxer.
constexpr uint32_t kPackWriterChunk = 2048;

// The last clock reference of the program stream in the kClockScanBytes before `end`
// (from 0 when `end` is smaller), read with the system decoder of the format: MPEG-1 for
// codes 1 and 3, MPEG-2 for 2 and 4. Other codes, and streams without a pack, give 0.
void LastClockBefore(FileHandle file, int32_t format, int64_t end, uint64_t* base,
                     uint32_t* extension);

// Collects finished packs and writes them in blocks of kBlockBytes, so a write costs one
// call per block rather than one per pack. `session` numbers the log lines, which give
// the time each write and the final sync took.
class PackFileWriter {
 public:
  static constexpr size_t kBlockBytes = size_t{1} << 20;

  PackFileWriter(FileHandle file, int32_t session);
  // Moves every finished byte out of the muxer; false when a block write fails.
  bool TakeFrom(MQPackMuxer& muxer);
  // Writes what is collected and, with `sync`, makes the file's data durable; false on a
  // failure. A pack stream that is only a step of the merge needs no sync: the merge
  // syncs the media file it writes, and the stream is made again after a crash.
  bool Finish(bool sync = true);

 private:
  bool WriteBlock();

  FileHandle file_;
  int32_t session_;
  std::vector<uint8_t> block_;
  size_t used_ = 0;
};

// Hands the program's block to `f` in the order its readers expect: the header (its 26
// bytes), then the tag-id, length and data streams in chunks of at most `max_chunk` bytes
// (spilled streams are read back). The buffers are only read. False when a buffer is
// missing, a spill cannot be read, or `f` stops.
bool ForEachProgramBlockChunk(MQOneProgram& program, size_t max_chunk, const StreamChunkFn& f);

// Feeds the program's header (its 26 bytes), then its tag-id, length and data streams in
// chunks of kPackWriterChunk, taking the finished packs after each piece. The buffers are
// only read. False when a write fails or a buffer is missing.
bool FeedProgramStreams(MQOneProgram& program, MQPackMuxer& muxer, PackFileWriter& writer);

}  // namespace marquel
