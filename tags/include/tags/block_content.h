// The samples of one program as plain per-tag lists, and the sample source the block
// writer reads.
//
// BlockContent is what the block reader produces and what tests, tools and the codec's
// own checks hand to the writer. The program store feeds the writer through its own
// BlockSampleSource, so a stored program is never copied into lists to be written.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "tags/sample_column.h"
#include "tags/tag_definitions.h"

namespace marquel {

// The samples of one tag in time order, structure of arrays.
struct BlockTagSamples {
  bool present = false;       // the tag exists (it may hold no samples)
  bool valid = true;          // false: the acceptance answer refused the tag's samples
  bool raw = false;           // samples carry bytes (tags of the raw-data type)
  int64_t interval = 0;       // sampling interval (state tags); 0 = not known
  bool interval_set = false;  // the interval was set explicitly or read from a block
  SampleColumn<int64_t> times;
  SampleColumn<int32_t> values;       // plain: the value; raw: the byte count
  SampleColumn<uint8_t> raw_bytes;    // raw: the bytes of all samples, back to back
  SampleColumn<uint64_t> raw_offset;  // raw: where sample i's bytes start in raw_bytes

  size_t size() const { return times.size(); }
  bool empty() const { return times.empty(); }
  // Appends a plain sample.
  void AddPlain(int64_t time, int32_t value) {
    present = true;
    times.push_back(time);
    values.push_back(value);
  }
  // Appends a raw sample (copies the n bytes) and marks the tag raw.
  void AddRaw(int64_t time, const uint8_t* bytes, int32_t n);
  // The bytes of raw sample i (values[i] of them).
  const uint8_t* RawData(size_t i) const { return raw_bytes.data() + raw_offset[i]; }
  // Back to a tag that is not present, with no samples; the lists keep their memory.
  void Clear();
};

// The samples of one program, indexed by tag id.
struct BlockContent {
  std::array<BlockTagSamples, kTagIdCount> tags;

  // The highest id of a present tag, or -1 when there is none.
  int32_t HighestTagId() const;
  // Total samples over all tags.
  uint64_t SampleCount() const;
  // Whether every tag is as Clear() leaves it.
  bool Empty() const;
  // Clears every tag (see BlockTagSamples::Clear); the memory is kept for reuse.
  void Clear();
};

// A run of one tag's samples as the writer sees them, as parallel arrays.
struct BlockSampleBatch {
  // An entry of raw_offsets for a sample that has no bytes.
  static constexpr uint64_t kNoBytes = ~uint64_t{0};

  const int64_t* times = nullptr;
  const int32_t* values = nullptr;  // plain: the value; raw: the byte count
  // Raw samples: the bytes of sample i start at raw_base + raw_offsets[i]. Null
  // raw_offsets: no sample of the batch has bytes.
  const uint8_t* raw_base = nullptr;
  const uint64_t* raw_offsets = nullptr;
  // Whether eight bytes past the end of every sample's bytes still lie in the source's
  // memory, so that a writer may load them a whole word at a time.
  bool raw_readable_past = false;
  size_t count = 0;

  // The bytes of sample i, or null when it has none.
  const uint8_t* Bytes(size_t i) const { return BytesAt(raw_base, raw_offsets, i); }
  // The same for arrays held apart from a batch.
  static const uint8_t* BytesAt(const uint8_t* base, const uint64_t* offsets, size_t i) {
    if (offsets == nullptr || offsets[i] == kNoBytes) return nullptr;
    return base + offsets[i];
  }
};

// Walks one tag's samples in ascending time order, a batch at a time.
class BlockTagCursor {
 public:
  virtual ~BlockTagCursor() = default;
  // Points *batch at the next samples (at least one) and returns true; false when there
  // are no more (or the samples cannot be read). The arrays stay valid until the next
  // call.
  virtual bool Next(BlockSampleBatch* batch) = 0;
};

// The program as the writer reads it.
class BlockSampleSource {
 public:
  virtual ~BlockSampleSource() = default;
  // The highest tag id to look at (the writer scans 0 to this id, at most 255).
  virtual int32_t HighestTagId() = 0;
  // A cursor over the samples of `tag_id`, or null when the tag has none.
  virtual std::unique_ptr<BlockTagCursor> OpenTag(int32_t tag_id) = 0;
  // The tag's sampling interval (0 when not known).
  virtual int64_t Interval(int32_t tag_id) = 0;
};

// A source over BlockContent lists. The content must outlive the source.
class BlockContentSource : public BlockSampleSource {
 public:
  explicit BlockContentSource(const BlockContent& content) : content_(content) {}
  int32_t HighestTagId() override { return content_.HighestTagId(); }
  std::unique_ptr<BlockTagCursor> OpenTag(int32_t tag_id) override;
  int64_t Interval(int32_t tag_id) override;

 private:
  const BlockContent& content_;
};

// A source that passes on only the samples of another source inside the half-open
// period [start, end); an end below 0 means up to the last sample. The inner source
// must deliver ascending time codes and outlive this one.
class BlockPeriodSource : public BlockSampleSource {
 public:
  BlockPeriodSource(BlockSampleSource& inner, int64_t start, int64_t end)
      : inner_(inner), start_(start), end_(end) {}
  int32_t HighestTagId() override { return inner_.HighestTagId(); }
  std::unique_ptr<BlockTagCursor> OpenTag(int32_t tag_id) override;
  int64_t Interval(int32_t tag_id) override { return inner_.Interval(tag_id); }

 private:
  BlockSampleSource& inner_;
  int64_t start_;
  int64_t end_;
};

}  // namespace marquel
