#include "tags/block_content.h"

#include <algorithm>

namespace marquel {

void BlockTagSamples::AddRaw(int64_t time, const uint8_t* bytes, int32_t n) {
  present = true;
  raw = true;
  if (n < 0) n = 0;
  times.push_back(time);
  values.push_back(n);
  raw_offset.push_back(raw_bytes.size());
  if (n > 0) raw_bytes.insert_back(bytes, bytes + n);
}

void BlockTagSamples::Clear() {
  present = false;
  valid = true;
  raw = false;
  interval = 0;
  interval_set = false;
  times.clear();
  values.clear();
  raw_bytes.clear();
  raw_offset.clear();
}

int32_t BlockContent::HighestTagId() const {
  for (int32_t id = kTagIdCount - 1; id >= 0; --id)
    if (tags[id].present) return id;
  return -1;
}

uint64_t BlockContent::SampleCount() const {
  uint64_t n = 0;
  for (const auto& t : tags) n += t.size();
  return n;
}

bool BlockContent::Empty() const {
  for (const auto& t : tags) {
    bool cleared = !t.present && t.valid && !t.raw && t.interval == 0 && !t.interval_set &&
                   t.empty() && t.values.empty() && t.raw_bytes.empty() && t.raw_offset.empty();
    if (!cleared) return false;
  }
  return true;
}

void BlockContent::Clear() {
  for (auto& t : tags) t.Clear();
}

namespace {

// The whole tag in one batch, straight from its lists.
class ContentCursor : public BlockTagCursor {
 public:
  explicit ContentCursor(const BlockTagSamples& tag) : tag_(tag) {}
  bool Next(BlockSampleBatch* batch) override {
    if (done_ || tag_.empty()) return false;
    done_ = true;
    *batch = BlockSampleBatch();
    batch->times = tag_.times.data();
    batch->values = tag_.values.data();
    batch->count = tag_.size();
    if (tag_.raw) {
      batch->raw_base = tag_.raw_bytes.data();
      batch->raw_offsets = tag_.raw_offset.data();
      batch->raw_readable_past = true;  // SampleColumn::kReadPast
    }
    return true;
  }

 private:
  const BlockTagSamples& tag_;
  bool done_ = false;
};

// Passes on the part of the inner cursor's batches that lies inside [start, end).
class PeriodCursor : public BlockTagCursor {
 public:
  PeriodCursor(std::unique_ptr<BlockTagCursor> inner, int64_t start, int64_t end)
      : inner_(std::move(inner)), start_(start), end_(end) {}
  bool Next(BlockSampleBatch* batch) override {
    while (!done_ && inner_->Next(batch)) {
      const int64_t* t = batch->times;
      size_t first = static_cast<size_t>(std::lower_bound(t, t + batch->count, start_) - t);
      size_t last = batch->count;
      if (end_ >= 0) {
        last = static_cast<size_t>(std::lower_bound(t + first, t + batch->count, end_) - t);
        if (last < batch->count) done_ = true;
      }
      if (first == last) continue;
      batch->times += first;
      batch->values += first;
      if (batch->raw_offsets != nullptr) batch->raw_offsets += first;
      batch->count = last - first;
      return true;
    }
    done_ = true;
    return false;
  }

 private:
  std::unique_ptr<BlockTagCursor> inner_;
  int64_t start_;
  int64_t end_;
  bool done_ = false;
};

}  // namespace

std::unique_ptr<BlockTagCursor> BlockContentSource::OpenTag(int32_t tag_id) {
  if (tag_id < 0 || tag_id >= kTagIdCount || content_.tags[tag_id].empty()) return nullptr;
  return std::make_unique<ContentCursor>(content_.tags[tag_id]);
}

int64_t BlockContentSource::Interval(int32_t tag_id) {
  if (tag_id < 0 || tag_id >= kTagIdCount) return 0;
  return content_.tags[tag_id].interval;
}

std::unique_ptr<BlockTagCursor> BlockPeriodSource::OpenTag(int32_t tag_id) {
  auto inner = inner_.OpenTag(tag_id);
  if (!inner) return nullptr;
  return std::make_unique<PeriodCursor>(std::move(inner), start_, end_);
}

}  // namespace marquel
