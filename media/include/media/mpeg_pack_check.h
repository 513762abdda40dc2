// Pack checkers: cut a buffer of MPEG-1 system stream or MPEG-2 program stream bytes
// into packs and describe each pack (clock, position, what it carries).
//
// The in-place interleave uses the list to decide where the server's own data packs go
// and to line their clocks up with the stream. Packs that carry the server's own data
// (stream id 0xFA or 0xFF) are passed over but never recorded.
//
// Clock values are 90 kHz ticks; video times are in 100-nanosecond units
// (ticks * 1000 / 9, rounded toward zero). Nothing here reads outside the given buffer,
// whatever its content, and nothing throws.
#pragma once

#include <cstdint>
#include <vector>

namespace marquel {

// One pack found by a checker. Records live on the heap in an MpegPackList.
struct MpegPackRecord {
  uint64_t scr_base = 0;                // 33-bit system clock reference base (90 kHz)
  uint32_t scr_ext = 0;                 // 0..299; always 0 for MPEG-1
  int64_t video_time = -1;              // time of the pack's last video packet (100 ns), -1: no PTS
  const uint8_t* pack_start = nullptr;  // into the caller's buffer
  uint32_t pack_length = 0;             // bytes up to the next pack start (or the buffer's end)
  uint8_t has_video = 0;                // a video packet (0xE0-0xEF) was seen
  uint8_t has_audio = 0;                // an audio (0xC0-0xDF) or private stream 1 (0xBD) packet
  uint8_t has_time_stamp = 0;           // the last video packet carried a PTS
  uint8_t has_i_picture = 0;            // a video payload held an I-picture header
  uint32_t pack_offset = 0;             // pack_start - buffer start
  MpegPackRecord* next = nullptr;
};

// A singly linked list of pack records with a count. New records go to the front, so
// the head is the pack found last. The list owns its records and frees them.
class MpegPackList {
 public:
  MpegPackList() = default;
  ~MpegPackList() { Clear(); }
  MpegPackList(const MpegPackList&) = delete;
  MpegPackList& operator=(const MpegPackList&) = delete;

  // Puts a copy of `record` at the front. Returns false when memory runs out.
  bool PushFront(const MpegPackRecord& record);
  // Frees every record.
  void Clear();

  const MpegPackRecord* head() const { return head_; }
  uint32_t count() const { return count_; }
  // The records in the order the packs appear in the stream (oldest first).
  std::vector<const MpegPackRecord*> InStreamOrder() const;

 private:
  MpegPackRecord* head_ = nullptr;
  uint32_t count_ = 0;
};

// The checker family. A checker keeps clock state across Check() calls, so one stream is
// fed through one checker from its start.
class MpegPackCheck {
 public:
  // analysis 0: look only at pack headers and at the server's own data packets;
  // otherwise also look inside video and audio packets (time stamps, pictures).
  explicit MpegPackCheck(int32_t analysis) : analysis_(analysis) {}
  virtual ~MpegPackCheck() = default;

  // Cuts buffer[0, length) into packs and pushes a record for every complete pack that
  // does not carry the server's own data. With `final_pack` the pack that runs to the
  // end of the buffer is recorded too. Returns the bytes consumed: length minus what
  // was left unexamined (the scan stops with 16 bytes or fewer left, at an unreadable
  // packet, or at a packet length of 0 or beyond the buffer).
  virtual uint32_t Check(const uint8_t* buffer, uint32_t length, MpegPackList* list,
                         bool final_pack) = 0;

  int32_t analysis() const { return analysis_; }
  int64_t time_base() const { return time_base_; }
  uint64_t previous_clock() const { return previous_clock_; }
  // The PTS of the first video packet of the current clock epoch, kNoTimeStamp if none.
  int64_t first_time_stamp() const { return first_time_stamp_; }

  static constexpr int64_t kNoTimeStamp = -1;  // all bits set

 protected:
  int32_t analysis_;
  int64_t time_base_ = 0;        // 90 kHz time of the earlier clock epochs
  uint64_t previous_clock_ = 0;  // last full clock: base * 300 + extension
  int64_t first_time_stamp_ = kNoTimeStamp;
};

// MPEG-1 system streams: 12-byte pack headers, no clock epochs, and audio packets leave
// the video flags of their pack alone.
class Mpeg1PackCheck : public MpegPackCheck {
 public:
  explicit Mpeg1PackCheck(int32_t analysis = 1) : MpegPackCheck(analysis) {}
  uint32_t Check(const uint8_t* buffer, uint32_t length, MpegPackList* list,
                 bool final_pack) override;

 private:
  struct ScanTraits;
};

// MPEG-2 program streams: 14-byte pack headers plus stuffing, clock epochs (a clock that
// goes back starts a new epoch whose times continue from the old one), and an audio
// packet clears the video flags of its pack, so that a pack whose last media packet is
// audio does not count as a video pack.
class Mpeg2PackCheck : public MpegPackCheck {
 public:
  explicit Mpeg2PackCheck(int32_t analysis = 1) : MpegPackCheck(analysis) {}
  uint32_t Check(const uint8_t* buffer, uint32_t length, MpegPackList* list,
                 bool final_pack) override;

 private:
  struct ScanTraits;
};

}  // namespace marquel
