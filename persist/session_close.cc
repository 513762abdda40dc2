// MarquelOneFile's close policy: what the last close writes, and where.
#include "log/log.h"
#include "media/file_type.h"
#include "persist/cache_limits.h"
#include "persist/result_codes.h"
#include "session_steps.h"
#include "tags/block_program.h"

namespace marquel {

int32_t MarquelOneFile::Close(int32_t bWriteToCache) {
  return CloseFile(bWriteToCache);
}

bool MarquelOneFile::HasTags() {
  for (int32_t i = 0, n = ProgramCount(); i < n; ++i) {
    MQOneProgram* program = Program(i);
    if (program->QueryTagCount() + program->QueryRawDataTagCount() > 0) return true;
  }
  return false;
}

bool SessionSteps::FinaliseProgram(MQOneProgram& program) {
  // A failed flush drops the samples still waiting in memory: the block written after it
  // would lack them, so it fails too.
  return program.FlushAllMemoryBlocks() == 1 && WriteProgramBlock(program) == 1;
}

bool SessionSteps::FinalisePrograms(MarquelOneFile& f) {
  for (int32_t i = 0, n = f.ProgramCount(); i < n; ++i) {
    // A program whose block is missing would be skipped by the cache writers, and the
    // close would report its tags kept.
    if (!FinaliseProgram(*f.Program(i))) {
      MQ_LOG("[%d] program %d: its data block could not be written", f.handle_, i);
      return false;
    }
  }
  return true;
}

void SessionSteps::DetectFormat(MarquelOneFile& f) {
  FileHandle file = OpenRegularFile(f.file_name_, GENERIC_READ);
  if (file == kInvalidFileHandle) return;
  TsLayout layout;
  f.file_type_ = static_cast<int32_t>(DetectFileType(&layout, file, f.file_name_));
  f.ts_packet_size_ = layout.packet_size;
  f.ts_first_packet_offset_ = layout.first_packet_offset;
  CloseFileHandle(file);
}

int64_t SessionSteps::BlockSize(MarquelOneFile& f) {
  int64_t n = 0;
  for (int32_t i = 0, count = f.ProgramCount(); i < count; ++i) {
    n += QueryProgramBlockSize(*f.Program(i));
  }
  return n;
}

int32_t SessionSteps::ForceToCache(MarquelOneFile& f, int32_t bWriteToCache) {
  if (bWriteToCache != 0) return bWriteToCache;
  int32_t force = 0;
  std::string file_system;
  GetFileSystemName(f.file_name_, &file_system);
  int64_t limit = FileSystemSizeLimit(file_system);
  if (limit > 0 && ReachesLimitAtClose(limit, f.file_type_, BlockSize(f), f.identity_[0])) {
    force = 1;
  }
  FileStatusRecord status;
  if (FileStatus(f.file_name_, &status) == 0 && (status.mode & kOwnerWriteBit) == 0) force = 1;
  return force;
}

// The force-to-cache flag matters to the VR cache only: program-stream and transport
// -stream data go to the cache whatever it says, and the same limits are applied again
// when the cache is moved into the media file.
//
// MPEG-2, SVCD and TS closes answer 2 ("cached, the move is pending") only when the
// cache write succeeded. A failed write answers -1 and nothing is put on the pending
// list: 2 would tell the client its tags were kept when they were not.
int32_t MarquelOneFile::CloseFile(int32_t bWriteToCache) {
  MQ_LOG("[%d] MarquelOneFile::CloseFile(%s, %d)", handle_, file_name_.c_str(), bWriteToCache);
  if (!HasTags() || ReadOnly()) return MQ_SUCCESS;
  if (!SessionSteps::FinalisePrograms(*this)) return MQ_ERR;
  if (file_type_ == 0 || (file_type_ == 10 && ts_programs_known_ == 0)) {
    SessionSteps::DetectFormat(*this);
  }
  int32_t force = SessionSteps::ForceToCache(*this, bWriteToCache);
  const char* name = GetFormatName(static_cast<uint32_t>(file_type_));
  MQ_LOG("[%d] close with type %s", handle_, name);
  int32_t result = MQ_SUCCESS;
  switch (file_type_) {
    case 0:
    case 1:
    case 3:
      result = WriteToFile(1);
      MQ_LOG("[%d] always write to cache %d", handle_, result);
      return result;
    case 2:
    case 4:
      result = WriteToFile(1);
      if (bWriteToCache == 0 && result == MQ_SUCCESS) result = MQ_AUTOPROCESSFAIL;
      MQ_LOG("[%d] write to mpeg2 or svcd file %d", handle_, result);
      return result;
    case 6:
    case 7:
      result = SessionSteps::WriteVRCache(*this, force);
      MQ_LOG("[%d] write vob to cache", handle_);
      return result;
    case 5:
    case 11:
    case 12:
    case 13:
    case 14:
    case 15:
    case 16:
    case 17:  // 17 to 26: the formats recognised by their first bytes
    case 18:
    case 19:
    case 20:
    case 21:
    case 22:
    case 23:
    case 24:
    case 25:
    case 26:
      result = SessionSteps::WriteProgramCache(*this, CacheKind::kOther);
      // This line has always carried the writer's result where the session number
      // stands elsewhere.
      MQ_LOG("[%d] write %s", result, name);
      return result;
    case 8:
    case 9:
      result = SessionSteps::WriteProgramCache(*this, CacheKind::kAVI);
      // The line names two numbers but was only ever given the result; the result fills
      // both places here, so nothing undefined is read.
      MQ_LOG("[%d] write avi %d", result, result);
      return result;
    case 10:
      result = SessionSteps::WriteProgramCache(*this, CacheKind::kTS);
      if (bWriteToCache == 0 && result == MQ_SUCCESS) result = MQ_AUTOPROCESSFAIL;
      MQ_LOG("[%d] write ts %d", handle_, result);
      return result;
    default:
      // No cache takes a code that is not a format: saying success would lose the tags.
      MQ_LOG("[%d] no cache for type %d", handle_, file_type_);
      return MQ_ERR;
  }
}

}  // namespace marquel
