// Runs of repeating steps.
//
// Through most of a program, the same tags have samples at the same times step after
// step, and the state tags among them mostly keep their state. Each such step writes the
// same tag-id bytes and the same length items; only the time difference and the values
// change. A run writes such steps from patterns made once: it checks that a stretch of
// steps still has the shape, then writes their tag ids and length items from the
// patterns, and their data from the tags' arrays: a chunk's values are first packed, a
// tag at a time, into pieces of up to 56 bits, then written a piece at a time. A step
// where a state tag changes writes its state item among its entries, one by one. The
// first step of another shape ends the run, and the step-by-step writer takes it. Both
// write the same bytes; the run only does less work.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "block_walk.h"
#include "tags/block_format.h"

namespace marquel {

// A tag of a run that writes: a sample entry in every step, or for a state tag, a state
// item in the steps where its state changes.
struct RunEntry {
  static constexpr uint8_t kDrainBefore = 1;  // the data bits gathered must be stored first
  static constexpr uint8_t kRaw = 2;
  static constexpr uint8_t kDelta = 4;
  static constexpr uint8_t kState = 8;
  static constexpr uint8_t kRawWords = 16;  // raw bytes that may be read a word at a time
  uint8_t flags = 0;
  uint8_t id = 0;
  int width = 0;
  uint32_t mask = 0;
  uint32_t subtract = 0;  // delta tags: the value before the run's first step
  // State tags: the state last written, the interval's three bytes as written, and the
  // tag's bit in RunPlan::events.
  int32_t state = 0;
  uint32_t interval_bits = 0;
  uint32_t event_bit = 0;
  const int32_t* values = nullptr;  // at the run's first step
  // Raw tags: where the bytes of the run's first step's sample start, relative to
  // raw_base (null: no sample of the batch has bytes).
  const uint64_t* raw_offsets = nullptr;
  const uint8_t* raw_base = nullptr;
  TagWalk* walk = nullptr;

  // The bytes of raw sample k of the run and their count, as TagWalk gives them.
  const uint8_t* RawBytes(size_t k, uint32_t* count) const {
    const uint8_t* bytes = BlockSampleBatch::BytesAt(raw_base, raw_offsets, k);
    *count = RawByteCount(bytes, values[k], mask);
    return bytes;
  }
};

// A state tag of a run, for the checks.
struct RunState {
  const int32_t* values = nullptr;  // at the run's first step
  size_t entry = 0;                 // its RunEntry
};

// The steps a run checks at a time, before it writes them.
constexpr size_t kRunChunk = 32;

// A steady step's data items, gathered into pieces that are each written with one push:
// values and delta values side by side, up to a raw sample's count, which ends its piece
// (the bytes follow it). A chunk's pieces are made a tag at a time, in loops the compiler
// turns into vector code, and then written a step at a time.
struct RunPiece {
  static constexpr uint8_t kDrainBefore = 1;  // the data bits gathered must be stored first
  static constexpr uint8_t kWords = 2;        // its raw bytes may be read a word at a time
  int bits = 0;
  uint8_t flags = 0;
  int raw = -1;  // the raw sample whose count ends it, by its place among the run's raw tags
};
// A steady entry's item in its piece.
struct RunPieceItem {
  uint32_t entry = 0;  // in RunPlan::steady
  uint32_t piece = 0;
  int shift = 0;  // where in the piece's bits the item lies, from the low end
  int raw = -1;   // as RunPiece::raw, for a raw tag's count
};
// The most bits of a piece: with the at most 7 bits pending after a drain, it fits in 63.
constexpr int kPieceBits = 56;

// How far ahead of its position a run asks for the data stream's lines.
constexpr size_t kDataWriteAhead = 16384;

// The shape of a run's steps, made at its first step.
class RunPlan {
 public:
  // Makes the plan for the tags whose current sample has time `current`. False when no
  // run can start here: a step with no sample entry, a state tag's gap that ends its run
  // here, a tag at the last sample of its batch.
  bool Make(std::vector<TagWalk>& tags, int64_t current);
  // How many of the `n` steps from step `from` on keep the run's shape; `previous` is the
  // time of the time entry before step `from`. Sets `events` for those steps.
  size_t GoodSteps(size_t from, size_t n, int64_t previous);
  // TagWalk::Warm for every tag of the run.
  void Warm(size_t from, size_t to) const {
    for (const TagWalk* t : walks) t->Warm(from, to);
  }
  // Moves the run's tags past `steps` steps.
  void Finish(size_t steps);
  // Makes the pieces of steps [from, from + n) (n at most kRunChunk) into piece_words, and
  // the raw samples' counts and bytes into raw_counts and raw_bytes; returns how many raw
  // bytes they have in all.
  size_t PackChunk(size_t from, size_t n);

