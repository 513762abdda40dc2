// The decoder's entries other than the common ones (included by the main loop's file,
// so that the compiler sees them where they are called): a tag met for the first time, deltas,
// raw samples outside a lane, and the state tags' runs.
#pragma once

#include <algorithm>

#include "block_decoder.h"

namespace marquel {

// Marks the tag present and asks about it the first time; returns its type.
inline int32_t Decoder::Meet(int32_t id) {
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
inline void Decoder::ValueEntry(int32_t id, uint32_t item, int64_t now) {
  TagState& st = state_[id];
  if (st.type == kTagTypeDelta) {
    st.sum += item;  // a plain 32-bit sum: a counter grows past its width
    Append(id, st.valid, static_cast<int32_t>(st.sum), now);
    return;
  }
  Append(id, st.valid, static_cast<int32_t>(item), now);
  if (st.valid) OpenLane(id, false);
}

// Where the `count` bytes of a raw sample at `now` go, with the sample counted; null
// when they are to be skipped.
inline uint8_t* Decoder::RawTarget(int32_t id, uint32_t count, int64_t now) {
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
inline BlockRejection Decoder::StateItem(int32_t id, uint32_t item, uint32_t interval,
                                         int64_t now) {
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
inline void Decoder::Fill(int32_t id, int64_t limit, bool inclusive) {
  TagState& st = state_[id];
  BlockTagSamples& tag = content_.tags[id];
  if (!st.valid) return;
  const __int128 start = st.run_start;
  const __int128 step = st.interval;
  __int128 k = 1;
  if (!tag.empty() && tag.times.back() >= st.run_start) k = (tag.times.back() - start) / step + 1;
  // The samples at start + k * step on up to the limit, as many as the fill bound allows;
  // counted first, then written in one go.
  const __int128 first = start + k * step;
  const __int128 last = inclusive ? static_cast<__int128>(limit) : static_cast<__int128>(limit) - 1;
  if (first > last) return;
  const __int128 wanted = (last - first) / step + 1;
  const uint64_t budget = options_.max_filled_samples > stats_.filled_samples
                              ? options_.max_filled_samples - stats_.filled_samples
                              : 0;
  if (wanted > budget) stats_.fill_truncated = true;
  const size_t n = static_cast<size_t>(wanted > budget ? budget : static_cast<uint64_t>(wanted));
  if (n == 0) return;
  tag.times.EnsureSpare(n);
  tag.values.EnsureSpare(n);
  int64_t* times = tag.times.SpareBegin();
  int32_t* values = tag.values.SpareBegin();
  // Every time written lies between first and the limit, so the unsigned sums below
  // never wrap for a time that is stored.
  const uint64_t t0 = static_cast<uint64_t>(static_cast<int64_t>(first));
  const uint64_t step_by = static_cast<uint64_t>(st.interval);
  for (size_t i = 0; i < n; ++i) times[i] = static_cast<int64_t>(t0 + i * step_by);
  std::fill_n(values, n, st.run_state);
  tag.times.Commit(n);
  tag.values.Commit(n);
  stats_.filled_samples += n;
  // The tag's next fill is likely as long and comes some steps later: its lines are asked
  // for now, so that it does not wait for them.
  const size_t ahead = std::min<size_t>(std::min(n, size_t{512}), tag.times.Spare());
  for (size_t i = 0; i < ahead; i += 8) __builtin_prefetch(tag.times.SpareBegin() + i, 1);
  for (size_t i = 0; i < std::min(ahead, tag.values.Spare()); i += 16)
    __builtin_prefetch(tag.values.SpareBegin() + i, 1);
}

inline void Decoder::Append(int32_t id, bool valid, int32_t value, int64_t now) {
  if (!valid) return;
  BlockTagSamples& tag = content_.tags[id];
  if (!After(tag, now)) {
    ++stats_.dropped_samples;
    return;
  }
  tag.times.push_back(now);
  tag.values.push_back(value);
}

}  // namespace marquel
