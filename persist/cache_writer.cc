// Writing the entry of a VR, TS, AVI or other-format media file.
#include "persist/cache_writer.h"

#include <algorithm>

#include "cache_files.h"
#include "persist/cache_sweep.h"
#include "platform/access_reg.h"
#include "platform/text.h"

namespace marquel {
namespace {

bool Contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

void RemoveFiles(const std::vector<std::string>& files, const std::vector<std::string>& keep) {
  for (const std::string& file : files) {
    if (!Contains(keep, file) && FileExists(file)) RemoveFile(file);
  }
}

// Writes every block into a new file; on failure removes what it made (but never a file
// an old entry names) and returns false.
bool WriteBlocks(const CacheWriteRequest& request, size_t blocks, const CacheBlockWriter& write,
                 const std::vector<std::string>& oldFiles, std::vector<CacheProgramRecord>* out) {
  for (size_t i = 0; i < blocks; ++i) {
    CacheProgramRecord record;
    record.pmt_pid = request.pmt_pids[i];
    bool ok = false;
    if (i == 0 && request.side_file) {
      ok = WriteSideFile(request.media_path, i, write, &record.cache_path);
    }
    if (!ok) {
      ok = MakeCacheFile(&record.cache_path) && WriteBlockFile(record.cache_path, i, write) == 1;
    }
    if (!ok || !FitsRecordPath(record.cache_path)) {
      std::vector<std::string> made;
      for (const CacheProgramRecord& r : *out) made.push_back(r.cache_path);
      if (ok) made.push_back(record.cache_path);
      RemoveFiles(made, oldFiles);
      out->clear();
      return false;
    }
    out->push_back(std::move(record));
  }
  return true;
}

// Writes the entry's values; false as soon as one write fails. *touched tells whether a
// value was changed before that.
bool WriteValues(const CacheEntry& entry, const std::vector<uint8_t>& fileRecord,
                 const std::vector<uint8_t>& programRecords, bool* touched) {
  *touched = false;
  AccessReg reg;
  std::string path = entry.KeyPath();
  if (!reg.CreateKey(HKEY_CURRENT_USER, path.c_str()) || !reg.Open(HKEY_CURRENT_USER, path.c_str()))
    return false;
  if (!reg.SetValue(CacheRecordValue(entry.kind), fileRecord.data(), REG_BINARY,
                    static_cast<uint32_t>(fileRecord.size())))
    return false;
  *touched = true;
  if (!reg.SetDword(kContentInfoValue, entry.content) || !reg.SetDword(kIdValue, entry.id))
    return false;
  if (entry.kind != CacheKind::kTS) return true;
  return reg.SetValue(kTSInfoValue, programRecords.data(), REG_BINARY,
                      static_cast<uint32_t>(programRecords.size())) &&
         reg.SetDword(kTSProgramsValue, static_cast<uint32_t>(entry.programs.size()));
}

// Removes the sub-key an entry moved away from. Should it stay (a store failure), so do
// the files it names.
void DropOldSubKey(const CacheEntry& old, std::vector<std::string>* keep) {
  AccessReg reg;
  if (!reg.DeleteKey(HKEY_CURRENT_USER, old.KeyPath().c_str())) {
    for (const std::string& f : old.CacheFiles()) keep->push_back(f);
  }
}

bool StoreNextId(CacheKind kind, uint32_t next) {
  AccessReg reg;
  return reg.CreateKey(HKEY_CURRENT_USER, CacheBaseKey(kind)) &&
         reg.Open(HKEY_CURRENT_USER, CacheBaseKey(kind)) && reg.SetDword(kNextIdValue, next);
}

}  // namespace

int32_t WriteCacheEntry(const CacheWriteRequest& request, const CacheBlockWriter& write,
                        CacheEntry* written) {
  if (request.kind == CacheKind::kTemp || request.pmt_pids.empty() ||
      !FitsRecordPath(request.media_path))
    return -1;
  size_t blocks = request.kind == CacheKind::kTS
                      ? std::min<size_t>(request.pmt_pids.size(), kMaxCachePrograms)
                      : 1;
  CacheWriteLock lock;  // until the store names the new files
  ContentSample sample = ReadContentSample(request.media_path);
  CacheEntry found;
  bool reused = FindCacheEntry(request.kind, request.media_path, request.identity, sample, &found);
  reused = reused && found.has_id && found.id < kCacheIdCount;
  // The key name asks the file system about the volume: made once.
  const std::string sub_key = CacheSubKeyName(request.media_path);
  CacheEntry previous;  // whatever the sub-key of this name holds now
  bool had_previous = ReadCacheEntry(request.kind, sub_key, &previous);
  std::vector<std::string> old_files = previous.RemovableFiles();
  // The file's own entry under its other key name (written while its volume answered
  // otherwise about case) gives way to the one written now.
  CacheEntry elsewhere;
  bool moved = FindEntryByPath(request.kind, request.media_path, &elsewhere) &&
               !EqualsIgnoreCase(elsewhere.sub_key, sub_key);
  if (reused && !EqualsIgnoreCase(found.sub_key, sub_key)) {
    moved = true;
    elsewhere = found;
  }
  if (moved) {
    for (const std::string& f : elsewhere.RemovableFiles())
      if (!Contains(old_files, f)) old_files.push_back(f);
  }

  CacheEntry entry;
  entry.kind = request.kind;
  entry.sub_key = sub_key;
  if (!WriteBlocks(request, blocks, write, old_files, &entry.programs)) return -1;
  std::vector<std::string> new_files = entry.CacheFiles();

  entry.has_id = true;
  entry.id = reused ? found.id : ReadNextId(request.kind);
  entry.has_content = true;
  entry.content = sample.taken ? sample.crc : 0;
  entry.has_file_record = true;
  entry.file.media_path = request.media_path;
  entry.file.identity[0] = request.identity[0];
  entry.file.identity[1] = request.identity[1];
  entry.file.cache_path = entry.programs[0].cache_path;
  if (request.kind != CacheKind::kTS) entry.programs.clear();
  std::vector<uint8_t> file_record, program_records;
  EncodeFileRecord(entry.file, &file_record);
  if (request.kind == CacheKind::kTS) EncodeProgramRecords(entry.programs, &program_records);

  // The oldest slot of the ring gives way to a new entry, now that its data is safe.
  if (!reused) EvictCacheId(request.kind, entry.id);
  bool touched = false;
  if (!WriteValues(entry, file_record, program_records, &touched)) {
    if (touched) {
      // The sub-key is half written: drop it, so that it names no file at all.
      AccessReg reg;
      reg.DeleteKey(HKEY_CURRENT_USER, entry.KeyPath().c_str());
      if (had_previous) RemoveFiles(previous.RemovableFiles(), new_files);
    }
    RemoveFiles(new_files, old_files);
    return -1;
  }
  if (!reused) StoreNextId(request.kind, entry.id + 1);
  std::vector<std::string> keep = new_files;
  // The file was renamed, or its key name changed: its entry moves to the new name.
  if (moved) DropOldSubKey(elsewhere, &keep);
  RemoveFiles(old_files, keep);
  if (written != nullptr) *written = std::move(entry);
  return 1;
}

}  // namespace marquel
