#include "block_run.h"

#include <algorithm>
#include <cstring>

namespace marquel {
namespace {

// Twice `interval`, held to the int64 range.
int64_t TwiceSaturated(int64_t interval) {
  int64_t twice;
  if (!__builtin_mul_overflow(interval, 2, &twice)) return twice;
  return interval > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

// How many of the first n times of `a` equal those of `b`. The common case, all of them,
// is one memcmp, which the C library does with the widest vectors the processor has.
size_t Agreeing(const int64_t* a, const int64_t* b, size_t n) {
  if (std::memcmp(a, b, n * sizeof *a) == 0) return n;
  size_t k = 0;
  while (a[k] == b[k]) ++k;
  return k;
}

// How many of the first n values are `state`, found the same way.
size_t Repeating(const int32_t* values, int32_t state, size_t n) {
  uint32_t differ = 0;
  for (size_t k = 0; k < n; ++k) differ |= static_cast<uint32_t>(values[k] ^ state);
  if (differ == 0) return n;
  size_t k = 0;
  while (values[k] == state) ++k;
  return k;
}

// The entry with kDrainBefore set where the data bits gathered before it (*gathered, at
// most 63 after a drain) could not take its largest item; counts that item in.
RunEntry PlanDrain(RunEntry e, int* gathered) {
  const bool raw = (e.flags & RunEntry::kRaw) != 0;
  const int item = e.width + ((e.flags & RunEntry::kState) ? 24 : 0);
  if (*gathered + item > 63) {
    e.flags |= RunEntry::kDrainBefore;
    *gathered = 7;
  }
  *gathered = raw ? 7 : *gathered + item;
  return e;
}

}  // namespace

bool RunPlan::Make(std::vector<TagWalk>& tags, int64_t current) {
  times.clear();
  entries.clear();
  states.clear();
  walks.clear();
  steady.clear();
  tag_pattern.assign(1, static_cast<uint8_t>(kRelativeTimeEntry));
  length_words.clear();
  length_bits.clear();
  outside = std::numeric_limits<int64_t>::max();
  state_gap = std::numeric_limits<int64_t>::max();
  max_steps = std::numeric_limits<size_t>::max();
  uint64_t pending = 0;
  int pending_bits = 0;
  int gathered = 7 + 24;  // the data bits a step may have gathered
  for (TagWalk& t : tags) {
    if (t.cur_time != current) {
      outside = std::min(outside, t.cur_time);
      continue;
    }
    if (t.pos + 1 >= t.count) return false;
    max_steps = std::min(max_steps, t.count - t.pos - 1);
    times.push_back(t.times + t.pos);
    walks.push_back(&t);
    RunEntry e;
    e.id = static_cast<uint8_t>(t.id);
    e.width = t.width;
    e.mask = t.mask;
    e.values = t.values + t.pos;
    e.walk = &t;
    if (IsStateTagType(t.type)) {
      // A state tag writes a state item where its state changes, and an end item where
      // its gap from its previous sample ends its run: no run goes past such a gap.
      if (GapExceeds(t.prev_time, current, t.interval)) return false;
      e.flags = RunEntry::kState;
      e.state = static_cast<int32_t>(t.last_written);  // -1 or a value once written
      e.interval_bits = ThreeBytesLowFirst(static_cast<uint64_t>(t.interval));
      e.event_bit = uint32_t{1} << states.size();
      states.push_back({t.values + t.pos, entries.size()});
      entries.push_back(PlanDrain(e, &gathered));
      state_gap = std::min(state_gap, TwiceSaturated(t.interval));
      continue;
    }
    const bool raw = t.type == kTagTypeRaw;
    if (raw) e.flags |= RunEntry::kRaw;
    if (raw && t.batch.raw_offsets != nullptr) {
      e.raw_offsets = t.batch.raw_offsets + t.pos;
      e.raw_base = t.batch.raw_base;
      if (t.batch.raw_readable_past) e.flags |= RunEntry::kRawWords;
    }
    if (t.type == kTagTypeDelta) {
      e.flags |= RunEntry::kDelta;
      e.subtract = t.prev_value;
    }
    // Data bits gather in 63 bits: a step starts with at most 7 pending and its 24-bit
    // time difference; a raw sample leaves at most 7.
    entries.push_back(PlanDrain(e, &gathered));
    steady.push_back(e);
    tag_pattern.push_back(static_cast<uint8_t>(t.id));
    // The length items, gathered into pieces of up to 30 bits.
    pending = pending << 5 | static_cast<uint32_t>(t.width);
    pending_bits += 5;
    if (pending_bits == 30) {
      length_words.push_back(static_cast<uint32_t>(pending));
      length_bits.push_back(pending_bits);
      pending = 0;
      pending_bits = 0;
    }
  }
  // A step whose only entries are state tags' writes nothing, and no time entry either,
  // where their states stay.
  if (entries.size() == states.size()) return false;
  if (pending_bits > 0) {
    length_words.push_back(static_cast<uint32_t>(pending));
    length_bits.push_back(pending_bits);
  }
  tag_count = tag_pattern.size();
  tag_pattern.resize((tag_count + 31) / 32 * 32, 0);
  MakePieces();
  return true;
}

void RunPlan::MakePieces() {
  pieces.clear();
  piece_items.clear();
  size_t raws = 0;
  size_t first_item = 0;  // the current piece's first item
  RunPiece piece;
  int gathered = 7 + 24;  // as for the entries: a step starts with its time difference
  auto close = [&] {
    if (first_item == piece_items.size()) return;
    // Earlier items go higher: each item's shift is the width of the items after it.
    int shift = 0;
    for (size_t i = piece_items.size(); i-- > first_item;) {
      piece_items[i].shift = shift;
      shift += steady[piece_items[i].entry].width;
    }
    if (gathered + piece.bits > 63) {
      piece.flags |= RunPiece::kDrainBefore;
      gathered = 7;
    }
    gathered = piece.raw >= 0 ? 7 : gathered + piece.bits;
    pieces.push_back(piece);
    piece = RunPiece();
    first_item = piece_items.size();
  };
  for (size_t i = 0; i < steady.size(); ++i) {
    const RunEntry& e = steady[i];
    if (piece.bits + e.width > kPieceBits) close();
    piece_items.push_back({static_cast<uint32_t>(i), static_cast<uint32_t>(pieces.size()), 0, -1});
    piece.bits += e.width;
    if (e.flags & RunEntry::kRaw) {
      // The count ends its piece: the bytes follow it.
      piece.raw = static_cast<int>(raws++);
      if (e.flags & RunEntry::kRawWords) piece.flags |= RunPiece::kWords;
      piece_items.back().raw = piece.raw;
      close();
    }
  }
  close();
  steady_bits = 24;  // the time difference
  for (const RunPiece& p : pieces) steady_bits += static_cast<size_t>(p.bits);
  piece_words.resize(pieces.size() * kRunChunk);
  raw_counts.resize(raws * kRunChunk);
  raw_bytes.resize(raws * kRunChunk);
}

size_t RunPlan::PackChunk(size_t from, size_t n) {
  std::fill(piece_words.begin(), piece_words.end(), 0);
  size_t raw_total = 0;
  for (const RunPieceItem& item : piece_items) {
    const RunEntry& e = steady[item.entry];
    uint64_t* const words = piece_words.data() + item.piece * kRunChunk;
    const int32_t* const values = e.values + from;
    const uint32_t mask = e.mask;
    const int shift = item.shift;
    if (e.flags & RunEntry::kDelta) {
      uint32_t before = from == 0 ? e.subtract : static_cast<uint32_t>(values[-1]);
      uint32_t seen = 0;
      for (size_t k = 0; k < n; ++k) {
        const uint32_t value = static_cast<uint32_t>(values[k]);
        seen |= value - before;
        words[k] |= uint64_t{(value - before) & mask} << shift;
        before = value;
      }
      e.walk->steps_seen |= seen;
    } else if (e.flags & RunEntry::kRaw) {
      uint32_t* const counts = raw_counts.data() + item.raw * kRunChunk;
      const uint8_t** const bytes = raw_bytes.data() + item.raw * kRunChunk;
      for (size_t k = 0; k < n; ++k) {
        bytes[k] = e.RawBytes(from + k, &counts[k]);
        raw_total += counts[k];
        words[k] |= uint64_t{counts[k]} << shift;
      }
    } else {
      for (size_t k = 0; k < n; ++k)
        words[k] |= uint64_t{static_cast<uint32_t>(values[k]) & mask} << shift;
    }
  }
  return raw_total;
}

size_t RunPlan::GoodSteps(size_t from, size_t n, int64_t previous) {
  // The time entries, from the first tag's times: relative, short of the other tags'
  // samples, and (after the run's first step, which Make checked) within the state
  // tags' gaps.
  const int64_t* lead = times[0] + from;
  size_t good = 0;
  for (; good < n; ++good) {
    const int64_t t = lead[good];
    const uint64_t diff = static_cast<uint64_t>(t) - static_cast<uint64_t>(previous);
    if (diff >= static_cast<uint64_t>(kAbsoluteTimeGap) || t >= outside) break;
    if (from + good > 0 && static_cast<int64_t>(diff) > state_gap) break;
    previous = t;
  }
  for (size_t j = 1; j < times.size(); ++j)
    good = std::min(good, Agreeing(times[j] + from, lead, good));
  // Where each state tag's state changes against the state last written.
  std::fill(events, events + good, 0);
  for (const RunState& s : states) {
    const RunEntry& e = entries[s.entry];
    int32_t state = e.state;
    const int32_t* values = s.values + from;
    if (Repeating(values, state, good) == good) continue;
    for (size_t k = 0; k < good; ++k) {
      if (values[k] == state) continue;
      events[k] |= e.event_bit;
      state = values[k];
    }
  }
  return good;
}

void RunPlan::Finish(size_t steps) {
  if (steps == 0) return;
  for (const RunEntry& e : entries) {
    if (e.flags & RunEntry::kDelta) e.walk->prev_value = static_cast<uint32_t>(e.values[steps - 1]);
    if (e.flags & RunEntry::kState) e.walk->last_written = e.state;
  }
  for (TagWalk* t : walks) {
    t->pos += steps;
    t->cur_time = t->times[t->pos];
    if (IsStateTagType(t->type)) {
      t->index += steps;
      t->prev_time = t->times[t->pos - 1];
    }
  }
}

}  // namespace marquel
