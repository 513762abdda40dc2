#include "tags/block_reader.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "bit_source.h"
#include "tags/block_format.h"
#include "width_queue.h"

namespace marquel {
namespace {

// How many samples ahead of the one written a lane asks for its output lines.
constexpr size_t kPrefetchAhead = 64;

class Decoder {
 public:
  Decoder(const BlockReadOptions& options, BlockContent* content, BlockReadStats* stats)
      : options_(options), content_(*content), stats_(*stats) {
    for (int32_t id = 0; id < kTagIdCount; ++id) state_[id].type = kTagDefinitions[id].nType;
  }

  // Decodes the entries. The data stream, the queue position and the current time are
  // locals whose address is never taken, so that the loop keeps them in registers. The
  // common entry, a value of a value tag already met, is decoded inline.
  BlockRejection Run(const uint8_t* ids, size_t id_count, WidthQueue& widths, BitSource data) {
    int64_t now = 0;
    // The queue's items end in its end mark, which comes in place of a width when the
    // batch is used up; one test catches it and the width 0 together.
    const uint8_t* width_next = widths.items();
    for (const uint8_t *id_next = ids, *id_end = ids + id_count; id_next != id_end; ++id_next) {
      const uint8_t id = *id_next;
      if (id <= kRelativeTimeEntry) {
        if (!TimeEntry(id, data, &now)) return BlockRejection::kDataStreamShort;
        continue;
      }
      int width = *width_next++;
      if (static_cast<unsigned>(width - 1) > 30u) {
        if (width == WidthQueue::kEndMark) {
          if (widths.Refill() == 0) return BlockRejection::kLengthStreamShort;
          width_next = widths.items();
          width = *width_next++;
        }
        if (width < 1) {
          ++stats_.skipped_entries;
          continue;
        }
      }
      uint32_t item;
      if (!data.Read(width, &item)) return BlockRejection::kDataStreamShort;
      const uint8_t kind = lane_kind_[id];
      if (kind != kClosed) {
        Lane& lane = lanes_[id];
        if (kind == kRawLane) {
          // A raw sample: `item` bytes follow in the data stream. The count is tested
          // against the stream before anything is reserved for it, as it comes from the
          // block and may be up to 2^31 - 1.
          if (data.BitsLeft() / 8 < item) return BlockRejection::kDataStreamShort;
          if (now <= lane.times[lane.size - 1]) {
            ++stats_.dropped_samples;
            data.ReadBytes(nullptr, item);
            continue;
          }
          if (lane.size == lane.capacity) GrowLane(id);
          SampleColumn<uint8_t>& bytes = *raw_lanes_[id].bytes;
          bytes.EnsureSpare(item + 8);
          raw_lanes_[id].offsets[lane.size] = bytes.size();
          data.ReadBytes(bytes.SpareBegin(), item, bytes.Spare());
          bytes.Commit(item);
        } else if (now <= lane.times[lane.size - 1]) {
          ++stats_.dropped_samples;
          continue;
        } else if (lane.size == lane.capacity) {
          GrowLane(id);
        }
        lane.times[lane.size] = now;
        lane.values[lane.size] = static_cast<int32_t>(item);
        // Dozens of lists are written at once, more streams than the processor's
        // prefetchers follow, so the lane asks for its next lines itself.
        if ((lane.size & 7) == 0) {
          __builtin_prefetch(lane.times + lane.size + kPrefetchAhead, 1);
          __builtin_prefetch(lane.values + lane.size + kPrefetchAhead, 1);
        }
        ++lane.size;
        continue;
      }
      // Entries of other kinds. Those that need more of the data stream read it here,
      // so that the stream never leaves this function.
      const int32_t type = Meet(id);
      BlockRejection r = BlockRejection::kNone;
      if (type == kTagTypeRaw) {
        if (data.BitsLeft() / 8 < item) return BlockRejection::kDataStreamShort;
        data.ReadBytes(RawTarget(id, item, now), item);
        // Once a valid raw tag holds a sample, its later samples go through its lane.
        if (state_[id].valid && !content_.tags[id].empty()) OpenLane(id, true);
      } else if (IsStateTagType(type)) {
        uint32_t interval = 0;
        if ((item == 2 || item == 3) && !ReadThreeBytes(data, &interval))
          return BlockRejection::kDataStreamShort;
        r = StateItem(id, item, interval, now);
      } else {
        ValueEntry(id, width, item, now);
      }
      if (r != BlockRejection::kNone) return r;
    }
    stats_.entries = id_count;
    return BlockRejection::kNone;
  }

