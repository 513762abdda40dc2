// System decoders: follow an MPEG-1 system stream or MPEG-2 program stream fed in pieces
// of any size (packs, system headers, packets), keep the greatest system clock and the
// latest mux rate, hand out the payload of one chosen stream, and optionally write a
// readable analysis of the stream ("M1SAna.txt" / "M2SAna.txt").
//
// Use: Reset(), then Feed() with successive reads of the file, then GetLastClock() and
// GetMuxRate(). To read the server's own data back, SelectStream(0xFA) before feeding and
// call TakePayload() after each Feed().
//
// Bad input never stops a decoder: bytes that do not start a known structure are passed
// over, impossible headers set the error flag and are skipped, and a structure that is
// cut off waits for the next Feed(). Nothing reads outside the data held, nothing throws.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media/stream_ring.h"

namespace marquel {

// The decoder family. The virtual operations are declared in slot order.
class CMpegMuxDec {
 public:
  static constexpr uint32_t kNoStartCode = 0xFFFFFFFFu;
  static constexpr int32_t kNoStream = -1;

  // ring_capacity: initial capacity of the input ring (0 gives 16); the ring grows to
  // hold the largest structure still incomplete plus one fed piece.
  CMpegMuxDec(const char* analysis_file_name, int32_t ring_capacity);
  virtual ~CMpegMuxDec();  // slot 0
  CMpegMuxDec(const CMpegMuxDec&) = delete;
  CMpegMuxDec& operator=(const CMpegMuxDec&) = delete;

