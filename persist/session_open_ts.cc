// MarquelOneFile's open of a transport stream: its programs and their data.
#include "log/log.h"
#include "persist/block_from_media.h"
#include "session_steps.h"

namespace marquel {

void SessionSteps::OpenTransportStream(MarquelOneFile& f, FileHandle file, int32_t bLoad) {
  MQDataInFile in_file = f.CheckMQDataInFile(file);
  MQ_LOG("[%d] check from file, bHasMQ = %d, nTotalPMT1 = %d", f.handle_, in_file.has_data ? 1 : 0,
         static_cast<int32_t>(in_file.programs.size()));
  TakeFileAttributes(f);
  CacheEntry entry;
  bool in_registry =
      FindCacheEntry(CacheKind::kTS, f.file_name_, f.identity_, ReadContentSample(file), &entry);
  MQ_LOG("[%d] check from registry, bHasMQ1 = %d, nTotalPMT2 = %d", f.handle_, in_registry ? 1 : 0,
         in_registry ? static_cast<int32_t>(entry.programs.size()) : 0);
  if (in_registry) {
    f.cache_file_path_ = entry.FirstCacheFile();
    f.cache_entry_key_ = entry.KeyPath();
  }
  // Both: the cache wins. Its entry matches the file as it is now, its data included, so
  // a close wrote it after that data was read: it holds the data and what came since.
  const bool read_file = in_file.has_data && !in_registry;
  if (in_file.has_data && in_registry)
    MQ_LOG("[%d] the cache is newer than the data in the file", f.handle_);
  f.data_source_ = read_file ? kSourceMediaFile : in_registry ? kSourceRegistry : kSourceNone;
  if (bLoad) {
    if (in_registry) LoadTsFromRegistry(f, entry);
    // The file's data when there is no cache, and also when the cache cannot be read: it
    // hides nothing then, else a later close would write a cache without the file's data,
    // and that cache would win.
    if (f.m_bMQExisted == 0 && in_file.has_data && !in_file.programs.empty()) {
      if (in_registry)
        MQ_LOG("[%d] the cache could not be read, the data in the file is taken", f.handle_);
      LoadTsFromFile(f, file, in_file);
      if (f.m_bMQExisted == 1) f.data_source_ = kSourceMediaFile;
    }
  }
  if (in_file.has_data) {
    f.mq_start_address_ = in_file.start_address;
    f.identity_[0] = in_file.identity[0];
    f.identity_[1] = in_file.identity[1];
  } else if (in_registry) {
    f.mq_start_address_ = -1;
    f.identity_[0] = entry.file.identity[0];
    f.identity_[1] = entry.file.identity[1];
  }
}

void SessionSteps::LoadTsFromFile(MarquelOneFile& f, FileHandle file, const MQDataInFile& in_file) {
  f.Program(0)->SetPMTPID(in_file.programs[0].pmt_pid);
  for (const InFileProgram& p : in_file.programs) {
    int32_t index = 0;
    if (f.InsertNewProgram(p.pmt_pid, &index) != 1) break;
    int32_t r = ReadBlockFromTransportStream(*f.Program(index), file,
                                             static_cast<int32_t>(f.ts_packet_size_), p.start,
                                             p.data_pid, f.handle_);
    f.m_bMQExisted = r == 1 ? 1 : 0;
    MQ_LOG("[%d] read from file, m_bMQExisted = %d", f.handle_, f.m_bMQExisted);
    if (r != 1) {
      f.read_from_file_ok_ = 0;
      break;
    }
  }
  f.ts_programs_known_ = 1;
}

// Program 0 takes the first record's PMT PID and cache file; when that loads, every
// further record becomes a program of its own. The first failure ends the load, and then
// nothing loaded is kept (see Finish).
void SessionSteps::LoadTsFromRegistry(MarquelOneFile& f, const CacheEntry& entry) {
  const std::vector<CacheProgramRecord>& records = entry.programs;
  f.Program(0)->SetPMTPID(records[0].pmt_pid);
  f.m_bMQExisted = LoadCacheFile(f, *f.Program(0), records[0].cache_path);
  MQ_LOG("[%d] read from registry, m_bMQExisted = %d", f.handle_, f.m_bMQExisted);
  f.ts_programs_known_ = 1;
  if (f.m_bMQExisted != 1) return;
  for (size_t i = 1; i < records.size(); ++i) {
    int32_t index = 0;
    if (f.InsertNewProgram(records[i].pmt_pid, &index) != 1) break;
    f.m_bMQExisted = LoadCacheFile(f, *f.Program(index), records[i].cache_path);
    MQ_LOG("[%d] read from registry, program %d, m_bMQExisted = %d", f.handle_, index,
           f.m_bMQExisted);
    if (f.m_bMQExisted != 1) return;
  }
}

}  // namespace marquel
