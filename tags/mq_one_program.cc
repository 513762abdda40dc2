// MQOneProgram: the tag table of one program, samples and tag lists.
#include "tags/mq_one_program.h"

#include <algorithm>
#include <limits>

#include "log/log.h"

namespace marquel {

MQOneProgram::MQOneProgram(int32_t number) : number_(number) {}

MQOneProgram::~MQOneProgram() {
  for (auto& slot : tags_) delete slot.load();
}

TagObject* MQOneProgram::TagOrNull(int32_t tagId) const {
  return IsValidTagId(tagId) ? tags_[tagId].load(std::memory_order_acquire) : nullptr;
}

TagObject* MQOneProgram::Tag(int32_t tagId) {
  return TagOrNull(tagId);
}

TagObject* MQOneProgram::GetOrCreateTag(int32_t tagId) {
  if (!IsValidTagId(tagId)) return nullptr;
  TagObject* tag = tags_[tagId].load(std::memory_order_acquire);
  if (tag != nullptr) return tag;
  std::lock_guard<std::mutex> lock(create_mu_);
  tag = tags_[tagId].load(std::memory_order_acquire);
  if (tag == nullptr) {
    tag = new TagObject(tagId);
    tags_[tagId].store(tag, std::memory_order_release);
    if (tagId > highest_tag_id_.load()) highest_tag_id_.store(tagId, std::memory_order_release);
  }
  return tag;
}

int32_t MQOneProgram::CategoryOf(int32_t tagId) {
  const TagDefinition* def = FindTagDefinition(tagId);
  return def ? def->nCategory : -1;
}

bool MQOneProgram::Admits(int32_t tagId, const SampleRecord& record) {
  // A sample the close could not write would be lost while the client heard success.
  if (!BlockCarriesTag(tagId)) return false;
  if (record.nKind == kRawSample) {
    // Longer samples than the data block's count field holds would come back cut.
    return AcceptsRawData(tagId) && record.nValue >= 0 && record.nValue <= kMaxRawSampleBytes &&
           record.nValue <= RawLengthLimit(tagId);
  }
  // The data block writes a raw tag's samples as byte counts and bytes: a plain value
  // there would come back as an empty raw sample.
  return record.nKind == kPlainSample && !AcceptsRawData(tagId);
}

int MQOneProgram::InsertOne(int32_t tagId, const SampleRecord& record) {
  if (!Admits(tagId, record)) return 0;
  TagObject* tag = GetOrCreateTag(tagId);
  // Every failure is 0: to the table, -1 means a handle without a file, which the client
  // hears as success; a sample that was not stored must not.
  // A tag left out of the open's selection ignores its samples and says 1; the client
  // must hear that nothing was kept.
  return tag != nullptr && tag->Valid() && tag->Insert(record) == 1 ? 1 : 0;
}

int32_t MQOneProgram::InsertMany(int32_t tagId, const SampleRecord* records, int32_t count) {
  if (records == nullptr || count < 1) return 0;
  int32_t stored = 0;
  for (int32_t i = 0; i < count; ++i) {
    if (InsertOne(tagId, records[i]) == 1) ++stored;
  }
  return stored;
}

int MQOneProgram::GetOne(int32_t tagId, int64_t timeCode, SampleRecord* out) {
  TagObject* tag = TagOrNull(tagId);
  if (tag == nullptr || out == nullptr) return -1;
  return tag->Get(timeCode, out);
}

int64_t MQOneProgram::QueryOneTagSize(int32_t tagId) {
  TagObject* tag = TagOrNull(tagId);
  return tag ? tag->Count() : 0;
}

int64_t MQOneProgram::QueryOneTagPeriodSize(int32_t tagId, int64_t start, int64_t end) {
  TagObject* tag = TagOrNull(tagId);
  return tag ? tag->CountInPeriod(start, end) : 0;
}

int64_t MQOneProgram::GetDataAll(int32_t tagId, SampleRecord* out, int64_t capacity) {
  return GetDataPeriod(tagId, std::numeric_limits<int64_t>::min(), -1, out, capacity);
}

int64_t MQOneProgram::GetDataPeriod(int32_t tagId, int64_t start, int64_t end, SampleRecord* out,
                                    int64_t capacity) {
  TagObject* tag = TagOrNull(tagId);
  if (tag == nullptr || out == nullptr || capacity < 1) return 0;
  const int64_t n = tag->ReadPeriod(start, end, out, capacity);
  return n < 0 ? kReadFailed : n;
}

int32_t MQOneProgram::QueryTagCount() {
  return QueryTagList(nullptr, 0);
}

int32_t MQOneProgram::QueryTagList(int32_t* ids, int32_t capacity) {
  if (ids == nullptr) capacity = 0;
  int32_t n = 0;
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    TagObject* tag = TagOrNull(id);
    if (tag == nullptr || tag->Kind() != kPlainSample) continue;
    if (n < capacity) ids[n] = id;
    ++n;
  }
  return n;
}

