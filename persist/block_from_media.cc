#include "persist/block_from_media.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "block_assembler.h"
#include "log/log.h"
#include "media/file_type.h"
#include "media/mpeg_system_dec.h"
#include "media/ts_decoder.h"
#include "tags/block_program.h"

namespace marquel {
namespace {

// Logs the CRC failure that ended the assembly, if one did.
void LogCrcFailure(BlockAssembler::State state, int32_t session, bool transport) {
  switch (state) {
    case BlockAssembler::State::kHeaderCrcBad:
      if (transport)
        MQ_LOG("MarquelOneFile: [%d]Check header crc failed", session);
      else
        MQ_LOG("MarquelOneFile: [%d]Check header crc failed while read from mpeg file", session);
      break;
    case BlockAssembler::State::kTagIdCrcBad:
      MQ_LOG("MarquelOneFile: [%d]Check tag id crc failed", session);
      break;
    case BlockAssembler::State::kLengthCrcBad:
      MQ_LOG("MarquelOneFile: [%d]Check length crc failed", session);
      break;
    default:
      break;
  }
}

// Feeds the file from `start` through `feed` (which pushes a chunk through the
// decoder and moves its payload into the assembler) until the block is complete, a CRC
// fails, or the file ends.
template <class FeedFn>
BlockAssembler::State Pump(FileHandle file, int64_t start, BlockAssembler& assembler, FeedFn feed) {
  if (start < 0 || SeekFile(file, start, FILE_BEGIN) != start) return assembler.state();
  // The file is read in large blocks and fed in chunks of the decoder's size: a read per
  // chunk would cost a system call per 2324 bytes.
  constexpr uint32_t kChunksPerRead = 256;
  std::vector<uint8_t> block(static_cast<size_t>(kMediaBlockReadChunk) * kChunksPerRead);
  while (assembler.state() == BlockAssembler::State::kNeedMore) {
    uint32_t got = 0;
    if (!ReadFile(file, block.data(), static_cast<uint32_t>(block.size()), &got) || got == 0) break;
    for (uint32_t at = 0; at < got && assembler.state() == BlockAssembler::State::kNeedMore;
         at += kMediaBlockReadChunk)
      feed(block.data() + at,
           static_cast<int32_t>(std::min<uint32_t>(kMediaBlockReadChunk, got - at)));
  }
  return assembler.state();
}

void StoreParts(MQOneProgram& program, BlockAssembler& assembler) {
  SetProgramBlockBuffers(program, assembler.header(), std::move(assembler.tag_ids()),
                         std::move(assembler.lengths()), std::move(assembler.data()));
}

}  // namespace

int32_t ReadBlockFromProgramStream(MQOneProgram& program, FileHandle file, int32_t format,
                                   int64_t start, int32_t session) {
  std::unique_ptr<CMpegMuxDec> decoder;
  if (format == static_cast<int32_t>(MQ_FORMAT_MPEG1) ||
      format == static_cast<int32_t>(MQ_FORMAT_VCD))
    decoder = std::make_unique<MPEG1SystemDec_c>();
  else
    decoder = std::make_unique<MPEG2SystemDec_c>();
  decoder->SelectStream(kMQDataStreamId);
  decoder->Reset();
  BlockAssembler assembler;
  std::vector<uint8_t> payload(kMediaBlockReadChunk);
  BlockAssembler::State state = Pump(file, start, assembler, [&](const uint8_t* bytes, int32_t n) {
    decoder->Feed(bytes, n);
    // Asking for payload only when some is held keeps the decoder from copying out
    // of an empty buffer.
    while (assembler.state() == BlockAssembler::State::kNeedMore && decoder->PayloadCount() > 0) {
      int32_t k = decoder->TakePayload(payload.data(), static_cast<int32_t>(payload.size()));
      if (k <= 0) break;
      assembler.Add(payload.data(), static_cast<size_t>(k));
    }
  });
  if (state != BlockAssembler::State::kComplete) {
    LogCrcFailure(state, session, false);
    MQ_LOG("[%d] load file failed", session);
    return 0;
  }
  StoreParts(program, assembler);
  MQ_LOG("[%d] load from file success", session);
  return 1;
}

int32_t ReadBlockFromTransportStream(MQOneProgram& program, FileHandle file, int32_t packet_size,
                                     int64_t start, uint32_t pid, int32_t session) {
  CTSSysDec decoder;
  BlockAssembler assembler;
  BlockAssembler::State state = BlockAssembler::State::kNeedMore;
  if (decoder.Init(packet_size) == 1) {
    decoder.SelectPid(pid);
    std::vector<uint8_t> payload(kTsCollectRingSize);
    state = Pump(file, start, assembler, [&](const uint8_t* bytes, int32_t n) {
      decoder.Feed(bytes, n);
      int32_t k;
      while (assembler.state() == BlockAssembler::State::kNeedMore &&
             (k = decoder.TakeCollected(0, payload.data(), static_cast<int32_t>(payload.size()))) >
                 0)
        assembler.Add(payload.data(), static_cast<size_t>(k));
    });
    decoder.Release();
  }
  if (state != BlockAssembler::State::kComplete) {
    LogCrcFailure(state, session, true);
    MQ_LOG("[%d] read from file failed", session);
    return 0;
  }
  StoreParts(program, assembler);
  MQ_LOG("[%d] read from file success", session);
  return 1;
}

}  // namespace marquel
