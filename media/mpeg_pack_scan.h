// The pack-splitting loop shared by the two pack checkers. The MPEG-1 and MPEG-2
// differences (pack header layout, clock epochs, PES syntax, what audio does to the video
// flags) come from a traits class, so the loop itself has no per-byte indirect calls.
#pragma once

#include <algorithm>
#include <cstdint>

#include "media/mpeg_pack_check.h"
#include "mpeg_ps_syntax.h"

namespace marquel::ps {

// Video time in 100 ns units from 90 kHz ticks, rounded toward zero. The arithmetic
// wraps instead of overflowing on absurd clocks (thousands of clock restarts).
inline int64_t TicksToVideoTime(int64_t time_base, int64_t first, uint64_t pts) {
  const uint64_t ticks = static_cast<uint64_t>(time_base) - static_cast<uint64_t>(first) + pts;
  return static_cast<int64_t>(ticks * 1000u) / 9;
}

// First position p in [from, limit) where data[p..p+3] is a pack start code or a packet
// start code (00 00 01 BC .. FF); limit when there is none. Needs limit + 4 <= size.
inline size_t FindPackOrPacket(const uint8_t* data, size_t from, size_t limit) {
  for (size_t p = from;; ++p) {
    p = FindStartCodePrefix(data, p, limit);
    if (p >= limit) return limit;
    const uint8_t code = data[p + 3];
    if (code == kPackCode || code >= kFirstPacketCode) return p;
  }
}

template <class Traits>
class PackScanner {
 public:
  PackScanner(Traits& traits, const uint8_t* buffer, uint32_t length, MpegPackList* list)
      : traits_(traits), buffer_(buffer), length_(length), list_(list) {}

  uint32_t Run(bool final_pack) {
    size_t pos = 0;
    while (length_ - pos > 16) {
      const size_t limit = length_ - 16;  // positions with more than 16 bytes left
      pos = FindPackOrPacket(buffer_, pos, limit);
      if (pos >= limit) break;
      const uint8_t* at = buffer_ + pos;
      if (at[3] == kPackCode) {
        if (length_ - pos < Traits::kMinPackBytes) break;
        ClosePack(pos);
        StartPack(pos);
        pos = std::min<size_t>(pos + traits_.PackHeaderLength(at), length_);
        continue;
      }
      const uint32_t whole = 6u + Be16(at + 4);
      if (whole == 6 || whole > length_ - pos) break;
      Packet(at, whole);
      pos += whole;
    }
    if (final_pack && open_ && !own_data_) {
      record_.pack_length = length_ - record_.pack_offset;
      list_->PushFront(record_);
    }
    return static_cast<uint32_t>(std::min<size_t>(pos, length_));
  }

 private:
  void ClosePack(size_t next_start) {
    if (open_ && !own_data_) {
      record_.pack_length = static_cast<uint32_t>(next_start - record_.pack_offset);
      list_->PushFront(record_);
    }
  }

  void StartPack(size_t pos) {
    const uint8_t* at = buffer_ + pos;
    record_ = MpegPackRecord();
    record_.pack_start = at;
    record_.pack_offset = static_cast<uint32_t>(pos);
    traits_.ReadClock(at, &record_.scr_base, &record_.scr_ext);
    open_ = true;
    own_data_ = false;
  }

  void Packet(const uint8_t* at, uint32_t whole) {
    const uint8_t id = at[3];
    if (IsOwnDataStream(id)) {
      own_data_ = true;
    } else if (traits_.analysis() == 0) {
      return;
    } else if (IsVideoStream(id)) {
      Video(at, whole);
    } else if (IsAudioStream(id) || id == kPrivateStream1) {
      record_.has_audio = 1;
      if (Traits::kAudioClearsVideo) {
        record_.has_video = 0;
        record_.has_i_picture = 0;
      }
    }
  }

  void Video(const uint8_t* at, uint32_t whole) {
    const PesHeader h = traits_.ParsePes(at, whole);
    int64_t& first = traits_.first_time_stamp();
    if (first == MpegPackCheck::kNoTimeStamp && h.has_pts) first = static_cast<int64_t>(h.pts);
    record_.video_time = h.has_pts ? TicksToVideoTime(traits_.time_base(), first, h.pts) : -1;
    record_.has_video = 1;
    record_.has_time_stamp = h.has_pts ? 1 : 0;
    if (h.valid && HoldsIntraPicture(at + h.payload_offset, whole - h.payload_offset)) {
      record_.has_i_picture = 1;
    }
  }

  Traits& traits_;
  const uint8_t* buffer_;
  const size_t length_;
  MpegPackList* list_;
  MpegPackRecord record_;
  bool open_ = false;
  bool own_data_ = false;
};

}  // namespace marquel::ps