  // Counts what the open lanes wrote into their tags' lists. Call once, after Run.
  void CloseLanes() {
    for (int32_t id = 0; id < kTagIdCount; ++id) {
      if (lane_kind_[id] == kClosed) continue;
      CommitLane(id);
      lane_kind_[id] = kClosed;
    }
  }

 private:
  // Where the samples of a plain value tag go once its first sample is in: straight into
  // its lists' memory, whose sizes the lane keeps until it commits them (when the room
  // runs out, and at the end). The lists are never empty while the lane is open.
  // lane_kind_ says which lanes are open; raw tags' lanes write offsets and bytes too.
  static constexpr uint8_t kClosed = 0, kValueLane = 1, kRawLane = 2;
  struct Lane {  // 32 bytes, so that a lane is found with a shift
    int64_t* times = nullptr;
    int32_t* values = nullptr;
    size_t size = 0;
    size_t capacity = 0;  // the smallest of the lists' capacities
  };
  struct RawLane {
    uint64_t* offsets = nullptr;
    SampleColumn<uint8_t>* bytes = nullptr;
  };

  void OpenLane(int32_t id, bool raw) {
    lane_kind_[id] = raw ? kRawLane : kValueLane;
    raw_lanes_[id].bytes = raw ? &content_.tags[id].raw_bytes : nullptr;
    PointLane(id);
  }
  void PointLane(int32_t id) {
    BlockTagSamples& tag = content_.tags[id];
    Lane& lane = lanes_[id];
    lane.times = tag.times.data();
    lane.values = tag.values.data();
    lane.size = tag.times.size();
    lane.capacity = std::min(tag.times.capacity(), tag.values.capacity());
    if (lane_kind_[id] == kRawLane) {
      raw_lanes_[id].offsets = tag.raw_offset.data();
      lane.capacity = std::min(lane.capacity, tag.raw_offset.capacity());
    }
  }
  void CommitLane(int32_t id) {
    BlockTagSamples& tag = content_.tags[id];
    size_t n = lanes_[id].size - tag.times.size();
    tag.times.Commit(n);
    tag.values.Commit(n);
    if (lane_kind_[id] == kRawLane) tag.raw_offset.Commit(n);
  }
  __attribute__((noinline)) void GrowLane(int32_t id) {
    CommitLane(id);
    BlockTagSamples& tag = content_.tags[id];
    size_t more = std::max<size_t>(256, tag.size());
    tag.times.EnsureSpare(more);
    tag.values.EnsureSpare(more);
    if (lane_kind_[id] == kRawLane) tag.raw_offset.EnsureSpare(more);
    PointLane(id);
  }

  // Per-tag state of the reader.
  struct TagState {
    int32_t type = 0;
    bool asked = false;
    bool valid = true;
    uint32_t sum = 0;       // delta tags: the running sum, kept modulo 2^width
    bool run_open = false;  // state tags: a run has started and not ended
    int32_t run_state = 0;
    int64_t run_start = 0;
    int64_t interval = 0;  // state tags: the interval of the last state item
  };

  // An absolute entry (four 16-bit groups, the least significant first) or a relative
  // one (three bytes, the least significant first).
  static inline bool TimeEntry(uint8_t id, BitSource& data, int64_t* now) {
    if (id == kAbsoluteTimeEntry) {
      uint32_t low, high;
      if (!data.Read(32, &low) || !data.Read(32, &high)) return false;
      uint64_t g0 = low >> 16, g1 = low & 0xFFFF, g2 = high >> 16, g3 = high & 0xFFFF;
      *now = static_cast<int64_t>(g0 | g1 << 16 | g2 << 32 | g3 << 48);
      return true;
    }
    uint32_t d;
    if (!ReadThreeBytes(data, &d)) return false;
    // The difference is a signed 24-bit number: the writer stores a step below 1000000
    // this way, and only a negative first time code makes it negative.
    int64_t step = (d & 0x800000u) ? static_cast<int64_t>(d) - 0x1000000 : d;
    *now = static_cast<int64_t>(static_cast<uint64_t>(*now) + static_cast<uint64_t>(step));
    return true;
  }

  // Three bytes, the least significant first.
  static bool ReadThreeBytes(BitSource& data, uint32_t* out) {
    uint32_t v;
    if (!data.Read(24, &v)) return false;
    *out = (v >> 16) | (v & 0xFF00) | (v & 0xFF) << 16;
    return true;
  }

