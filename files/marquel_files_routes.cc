// MarquelFiles: the routers to a program store or to the session. Each answers -1 for an
// empty slot (or a handle out of range) and for a program index not below the count.
// A change to a read-only session fails (0 for the inserts, -1 for the others): its close
// writes nothing, so the change would be lost.
#include <limits>

#include "files/marquel_files.h"

namespace marquel {

int32_t MarquelFiles::InsertOne(int32_t handle, int32_t program, int32_t tagId,
                                const SampleRecord& record) {
  MQOneProgram* p = ProgramAt(handle, program);
  if (p == nullptr) return -1;
  return WritableSessionAt(handle) ? p->InsertOne(tagId, record) : 0;
}

int32_t MarquelFiles::InsertMany(int32_t handle, int32_t program, int32_t tagId,
                                 const SampleRecord* records, int32_t count) {
  MQOneProgram* p = ProgramAt(handle, program);
  if (p == nullptr) return -1;
  return WritableSessionAt(handle) ? p->InsertMany(tagId, records, count) : 0;
}

int32_t MarquelFiles::GetOne(int32_t handle, int32_t program, int32_t tagId, int64_t timeCode,
                             SampleRecord* out) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->GetOne(tagId, timeCode, out) : -1;
}

int64_t MarquelFiles::GetDataPeriod(int32_t handle, int32_t program, int32_t tagId, int64_t start,
                                    int64_t end, SampleRecord* out, int64_t capacity) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->GetDataPeriod(tagId, start, end, out, capacity) : -1;
}

int64_t MarquelFiles::GetDataAll(int32_t handle, int32_t program, int32_t tagId, SampleRecord* out,
                                 int64_t capacity) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->GetDataAll(tagId, out, capacity) : -1;
}

int64_t MarquelFiles::QueryOneTagSize(int32_t handle, int32_t program, int32_t tagId) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryOneTagSize(tagId) : -1;
}

int64_t MarquelFiles::QueryOneTagPeriodSize(int32_t handle, int32_t program, int32_t tagId,
                                            int64_t start, int64_t end) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryOneTagPeriodSize(tagId, start, end) : -1;
}

int32_t MarquelFiles::QueryTagCount(int32_t handle, int32_t program) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryTagCount() : -1;
}

int32_t MarquelFiles::QueryTagList(int32_t handle, int32_t program, int32_t* ids,
                                   int32_t capacity) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryTagList(ids, capacity) : -1;
}

// The described table does not test the slot here; an empty slot answers -1 like the
// other counts instead of reading through a null session.
int32_t MarquelFiles::QueryRawDataTagCount(int32_t handle, int32_t program) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryRawDataTagCount() : -1;
}

int32_t MarquelFiles::QueryRawDataTagList(int32_t handle, int32_t program, int32_t* ids,
                                          int32_t* sizes, int32_t capacity) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryRawDataTagList(ids, sizes, capacity) : -1;
}

int32_t MarquelFiles::QueryRawDataTagSampleSize(int32_t handle, int32_t program, int32_t tagId,
                                                int32_t* size) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryRawDataTagSampleSize(tagId, size) : -1;
}

int32_t MarquelFiles::SetTimeIntervalForTag(int32_t handle, int32_t program, int32_t tagId,
                                            int64_t interval) {
  MQOneProgram* p = WritableSessionAt(handle) ? ProgramAt(handle, program) : nullptr;
  return p ? p->SetTimeIntervalForTag(tagId, interval) : -1;
}

int32_t MarquelFiles::SetMinTimeInterval(int32_t /*handle*/, int64_t /*interval*/) {
  return 1;
}

int64_t MarquelFiles::QueryValidIntervalSize(int32_t handle, int32_t program, int32_t tagId) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryValidIntervalSize(tagId) : -1;
}

int64_t MarquelFiles::QueryValidInterval(int32_t handle, int32_t program, int32_t tagId,
                                         int64_t capacity, int64_t* starts, int64_t* ends) {
  MQOneProgram* p = ProgramAt(handle, program);
  return p ? p->QueryValidInterval(tagId, capacity, starts, ends) : -1;
}

int32_t MarquelFiles::MinusTimeOffset(int32_t handle, int32_t program, int64_t offset) {
  MQOneProgram* p = WritableSessionAt(handle) ? ProgramAt(handle, program) : nullptr;
  return p ? p->MinusTimeOffset(offset) : -1;
}

int32_t MarquelFiles::MinusTimeOffsetForOneCategory(int32_t handle, int32_t program,
                                                    int32_t category, int64_t offset) {
  MQOneProgram* p = WritableSessionAt(handle) ? ProgramAt(handle, program) : nullptr;
  return p ? p->MinusTimeOffsetForOneCategory(category, offset) : -1;
}

int32_t MarquelFiles::MinustTimeOffsetForOneTag(int32_t handle, int32_t program, int32_t tagId,
                                                int64_t offset) {
  MQOneProgram* p = WritableSessionAt(handle) ? ProgramAt(handle, program) : nullptr;
  return p ? p->MinustTimeOffsetForOneTag(tagId, offset) : -1;
}

int32_t MarquelFiles::GetMQProgramCounts(int32_t handle, int32_t* count) {
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr || count == nullptr) return -1;
  *count = file->ProgramCount();
  return 1;
}

int32_t MarquelFiles::GetMQPMTPIDS(int32_t handle, int32_t nTotal, int32_t* pids) {
  MarquelOneFile* file = SessionAt(handle);
  return file ? file->GetPMTPIDs(nTotal, pids) : -1;
}

int32_t MarquelFiles::InsertNewProgram(int32_t handle, int32_t pmtPid, int32_t* index) {
  MarquelOneFile* file = SessionAt(handle);
  return file ? file->InsertNewProgram(pmtPid, index) : -1;
}

int32_t MarquelFiles::SetPMTPID(int32_t handle, int32_t program, int32_t pmtPid) {
  MarquelOneFile* file = WritableSessionAt(handle);
  return file ? file->SetPMTPID(program, pmtPid) : -1;
}

int32_t MarquelFiles::QueryMQExisted(int32_t handle) {
  MarquelOneFile* file = SessionAt(handle);
  return file ? file->m_bMQExisted : -1;
}

int32_t MarquelFiles::GetMQDataStartAddress(int32_t handle, int64_t* address) {
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr || address == nullptr) return -1;
  if (file->MQStartAddress() > 0) *address = file->MQStartAddress();
  return 1;
}

int32_t MarquelFiles::QueryOriginalFileSizeAndMTime(int32_t handle, uint64_t* size,
                                                    int64_t* mtime) {
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr) return -1;
  if (size != nullptr) *size = file->OriginalSize();
  if (mtime != nullptr) *mtime = file->OriginalMTime();
  return 1;
}

int32_t MarquelFiles::FileRename(int32_t handle, const std::string& newName) {
  std::lock_guard<std::mutex> lock(table_mu_);
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr) return -1;
  // The name is what find-by-name compares, so the slot's key follows it.
  file->SetFileName(newName);
  SetSlotKey(handle, newName);
  return 1;
}

}  // namespace marquel
