// MarquelOneFile's writers of the close: the temp cache of program streams (WriteToFile)
// and the VR, TS, AVI and other-format caches.
#include <vector>

#include "log/log.h"
#include "persist/cache_writer.h"
#include "session_steps.h"
#include "tags/block_tempfile.h"

namespace marquel {
namespace {

// Writes the finalised block of each listed program, by index, into a cache file.
CacheBlockWriter ProgramWriter(const std::vector<MQOneProgram*>& programs) {
  return [programs](size_t index, FileHandle file) -> int32_t {
    if (index >= programs.size()) return -1;
    return WriteProgramBlockToFile(*programs[index], file);
  };
}

}  // namespace

bool SessionSteps::PathFitsRecords(MarquelOneFile& f) {
  if (FitsRecordPath(f.file_name_)) return true;
  MQ_LOG("[%d] can not cache '%s': a cache record holds at most %zu UTF-16 units of path",
         f.handle_, f.file_name_.c_str(), kRecordPathUnits - 1);
  return false;
}

// A media file that is gone by the close cannot be cached: the entry's identity words and
// fingerprint come from the file, so no later open could find it. The write then fails.
bool SessionSteps::CurrentIdentity(MarquelOneFile& f, uint64_t identity[2]) {
  FileStatusRecord status;
  if (FileStatus(f.file_name_, &status) != 0) return false;
  identity[0] = static_cast<uint64_t>(status.size);
  identity[1] = static_cast<uint64_t>(status.mtime);
  return true;
}

int32_t SessionSteps::WriteVRCache(MarquelOneFile& f, int32_t forceToCache) {
  MQOneProgram* program = f.Program(0);
  // A program without its serialised block has nothing to write ("error! process
  // program but no data!" is logged by the check).
  if (program == nullptr || program->CheckBuffersForSerialise() != 1) return 1;
  if (!PathFitsRecords(f)) return -1;
  CacheWriteRequest request;
  request.kind = CacheKind::kVR;
  request.media_path = f.file_name_;
  if (!CurrentIdentity(f, request.identity)) return -1;
  request.side_file = forceToCache == 0;
  CacheEntry written;
  int32_t result = WriteCacheEntry(request, ProgramWriter({program}), &written);
  if (result == 1) {
    f.cache_file_path_ = written.file.cache_path;
    f.cache_entry_key_ = written.KeyPath();
  }
  return result;
}

int32_t SessionSteps::WriteProgramCache(MarquelOneFile& f, CacheKind kind) {
  std::vector<MQOneProgram*> programs;
  CacheWriteRequest request;
  request.kind = kind;
  request.media_path = f.file_name_;
  request.pmt_pids.clear();
  int32_t count = kind == CacheKind::kTS ? f.ProgramCount() : 1;
  for (int32_t i = 0; i < count; ++i) {
    MQOneProgram* program = f.Program(i);
    if (program == nullptr || program->CheckBuffersForSerialise() != 1) continue;
    programs.push_back(program);
    request.pmt_pids.push_back(program->PMTPID());
  }
  if (programs.empty()) return 1;
  if (!PathFitsRecords(f)) return -1;
  if (!CurrentIdentity(f, request.identity)) return -1;
  CacheEntry written;
  int32_t result = WriteCacheEntry(request, ProgramWriter(programs), &written);
  if (result == 1) {
    DropTakenOverTempEntry(f.cache_entry_key_);
    f.cache_file_path_ = written.FirstCacheFile();
    f.cache_entry_key_ = written.KeyPath();
  }
  return result;
}

// The session was opened from the temp cache (its format had no code of its own then) and
// its tags now live in their own cache: the old entry goes, so that it never brings back
// older tags. Only after the new entry is written, so a failure loses nothing.
void SessionSteps::DropTakenOverTempEntry(const std::string& previousKey) {
  CacheKind kind;
  std::string sub_key;
  if (SplitCacheEntryKeyPath(previousKey, &kind, &sub_key) && kind == CacheKind::kTemp) {
    DeleteCacheEntry(kind, sub_key);
  }
}

}  // namespace marquel