  // Slot 1: clears clocks, counters, flags and the payload of the chosen stream, and makes
  // a new input ring. The analysis switch and the chosen stream id are kept.
  virtual void Reset();
  // Slot 2: analysis on (non-zero) or off. Lines go to the decoder's analysis file in
  // `folder` ("" for the current folder).
  virtual void SetAnalysis(int32_t on, const std::string& folder);
  // Slot 3: appends `size` bytes and parses as far as they allow. Returns 1, or 0 when
  // memory for the ring cannot be had (the bytes are then dropped).
  virtual int32_t Feed(const uint8_t* data, int32_t size);
  // Slot 4: the pack header whose start code was just consumed. 1 when done, 0 when more
  // data is needed (the caller then restores the start code).
  virtual int32_t PackHeader() = 0;
  // Slot 5: chooses the stream whose packet payload is collected (kNoStream: none).
  virtual void SelectStream(int32_t stream_id);
  // Slot 6: moves up to `max` collected payload bytes to `out`; returns the count.
  virtual int32_t TakePayload(uint8_t* out, int32_t max);
  // Slot 7: collected payload bytes waiting to be taken.
  virtual int32_t PayloadCount() const;
  // Slot 8: whether an impossible pack, system header or packet header was met.
  virtual int32_t HasError() const { return error_; }
  // Slot 9: passes over bytes up to the next 00 00 01 BA, B9, BB or BC..FF (one analysis
  // line "Skipping... Something wrong!" per byte), consumes those 4 bytes and returns the
  // code (0x000001xx); kNoStartCode when fewer than 4 bytes are left to look at.
  virtual uint32_t NextStartCode();
  // Slot 10: the system header whose start code was just consumed; as PackHeader().
  virtual int32_t SystemHeader() = 0;
  // Slot 11: the packet whose start code (0x000001BC..FF) was just consumed; as
  // PackHeader().
  virtual int32_t Packet(uint32_t code) = 0;
  // Slot 12: appends formatted text to the analysis file when the analysis is on.
  virtual void Print(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Slot 13: one packet's elementary-stream payload: byte counts per stream and, for
  // AC-3 in private stream 1, the byte rate from the frame header.
  virtual void ElementaryStep(uint8_t stream_id, const uint8_t* payload, uint32_t size);
  // Slots 14, 15: packs and packets read so far.
  virtual int64_t PackCount() const { return pack_count_; }
  virtual int64_t PacketCount() const { return packet_count_; }
  // Slot 16: base and extension of the pack with the greatest full clock so far
  // (base * 300 + extension); 0 and 0 before any pack.
  virtual void GetLastClock(uint64_t* base, uint32_t* ext) const;
  // Slot 17: mux rate (units of 50 bytes/s) of the latest pack header.
  virtual uint32_t GetMuxRate() const { return mux_rate_; }
  // Slot 18: whether an end code (00 00 01 B9) was read since the last Reset().
  virtual int32_t IsEndOfStream() const { return end_of_stream_; }

  // Payload bytes seen per stream id; for private stream 1, per sub-stream byte (the
  // first payload byte, e.g. 0x80 for the first AC-3 stream).
  uint64_t StreamBytes(uint8_t stream_id) const { return stream_bytes_[stream_id]; }
  uint64_t PrivateSubStreamBytes(uint8_t sub_stream) const { return sub_bytes_[sub_stream]; }
  // Byte rate of AC-3 sub-stream `number` (0..8) of private stream 1, from its first
  // frame header; 0 when none was seen.
  int32_t Ac3ByteRate(int32_t number) const;

 protected:
  // The end code was read: sets the flag and writes the variant's closing line.
  virtual void EndCode() = 0;

  // Parsing helpers for the derived classes. The held bytes are contiguous at Data().
  const uint8_t* Data() const { return ring_->ReadPointer(); }
  int32_t Held() const { return ring_->Count(); }
  void Consume(int32_t n) { ring_->Skip(n); }
  bool analysis_on() const { return analysis_ != 0; }
  // Keeps the clock when it is the greatest so far, and the mux rate.
  void KeepPackClock(uint64_t base, uint32_t ext, uint32_t mux_rate);
  // Shared packet work after the header: counters, collection, elementary step.
  void DeliverPayload(uint8_t stream_id, const uint8_t* payload, uint32_t size);
  // Appends text to the analysis file (no formatting).
  void WriteAnalysis(const std::string& text);
  // Time-stamp line of a video or audio packet, with the difference to the previous one.
  void PrintTimeStamps(bool video, uint64_t pts, bool has_dts, uint64_t dts);
  // "Video ID" / "Audio ID" / "Other Types" line of a packet's payload.
  void PrintPayloadLine(uint8_t stream_id, const uint8_t* payload, uint32_t size);
  // The system header after its start code (same syntax in both variants); the MPEG-1
  // form names the stream id "m_nStreamID" in its lines. Returns as SystemHeader().
  int32_t ReadSystemHeader(bool mpeg1_names);

  int32_t error_ = 0;
  int32_t end_of_stream_ = 0;
  int64_t pack_count_ = 0;
  int64_t packet_count_ = 0;
  int64_t system_header_count_ = 0;

 private:
  bool MakeRing(int32_t capacity);
  bool MakeRoom(int32_t incoming);
  void Parse();
  int32_t Dispatch(uint32_t code);

  const char* analysis_file_name_;
  int32_t initial_capacity_;
  std::unique_ptr<StreamRing> ring_;
  const uint8_t* ring_base_ = nullptr;  // the ring's array (read index 0)
  int32_t analysis_ = 0;
  std::string analysis_folder_;
  uint64_t last_scr_base_ = 0;
  uint32_t last_scr_ext_ = 0;
  uint32_t mux_rate_ = 0;
  int32_t selected_stream_ = kNoStream;
  std::vector<uint8_t> payload_;
  size_t payload_read_ = 0;
  uint64_t previous_video_pts_ = 0;
  uint64_t previous_audio_pts_ = 0;
  std::array<uint64_t, 256> stream_bytes_{};
  std::array<uint64_t, 256> sub_bytes_{};
  std::array<int32_t, 9> ac3_byte_rate_{};
};

// MPEG-1 system streams (format codes 1 and 3); analysis file "M1SAna.txt".
class MPEG1SystemDec_c : public CMpegMuxDec {
 public:
  explicit MPEG1SystemDec_c(int32_t ring_capacity = 0);
  int32_t PackHeader() override;
  int32_t SystemHeader() override;
  int32_t Packet(uint32_t code) override;

 protected:
  void EndCode() override;
};

// MPEG-2 program streams (format codes 2 and 4); analysis file "M2SAna.txt".
class MPEG2SystemDec_c : public CMpegMuxDec {
 public:
  explicit MPEG2SystemDec_c(int32_t ring_capacity = 0);
  int32_t PackHeader() override;
  int32_t SystemHeader() override;
  int32_t Packet(uint32_t code) override;

 protected:
  void EndCode() override;
};

}  // namespace marquel