  std::vector<const int64_t*> times;  // every tag of the run, at its current sample
  std::vector<RunEntry> entries;      // the tags that write, in ascending id order
  // The same without the state tags, for the steps where no state changes (the most), with
  // the data stores planned for them.
  std::vector<RunEntry> steady;
  std::vector<RunState> states;
  // The steady steps' pieces and their items; per piece (and per raw tag), kRunChunk
  // words (and counts and byte pointers) for the chunk PackChunk made.
  std::vector<RunPiece> pieces;
  std::vector<RunPieceItem> piece_items;
  std::vector<uint64_t> piece_words;
  std::vector<uint32_t> raw_counts;
  std::vector<const uint8_t*> raw_bytes;
  size_t steady_bits = 0;       // a steady step's data bits, raw bytes left out
  std::vector<TagWalk*> walks;  // every tag of the run
  // A step's tag-id bytes (the relative time entry, then the entries' ids), padded with
  // zeros to a multiple of 32 bytes, so that it can be copied in whole 32-byte pieces.
  std::vector<uint8_t> tag_pattern;
  size_t tag_count = 0;  // how many of those bytes are the step's
  // A step's length items, in pieces of at most 32 bits.
  std::vector<uint32_t> length_words;
  std::vector<int> length_bits;
  // Per step of the chunk GoodSteps checked: the event bits of the state tags whose
  // state changes there, each of which writes a state item.
  uint32_t events[kRunChunk] = {};
  int64_t outside = std::numeric_limits<int64_t>::max();    // the earliest time of the others
  int64_t state_gap = std::numeric_limits<int64_t>::max();  // a step may be this far apart
  size_t max_steps = 0;  // the run stays inside every tag's batch, short of its last sample

