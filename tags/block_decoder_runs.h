// Runs in the block decoder (included by the main loop's file).
//
// Through most of a block, each step repeats the one before it: the same tags in the
// same order, one sample each, at a later time. Once the main loop has decoded a step, a
// run takes the steps that repeat it, a chunk at a time: the chunk's tag-id bytes are
// compared with the step before in one go, and each tag's lists get their room and their
// order check once per chunk, so that an entry is a shift of a window of the data stream
// and a store (the step's time is kept once and copied into the lists per chunk). A step
// that repeats it with state items among its entries is decoded entry by entry within
// the run. A step that does not repeat, or whose time does not go up, goes back to the
// main loop, which decodes it entry by entry. Both decode the same; the run only does
// less work.
#pragma once

#include <algorithm>
#include <cstring>
#include <limits>

#include "block_decoder.h"

namespace marquel {

// How many samples ahead of a chunk the lanes' lines are asked for.
constexpr size_t kRunPrefetchAhead = 512;

// Times a run may reach: a chunk's steps add at most kDecodeRunChunk * 2^23 to the time,
// which must not wrap around.
constexpr int64_t kLatestRunStart =
    std::numeric_limits<int64_t>::max() - static_cast<int64_t>(kDecodeRunChunk) * 0x800000;

// Asks for the lines of [at, at + n) to be written soon. A prefetch never faults, so the
// lines may lie past what is allocated.
template <class T>
inline void PrefetchForWriting(const T* at, size_t n) {
  const char* p = reinterpret_cast<const char*>(at);
  for (size_t i = 0; i < n * sizeof(T); i += 64) __builtin_prefetch(p + i, 1);
}

// Whether the n bytes at a and b are equal; for the few bytes of a step's widths, with
// fixed-size comparisons the compiler does inline.
inline bool SameBytes(const uint8_t* a, const uint8_t* b, size_t n) {
  if (n >= 16 && n <= 32)
    return std::memcmp(a, b, 16) == 0 && std::memcmp(a + n - 16, b + n - 16, 16) == 0;
  if (n >= 8 && n < 16)
    return std::memcmp(a, b, 8) == 0 && std::memcmp(a + n - 8, b + n - 8, 8) == 0;
  return std::memcmp(a, b, n) == 0;
}

// How many of the `steps` steps at `ids` repeat the `step_size` bytes at `pattern`.
// After the first, each is compared with the step before it, all in one comparison.
inline size_t RepeatingSteps(const uint8_t* ids, const uint8_t* pattern, size_t step_size,
                             size_t steps) {
  if (steps == 0 || std::memcmp(ids, pattern, step_size) != 0) return 0;
  if (std::memcmp(ids + step_size, ids, (steps - 1) * step_size) == 0) return steps;
  size_t k = 1;
  while (std::memcmp(ids + k * step_size, pattern, step_size) == 0) ++k;
  return k;
}

inline bool Decoder::PlanRun(const uint8_t* pattern, size_t step_size) {
  if (pattern[0] != kRelativeTimeEntry) return false;
  bool seen[kTagIdCount] = {};
  run_slot_count_ = 0;
  shape_valid_ = false;
  for (size_t j = 1; j < step_size; ++j) {
    const uint8_t id = pattern[j];
    // A tag twice in a step keeps only its first sample there: not a run's kind of step.
    if (id <= kRelativeTimeEntry || seen[id]) return false;
    seen[id] = true;
    uint8_t kind = lane_kind_[id];
    if (kind == kClosed) {
      if (state_[id].type != kTagTypeDelta || !state_[id].asked) return false;
      kind = kDeltaSlot;
    }
    RunSlot& slot = run_slots_[run_slot_count_++];
    slot.id = id;
    slot.kind = kind;
  }
  return true;
}

inline bool Decoder::PrepareChunk(size_t steps, int64_t first_time) {
  for (size_t j = 0; j < run_slot_count_; ++j) {
    RunSlot& slot = run_slots_[j];
    if (slot.kind == kDeltaSlot) {
      // A delta tag has no lane: its running sum goes straight into its lists (a refused
      // tag's sums go nowhere).
      BlockTagSamples& tag = content_.tags[slot.id];
      if (!state_[slot.id].valid) {
        slot.times = nullptr;
        slot.values = nullptr;
        continue;
      }
      if (!tag.empty() && tag.times.back() >= first_time) return false;
      tag.times.EnsureSpare(steps);
      tag.values.EnsureSpare(steps);
      slot.times = tag.times.SpareBegin();
      slot.values = tag.values.SpareBegin();
    } else {
      Lane& lane = lanes_[slot.id];
      if (lane.times[lane.size - 1] >= first_time) return false;  // a sample would be dropped
      if (lane.capacity - lane.size < steps) GrowLane(slot.id);
      slot.times = lane.times + lane.size;
      slot.values = lane.values + lane.size;
      if (slot.kind == kRawLane) {
        slot.offsets = raw_lanes_[slot.id].offsets + lane.size;
        slot.bytes = raw_lanes_[slot.id].bytes;
        PrefetchForWriting(slot.offsets + kRunPrefetchAhead, steps);
        // The bytes, by the lane's average so far.
        SampleColumn<uint8_t>& bytes = *raw_lanes_[slot.id].bytes;
        const size_t average = bytes.size() / lane.size;
        PrefetchForWriting(bytes.SpareBegin() + average * kRunPrefetchAhead, average * steps);
      }
    }
    // The lines a later chunk writes, asked for now (as the main loop's lanes do).
    PrefetchForWriting(slot.times + kRunPrefetchAhead, steps);
    PrefetchForWriting(slot.values + kRunPrefetchAhead, steps);
  }
  return true;
}

// Counts the chunk's samples into the lists, `steps` per slot and one more for the first
// `partial_slots` slots. The times, the same for every slot of a step, were kept once
// per step in run_times_ and are copied in here, a slot at a time.
inline void Decoder::CommitChunk(size_t steps, size_t partial_slots) {
  for (size_t j = 0; j < run_slot_count_; ++j) {
    const RunSlot& slot = run_slots_[j];
    const size_t n = steps + (j < partial_slots ? 1 : 0);
    if (slot.times == nullptr) continue;  // a refused delta tag
    std::memcpy(slot.times, run_times_, n * sizeof *run_times_);
    if (slot.kind != kDeltaSlot) {
      lanes_[slot.id].size += n;
    } else {
      content_.tags[slot.id].times.Commit(n);
      content_.tags[slot.id].values.Commit(n);
    }
  }
}

// Stores slot s's sample of step k: `item`, and for a raw sample
// its bytes, which follow at bit `pos`. Returns the bits those bytes take (0 for other
// samples), or kStreamEnds when the stream ends before them.
constexpr uint64_t kStreamEnds = ~uint64_t{0};
inline uint64_t Decoder::StoreSlot(RunSlot& s, size_t k, uint32_t item, uint64_t pos,
                                   const BitSource& data) {
  if (s.kind == kDeltaSlot) {
    uint32_t& sum = state_[s.id].sum;
    sum += item;
    if (s.values != nullptr) s.values[k] = static_cast<int32_t>(sum);
    return 0;
  }
  if (s.kind == kRawLane) {
    // As in the main loop, the count is held against the stream before any room is made
    // for it.
    if (!data.HasBytesAt(pos, item)) return kStreamEnds;
    SampleColumn<uint8_t>& bytes = *s.bytes;
    bytes.EnsureSpare(item + 8);
    s.offsets[k] = bytes.size();
    data.CopyKnownAt(pos, bytes.SpareBegin(), item, bytes.Spare());
    bytes.Commit(item);
    s.values[k] = static_cast<int32_t>(item);
    return 8 * static_cast<uint64_t>(item);
  }
  s.values[k] = static_cast<int32_t>(item);
  return 0;
}

// Step k of a chunk, from its first entry (after the time entry), where the step is the
// run's step with state items among its entries: a state tag's change or the end of its
// run. Decodes entry by entry, as the main loop does, up to the step's end or the first
// entry of another kind, which is left for the main loop.
__attribute__((noinline)) inline Decoder::EventStep Decoder::DecodeEventStep(EventStep at,
                                                                             const uint8_t* id_end,
                                                                             size_t k, int64_t now,
                                                                             const BitSource& data,
                                                                             WidthQueue& widths) {
  // The step's widths, made to lie together in the queue's items (one each, fewer when
  // the length stream ends first: the main loop reports that).
  size_t entries = 0;
  while (at.id_next + entries != id_end && at.id_next[entries] > kRelativeTimeEntry) ++entries;
  bool enough;
  at.width_next = widths.Ensure(at.width_next, std::min(entries, WidthQueue::kBatch), &enough);
  if (!enough) return at;
  const uint8_t* const widths_end = at.width_next + std::min(entries, WidthQueue::kBatch);
  while (at.id_next != id_end && *at.id_next > kRelativeTimeEntry) {
    const uint8_t id = *at.id_next;
    const bool slot = at.slots < run_slot_count_ && run_slots_[at.slots].id == id;
    if (!slot && (!IsStateTagType(state_[id].type) || !state_[id].asked)) return at;
    if (at.width_next == widths_end || *at.width_next < 1) return at;  // the main loop's
    const int width = *at.width_next++;
    uint32_t item;
    if (!data.ReadAt(at.pos, width, &item)) {
      at.reason = BlockRejection::kDataStreamShort;
      return at;
    }
    at.pos += static_cast<uint64_t>(width);
    ++at.id_next;
    if (slot) {
      const uint64_t more = StoreSlot(run_slots_[at.slots], k, item, at.pos, data);
      if (more == kStreamEnds) {
        at.reason = BlockRejection::kDataStreamShort;
        return at;
      }
      at.pos += more;
      ++at.slots;
      continue;
    }
    uint32_t interval = 0;
    if (item == 2 || item == 3) {
      uint32_t bits;
      if (!data.ReadAt(at.pos, 24, &bits)) {
        at.reason = BlockRejection::kDataStreamShort;
        return at;
      }
      at.pos += 24;
      interval = LowByteFirst(bits);
    }
    at.reason = StateItem(id, item, interval, now);
    if (at.reason != BlockRejection::kNone) return at;
  }
  return at;
}

// Decodes the steps from `at` on that repeat the `step_size` bytes at `pattern` (a step
// decoded before), or repeat it with state items among their entries. The position is
// worked on in locals, whose addresses never escape, so that the compiler keeps them in
// registers; the data stream is read by bit position (BitSource::ReadAt), and the result
// gets it all back at the end.
__attribute__((noinline)) inline Decoder::RunResult Decoder::DecodeRun(Position at,
                                                                       const uint8_t* id_end,
                                                                       const uint8_t* pattern,
                                                                       size_t step_size,
                                                                       WidthQueue& widths) {
  const uint8_t* id_next = at.id_next;
  const uint8_t* width_next = at.width_next;
  const BitSource& data = at.data;
  uint64_t pos = data.Tell();
  int64_t now = at.now;
  const uint8_t* step_start = pattern;
  size_t steps = 0;
  BlockRejection reason = BlockRejection::kNone;
  if (static_cast<size_t>(id_end - id_next) < step_size ||
      std::memcmp(id_next, pattern, step_size) != 0 || !PlanRun(pattern, step_size)) {
    return RunResult{at, step_start, 0, reason};
  }
  RunSlot* const slots_end = run_slots_ + run_slot_count_;
  for (;;) {
    // A chunk prepares room for as many steps as the stream's ids could hold; its steps
    // are the run's step (found a stretch at a time, in one comparison) or that step with
    // state items.
    const size_t chunk =
        std::min(kDecodeRunChunk, static_cast<size_t>(id_end - id_next) / step_size);
    if (chunk == 0) break;
    uint32_t bits;
    if (!data.ReadAt(pos, 24, &bits) || RelativeStep(bits) <= 0) break;
    if (now > kLatestRunStart || !PrepareChunk(chunk, now + RelativeStep(bits))) break;
    size_t k = 0, partial = 0;
    size_t plain_until = 0;  // steps before this one are known to repeat the pattern
    // Shaped steps [shaped_from, shaped_to) whose values are still in their pieces; they
    // are taken out before any other step, whose delta sums follow theirs.
    size_t shaped_from = 0, shaped_to = 0;
    auto take_shaped = [&] {
      if (shaped_to > shaped_from) TakeShapedValues(shaped_from, shaped_to, data);
      shaped_from = shaped_to = 0;
    };
    while (k < chunk) {
      bool plain = k < plain_until;
      if (!plain) {
        const size_t fit = std::min(chunk - k, static_cast<size_t>(id_end - id_next) / step_size);
        plain_until = k + RepeatingSteps(id_next, pattern, step_size, fit);
        plain = k < plain_until;
      }
      if (!plain && (id_next == id_end || *id_next != kRelativeTimeEntry)) break;
      if (!data.ReadAt(pos, 24, &bits) || RelativeStep(bits) <= 0) break;
      bool enough;
      width_next = widths.Ensure(width_next, run_slot_count_, &enough);
      if (!enough) break;
      pos += 24;
      now += RelativeStep(bits);
      run_times_[k] = now;
      step_start = id_next;
      if (plain) {
        if (!(shape_valid_ && SameBytes(width_next, shape_widths_, run_slot_count_))) {
          take_shaped();
          MakeShape(width_next);
        }
        if (shape_valid_) {
          if (shaped_to != k) {
            take_shaped();
            shaped_from = k;
          }
          if (!ShapedStep(k, &pos, data)) {
            reason = BlockRejection::kDataStreamShort;
            break;
          }
          shaped_to = k + 1;
          id_next += 1 + run_slot_count_;
          width_next += run_slot_count_;
          ++k;
          continue;
        }
      }
      take_shaped();
      if (!plain) {
        EventStep step =
            DecodeEventStep(EventStep{id_next + 1, width_next, pos}, id_end, k, now, data, widths);
        id_next = step.id_next;
        width_next = step.width_next;
        pos = step.pos;
        reason = step.reason;
        if (reason != BlockRejection::kNone) break;  // the block is rejected
        if (step.slots < run_slot_count_ || (id_next != id_end && *id_next > kRelativeTimeEntry)) {
          partial = step.slots;
          break;
        }
        ++k;
        continue;
      }
      // The step's values come out of a 64-bit window of the stream, loaded at `pos`:
      // each is a shift of it, and the window moves on only when the next value would
      // pass its 57 sure bits (after a raw sample's bytes, and near the stream's end,
      // every value is read on its own).
      const uint8_t* w = width_next;
      RunSlot* s = run_slots_;
      uint64_t window = 0;
      int used = 0;
      bool windowed = data.WindowAt(pos, &window);
      for (; s != slots_end; ++s, ++w) {
        const int width = *w;
        if (width < 1) break;  // a skipped entry: the main loop takes it and the rest
        if (used + width > BitSource::kWindowBits) {
          pos += static_cast<uint64_t>(used);
          used = 0;
          windowed = data.WindowAt(pos, &window);
        }
        uint32_t item;
        if (windowed) {
          item = static_cast<uint32_t>((window << used) >> (64 - width));
          used += width;
        } else if (data.ReadAt(pos, width, &item)) {
          pos += static_cast<uint64_t>(width);
        } else {
          reason = BlockRejection::kDataStreamShort;
          break;
        }
        if (s->kind == kValueLane) {
          s->values[k] = static_cast<int32_t>(item);
          continue;
        }
        pos += static_cast<uint64_t>(used);
        used = 0;
        const uint64_t more = StoreSlot(*s, k, item, pos, data);
        if (more == kStreamEnds) {
          reason = BlockRejection::kDataStreamShort;
          break;
        }
        if (more > 0) {
          pos += more;
          windowed = data.WindowAt(pos, &window);
        } else {
          windowed = windowed && data.WindowAt(pos, &window);
        }
      }
      pos += static_cast<uint64_t>(used);
      const size_t done = static_cast<size_t>(s - run_slots_);
      id_next += 1 + done;
      width_next += done;
      if (reason != BlockRejection::kNone) break;  // the block is rejected
      if (s != slots_end) {
        partial = done;
        break;
      }
      ++k;
    }
    take_shaped();
    CommitChunk(k, partial);
    steps += k;
    if (k < chunk || reason != BlockRejection::kNone) break;
  }
  BitSource rest = data;
  rest.Seek(pos);
  return RunResult{Position{id_next, width_next, rest, now}, step_start, steps, reason};
}

}  // namespace marquel
