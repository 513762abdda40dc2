// MQPackMuxer: packs the server's data into whole program-stream packs of its own.
//
// The data travels as a private elementary stream (stream id 0xFA by the writers) in packs
// that match the medium: 2048 bytes for ordinary MPEG-2 and DVD streams, 2324 for Video
// CD and Super Video CD sectors. Every pack repeats one clock reference (SetClock), so
// that the packs sit quietly after the stream's last pack. Players skip the stream.
//
// Use: SetType, SetStreamId, Initialise, then Feed the payload; after each Feed take the
// finished packs (TakePack). At the end Flush, with or without the end record
// (media/mq_end_record.h), and take everything left (TakeOutput): the last packs are
// padded to the pack size, except the one MPEG-1 case noted at Flush.
//
// Memory is fixed at Initialise: a 512000-byte input buffer and the output buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "media/mq_end_record.h"

namespace marquel {

class MQPackMuxer {
 public:
  static constexpr size_t kInputBytes = 512000;
  static constexpr size_t kDefaultOutputBytes = 8000000;
  static constexpr int32_t kLargestPack = 2324;
  static constexpr uint32_t kDefaultMuxRate = 0x7FFFF;

  // Muxer types. 1 and 3: MPEG-1 packs of 2324 bytes; 6: MPEG-2 packs of 2324 bytes with
  // an STD buffer extension (Super Video CD); 2, 4, 5: MPEG-2 packs of 2048 bytes, 4 and
  // 5 with the fixed DVD mux rate.
  static constexpr int32_t kTypeMpeg1 = 1;
  static constexpr int32_t kTypeMpeg2 = 2;
  static constexpr int32_t kTypeVcd = 3;
  static constexpr int32_t kTypeDvd = 4;
  static constexpr int32_t kTypeDvdOther = 5;
  static constexpr int32_t kTypeSvcd = 6;

  // The muxer type for a format code (media/file_type.h): 1 for MPEG-1, 3 for VCD, 6 for
  // SVCD, 4 for VOB, 2 for every other code.
  static int32_t TypeForFormat(int32_t format);

  MQPackMuxer();

  // Sets the type and with it the sizes of the table above. An unknown type leaves the
  // sizes at 0, and such a muxer packs nothing. Returns whether the type is known.
  bool SetType(int32_t type);
  int32_t Type() const { return type_; }
  void SetStreamId(uint8_t id) { stream_id_ = id; }
  // The 22-bit mux rate (units of 50 bytes/s) of types 1, 2 and 3.
  void SetMuxRate(uint32_t rate) { mux_rate_ = rate & 0x3FFFFF; }
  // The clock reference every pack header carries: a 33-bit base and a 9-bit extension.
  void SetClock(uint64_t base, uint32_t extension);

  // Makes the buffers and empties them: output capacity `argument` / 8 bytes, or
  // kDefaultOutputBytes for 0; never below two of the largest packs nor above the default.
  // Returns 1, or 0 when a buffer cannot be had.
  int32_t Initialise(uint64_t argument);

  // Appends up to `count` payload bytes and packs every full packet's worth while the
  // output has room. Returns the bytes taken: fewer than `count` when the buffers are
  // full (take packs and feed the rest), 0 before Initialise or with no type.
  size_t Feed(const uint8_t* bytes, size_t count);

  // Copies one pack (PackSize() bytes) into `out`; returns PackSize(), or 0 when fewer
  // bytes are ready.
  int32_t TakePack(uint8_t* out);
  // Moves up to `max` finished bytes into `out`, pack boundaries or not; returns the count.
  size_t TakeOutput(uint8_t* out, size_t max);
  // Finished bytes waiting to be taken.
  size_t OutputCount() const { return out_end_ - out_begin_; }
  // Payload bytes waiting to be packed.
  size_t InputCount() const { return in_end_ - in_begin_; }

  // Packs what is left, padded to the pack size, and the end record when one is given (it
  // goes into the last pack when it fits there, else into a pack of its own). Needs room
  // for two packs in the output: returns 0 (and does nothing) without it, else 1.
  // MPEG-1 types: a last pack whose payload leaves exactly 16 bytes of room gets neither
  // extra stuffing nor a padding packet, so it is 6 bytes short of 2324. That pack is
  // always followed by the end record's own pack when a record is given.
  int32_t Flush(const MQEndRecord* record);

  int32_t PackSize() const { return pack_size_; }
  int32_t PayloadRoom() const { return payload_room_; }
  // Payload bytes of one full packet (2294, 2298 or 2025).
  int32_t FullPacketPayload() const { return full_payload_; }

 private:
  bool IsMpeg1() const { return type_ == kTypeMpeg1 || type_ == kTypeVcd; }
  bool OutputRoom(size_t bytes);
  void PutBits(uint64_t value, int bits);
  void PutBytes(const uint8_t* bytes, size_t n);
  void PutFill(size_t n);
  void WritePackHeader();
  void WritePacketHeader(int32_t payload, int32_t stuffing);
  void WritePadding(int32_t length);
  // One pack holding `n` waiting payload bytes: full (no stuffing) when n is a full packet.
  void EmitFullPack();
  void EmitLastPack(int32_t n);
  void FlushOnce(const MQEndRecord* record, bool* record_pending);

  int32_t type_ = 0;
  int32_t pack_size_ = 0;
  int32_t payload_room_ = 0;
  int32_t full_payload_ = 0;
  uint8_t stream_id_ = 0xFA;
  uint64_t clock_base_ = 0;
  uint32_t clock_ext_ = 0;
  uint32_t mux_rate_ = kDefaultMuxRate;

  std::vector<uint8_t> input_;
  size_t in_begin_ = 0;
  size_t in_end_ = 0;
  std::vector<uint8_t> output_;
  size_t out_begin_ = 0;
  size_t out_end_ = 0;
  // Bits of the output byte being written (pack and packet headers go bit by bit).
  uint32_t bit_acc_ = 0;
  int bit_count_ = 0;
};

}  // namespace marquel
