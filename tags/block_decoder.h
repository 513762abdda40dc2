// The data block decoder: the state of one block's decoding, and its entries.
//
// Internal to the block reader. The hot loop (Run) keeps the data stream, the width
// queue's position and the current time in locals; the entries of the common kind go
// straight into their tags' lists through lanes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bit_source.h"
#include "tags/block_content.h"
#include "tags/block_format.h"
#include "tags/block_reader.h"
#include "width_queue.h"

namespace marquel {

// The steps a run of the decoder compares and prepares at a time.
constexpr size_t kDecodeRunChunk = 32;

// How many samples ahead of the one written a lane asks for its output lines.
constexpr size_t kPrefetchAhead = 64;

class Decoder {
 public:
  // `runs`: whether steps that repeat the one before them go to runs (both ways decode
  // the same).
  Decoder(const BlockReadOptions& options, BlockContent* content, BlockReadStats* stats,
          bool runs = true)
      : runs_(runs), options_(options), content_(*content), stats_(*stats) {
    for (int32_t id = 0; id < kTagIdCount; ++id) state_[id].type = kTagDefinitions[id].nType;
  }

  // Decodes the entries. The data stream, the queue position and the current time are
  // locals whose address is never taken, so that the loop keeps them in registers. The
  // common entry, a value of a value tag already met, is decoded inline.
  BlockRejection Run(const uint8_t* ids, size_t id_count, WidthQueue& widths, BitSource data);
  // Counts what the open lanes wrote into their tags' lists. Call once, after Run.
  void CloseLanes();

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
  __attribute__((noinline)) void GrowLane(int32_t id);

  // Per-tag state of the reader.
  struct TagState {
    int32_t type = 0;
    bool asked = false;
    bool valid = true;
    uint32_t sum = 0;       // delta tags: the running sum, a plain 32-bit one
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
    uint32_t v;
    if (!data.Read(24, &v)) return false;
    *now =
        static_cast<int64_t>(static_cast<uint64_t>(*now) + static_cast<uint64_t>(RelativeStep(v)));
    return true;
  }
  // The step of a relative time entry from its 24 bits as read. The difference is a
  // signed 24-bit number: the writer stores a step below 1000000 this way, and only a
  // negative first time code makes it negative.
  static int64_t RelativeStep(uint32_t bits) {
    const uint32_t d = LowByteFirst(bits);
    return (d & 0x800000u) ? static_cast<int64_t>(d) - 0x1000000 : d;
  }
  // Three bytes as read, the least significant first, as a number.
  static uint32_t LowByteFirst(uint32_t v) { return (v >> 16) | (v & 0xFF00) | (v & 0xFF) << 16; }

  // Three bytes, the least significant first.
  static bool ReadThreeBytes(BitSource& data, uint32_t* out) {
    uint32_t v;
    if (!data.Read(24, &v)) return false;
    *out = LowByteFirst(v);
    return true;
  }

  // Marks the tag present and asks about it the first time; returns its type.
  int32_t Meet(int32_t id);

  // A value or delta entry outside a lane: the first value of a value tag (which then
  // opens the tag's lane), a value of a refused tag, or a delta.
  void ValueEntry(int32_t id, uint32_t item, int64_t now);

  // Where the `count` bytes of a raw sample at `now` go, with the sample counted; null
  // when they are to be skipped.
  uint8_t* RawTarget(int32_t id, uint32_t count, int64_t now);

  // A state tag's item, with the interval that follows a state item.
  BlockRejection StateItem(int32_t id, uint32_t item, uint32_t interval, int64_t now);

  // Adds samples of the run's state at run start + k * interval, k >= 1, that lie after
  // the tag's last sample and before `limit` (up to and including it when inclusive).
  void Fill(int32_t id, int64_t limit, bool inclusive);

  // Whether a sample at `now` would come after the tag's last sample.
  static bool After(const BlockTagSamples& tag, int64_t now) {
    return tag.empty() || tag.times.back() < now;
  }

  void Append(int32_t id, bool valid, int32_t value, int64_t now);

