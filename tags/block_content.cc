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
  if (n > 0) raw_bytes.insert(raw_bytes.end(), bytes, bytes + n);
}

void BlockTagSamples::Clear() {
  *this = BlockTagSamples();
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

void BlockContent::Clear() {
  for (auto& t : tags) t.Clear();
}

namespace {

class ContentCursor : public BlockTagCursor {
 public:
  explicit ContentCursor(const BlockTagSamples& tag) : tag_(tag) {}
  size_t Next(BlockSampleView* out, size_t max) override {
    size_t n = std::min(max, tag_.size() - next_);
    for (size_t i = 0; i < n; ++i, ++next_) {
      out[i].time = tag_.times[next_];
      out[i].value = tag_.values[next_];
      out[i].kind = tag_.raw ? 1 : 0;
      out[i].bytes = tag_.raw ? tag_.RawData(next_) : nullptr;
    }
    return n;
  }

 private:
  const BlockTagSamples& tag_;
  size_t next_ = 0;
};

// Passes on the inner cursor's samples that lie inside [start, end).
class PeriodCursor : public BlockTagCursor {
 public:
  PeriodCursor(std::unique_ptr<BlockTagCursor> inner, int64_t start, int64_t end)
      : inner_(std::move(inner)), start_(start), end_(end) {}
  size_t Next(BlockSampleView* out, size_t max) override {
    while (!done_) {
      size_t n = inner_->Next(out, max);
      if (n == 0) break;
      size_t kept = 0;
      for (size_t i = 0; i < n; ++i) {
        if (out[i].time < start_) continue;
        if (end_ >= 0 && out[i].time >= end_) {
          done_ = true;
          break;
        }
        out[kept++] = out[i];
      }
      if (kept > 0) return kept;
    }
    return 0;
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
