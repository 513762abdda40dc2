// MarquelOneFile's open of an existing file: type, data source, loading, conversion.
#include <cinttypes>

#include "log/log.h"
#include "media/file_type.h"
#include "persist/block_from_media.h"
#include "persist/cache_entry.h"
#include "session_steps.h"
#include "tags/block_program.h"
#include "tags/block_tempfile.h"

namespace marquel {
namespace {

// Closes the media file on every way out of the open.
class OpenMediaFile {
 public:
  explicit OpenMediaFile(const std::string& path) : handle_(OpenRegularFile(path, GENERIC_READ)) {}
  ~OpenMediaFile() {
    if (handle_ != kInvalidFileHandle) CloseFileHandle(handle_);
  }
  FileHandle get() const { return handle_; }

 private:
  FileHandle handle_;
};

}  // namespace

int MarquelOneFile::LoadExisting(int32_t nType, int32_t bLoad, int32_t bQueryOnly) {
  return SessionSteps::OpenExisting(*this, nType, bLoad, bQueryOnly);
}

void SessionSteps::TakeFileAttributes(MarquelOneFile& f) {
  FileStatusRecord status;
  if (FileStatus(f.file_name_, &status) == 0) {
    f.identity_[0] = static_cast<uint64_t>(status.size);
    f.identity_[1] = static_cast<uint64_t>(status.mtime);
  } else {
    f.identity_[0] = f.identity_[1] = 0;
  }
  f.mq_start_address_ = -1;
}

int32_t SessionSteps::LoadCacheFile(MarquelOneFile& f, MQOneProgram& program,
                                    const std::string& path) {
  int32_t result = 0;
  // The path comes from the store: only a regular file is read.
  FileHandle file = OpenRegularFile(path, GENERIC_READ);
  if (file != kInvalidFileHandle) {
    result = ReadProgramBlockFromTempFile(program, file) == 1 ? 1 : 0;
    CloseFileHandle(file);
  }
  MQ_LOG("MarquelOneFile: [%d] Read from registry %d", f.handle_, result);
  return result;
}

int SessionSteps::OpenExisting(MarquelOneFile& f, int32_t /*nType*/, int32_t bLoad,
                               int32_t bQueryOnly) {
  OpenMediaFile media(f.file_name_);
  if (media.get() == kInvalidFileHandle) {
    MQ_LOG("[%d] can not read %s", f.handle_, f.file_name_.c_str());
    return -1;
  }
  f.cache_file_path_.clear();
  f.cache_entry_key_.clear();
  f.ts_programs_known_ = 0;
  f.read_from_file_ok_ = 1;
  TsLayout layout;
  f.file_type_ = static_cast<int32_t>(DetectFileType(&layout, media.get(), f.file_name_));
  f.ts_packet_size_ = layout.packet_size;
  f.ts_first_packet_offset_ = layout.first_packet_offset;
  MQ_LOG("[%d] open with type %s", f.handle_, GetFormatName(f.file_type_));

  const uint32_t type = static_cast<uint32_t>(f.file_type_);
  if (type == MQ_FORMAT_NONE) {
    OpenUnknownFormat(f, media.get(), bLoad);
  } else if (type == MQ_FORMAT_VOB || type == MQ_FORMAT_VRO) {
    OpenFromCache(f, media.get(), CacheKind::kVR, bLoad);
  } else if (type == MQ_FORMAT_AVI || type == MQ_FORMAT_DV) {
    OpenFromCache(f, media.get(), CacheKind::kAVI, bLoad);
  } else if (IsOtherFormat(type)) {
    OpenFromCache(f, media.get(), CacheKind::kOther, bLoad);
  } else if (type == MQ_FORMAT_TS) {
    OpenTransportStream(f, media.get(), bLoad);
  } else {
    OpenProgramStream(f, media.get(), bLoad);
  }
  return Finish(f, bLoad, bQueryOnly);
}

// VR, AVI and other formats: the media file's own attributes are its identity, and the
// cache entry must agree with them.
void SessionSteps::OpenFromCache(MarquelOneFile& f, FileHandle file, CacheKind kind,
                                 int32_t bLoad) {
  TakeFileAttributes(f);
  if (LoadFromCacheKind(f, file, kind, bLoad)) return;
  // A format recognised by its first bytes was format 0 before, and its tags went to the
  // temp cache then. They are read from there until the close moves them over.
  if (IsMagicNumberFormat(static_cast<uint32_t>(f.file_type_))) {
    CacheEntry entry;
    OpenFromTempCache(f, bLoad, &entry);
  }
}

bool SessionSteps::LoadFromCacheKind(MarquelOneFile& f, FileHandle file, CacheKind kind,
                                     int32_t bLoad) {
  CacheEntry entry;
  if (!FindCacheEntry(kind, f.file_name_, f.identity_, ReadContentSample(file), &entry)) {
    return false;
  }
  f.cache_file_path_ = entry.file.cache_path;
  f.cache_entry_key_ = entry.KeyPath();
  f.data_source_ = kSourceRegistry;
  if (bLoad) f.m_bMQExisted = LoadCacheFile(f, *f.Program(0), entry.file.cache_path);
  return true;
}

bool SessionSteps::OpenFromTempCache(MarquelOneFile& f, int32_t bLoad, CacheEntry* entry) {
  const bool found = FindTempCacheEntry(f.file_name_, entry);
  MQ_LOG("[%d] check temp cache %d", f.handle_, found ? 1 : 0);
  if (!found) return false;
  f.cache_file_path_ = entry->temp.cache_path;
  f.cache_entry_key_ = entry->KeyPath();
  f.data_source_ = kSourceRegistry;
  if (bLoad) f.m_bMQExisted = LoadCacheFile(f, *f.Program(0), entry->temp.cache_path);
  return true;
}

// A file of no known format keeps its tags in the temp cache, as a program stream does,
// and finds them there by its name; the identity words are the entry's, as for a program
// stream, so they stay the same when the file turns out to be a recording that grows.
void SessionSteps::OpenUnknownFormat(MarquelOneFile& f, FileHandle file, int32_t bLoad) {
  TakeFileAttributes(f);
  f.data_source_ = kSourceNone;
  CacheEntry entry;
  if (OpenFromTempCache(f, bLoad, &entry)) {
    f.identity_[0] = entry.temp.original_size;
    f.identity_[1] = static_cast<uint64_t>(entry.temp.original_mtime);
    return;
  }
  // A client may name the type of a file that does not exist yet, and its close then
  // writes that type's cache even when the file never looks like it. Such an entry is
  // found as long as the file is unchanged since.
  for (CacheKind kind : {CacheKind::kOther, CacheKind::kAVI, CacheKind::kVR}) {
    if (LoadFromCacheKind(f, file, kind, bLoad)) return;
  }
}

void SessionSteps::OpenProgramStream(MarquelOneFile& f, FileHandle file, int32_t bLoad) {
  MQDataInFile in_file = f.CheckMQDataInFile(file);
  CacheEntry entry;
  bool in_registry = FindTempCacheEntry(f.file_name_, &entry);
  MQ_LOG("[%d] check MQ data: org file %d, registry %d", f.handle_, in_file.has_data ? 1 : 0,
         in_registry ? 1 : 0);
  bool read_file = false;
  if (in_file.has_data && in_registry) {
    // Both: the newer one wins. The registry keeps the media file's modification time of
    // when the cache was written, and the end record the time the file had before our
    // packs were added. Writing the packs changes the file's own time, and it is not set
    // back, so the record's time stands for the file's: a cache written after the file's
    // data was read carries that same time and wins, and nothing newer is lost to the
    // older copy in the file.
    int64_t file_time = static_cast<int64_t>(in_file.identity[1]);
    int64_t reg_time = entry.temp.original_mtime;
    MQ_LOG("[%d] Check file time %" PRId64 ", reg time %" PRId64, f.handle_, file_time, reg_time);
    f.data_source_ = file_time >= reg_time ? kSourceMediaFile : kSourceRegistry;
    read_file = file_time > reg_time;
  } else if (in_file.has_data) {
    f.data_source_ = kSourceMediaFile;
    read_file = true;
  } else {
    f.data_source_ = in_registry ? kSourceRegistry : kSourceNone;
  }
  if (in_registry) {
    f.cache_file_path_ = entry.temp.cache_path;
    f.cache_entry_key_ = entry.KeyPath();
  }
  if (bLoad) {
    MQOneProgram& program = *f.Program(0);
    if (read_file && in_file.has_data) {
      int32_t r = in_file.block_in_buffers
                      ? 1
                      : ReadBlockFromProgramStream(program, file, f.file_type_,
                                                   in_file.start_address, f.handle_);
      MQ_LOG("[%d] read from file %d", f.handle_, r);
      f.m_bMQExisted = r == 1 ? 1 : 0;
      if (r != 1) f.read_from_file_ok_ = 0;
    } else if (in_file.block_in_buffers) {
      program.ReleaseBuffers();  // checked, but the cache wins
    }
    if (f.m_bMQExisted == 0 && in_registry) {
      f.m_bMQExisted = LoadCacheFile(f, program, entry.temp.cache_path);
      MQ_LOG("[%d] read from registry %d", f.handle_, f.m_bMQExisted);
    }
    // A cache that cannot be read hides nothing: the data in the file is taken instead,
    // else a later close would write a cache without it, and that cache would win.
    if (f.m_bMQExisted == 0 && in_registry && in_file.has_data) {
      MQ_LOG("[%d] the cache could not be read, the data in the file is taken", f.handle_);
      f.m_bMQExisted = ReadBlockFromProgramStream(program, file, f.file_type_,
                                                  in_file.start_address, f.handle_) == 1;
      if (f.m_bMQExisted == 1) f.data_source_ = kSourceMediaFile;
    }
  }
  if (!bLoad && in_file.block_in_buffers) f.Program(0)->ReleaseBuffers();
  if (in_file.has_data) {
    f.mq_start_address_ = in_file.start_address;
    f.identity_[0] = in_file.identity[0];
    f.identity_[1] = in_file.identity[1];
  } else if (in_registry) {
    f.mq_start_address_ = -1;
    f.identity_[0] = entry.temp.original_size;
    f.identity_[1] = static_cast<uint64_t>(entry.temp.original_mtime);
  } else {
    TakeFileAttributes(f);
  }
}

int SessionSteps::Finish(MarquelOneFile& f, int32_t bLoad, int32_t bQueryOnly) {
  if (!bLoad) return 1;
  if (f.m_bMQExisted != 1) {
    // A load that failed part-way keeps nothing: no program gets half of the data.
    for (int32_t i = 0, n = f.ProgramCount(); i < n; ++i) f.Program(i)->ReleaseBuffers();
    return 1;
  }
  if (bQueryOnly) {
    f.mq_start_address_ = -1;
    f.identity_[0] = f.identity_[1] = 0;
    return 1;
  }
  int result = 1;
  for (int32_t i = 0, n = f.ProgramCount(); i < n; ++i) {
    MQOneProgram& program = *f.Program(i);
    result = LoadProgramBlock(program);
    if (result != 1) break;
  }
  for (int32_t i = 0, n = f.ProgramCount(); i < n; ++i) f.Program(i)->ReleaseBuffers();
  MQ_LOG("[%d] open done, convert file to memory %d", f.handle_, result);
  return result;
}

}  // namespace marquel
