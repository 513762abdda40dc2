// MarquelOneFile::MoveIntoTransportStream: a transport stream's cached tags, every
// program's, moved into the file itself once nobody holds it open.
#include <cinttypes>

#include "log/log.h"
#include "persist/cache_entry.h"
#include "persist/cache_limits.h"
#include "persist/marquel_one_file.h"
#include "session_steps.h"

namespace marquel {
namespace {

// The TS-cache entry the open would take for the file as it is now: its path, its size
// and time, and its content. An entry written for other bytes would bring back tags
// that no longer belong to the file.
bool FindTsEntry(MarquelOneFile& f, FileHandle file, CacheEntry* entry) {
  uint64_t identity[2] = {0, 0};
  return SessionSteps::CurrentIdentity(f, identity) &&
         FindCacheEntry(CacheKind::kTS, f.FileName(), identity, ReadContentSample(file), entry);
}

}  // namespace

int32_t MarquelOneFile::MoveIntoTransportStream(FileHandle file, const FileStatusRecord& status,
                                                int64_t limit, int32_t bRemoveCache, bool* moved) {
  MakeProgramZero();
  const MQDataInFile in_file = CheckMQDataInFile(file);
  const bool found = in_file.has_data && !in_file.programs.empty();
  const int64_t start = found ? in_file.start_address : status.size;
  CacheEntry entry;
  const bool cached = FindTsEntry(*this, file, &entry);
  CloseFileHandle(file);
  if (!cached) {
    MQ_LOG("[%d] MoveCacheDataToOrgFile: %s check from registry failed", handle_,
           file_name_.c_str());
    return 1;
  }
  // Every record becomes a program, loaded as the open loads them; the first that does
  // not load fails the move, and the cache stays.
  SessionSteps::LoadTsFromRegistry(*this, entry);
  if (m_bMQExisted != 1) {
    MQ_LOG("[%d] MoveCacheDataToOrgFile: %s the cached tags could not be read; they stay cached",
           handle_, file_name_.c_str());
    return -1;
  }
  if (PassesLimitAtMove(limit, file_type_, SessionSteps::BlockSize(*this), start)) {
    for (int32_t i = 0; i < ProgramCount(); ++i) Program(i)->ReleaseBuffers();
    MQ_LOG("[%d] MoveCacheDataToOrgFile: %s file over 4G can not move", handle_,
           file_name_.c_str());
    return 1;
  }
  identity_[1] = entry.file.identity[1];
  identity_[0] = static_cast<uint64_t>(start);
  mq_start_address_ = start;
  MQ_LOG("[%d] MoveCacheDataToOrgFile: %s, org modified time %" PRId64 ", org file size %" PRId64
         ", mq start address %" PRId64,
         handle_, file_name_.c_str(), static_cast<int64_t>(identity_[1]), start, start);
  if (ProcessMQInterLeaveInTS() != 1) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: %s can not write to original file", handle_,
           file_name_.c_str());
    return -1;
  }
  MQ_LOG("[%d] ProcessMQInterLeaveInTS: process success", handle_);
  if (moved != nullptr) *moved = true;
  // The entry and every program's cache file go together (DeleteCacheEntry).
  if (bRemoveCache != 0 && !DeleteCacheEntry(CacheKind::kTS, entry.sub_key)) return -1;
  MQ_LOG("[%d] MoveCacheDataToOrgFile: %s move registry to file ok", handle_, file_name_.c_str());
  return 1;
}

}  // namespace marquel