int32_t MQOneProgram::QueryRawDataTagCount() {
  return QueryRawDataTagList(nullptr, nullptr, 0);
}

int32_t MQOneProgram::QueryRawDataTagList(int32_t* ids, int32_t* sizes, int32_t capacity) {
  if (ids == nullptr) capacity = 0;
  int32_t n = 0;
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    TagObject* tag = TagOrNull(id);
    if (tag == nullptr || tag->Kind() != kRawSample) continue;
    if (n < capacity) {
      ids[n] = id;
      if (sizes != nullptr) sizes[n] = tag->RawSampleSize();
    }
    ++n;
  }
  return n;
}

int MQOneProgram::QueryRawDataTagSampleSize(int32_t tagId, int32_t* size) {
  TagObject* tag = TagOrNull(tagId);
  if (tag == nullptr || size == nullptr || tag->Kind() != kRawSample) return -1;
  *size = tag->RawSampleSize();
  return 1;
}

int64_t MQOneProgram::QueryMemory() {
  int64_t total = 112;
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    if (TagObject* tag = TagOrNull(id)) total += tag->Memory();
  }
  return total;
}

void MQOneProgram::ClearAllTags() {
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    if (TagObject* tag = TagOrNull(id)) tag->Clear();
  }
}

int MQOneProgram::FlushAllMemoryBlocks() {
  int result = 1;
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    TagObject* tag = TagOrNull(id);
    if (tag != nullptr && tag->FlushMemoryBlock() < 0) result = -1;
  }
  return result;
}

bool ProgramBuffer::ForEachChunk(size_t max_chunk, const StreamChunkFn& f) const {
  const uint64_t spilled = spill ? spill->size() : 0;
  const uint64_t held = Size() > spilled ? Size() - spilled : 0;
  const size_t n = static_cast<size_t>(std::min<uint64_t>(held, bytes.size()));
  return ForEachStreamChunk(spill.get(), bytes.data(), n, max_chunk, f);
}

ProgramBuffer* MQOneProgram::TagIdBuffer() {
  if (!m_ptpTagID) MQ_LOG("m_ptpTagID = NULL");
  return m_ptpTagID.get();
}

ProgramBuffer* MQOneProgram::DataBuffer() {
  if (!m_ptpData) MQ_LOG("m_ptpData = NULL");
  return m_ptpData.get();
}

ProgramBuffer* MQOneProgram::DataLengthBuffer() {
  if (!m_ptpDataLength) MQ_LOG("m_ptpDataLength = NULL");
  return m_ptpDataLength.get();
}

ProgramBuffer* MQOneProgram::HeaderBuffer() {
  if (!m_ptpHeader) MQ_LOG("m_ptpHeader = NULL");
  return m_ptpHeader.get();
}

namespace {
ProgramBuffer* Remake(std::unique_ptr<ProgramBuffer>* slot, size_t bytes) {
  *slot = std::make_unique<ProgramBuffer>();
  (*slot)->bytes.assign(bytes, 0);
  return slot->get();
}
}  // namespace

ProgramBuffer* MQOneProgram::MakeTagIdBuffer(size_t bytes) {
  return Remake(&m_ptpTagID, bytes);
}
ProgramBuffer* MQOneProgram::MakeDataBuffer(size_t bytes) {
  return Remake(&m_ptpData, bytes);
}
ProgramBuffer* MQOneProgram::MakeDataLengthBuffer(size_t bytes) {
  return Remake(&m_ptpDataLength, bytes);
}
ProgramBuffer* MQOneProgram::MakeHeaderBuffer() {
  return Remake(&m_ptpHeader, kHeaderBufferBytes);
}

void MQOneProgram::ReleaseBuffers() {
  m_ptpTagID.reset();
  m_ptpData.reset();
  m_ptpDataLength.reset();
  m_ptpHeader.reset();
}

int MQOneProgram::CheckBuffersForSerialise() {
  if (m_ptpTagID && m_ptpData && m_ptpDataLength && m_ptpHeader) return 1;
  MQ_LOG("error! process program but no data!");
  return -1;
}

}  // namespace marquel
