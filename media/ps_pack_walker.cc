// PsPackWalker: cuts a program-stream region into packs, a chunk of the file at a time.
#include "media/ps_pack_walker.h"

#include <algorithm>
#include <cstring>

#include "mpeg_ps_syntax.h"

namespace marquel {
namespace {

bool StartCodeAt(const uint8_t* p, uint8_t code) {
  return p[0] == 0 && p[1] == 0 && p[2] == 1 && p[3] == code;
}

// The bytes of the pack header at p (end - p bytes held), or 0 when they do not all fit.
size_t PackHeaderBytes(const uint8_t* p, size_t held, bool mpeg1) {
  if (mpeg1) return held >= 12 ? 12 : 0;
  if (held < 14) return 0;
  size_t n = 14 + (p[13] & 0x07);
  return held >= n ? n : 0;
}

}  // namespace

PsPackWalker::PsPackWalker(FileHandle file, int64_t from, int64_t to, bool mpeg1, size_t chunk)
    : file_(file),
      read_at_(from),
      to_(to),
      mpeg1_(mpeg1),
      chunk_(std::max<size_t>(chunk, 64)),
      buffer_offset_(from) {}

// Moves the bytes from keep_from on to the front and reads more. False when nothing more
// can be read.
bool PsPackWalker::Fill(size_t keep_from) {
  if (read_at_ >= to_) return false;
  std::memmove(buffer_.data(), buffer_.data() + keep_from, end_ - keep_from);
  buffer_offset_ += static_cast<int64_t>(keep_from);
  end_ -= keep_from;
  begin_ -= std::min(begin_, keep_from);
  size_t want = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(chunk_), to_ - read_at_));
  if (buffer_.size() < end_ + want) buffer_.resize(end_ + want);
  if (!ReadAllAt(file_, static_cast<uint64_t>(read_at_), buffer_.data() + end_, want)) {
    failed_ = true;
    return false;
  }
  read_at_ += static_cast<int64_t>(want);
  end_ += want;
  return true;
}

// Where the pack starting at `start` ends: at the next pack start after its packets, or
// end_ when the bytes held do not show one yet. *own tells whether a packet of the
// server's own streams was among them.
size_t PsPackWalker::PackEnd(size_t start, bool* own) const {
  const uint8_t* b = buffer_.data();
  *own = false;
  size_t p = start + PackHeaderBytes(b + start, end_ - start, mpeg1_);
  if (p == start) return end_;
  // Packets and the system header, each skipped by its length.
  while (p + 6 <= end_ && b[p] == 0 && b[p + 1] == 0 && b[p + 2] == 1 &&
         b[p + 3] >= ps::kSystemHeaderCode) {
    if (ps::IsOwnDataStream(b[p + 3])) *own = true;
    p += 6 + ps::Be16(b + p + 4);
  }
  if (p > end_) return end_;
  // Anything else runs up to the next pack start.
  for (; p + 4 <= end_; ++p) {
    if (StartCodeAt(b + p, ps::kPackCode)) return p;
  }
  return end_;
}

bool PsPackWalker::Next(PackSpan* span) {
  if (failed_ || span == nullptr) return false;
  if (buffer_.empty()) buffer_.resize(chunk_);
  for (;;) {
    // Find the pack start.
    while (begin_ + 4 <= end_ && !StartCodeAt(buffer_.data() + begin_, ps::kPackCode)) ++begin_;
    if (begin_ + 4 > end_) {
      if (!Fill(begin_ >= 3 ? begin_ - 3 : begin_)) {
        if (first_pack_ < 0) first_pack_ = to_;
        return false;
      }
      continue;
    }
    if (first_pack_ < 0) first_pack_ = buffer_offset_ + static_cast<int64_t>(begin_);
    bool own = false;
    size_t end = PackEnd(begin_, &own);
    if (end - begin_ > kMaxPackBytes) {
      failed_ = true;
      return false;
    }
    if (end == end_ && read_at_ < to_) {
      if (!Fill(begin_)) return false;
      continue;
    }
    const uint8_t* at = buffer_.data() + begin_;
    const uint32_t length = static_cast<uint32_t>(end - begin_);
    span->offset = buffer_offset_ + static_cast<int64_t>(begin_);
    span->length = length;
    span->own_data = own;
    span->clock = PackClock{};
    ReadPackClock(at, length, &span->clock);
    begin_ = end;
    return true;
  }
}

}  // namespace marquel