 private:
  void MakePieces();
};

// A run writes each stream on its own, a chunk of steps at a time: each loop then keeps
// only its own stream's state, which fits in the processor's registers. (One loop over
// all three streams does not, and its accumulators go through memory at every item.)
// Each function works on a local copy of the sink, whose address never escapes.

// The tag-id bytes of `n` steps; steps with state items have them among their entries.
template <class Sink>
void WriteRunTags(Sink& out, const RunPlan& plan, size_t n) {
  Sink sink = out;
  const uint8_t* pattern = plan.tag_pattern.data();
  const size_t padded = plan.tag_pattern.size();
  for (size_t k = 0; k < n; ++k) {
    if (plan.events[k] == 0) {
      sink.TagPattern(pattern, padded, plan.tag_count);
      continue;
    }
    sink.Tag(static_cast<uint8_t>(kRelativeTimeEntry));
    for (const RunEntry& e : plan.entries)
      if (!(e.flags & RunEntry::kState) || (plan.events[k] & e.event_bit)) sink.Tag(e.id);
  }
  out = sink;
}

// The length items of `n` steps.
template <class Sink>
void WriteRunLengths(Sink& out, const RunPlan& plan, size_t n) {
  Sink sink = out;
  const size_t words = plan.length_words.size();
  for (size_t k = 0; k < n; ++k) {
    if (plan.events[k] == 0) {
      for (size_t w = 0; w < words; ++w) sink.LengthBits(plan.length_words[w], plan.length_bits[w]);
      continue;
    }
    for (const RunEntry& e : plan.entries)
      if (!(e.flags & RunEntry::kState) || (plan.events[k] & e.event_bit))
        sink.LengthBits(static_cast<uint32_t>(e.width), 5);
  }
  out = sink;
}

// A steady step's data, step j of the chunk PackChunk made: its pieces, each with one
// push, and the raw samples' bytes after their counts.
// (Kept inline, so that the data stream's bits stay in registers through it.)
template <class Data>
__attribute__((always_inline)) inline void WriteSteadyStep(Data& d, const RunPlan& plan, size_t j) {
  const uint64_t* words = plan.piece_words.data() + j;
  for (const RunPiece& p : plan.pieces) {
    if (p.flags & RunPiece::kDrainBefore) d.Drain();
    d.Push(*words, p.bits);
    words += kRunChunk;
    if (p.raw < 0) continue;
    const size_t r = static_cast<size_t>(p.raw) * kRunChunk + j;
    if (p.flags & RunPiece::kWords) {
      d.PushWords(plan.raw_bytes[r], plan.raw_counts[r]);
    } else {
      d.Drain();  // PushBytes takes at most 7 bits pending
      d.PushBytes(plan.raw_bytes[r], plan.raw_counts[r]);
    }
  }
}

// The data of steps [from, from + n): each step's time difference, then its entries.
// The data stream's bits are worked on in a local (see BufferSink::TakeData).
template <class Sink>
void WriteRunData(Sink& sink, RunPlan& plan, size_t from, size_t n, int64_t& previous) {
  const size_t raw_total = plan.PackChunk(from, n);
  auto d = sink.TakeData();
  const int64_t* lead = plan.times[0];
  // Room for the chunk: at most 8 bytes for each item other than raw bytes (Reserve made
  // that), the raw bytes, and what PushWords writes past them.
  const size_t budget = 8 * (plan.tag_count + plan.states.size()) * n + 32;
  if (!d.HasRoom(raw_total + budget)) {
    sink.PutData(d);
    sink.ReserveData(raw_total + budget);
    d = sink.TakeData();
  }
  // The data stream's lines, a stretch ahead: the processor's prefetchers lose it among
  // the dozens of arrays a run reads.
  d.WillWrite(kDataWriteAhead, n * plan.steady_bits / 8 + raw_total);
  d.Drain();  // each step starts with at most 7 bits pending
  for (size_t k = from; k < from + n; ++k) {
    const int64_t t = lead[k];
    d.Push(ThreeBytesLowFirst(static_cast<uint64_t>(t) - static_cast<uint64_t>(previous)), 24);
    previous = t;
    const uint32_t events = plan.events[k - from];
    if (events == 0) {
      WriteSteadyStep(d, plan, k - from);
      d.Drain();  // the step-by-step writer takes over with fewer than 32 pending
      continue;
    }
    // A step with state items: entry by entry.
    for (RunEntry& e : plan.entries) {
      const uint32_t value = static_cast<uint32_t>(e.values[k]);
      if (e.flags != 0) {
        if (e.flags & RunEntry::kDrainBefore) d.Drain();
        if (e.flags & RunEntry::kDelta) {
          const uint32_t before = k == 0 ? e.subtract : static_cast<uint32_t>(e.values[k - 1]);
          d.Push((value - before) & e.mask, e.width);
          e.walk->steps_seen |= value - before;
          continue;
        }
        if (e.flags & RunEntry::kState) {
          if (events & e.event_bit) {
            d.Push((value | 2) & e.mask, e.width);
            d.Push(e.interval_bits, 24);
            e.state = static_cast<int32_t>(value);
          }
          continue;
        }
        if (e.flags & RunEntry::kRaw) {
          uint32_t count;
          const uint8_t* bytes = e.RawBytes(k, &count);
          d.Push(count, e.width);
          d.Drain();                  // the bytes go out with at most 7 bits before them
          d.PushBytes(bytes, count);  // the chunk's room counted every raw byte
          continue;
        }
      }
      d.Push(value & e.mask, e.width);
    }
    d.Drain();  // the step-by-step writer takes over with fewer than 32 pending
  }
  sink.PutData(d);
}

// Writes the run's steps while they keep the shape and returns how many it wrote.
// `previous` is the time of the last time entry, and follows the run.
template <class Sink>
size_t WriteRun(Sink& sink, RunPlan& plan, int64_t& previous) {
  size_t done = 0;
  while (done < plan.max_steps) {
    // A long run reads its tags' next samples into the caches as the walk does between
    // runs, a window ahead.
    if (done % kWarmWindow == 0 && done > 0) plan.Warm(done + kWarmWindow, done + 2 * kWarmWindow);
    const size_t chunk = std::min(kRunChunk, plan.max_steps - done);
    const size_t good = plan.GoodSteps(done, chunk, previous);
    if (good == 0) break;
    // Room for the chunk: Reserve counts 8 data bytes per entry, more than any step
    // needs; the data loop makes room for raw bytes as they come.
    sink.Reserve(good * (plan.tag_count + plan.states.size()) + plan.tag_pattern.size(), 0);
    WriteRunTags(sink, plan, good);
    WriteRunLengths(sink, plan, good);
    WriteRunData(sink, plan, done, good, previous);
    done += good;
    if (good < chunk) break;
  }
  return done;
}

}  // namespace marquel
