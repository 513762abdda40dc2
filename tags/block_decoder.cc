// The decoder's main loop.
#include <algorithm>
#include <cstring>

#include "block_decoder.h"
#include "block_decoder_entries.h"
#include "block_decoder_runs.h"
#include "block_decoder_shape.h"

namespace marquel {
namespace {

// A run this short costs about what it saves: after one, runs are tried again only after
// a wait that doubles up to kLongestWait steps.
constexpr size_t kShortRun = 4;
constexpr size_t kLongestWait = 64;

}  // namespace

// Decodes the entries. The data stream, the queue position and the current time are
// locals whose address is never taken, so that the loop keeps them in registers. The
// common entry, a value of a value tag already met, is decoded inline.
BlockRejection Decoder::Run(const uint8_t* ids, size_t id_count, WidthQueue& widths,
                            BitSource data) {
  int64_t now = 0;
  // The queue's items end in its end mark, which comes in place of a width when the
  // batch is used up; one test catches it and the width 0 together.
  const uint8_t* width_next = widths.items();
  const uint8_t* id_next = ids;
  const uint8_t* const id_end = ids + id_count;
  const uint8_t* step_start = nullptr;    // the time entry of the step being decoded
  size_t wait = 0;                        // steps to decode here before a run is tried again
  size_t backoff = 1;                     // the wait after a run too short to pay for itself
  const uint8_t* last_pattern = nullptr;  // the step the last run repeated
  size_t last_size = 0;
  for (; id_next != id_end; ++id_next) {
    const uint8_t id = *id_next;
    if (id <= kRelativeTimeEntry) {
      if (wait > 0) {
        --wait;
      } else if (runs_ && step_start != nullptr) {
        // The steps that repeat the one just decoded go to a run; so do those that repeat
        // the last run's step, which comes back after a step of another shape (a state
        // item, say) ended that run.
        const uint8_t* pattern = step_start;
        size_t step_size = static_cast<size_t>(id_next - step_start);
        if (last_pattern != nullptr && static_cast<size_t>(id_end - id_next) >= last_size &&
            std::memcmp(id_next, last_pattern, last_size) == 0) {
          pattern = last_pattern;
          step_size = last_size;
        }
        RunResult run =
            DecodeRun(Position{id_next, width_next, data, now}, id_end, pattern, step_size, widths);
        // A run may end inside the first step it took, with no whole step done: it has
        // still moved, and the loop goes on from where it ended.
        const bool moved = run.at.id_next != id_next;
        id_next = run.at.id_next;
        width_next = run.at.width_next;
        data = run.at.data;
        now = run.at.now;
        if (run.reason != BlockRejection::kNone) return run.reason;
        // The step that ended the run is decoded here; after a short run, the next
        // tries wait a while, longer each time.
        wait = run.steps < kShortRun ? backoff : 1;
        backoff = run.steps < kShortRun ? std::min(backoff * 2, kLongestWait) : 1;
        if (run.steps > 0) {
          last_pattern = pattern;
          last_size = step_size;
        }
        if (moved) {
          step_start = run.step_start;
          --id_next;  // the loop's step brings it back to what follows the run
          continue;
        }
      }
      step_start = id_next;
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
      ValueEntry(id, item, now);
    }
    if (r != BlockRejection::kNone) return r;
  }
  stats_.entries = id_count;
  return BlockRejection::kNone;
}

// Counts what the open lanes wrote into their tags' lists. Call once, after Run.
void Decoder::CloseLanes() {
  for (int32_t id = 0; id < kTagIdCount; ++id) {
    if (lane_kind_[id] == kClosed) continue;
    CommitLane(id);
    lane_kind_[id] = kClosed;
  }
}

void Decoder::GrowLane(int32_t id) {
  CommitLane(id);
  BlockTagSamples& tag = content_.tags[id];
  size_t more = std::max<size_t>(256, tag.size());
  tag.times.EnsureSpare(more);
  tag.values.EnsureSpare(more);
  if (lane_kind_[id] == kRawLane) tag.raw_offset.EnsureSpare(more);
  PointLane(id);
}

}  // namespace marquel