  // Runs: steps that repeat the one before them, entry for entry (see
  // block_decoder_runs.h). Where the main loop stands, handed to a run and back.
  struct Position {
    const uint8_t* id_next;
    const uint8_t* width_next;
    BitSource data;
    int64_t now;
  };
  struct RunResult {
    Position at;
    const uint8_t* step_start = nullptr;  // the time entry of the last step it touched
    size_t steps = 0;                     // whole steps the run decoded
    BlockRejection reason = BlockRejection::kNone;
  };
  // One entry of a run's step: a value lane, a raw lane or a delta tag, and where the
  // chunk's samples go.
  static constexpr uint8_t kDeltaSlot = 3;
  struct RunSlot {
    uint8_t id = 0;
    uint8_t kind = kClosed;
    int64_t* times = nullptr;
    int32_t* values = nullptr;
    uint64_t* offsets = nullptr;
    SampleColumn<uint8_t>* bytes = nullptr;  // a raw lane's bytes
  };
  RunResult DecodeRun(Position at, const uint8_t* id_end, const uint8_t* pattern, size_t step_size,
                      WidthQueue& widths);
  // Where an event step stands (see DecodeEventStep).
  struct EventStep {
    const uint8_t* id_next;
    const uint8_t* width_next;
    uint64_t pos;
    size_t slots = 0;  // the run's slots decoded
    BlockRejection reason = BlockRejection::kNone;
  };
  EventStep DecodeEventStep(EventStep at, const uint8_t* id_end, size_t k, int64_t now,
                            const BitSource& data, WidthQueue& widths);
  uint64_t StoreSlot(RunSlot& s, size_t k, uint32_t item, uint64_t pos, const BitSource& data);
  bool PlanRun(const uint8_t* pattern, size_t step_size);
  bool PrepareChunk(size_t steps, int64_t first_time);
  void CommitChunk(size_t steps, size_t partial_slots);
  // Shaped steps: a run's steps whose entries have the widths the shape was made from
  // (see block_decoder_shape.h). The slots' values gather into pieces of up to 57 bits,
  // each read with one load; a raw slot's count ends its piece.
  struct ShapePiece {
    int bits = 0;
    int raw_slot = -1;  // the raw slot whose count ends the piece
    int raw_width = 0;
    size_t raw_index = 0;  // its place among the shape's raw slots
  };
  struct ShapeItem {  // a value or delta slot's place in its piece
    uint32_t slot = 0;
    uint32_t piece = 0;
    int shift = 0;  // from the piece's low end
    int width = 0;
  };
  // Makes the shape of steps with the run's slots' `widths`; false (and no shape) when
  // one of them is below 1.
  bool MakeShape(const uint8_t* widths);
  bool ShapedStep(size_t k, uint64_t* pos, const BitSource& data);
  void TakeShapedValues(size_t from, size_t to, const BitSource& data);
  void TakeShapedRaw(const ShapePiece& piece, const uint64_t* words, size_t from, size_t to,
                     const BitSource& data);
  // A raw sample's count, the low `width` (1..31) bits of its piece.
  static uint32_t RawCount(uint64_t word, int width) {
    return static_cast<uint32_t>(word) & ((uint32_t{1} << width) - 1);
  }
  bool shape_valid_ = false;
  uint8_t shape_widths_[kTagIdCount] = {};
  ShapePiece shape_pieces_[kTagIdCount];
  size_t shape_piece_count_ = 0;
  ShapeItem shape_items_[kTagIdCount];
  size_t shape_item_count_ = 0;
  std::vector<uint64_t> shape_words_;   // per piece, a chunk's words
  std::vector<uint64_t> shape_raw_at_;  // per raw piece, where a chunk's bytes lie

  const bool runs_;
  RunSlot run_slots_[kTagIdCount];
  int64_t run_times_[kDecodeRunChunk];  // the times of a chunk's steps
  size_t run_slot_count_ = 0;

  const BlockReadOptions& options_;
  BlockContent& content_;
  BlockReadStats& stats_;
  TagState state_[kTagIdCount];
  Lane lanes_[kTagIdCount];
  RawLane raw_lanes_[kTagIdCount];
  uint8_t lane_kind_[kTagIdCount] = {};
};

}  // namespace marquel
