// TagObject: inserts, lookups and the memory block.
#include "tags/tag_object.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "record_file.h"
#include "record_layout.h"
#include "tag_block.h"

namespace marquel {

TagObject::TagObject(int32_t tagId) : tag_id_(tagId), block_(std::make_unique<Block>()) {}

TagObject::~TagObject() = default;

int TagObject::EnsureRecordFile() {
  if (file_) return 1;
  file_ = RecordFile::Create();
  return file_ ? 1 : -1;
}

// Appended records still in the block go to the file, in order, and the block empties.
int TagObject::FlushPendingLocked() {
  if (!pending_) return 1;
  pending_ = false;
  int rc =
      file_->InsertSortedRun(block_->records.data(), static_cast<int64_t>(block_->records.size()));
  block_->Clear();
  cursor_ = 0;
  cached_pos_[0] = cached_pos_[1] = -1;
  return rc;
}

void TagObject::MeasureIntervalLocked() {
  if (interval_set_ != 0 || interval_ != 0 || !file_ || file_->Empty()) return;
  if (FlushPendingLocked() < 0) return;
  int64_t times[2];
  int found = 0;
  file_->Scan(INT64_MIN, true, false, 0, [&](const SampleRecord& r) {
    times[found++] = r.llTimeCode;
    return found < 2;
  });
  if (found < 2) return;
  interval_ = std::max(times[1] - times[0], kMinMeasuredInterval);
}

int TagObject::Insert(const SampleRecord& record) {
  std::lock_guard<std::mutex> lock(mu_);
  if (valid_ == 0) return 1;
  MeasureIntervalLocked();
  return InsertLocked(record);
}

int TagObject::InsertLocked(const SampleRecord& record) {
  if (record.nKind != kPlainSample && record.nKind != kRawSample) return 0;
  if (record.nKind == kRawSample && (record.nValue < 0 || record.nValue > kMaxRawSampleBytes))
    return 0;
  if (EnsureRecordFile() < 0) return -1;
  if (FlushPendingLocked() < 0) return -1;
  bool raw = record.nKind == kRawSample;
  if (file_->Empty()) {
    // The first sample of an empty tag fixes its kind and sample size.
    file_->SetFormat(record.nKind, raw ? record.nValue : 0);
    kind_ = record.nKind;
    raw_size_ = raw ? record.nValue : 0;
    block_->Clear();
  } else if (record.nKind != kind_) {
    // Refused: a record of the other kind would not fit the tag's fixed record size.
    return 0;
  }
  if (block_->empty() && raw) FitBlockToSample(record.nValue);
  if (file_->Insert(record) < 0) return -1;
  MirrorIntoBlock(record);
  cached_pos_[0] = cached_pos_[1] = -1;
  return 1;
}

// Keeps the memory block in step with an insert whose time falls inside it (between its
// first and last record), or starts it when it is empty. A record that would not fit in a
// full block lives in the file only. Appends after the block stay out of it, so a tag that
// is only written keeps one record in memory; lookups fill the block.
void TagObject::MirrorIntoBlock(const SampleRecord& record) {
  auto& recs = block_->records;
  if (!recs.empty() &&
      (record.llTimeCode < recs.front().llTimeCode || record.llTimeCode > recs.back().llTimeCode))
    return;
  size_t pos = block_->LowerBound(record.llTimeCode);
  if (pos < recs.size() && recs[pos].llTimeCode == record.llTimeCode) {
    SampleRecord& have = recs[pos];
    if (record.nKind == kPlainSample) {
      have.nValue = record.nValue;
      return;
    }
    if (have.pBuffer != nullptr && record.pBuffer != nullptr && have.nValue == record.nValue) {
      if (record.nValue > 0) std::memcpy(have.pBuffer, record.pBuffer, record.nValue);
      return;
    }
    block_->Count(-Block::Cost(have));
    FreeSampleBuffer(have.pBuffer);
    if (!block_->Fits(record) || !Block::CacheHasRoom()) {
      // Too many bytes for the block: the record lives in the file only.
      recs.erase(recs.begin() + static_cast<ptrdiff_t>(pos));
      return;
    }
    have = CopyOut(record);
    block_->Count(Block::Cost(have));
    return;
  }
  if (static_cast<int64_t>(recs.size()) >= capacity_ || !block_->Fits(record) ||
      !Block::CacheHasRoom())
    return;
  SampleRecord copy = CopyOut(record);
  try {
    recs.insert(recs.begin() + static_cast<ptrdiff_t>(pos), copy);
    block_->Count(Block::Cost(copy));
  } catch (const std::bad_alloc&) {
    // The block is only a cache of the file; leaving the record out is safe.
    FreeSampleBuffer(copy.pBuffer);
  }
}

int64_t TagObject::InsertSorted(const SampleRecord* records, int64_t count, uint8_t* stored) {
  if (records == nullptr || count <= 0) return 0;
  if (stored != nullptr) std::memset(stored, 0, static_cast<size_t>(count));
  std::lock_guard<std::mutex> lock(mu_);
  // A tag that is not valid keeps nothing: none of the records counts as stored.
  if (valid_ == 0) return 0;
  int64_t kept = 0;
  int64_t i = 0;
  // One at a time while the interval may still be measured, or for what a batch cannot
  // take (first samples that fix the format, raw samples without bytes, samples out of
  // order).
  auto batchable = [&](int64_t k) {
    const SampleRecord& r = records[k];
    if (file_ == nullptr || file_->Empty() || r.nKind != kind_) return false;
    if (k > 0 && records[k - 1].llTimeCode >= r.llTimeCode) return false;
    if (r.nKind == kRawSample &&
        (r.pBuffer == nullptr || r.nValue < 0 || r.nValue > kMaxRawSampleBytes))
      return false;
    return interval_set_ != 0 || interval_ != 0;
  };
  while (i < count) {
    if (!batchable(i)) {
      MeasureIntervalLocked();
      int rc = InsertLocked(records[i]);
      if (rc < 0 && !file_) return -1;
      if (rc == 1) {
        ++kept;
        if (stored != nullptr) stored[i] = 1;
      }
      ++i;
      continue;
    }
    int64_t j = i + 1;
    while (j < count && batchable(j)) ++j;
    if (FlushPendingLocked() < 0 || file_->InsertSortedRun(records + i, j - i) < 0) return -1;
    if (stored != nullptr) std::memset(stored + i, 1, static_cast<size_t>(j - i));
    kept += j - i;
    i = j;
    // The block is a cache of the file; after a batch it starts again.
    block_->Clear();
    cursor_ = 0;
    cached_pos_[0] = cached_pos_[1] = -1;
  }
  return kept;
}

int TagObject::Get(int64_t timeCode, SampleRecord* out) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!file_ || FlushPendingLocked() < 0 || file_->Empty()) return -1;
  auto& recs = block_->records;
  if (!recs.empty() && recs.front().llTimeCode <= timeCode && timeCode < recs.back().llTimeCode) {
    size_t i = static_cast<size_t>(cursor_);
    if (i >= recs.size() || recs[i].llTimeCode >= timeCode) {
      // The last index whose time code is not above the key.
      i = block_->LowerBound(timeCode);
      if (i == recs.size() || recs[i].llTimeCode > timeCode) i = i == 0 ? 0 : i - 1;
    } else {
      ++i;
    }
    while (i < recs.size() && recs[i].llTimeCode < timeCode) ++i;
    if (i < recs.size() && recs[i].llTimeCode == timeCode) {
      *out = CopyOut(recs[i]);
      cursor_ = static_cast<int32_t>(i);
      return 1;
    }
  }
  SampleRecord view;
  std::vector<uint8_t> storage;
  int found = file_->Find(timeCode, &view, &storage);
  if (found != 1) return found;
  *out = CopyOut(view);
  // Reload the block from the found record on.
  block_->Clear();
  cursor_ = 0;
  file_->Scan(timeCode, true, false, 0, [&](const SampleRecord& r) {
    if (!block_->Fits(r) || !Block::CacheHasRoom()) return false;
    SampleRecord copy = CopyOut(r);
    try {
      recs.push_back(copy);
      block_->Count(Block::Cost(copy));
    } catch (const std::bad_alloc&) {
      FreeSampleBuffer(copy.pBuffer);
      return false;
    }
    return static_cast<int64_t>(recs.size()) < capacity_ && Block::CacheHasRoom();
  });
  cached_pos_[0] = cached_pos_[1] = -1;
  return 1;
}

}  // namespace marquel
