// MarquelOneFile::WriteToFile: an MPEG session's data to the temp cache or into the file.
#include "log/log.h"
#include "persist/cache_fingerprint.h"
#include "persist/cache_sweep.h"
#include "persist/cache_writer.h"
#include "persist/marquel_one_file.h"
#include "session_steps.h"
#include "tags/block_program.h"
#include "tags/block_tempfile.h"

namespace marquel {
namespace {

// The open media file, closed on every way out.
struct MediaHandle {
  FileHandle h = kInvalidFileHandle;
  ~MediaHandle() {
    if (h != kInvalidFileHandle) CloseFileHandle(h);
  }
};

FileHandle OpenForReading(const std::string& path) {
  return OpenRegularFile(path, GENERIC_READ);
}

}  // namespace

int32_t MarquelOneFile::WriteToFile(int32_t bCache) {
  MQ_LOG("[%d] WriteToFile(%d)", handle_, bCache);
  MQOneProgram* program = Program(0);
  if (program == nullptr || program->QueryTagCount() + program->QueryRawDataTagCount() == 0) {
    MQ_LOG("[%d] return success but nothing done", handle_);
    return 1;
  }
  if (identity_[1] == 0) {
    FileStatusRecord status;
    if (FileStatus(file_name_, &status) != 0) return -1;
    identity_[0] = static_cast<uint64_t>(status.size);
    identity_[1] = static_cast<uint64_t>(status.mtime);
  }
  if (mq_start_address_ < 0) mq_start_address_ = static_cast<int64_t>(identity_[0]);

  MediaHandle media;
  bool forced_read = false;
  if (bCache != 0) {
    media.h = OpenForReading(file_name_);
    if (media.h == kInvalidFileHandle) {
      MQ_LOG("[%d] open '%s' as read but failed", handle_, file_name_.c_str());
      return -1;
    }
  } else {
    media.h = OpenRegularFile(file_name_, GENERIC_READ | GENERIC_WRITE);
    if (media.h == kInvalidFileHandle) {
      forced_read = true;
      media.h = OpenForReading(file_name_);
      MQ_LOG("[%d] can not open as read/write for '%s', force read", handle_, file_name_.c_str());
      if (media.h == kInvalidFileHandle) {
        MQ_LOG("[%d] force read still fail for '%s'", handle_, file_name_.c_str());
        return -1;
      }
      bCache = 1;
    }
  }
  // Program streams only; a file whose format is still unknown is kept as MPEG-1 is.
  if (file_type_ < 0 || file_type_ > 4) return -1;

  int32_t result = 0;
  if (bCache != 0) {
    if (program->m_ptpHeader == nullptr && !SessionSteps::FinaliseProgram(*program)) return -1;
    result = SessionSteps::WriteTempCache(*this, *program, media.h);
  } else {
    result =
        WriteMPEGFile(media.h, mq_start_address_, static_cast<int64_t>(identity_[1]), identity_[0]);
    MQ_LOG("[%d] WriteMPEGFile return %d", handle_, result);
  }
  // Only 1 means kept: the direct write's fallback can answer 0 as well.
  if (result != 1) return -1;
  return forced_read ? 2 : 1;
}

int32_t SessionSteps::WriteTempCache(MarquelOneFile& f, MQOneProgram& program, FileHandle media) {
  if (!PathFitsRecords(f)) return -1;
  ContentSample sample = ReadContentSample(media);
  CacheWriteLock lock;  // until the store names the new file
  std::string cache_path;
  bool made = MakeCacheFile(&cache_path);
  MQ_LOG("[%d] create temp file %s (%s)", f.handle_, made ? "success" : "fail", cache_path.c_str());
  if (!made) return -1;
  CacheBlockWriter write = [&program](size_t, FileHandle file) {
    return WriteProgramBlockToFile(program, file);
  };
  if (WriteBlockFile(cache_path, 0, write) != 1) return -1;
  TempCacheRecord record;
  record.media_path = f.file_name_;
  record.original_size = f.identity_[0];
  record.original_mtime = static_cast<int64_t>(f.identity_[1]);
  record.content_word = sample.first_word;
  record.content_crc = sample.crc;
  record.cache_path = cache_path;
  int32_t result = WriteTempCacheEntry(record, sample.crc);
  MQ_LOG("[%d] WriteToTempRegistry return %d", f.handle_, result);
  if (result == 1) {
    f.cache_file_path_ = cache_path;
    f.cache_entry_key_ = CacheEntryKeyPath(CacheKind::kTemp, CacheSubKeyName(f.file_name_));
  } else {
    RemoveFile(cache_path);  // the store does not name it
  }
  return result;
}

}  // namespace marquel
