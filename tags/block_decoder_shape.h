// Shaped steps in the block decoder's runs (included by the main loop's file).
//
// Within a run, the length items too mostly repeat from step to step. Where a step's
// entries all have the widths the shape was made from, their values lie at the same
// places in each step's data, a raw sample's bytes apart: they gather into pieces of up
// to 57 bits, each read with one load. A stretch of such steps is read a piece at a time
// per step (the raw samples' bytes copied as they come), and its values are then taken
// out of the pieces a slot at a time, in loops the compiler turns into vector code. A
// step of other widths is decoded entry by entry, as before.
#pragma once

#include <cstring>

#include "block_decoder.h"
#include "block_decoder_runs.h"

namespace marquel {

inline bool Decoder::MakeShape(const uint8_t* widths) {
  shape_valid_ = false;
  shape_piece_count_ = 0;
  shape_item_count_ = 0;
  size_t raws = 0;
  ShapePiece piece;
  size_t first_item = 0;
  auto close = [&] {
    if (piece.bits == 0) return;
    // Earlier items lie higher: each item's shift is the width of what follows it.
    int shift = piece.raw_slot >= 0 ? piece.raw_width : 0;
    for (size_t i = shape_item_count_; i-- > first_item;) {
      shape_items_[i].shift = shift;
      shift += shape_items_[i].width;
    }
    shape_pieces_[shape_piece_count_++] = piece;
    piece = ShapePiece();
    first_item = shape_item_count_;
  };
  for (size_t j = 0; j < run_slot_count_; ++j) {
    const int width = widths[j];
    if (width < 1) return false;  // a skipped entry: only the entry-by-entry path has it
    if (piece.bits + width > BitSource::kWindowBits) close();
    piece.bits += width;
    if (run_slots_[j].kind == kRawLane) {  // its count ends the piece: the bytes follow
      piece.raw_slot = static_cast<int>(j);
      piece.raw_width = width;
      piece.raw_index = raws++;
      close();
      continue;
    }
    shape_items_[shape_item_count_++] = {static_cast<uint32_t>(j),
                                         static_cast<uint32_t>(shape_piece_count_), 0, width};
  }
  close();
  std::memcpy(shape_widths_, widths, run_slot_count_);
  if (shape_words_.size() < shape_piece_count_ * kDecodeRunChunk)
    shape_words_.resize(shape_piece_count_ * kDecodeRunChunk);
  if (shape_raw_at_.size() < raws * kDecodeRunChunk) shape_raw_at_.resize(raws * kDecodeRunChunk);
  shape_valid_ = true;
  return true;
}

// Step k's pieces, from bit *pos on (moved past the step), and where its raw samples'
// bytes lie, which are copied with the values. False when the stream ends inside the
// step: a piece's read past the end fails, and so would one after bytes past the end.
inline bool Decoder::ShapedStep(size_t k, uint64_t* pos, const BitSource& data) {
  // Locals, which the stores below cannot change, so that they stay in registers.
  uint64_t* words = shape_words_.data() + k;
  uint64_t* const raw_at = shape_raw_at_.data() + k;
  const ShapePiece* const end = shape_pieces_ + shape_piece_count_;
  uint64_t at = *pos;
  for (const ShapePiece* piece = shape_pieces_; piece != end; ++piece, words += kDecodeRunChunk) {
    if (!data.BitsAt(at, piece->bits, words)) return false;
    at += static_cast<uint64_t>(piece->bits);
    if (piece->raw_slot < 0) continue;
    // The bytes are found in the stream by the next piece's read, or at the step's end.
    raw_at[piece->raw_index * kDecodeRunChunk] = at;
    at += 8 * uint64_t{RawCount(*words, piece->raw_width)};
  }
  if (!data.HasBytesAt(at, 0)) return false;
  *pos = at;
  return true;
}

// The raw samples of steps [from, to) of the raw piece `piece`: their bytes, copied out
// of the data stream a sample after another into room made once.
inline void Decoder::TakeShapedRaw(const ShapePiece& piece, const uint64_t* words, size_t from,
                                   size_t to, const BitSource& data) {
  const RunSlot& s = run_slots_[piece.raw_slot];
  const uint64_t* const at = shape_raw_at_.data() + piece.raw_index * kDecodeRunChunk;
  uint64_t total = 0;
  for (size_t k = from; k < to; ++k) total += RawCount(words[k], piece.raw_width);
  SampleColumn<uint8_t>& bytes = *s.bytes;
  bytes.EnsureSpare(total + 8);  // eight more, for the copy to go eight bytes at a time
  // Locals, which the byte stores cannot change, so that they stay in registers.
  const BitSource source = data;
  uint64_t* const offsets = s.offsets;
  int32_t* const values = s.values;
  const int width = piece.raw_width;
  uint8_t* out = bytes.SpareBegin();
  uint64_t room = bytes.Spare();
  uint64_t size = bytes.size();
  for (size_t k = from; k < to; ++k) {
    const uint32_t count = RawCount(words[k], width);
    offsets[k] = size;
    values[k] = static_cast<int32_t>(count);
    source.CopyKnownAt(at[k], out, count, room);
    out += count;
    room -= count;
    size += count;
  }
  bytes.Commit(total);
}

// The values of steps [from, to), all shaped, out of their pieces: lanes' values, delta
// tags' running sums, and raw samples.
inline void Decoder::TakeShapedValues(size_t from, size_t to, const BitSource& data) {
  for (size_t p = 0; p < shape_piece_count_; ++p) {
    if (shape_pieces_[p].raw_slot >= 0)
      TakeShapedRaw(shape_pieces_[p], shape_words_.data() + p * kDecodeRunChunk, from, to, data);
  }
  for (size_t i = 0; i < shape_item_count_; ++i) {
    const ShapeItem& item = shape_items_[i];
    const RunSlot& s = run_slots_[item.slot];
    const uint64_t* words = shape_words_.data() + item.piece * kDecodeRunChunk;
    const uint32_t mask = (uint32_t{1} << item.width) - 1;  // width is 1..31
    const int shift = item.shift;
    if (s.kind == kValueLane) {
      int32_t* const values = s.values;
      for (size_t k = from; k < to; ++k)
        values[k] = static_cast<int32_t>(static_cast<uint32_t>(words[k] >> shift) & mask);
      continue;
    }
    uint32_t sum = state_[s.id].sum;  // a delta tag (its values go nowhere when refused)
    for (size_t k = from; k < to; ++k) {
      sum += static_cast<uint32_t>(words[k] >> shift) & mask;
      if (s.values != nullptr) s.values[k] = static_cast<int32_t>(sum);
    }
    state_[s.id].sum = sum;
  }
}

}  // namespace marquel
