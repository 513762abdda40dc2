// TagObject: counts, period reads and edits, valid intervals, loading, facts.
#include <algorithm>
#include <new>

#include "record_file.h"
#include "record_layout.h"
#include "tag_block.h"
#include "tags/tag_object.h"

namespace marquel {

int64_t TagObject::Count() {
  std::lock_guard<std::mutex> lock(mu_);
  if (!file_ || FlushPendingLocked() < 0) return 0;
  return std::max<int64_t>(0, file_->Count());
}

int64_t TagObject::CountInPeriod(int64_t start, int64_t end) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!file_ || FlushPendingLocked() < 0) return 0;
  return std::max<int64_t>(0, file_->CountRange(start, end >= 0, end));
}

int64_t TagObject::ReadPeriod(int64_t start, int64_t end, SampleRecord* out, int64_t capacity,
                              int64_t maxBytes) {
  if (out == nullptr || capacity <= 0) return 0;
  std::lock_guard<std::mutex> lock(mu_);
  if (!file_ || FlushPendingLocked() < 0) return 0;
  int64_t written = 0;
  int64_t bytes = 0;
  const bool read = file_->Scan(start, true, end >= 0, end, [&](const SampleRecord& r) {
    out[written++] = CopyOut(r);
    bytes += Block::Cost(out[written - 1]) - 32;
    return written < capacity && bytes < maxBytes;
  }) >= 0;
  if (read) return written;
  FreeSampleBuffers(out, written);
  return -1;
}

int TagObject::DeletePeriod(int64_t start, int64_t end) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!file_) return 1;
  if (FlushPendingLocked() < 0) return -1;
  int rc = file_->DeleteRange(start, end >= 0, end);
  block_->Clear();
  cursor_ = 0;
  cached_pos_[0] = cached_pos_[1] = -1;
  return rc < 0 ? -1 : 1;
}

int TagObject::MinusTimeOffset(int64_t offset) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!file_) return 1;
  if (FlushPendingLocked() < 0) return -1;
  int64_t first = 0;
  bool any = false;
  if (file_->Scan(INT64_MIN, true, false, 0, [&](const SampleRecord& r) {
        first = r.llTimeCode;
        any = true;
        return false;
      }) < 0)
    return -1;
  block_->Clear();
  cursor_ = 0;
  cached_pos_[0] = cached_pos_[1] = -1;
  if (!any) return 1;
  // Samples that would move below zero go first: [0, offset). For an offset of 0 or less
  // that period is empty (it is a plain period here, not the "to the end" form).
  if (first < offset && offset > 0 && file_->DeleteRange(0, true, offset) < 0) return -1;
  return file_->MinusOffset(offset) < 0 ? -1 : 1;
}

int64_t TagObject::CountIntervalsLocked(int64_t* starts, int64_t* ends, int64_t capacity) {
  if (!file_ || FlushPendingLocked() < 0) return 0;
  if (starts == nullptr || ends == nullptr) capacity = 0;
  int64_t n = 0;
  int64_t open = 0;
  int64_t prev = 0;
  bool any = false;
  auto close = [&](int64_t end) {
    if (n < capacity) {
      starts[n] = open;
      ends[n] = end;
    }
    ++n;
  };
  file_->Scan(INT64_MIN, true, false, 0, [&](const SampleRecord& r) {
    int64_t t = r.llTimeCode;
    if (!any) {
      open = t;
      any = true;
    } else if (static_cast<uint64_t>(t) - static_cast<uint64_t>(prev) >
               static_cast<uint64_t>(kValidIntervalGap)) {
      close(prev);
      open = t;
    }
    prev = t;
    return true;
  });
  if (any) close(prev);
  intervals_listed_ = n;
  return n;
}

int64_t TagObject::ValidIntervalCount() {
  std::lock_guard<std::mutex> lock(mu_);
  return CountIntervalsLocked(nullptr, nullptr, 0);
}

int64_t TagObject::ValidIntervals(int64_t* starts, int64_t* ends, int64_t capacity) {
  std::lock_guard<std::mutex> lock(mu_);
  return CountIntervalsLocked(starts, ends, capacity);
}

void TagObject::Clear() {
  std::lock_guard<std::mutex> lock(mu_);
  pending_ = false;
  block_->Clear();
  cursor_ = 0;
  cached_pos_[0] = cached_pos_[1] = -1;
  if (file_) file_->Truncate();
  kind_ = kPlainSample;
  raw_size_ = 0;
}

int32_t TagObject::Kind() {
  std::lock_guard<std::mutex> lock(mu_);
  return kind_;
}

int32_t TagObject::RawSampleSize() {
  std::lock_guard<std::mutex> lock(mu_);
  return raw_size_;
}

int64_t TagObject::Interval() {
  std::lock_guard<std::mutex> lock(mu_);
  return interval_;
}

bool TagObject::IntervalSet() {
  std::lock_guard<std::mutex> lock(mu_);
  return interval_set_ != 0;
}

void TagObject::SetInterval(int64_t interval, bool explicitly) {
  std::lock_guard<std::mutex> lock(mu_);
  interval_ = interval;
  if (explicitly) interval_set_ = 1;
}

bool TagObject::Valid() {
  std::lock_guard<std::mutex> lock(mu_);
  return valid_ != 0;
}

void TagObject::SetValid(bool valid) {
  std::lock_guard<std::mutex> lock(mu_);
  valid_ = valid ? 1 : 0;
}

int32_t TagObject::LastStateValue() {
  std::lock_guard<std::mutex> lock(mu_);
  return last_state_;
}

void TagObject::SetLastStateValue(int32_t value) {
  std::lock_guard<std::mutex> lock(mu_);
  last_state_ = value;
}