  // Marks the tag present and asks about it the first time; returns its type.
  int32_t Meet(int32_t id) {
    TagState& st = state_[id];
    BlockTagSamples& tag = content_.tags[id];
    tag.present = true;
    if (!st.asked) {
      st.asked = true;
      st.valid = !options_.accept || options_.accept(id);
      tag.valid = st.valid;
      if (st.type == kTagTypeRaw) tag.raw = true;
    }
    return st.type;
  }

  // A value or delta entry outside a lane: the first value of a value tag (which then
  // opens the tag's lane), a value of a refused tag, or a delta.
  void ValueEntry(int32_t id, int width, uint32_t item, int64_t now) {
    TagState& st = state_[id];
    if (st.type == kTagTypeDelta) {
      uint32_t mask = width >= 32 ? ~0u : (uint32_t{1} << width) - 1;
      st.sum = (st.sum + item) & mask;
      Append(id, st.valid, static_cast<int32_t>(st.sum), now);
      return;
    }
    Append(id, st.valid, static_cast<int32_t>(item), now);
    if (st.valid) OpenLane(id, false);
  }

  // Where the `count` bytes of a raw sample at `now` go, with the sample counted; null
  // when they are to be skipped.
  uint8_t* RawTarget(int32_t id, uint32_t count, int64_t now) {
    BlockTagSamples& tag = content_.tags[id];
    if (!state_[id].valid || !After(tag, now)) {
      if (state_[id].valid) ++stats_.dropped_samples;
      return nullptr;
    }
    size_t at = tag.raw_bytes.size();
    tag.raw_bytes.EnsureSpare(count);
    uint8_t* target = tag.raw_bytes.SpareBegin();
    tag.raw_bytes.Commit(count);
    tag.times.push_back(now);
    tag.values.push_back(static_cast<int32_t>(count));
    tag.raw_offset.push_back(at);
    return target;
  }

  // A state tag's item, with the interval that follows a state item.
  BlockRejection StateItem(int32_t id, uint32_t item, uint32_t interval, int64_t now) {
    TagState& st = state_[id];
    if (item == 0) {  // end item: fill the run up to and including now, then close it
      if (st.run_open) {
        Fill(id, now, /*inclusive=*/true);
        st.run_open = false;
      }
      return BlockRejection::kNone;
    }
    if (item != 2 && item != 3) return BlockRejection::kBadStateItem;
    // An interval of 0 cannot step a run; it stands for the writer's default, as a tag
    // with interval 0 is written with it.
    st.interval = interval == 0 ? kDefaultStateInterval : interval;
    content_.tags[id].interval = st.interval;
    content_.tags[id].interval_set = true;
    int32_t state = static_cast<int32_t>(item & 1);
    if (st.run_open && state != st.run_state) Fill(id, now, /*inclusive=*/false);
    if (!st.run_open || state != st.run_state) {
      st.run_open = true;
      st.run_state = state;
      st.run_start = now;
    }
    Append(id, st.valid, state, now);
    return BlockRejection::kNone;
  }

  // Adds samples of the run's state at run start + k * interval, k >= 1, that lie after
  // the tag's last sample and before `limit` (up to and including it when inclusive).
  void Fill(int32_t id, int64_t limit, bool inclusive) {
    TagState& st = state_[id];
    BlockTagSamples& tag = content_.tags[id];
    if (!st.valid) return;
    const __int128 start = st.run_start;
    const __int128 step = st.interval;
    __int128 k = 1;
    if (!tag.empty() && tag.times.back() >= st.run_start) k = (tag.times.back() - start) / step + 1;
    for (__int128 t = start + k * step; inclusive ? t <= limit : t < limit; t += step) {
      if (stats_.filled_samples >= options_.max_filled_samples) {
        stats_.fill_truncated = true;
        return;
      }
      tag.times.push_back(static_cast<int64_t>(t));
      tag.values.push_back(st.run_state);
      ++stats_.filled_samples;
    }
  }

  // Whether a sample at `now` would come after the tag's last sample.
  static bool After(const BlockTagSamples& tag, int64_t now) {
    return tag.empty() || tag.times.back() < now;
  }

