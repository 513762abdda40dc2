// The program-stream writers' pieces: clock scan, stream feeding, block writing.
#include "mpeg_pack_writer.h"

#include <algorithm>
#include <chrono>
#include <memory>

#include "log/log.h"
#include "media/file_type.h"
#include "media/mpeg_system_dec.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

std::unique_ptr<CMpegMuxDec> DecoderFor(int32_t format) {
  if (format == static_cast<int32_t>(MQ_FORMAT_MPEG1) ||
      format == static_cast<int32_t>(MQ_FORMAT_VCD))
    return std::make_unique<MPEG1SystemDec_c>();
  if (format == static_cast<int32_t>(MQ_FORMAT_MPEG2) ||
      format == static_cast<int32_t>(MQ_FORMAT_SVCD))
    return std::make_unique<MPEG2SystemDec_c>();
  return nullptr;
}

int64_t MicrosecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

// Feeds `n` bytes, taking packs whenever the muxer's buffers fill up.
bool FeedBytes(const uint8_t* bytes, size_t n, MQPackMuxer& muxer, PackFileWriter& writer) {
  size_t at = 0;
  while (at < n) {
    size_t taken = muxer.Feed(bytes + at, n - at);
    at += taken;
    if (!writer.TakeFrom(muxer)) return false;
    if (taken == 0 && muxer.OutputCount() == 0 && at < n) return false;  // muxer unusable
  }
  return writer.TakeFrom(muxer);
}

}  // namespace

void LastClockBefore(FileHandle file, int32_t format, int64_t end, uint64_t* base,
                     uint32_t* extension) {
  *base = 0;
  *extension = 0;
  std::unique_ptr<CMpegMuxDec> decoder = DecoderFor(format);
  if (!decoder || end <= 0) return;
  decoder->Reset();
  int64_t at = std::max<int64_t>(0, end - kClockScanBytes);
  if (SeekFile(file, at, FILE_BEGIN) != at) return;
  uint8_t chunk[kPackWriterChunk];
  while (at < end) {
    uint32_t want = static_cast<uint32_t>(std::min<int64_t>(kPackWriterChunk, end - at));
    uint32_t got = 0;
    if (!ReadFile(file, chunk, want, &got) || got == 0) break;
    decoder->Feed(chunk, static_cast<int32_t>(got));
    at += got;
  }
  decoder->GetLastClock(base, extension);
}

PackFileWriter::PackFileWriter(FileHandle file, int32_t session)
    : file_(file), session_(session), block_(kBlockBytes) {}

bool PackFileWriter::TakeFrom(MQPackMuxer& muxer) {
  while (muxer.OutputCount() > 0) {
    used_ += muxer.TakeOutput(block_.data() + used_, block_.size() - used_);
    if (used_ == block_.size() && !WriteBlock()) return false;
  }
  return true;
}

bool PackFileWriter::WriteBlock() {
  if (used_ == 0) return true;
  auto start = std::chrono::steady_clock::now();
  uint32_t written = 0;
  bool ok =
      WriteFile(file_, block_.data(), static_cast<uint32_t>(used_), &written) && written == used_;
  MQ_LOG("[%d] pack write of %zu bytes took %lld us", session_, used_,
         static_cast<long long>(MicrosecondsSince(start)));
  used_ = 0;
  return ok;
}

bool PackFileWriter::Finish(bool sync) {
  if (!WriteBlock()) return false;
  if (!sync) return true;
  auto start = std::chrono::steady_clock::now();
  // The data counts as kept only once it is on the disk.
  bool ok = SyncFileHandle(file_);
  MQ_LOG("[%d] pack file sync took %lld us", session_,
         static_cast<long long>(MicrosecondsSince(start)));
  return ok;
}

bool ForEachProgramBlockChunk(MQOneProgram& program, size_t max_chunk, const StreamChunkFn& f) {
  ProgramBuffer* header = program.HeaderBuffer();
  if (header == nullptr || header->bytes.size() < kBlockHeaderSize) return false;
  if (!f(header->bytes.data(), kBlockHeaderSize)) return false;
  for (ProgramBuffer* stream :
       {program.TagIdBuffer(), program.DataLengthBuffer(), program.DataBuffer()}) {
    // A large stream was set aside while the block was written: read it back in chunks.
    if (stream == nullptr || !stream->ForEachChunk(max_chunk, f)) return false;
  }
  return true;
}

bool FeedProgramStreams(MQOneProgram& program, MQPackMuxer& muxer, PackFileWriter& writer) {
  return ForEachProgramBlockChunk(program, kPackWriterChunk, [&](const uint8_t* bytes, size_t n) {
    return FeedBytes(bytes, n, muxer, writer);
  });
}

}  // namespace marquel