int64_t TagObject::RunStartTime() {
  std::lock_guard<std::mutex> lock(mu_);
  return run_start_;
}

void TagObject::SetRunStartTime(int64_t time) {
  std::lock_guard<std::mutex> lock(mu_);
  run_start_ = time;
}

int64_t TagObject::Memory() {
  std::lock_guard<std::mutex> lock(mu_);
  int64_t block = 32 * static_cast<int64_t>(capacity_);
  return file_ ? block + 16 * (8 + intervals_listed_) : block + 128;
}

bool TagObject::HasRecordFile() {
  std::lock_guard<std::mutex> lock(mu_);
  return file_ != nullptr;
}

int32_t TagObject::BlockCount() {
  std::lock_guard<std::mutex> lock(mu_);
  return static_cast<int32_t>(block_->size());
}

int32_t TagObject::BlockCapacity() {
  std::lock_guard<std::mutex> lock(mu_);
  return capacity_;
}

void TagObject::FitBlockToSample(int32_t sampleBytes) {
  if (sampleBytes >= kLargeRawBytes) capacity_ = kLargeRawBlockCap;
  capacity_ = static_cast<int32_t>(
      std::min<int64_t>(capacity_, RecordsWithin(kTagBlockBytes, int64_t{32} + sampleBytes)));
}

int TagObject::GrowMemoryBlock() {
  std::lock_guard<std::mutex> lock(mu_);
  try {
    block_->records.reserve(static_cast<size_t>(capacity_) + kBlockStep);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  capacity_ += kBlockStep;
  return 1;
}

int TagObject::BulkAppend(const SampleRecord& record) {
  std::lock_guard<std::mutex> lock(mu_);
  if (valid_ == 0) return 1;
  if (EnsureRecordFile() < 0) return -1;
  auto& recs = block_->records;
  bool raw = record.nKind == kRawSample;
  bool inOrder = raw ? (record.pBuffer != nullptr && record.nValue >= 0) : true;
  if (!pending_) {
    if (file_->Empty()) {
      file_->SetFormat(record.nKind, raw ? record.nValue : 0);
      kind_ = record.nKind;
      raw_size_ = raw ? record.nValue : 0;
      block_->Clear();
      if (raw) FitBlockToSample(record.nValue);
    } else {
      inOrder = false;  // loading into a tag with samples: ordinary inserts
    }
  } else if (record.llTimeCode <= recs.back().llTimeCode) {
    inOrder = false;
  }
  if (record.nKind != kind_) inOrder = false;
  if (!inOrder) return InsertLocked(record) == 1 ? 1 : -1;
  bool full = static_cast<int64_t>(recs.size()) >= capacity_ || !block_->Fits(record);
  if (full && FlushPendingLocked() < 0) return -1;
  SampleRecord copy = CopyOut(record);
  try {
    recs.push_back(copy);
    block_->Count(Block::Cost(copy));
  } catch (const std::bad_alloc&) {
    FreeSampleBuffer(copy.pBuffer);
    return -1;
  }
  pending_ = true;
  return 1;
}

int TagObject::FlushMemoryBlock() {
  std::lock_guard<std::mutex> lock(mu_);
  if (!file_) {
    block_->Clear();
    return 1;
  }
  int rc = FlushPendingLocked();
  block_->Clear();
  cursor_ = 0;
  return rc < 0 ? -1 : 1;
}

int64_t TagObject::ReadAfterLocked(int64_t afterTime, bool inclusive, int64_t capacity,
                                   std::vector<SampleRecord>* out, std::vector<uint8_t>* bytes,
                                   bool* full) {
  out->clear();
  bytes->clear();
  *full = false;
  if (!file_) return 0;
  if (FlushPendingLocked() < 0) return -1;
  std::vector<size_t> offsets;
  const int scanned = file_->Scan(afterTime, inclusive, false, 0, [&](const SampleRecord& r) {
    SampleRecord copy = r;
    offsets.push_back(bytes->size());
    if (r.pBuffer != nullptr && r.nValue > 0) {
      bytes->insert(bytes->end(), r.pBuffer, r.pBuffer + r.nValue);
    }
    out->push_back(copy);
    // A chunk also ends at kStorePieceBytes of raw bytes, so raw samples of any length
    // cannot make one chunk hold more than that (and one sample).
    *full = static_cast<int64_t>(out->size()) >= capacity ||
            static_cast<int64_t>(bytes->size()) >= kStorePieceBytes;
    return !*full;
  });
  if (scanned < 0) {
    out->clear();
    bytes->clear();
    *full = false;
    return -1;
  }
  // The bytes have their final home now: point the records at them.
  for (size_t i = 0; i < out->size(); ++i) {
    SampleRecord& r = (*out)[i];
    if (r.pBuffer != nullptr) r.pBuffer = r.nValue > 0 ? bytes->data() + offsets[i] : nullptr;
  }
  return static_cast<int64_t>(out->size());
}

TagRecordCursor::TagRecordCursor(TagObject* tag, int64_t chunkRecords)
    : tag_(tag), chunk_(std::max<int64_t>(1, chunkRecords)) {
  Load(INT64_MIN, true);
}

void TagRecordCursor::Load(int64_t afterTime, bool inclusive) {
  pos_ = 0;
  std::lock_guard<std::mutex> lock(tag_->mu_);
  bool full = false;
  if (tag_->ReadAfterLocked(afterTime, inclusive, chunk_, &records_, &bytes_, &full) < 0)
    failed_ = true;
  // Only a chunk that ended short of both bounds ends the tag.
  exhausted_ = !full;
}

void TagRecordCursor::Next() {
  if (!Valid()) return;
  ++index_;
  if (++pos_ < records_.size()) return;
  if (exhausted_) return;
  Load(records_.back().llTimeCode, false);
}

}  // namespace marquel