  void Append(int32_t id, bool valid, int32_t value, int64_t now) {
    if (!valid) return;
    BlockTagSamples& tag = content_.tags[id];
    if (!After(tag, now)) {
      ++stats_.dropped_samples;
      return;
    }
    tag.times.push_back(now);
    tag.values.push_back(value);
  }

  const BlockReadOptions& options_;
  BlockContent& content_;
  BlockReadStats& stats_;
  TagState state_[kTagIdCount];
  Lane lanes_[kTagIdCount];
  RawLane raw_lanes_[kTagIdCount];
  uint8_t lane_kind_[kTagIdCount] = {};
};

}  // namespace

const char* BlockRejectionText(BlockRejection why) {
  switch (why) {
    case BlockRejection::kNone:
      return "accepted";
    case BlockRejection::kHeaderCrc:
      return "header CRC mismatch";
    case BlockRejection::kTagIdCrc:
      return "tag-id stream CRC mismatch";
    case BlockRejection::kLengthCrc:
      return "length stream CRC mismatch";
    case BlockRejection::kDataCrc:
      return "data stream CRC mismatch";
    case BlockRejection::kBadStateItem:
      return "state item other than 2 or 3";
    case BlockRejection::kLengthStreamShort:
      return "length stream ends early";
    case BlockRejection::kDataStreamShort:
      return "data stream ends inside an entry";
    case BlockRejection::kTruncated:
      return "block shorter than its header announces";
  }
  return "unknown";
}

int32_t DecodeBlock(const uint8_t* tag_ids, size_t tag_ids_size, const uint8_t* lengths,
                    size_t lengths_size, const uint8_t* data, size_t data_size,
                    const BlockReadOptions& options, BlockContent* out, BlockRejection* why,
                    BlockReadStats* stats) {
  BlockRejection reason = BlockRejection::kNone;
  if (!StreamCrcOk(tag_ids, tag_ids_size)) {
    reason = BlockRejection::kTagIdCrc;
  } else if (!StreamCrcOk(lengths, lengths_size)) {
    reason = BlockRejection::kLengthCrc;
  } else if (!StreamCrcOk(data, data_size)) {
    reason = BlockRejection::kDataCrc;
  }
  BlockReadStats local_stats;
  if (reason == BlockRejection::kNone) {
    // An empty output is decoded into directly, so that a reader that clears and
    // reuses its content keeps its memory; a rejection empties it again, which leaves
    // it as it was. Content that holds tags is replaced only on success.
    std::unique_ptr<BlockContent> scratch;
    BlockContent* target = out;
    if (!out->Empty()) {
      scratch = std::make_unique<BlockContent>();
      target = scratch.get();
    }
    Decoder decoder(options, target, &local_stats);
    WidthQueue widths(lengths, lengths_size - kBlockCrcSize);
    reason = decoder.Run(tag_ids, tag_ids_size - kBlockCrcSize, widths,
                         BitSource(data, data_size - kBlockCrcSize));
    decoder.CloseLanes();
    if (reason != BlockRejection::kNone) {
      target->Clear();
    } else if (scratch) {
      std::swap(*out, *scratch);
    }
  }
  if (why) *why = reason;
  if (stats) *stats = reason == BlockRejection::kNone ? local_stats : BlockReadStats();
  return reason == BlockRejection::kNone ? 1 : 0;
}

int32_t DecodeBlockBytes(const uint8_t* bytes, size_t size, const BlockReadOptions& options,
                         BlockContent* out, BlockRejection* why, BlockReadStats* stats,
                         size_t* consumed) {
  auto reject = [&](BlockRejection r) {
    if (why) *why = r;
    if (stats) *stats = BlockReadStats();
    return 0;
  };
  if (size < kBlockHeaderSize) return reject(BlockRejection::kTruncated);
  if (!BlockHeaderCrcOk(bytes)) return reject(BlockRejection::kHeaderCrc);
  BlockHeader h = ParseBlockHeader(bytes);
  uint64_t total = uint64_t{kBlockHeaderSize} + h.tag_id_size + h.length_size + h.data_size;
  if (total > size) return reject(BlockRejection::kTruncated);
  const uint8_t* ids = bytes + kBlockHeaderSize;
  const uint8_t* lengths = ids + h.tag_id_size;
  const uint8_t* data = lengths + h.length_size;
  if (consumed) *consumed = static_cast<size_t>(total);
  return DecodeBlock(ids, h.tag_id_size, lengths, h.length_size, data, h.data_size, options, out,
                     why, stats);
}

}  // namespace marquel
