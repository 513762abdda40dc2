// ProgramStreamStore's writers: the data packs appended to the media file (Write, behind
// WriteMPEGFile) and the same pack stream as a file of its own (GeneratePacks, behind
// GenerateMQTempMPEGData).
#include <cinttypes>
#include <memory>

#include "log/log.h"
#include "media/mq_end_record.h"
#include "media/mq_pack_muxer.h"
#include "mpeg_pack_writer.h"
#include "persist/block_from_media.h"
#include "persist/marquel_one_file.h"
#include "ps_in_file_store.h"
#include "session_steps.h"

namespace marquel {
namespace {

// A muxer of the format's type with stream id 0xFA, its buffers made; null when they
// cannot be had.
std::unique_ptr<MQPackMuxer> MakeMuxer(int32_t format) {
  auto muxer = std::make_unique<MQPackMuxer>();
  muxer->SetType(MQPackMuxer::TypeForFormat(format));
  muxer->SetStreamId(kMQDataStreamId);
  if (muxer->Initialise(0) != 1) return nullptr;
  return muxer;
}

// Whether cutting at `start` removes only the server's own packs: the file ends there,
// or its end record says its data begins there. Anything else (a file that grew since
// the open, a start address from a stale record) would lose media bytes.
bool CutRemovesOnlyOwnData(FileHandle file, int64_t start) {
  const int64_t size = GetFileSize64(file);
  if (size < 0 || start > size) return false;
  if (size == start) return true;
  std::optional<FoundMQEndRecord> found = FindMQEndRecord(file);
  return found.has_value() && found->record.start_address == start;
}

bool CutAt(FileHandle file, int64_t start) {
  return SeekFile(file, start, FILE_BEGIN) == start && SetEndOfFile(file);
}

// Steps 5 and 6: the packs of the four streams, then the last packs with the end record.
bool WritePacks(MQOneProgram& program, MQPackMuxer& muxer, FileHandle file, int32_t session,
                const MQEndRecord& record) {
  PackFileWriter writer(file, session);
  if (!FeedProgramStreams(program, muxer, writer)) return false;
  if (muxer.Flush(&record) != 1) return false;
  return writer.TakeFrom(muxer) && writer.Finish();
}

}  // namespace

int32_t ProgramStreamStore::Write(MarquelOneFile& f, FileHandle file, int64_t startAddress,
                                  int64_t originalMTime, uint64_t originalSize) {
  MQ_LOGW(L"WriteMPEGFile(%d, %lld, %lld, %llu)", f.handle_, static_cast<long long>(startAddress),
          static_cast<long long>(originalMTime), static_cast<unsigned long long>(originalSize));
  MQOneProgram* program = f.Program(0);
  if (program == nullptr || program->CheckBuffersForSerialise() != 1) return 0;
  std::unique_ptr<MQPackMuxer> muxer = MakeMuxer(f.file_type_);
  if (!muxer || startAddress < 0) return 0;

  if (!CutRemovesOnlyOwnData(file, startAddress)) {
    // The file is left as it is, and the data goes where it is kept all the same.
    MQ_LOG("[%d] %" PRId64 " is not where the file's data begins, write to the temp cache", f.handle_,
           startAddress);
    return SessionSteps::WriteTempCache(f, *program, file);
  }
  uint64_t base = 0;
  uint32_t extension = 0;
  LastClockBefore(file, f.file_type_, startAddress, &base, &extension);
  if (!CutAt(file, startAddress)) return 0;
  muxer->SetClock(base, extension);

  MQEndRecord record;
  record.start_address = startAddress;
  record.original_mtime = originalMTime;
  record.original_size = originalSize;
  if (WritePacks(*program, *muxer, file, f.handle_, record)) return 1;

  // A half-written pack stream is no use to anyone: the file goes back to where its data
  // began, and the data to the temp cache, whose answer is the write's.
  MQ_LOG("[%d] write into the media file failed, write to the temp cache", f.handle_);
  CutAt(file, startAddress);
  return SessionSteps::WriteTempCache(f, *program, file);
}

int32_t ProgramStreamStore::GeneratePacks(MarquelOneFile& f, FileHandle out, uint32_t muxRate) {
  MQ_LOGW(L"GenerateMQTempMPEGData");
  MQOneProgram* program = f.Program(0);
  if (program == nullptr || program->CheckBuffersForSerialise() != 1) return 1;
  std::unique_ptr<MQPackMuxer> muxer = MakeMuxer(f.file_type_);
  if (!muxer) return 0;
  if (SeekFile(out, 0, FILE_BEGIN) != 0) return 0;
  muxer->SetMuxRate(muxRate);
  PackFileWriter writer(out, f.handle_);
  const bool whole = FeedProgramStreams(*program, *muxer, writer) &&
                     muxer->Flush(nullptr) == 1 && writer.TakeFrom(*muxer) &&
                     writer.Finish(false);
  if (!whole) MQ_LOG("[%d] GenerateMQTempMPEGData: the pack stream is cut short", f.handle_);
  return whole ? 1 : -1;
}

}  // namespace marquel
