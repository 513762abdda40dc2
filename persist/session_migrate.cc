// MarquelOneFile::MoveCacheDataToOrgFile: a program stream's cached tags moved into the
// file itself, once nobody holds it open (transport streams: session_migrate_ts.cc).
#include <cinttypes>

#include "log/log.h"
#include "media/file_type.h"
#include "persist/cache_entry.h"
#include "persist/cache_limits.h"
#include "persist/marquel_one_file.h"
#include "platform/access_reg.h"
#include "platform/env.h"
#include "session_steps.h"

namespace marquel {
namespace {

// The temp-cache entry of the file, and its cache file, removed after a move.
int32_t RemoveMovedCache(const CacheEntry& entry) {
  RemoveFile(entry.temp.cache_path);
  return DeleteCacheEntry(CacheKind::kTemp, entry.sub_key) ? 1 : -1;
}

}  // namespace

int32_t MarquelOneFile::MoveCacheDataToOrgFile(const std::string& path, int32_t bRemoveCache,
                                               bool* moved) {
  if (moved != nullptr) *moved = false;
  MQ_LOG("[%d] MoveCacheDataToOrgFile(%s, %d)", handle_, path.c_str(), bRemoveCache);
  FileStatusRecord status;
  if (!IsRegularFile(path) || FileStatus(path, &status) != 0) return -1;
  if ((status.mode & kOwnerWriteBit) == 0) {
    MQ_LOG("[%d] do not have the write permission", handle_);
    return -1;
  }
  const int64_t limit = FileSystemSizeLimit(CurrentEnv()->FileSystemName(path));
  file_name_ = path;
  FileHandle file = OpenRegularFile(path, GENERIC_READ);
  if (file == kInvalidFileHandle) {
    MQ_LOG("[%d] can not read '%s'", handle_, path.c_str());
    return -1;
  }
  TsLayout layout;
  file_type_ = static_cast<int32_t>(DetectFileType(&layout, file, path));
  ts_packet_size_ = layout.packet_size;
  ts_first_packet_offset_ = layout.first_packet_offset;
  MQ_LOG("[%d] process with type %s", handle_, GetFormatName(static_cast<uint32_t>(file_type_)));
  if (file_type_ == MQ_FORMAT_TS)
    return MoveIntoTransportStream(file, status, limit, bRemoveCache, moved);
  if (file_type_ != MQ_FORMAT_MPEG2 && file_type_ != MQ_FORMAT_SVCD) {
    CloseFileHandle(file);
    MQ_LOG("[%d] not mpeg2, svcd file or ts file", handle_);
    return 1;
  }
  return MoveIntoProgramStream(file, status, limit, bRemoveCache, moved);
}

int32_t MarquelOneFile::MoveIntoProgramStream(FileHandle file, const FileStatusRecord& status,
                                              int64_t limit, int32_t bRemoveCache, bool* moved) {
  MakeProgramZero();
  MQDataInFile in_file = CheckMQDataInFile(file);
  if (in_file.has_data) {
    MQ_LOG("[%d] check MQ Data In File, modified time %" PRId64, handle_,
           static_cast<int64_t>(in_file.identity[1]));
  }
  const int64_t start = in_file.has_data ? in_file.start_address : status.size;
  CacheEntry entry;
  const bool cached = FindTempCacheEntry(file_name_, &entry);
  CloseFileHandle(file);
  if (!cached) {
    MQ_LOG("[%d] check from registry failed", handle_);
    return 1;
  }
  if (SessionSteps::LoadCacheFile(*this, *Program(0), entry.temp.cache_path) != 1) return -1;
  FileStatusRecord cache_status;
  const int64_t n = FileStatus(entry.temp.cache_path, &cache_status) == 0 ? cache_status.size : 0;
  // Strictly above the limit (the close tests at or above); no line is logged.
  if (PassesLimitAtMove(limit, file_type_, n, start)) {
    Program(0)->ReleaseBuffers();
    return 1;
  }
  identity_[1] = static_cast<uint64_t>(entry.temp.original_mtime);
  identity_[0] = static_cast<uint64_t>(start);
  mq_start_address_ = start;
  MQ_LOG("[%d] org modified time %" PRId64 ", org file size %" PRId64
         ", mq start address %" PRId64,
         handle_, entry.temp.original_mtime, start, start);
  if (ProcessMQInterLeave(in_file.has_data ? 1 : 0) != 1) {
    MQ_LOG("[%d] ProcessMQInterLeave(%s) fail", handle_, file_name_.c_str());
    return -1;
  }
  MQ_LOG("[%d] ProcessMQInterLeave(%s) ok", handle_, file_name_.c_str());
  if (moved != nullptr) *moved = true;
  if (bRemoveCache != 0 && RemoveMovedCache(entry) != 1) return -1;
  MQ_LOG("[%d] MoveCacheDataToOrgFile: %s move registry to file ok", handle_, file_name_.c_str());
  return 1;
}

}  // namespace marquel
