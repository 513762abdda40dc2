// Byte-level syntax of MPEG-1 system streams and MPEG-2 program streams shared by the
// pack checkers and the system decoders: start-code search, clock fields and PES
// headers. Every function takes the bytes it may look at and never reads past them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marquel::ps {

constexpr uint8_t kPackCode = 0xBA;
constexpr uint8_t kSystemHeaderCode = 0xBB;
constexpr uint8_t kEndCode = 0xB9;
constexpr uint8_t kFirstPacketCode = 0xBC;
constexpr uint8_t kPrivateStream1 = 0xBD;
constexpr uint8_t kPaddingStream = 0xBE;
constexpr uint8_t kPrivateStream2 = 0xBF;
constexpr uint8_t kOwnDataStream = 0xFA;  // the server's own data packets
constexpr uint8_t kOwnMarkerStream = 0xFF;

inline uint16_t Be16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
inline uint32_t Be32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

inline bool IsVideoStream(uint8_t id) {
  return id >= 0xE0 && id <= 0xEF;
}
inline bool IsAudioStream(uint8_t id) {
  return id >= 0xC0 && id <= 0xDF;
}
inline bool IsOwnDataStream(uint8_t id) {
  return id == kOwnDataStream || id == kOwnMarkerStream;
}

// First position p in [from, end) with data[p..p+2] = 00 00 01, or end when none. The
// caller guarantees that end + 2 <= size.
size_t FindStartCodePrefix(const uint8_t* data, size_t from, size_t end);

// A 33-bit time stamp (PTS, DTS, MPEG-1 SCR) in the 5-byte marker-bit layout.
inline uint64_t DecodeTimeStamp(const uint8_t* p) {
  return (uint64_t{p[0]} >> 1 & 7) << 30 | uint64_t{p[1]} << 22 | (uint64_t{p[2]} >> 1) << 15 |
         uint64_t{p[3]} << 7 | p[4] >> 1;
}

// Clock of an MPEG-2 pack header; `p` points at its start code (needs 10 bytes).
inline uint64_t Mpeg2ScrBase(const uint8_t* p) {
  return (uint64_t{p[4]} >> 3 & 7) << 30 | (uint64_t{p[4]} & 3) << 28 | uint64_t{p[5]} << 20 |
         (uint64_t{p[6]} >> 3) << 15 | (uint64_t{p[6]} & 3) << 13 | uint64_t{p[7]} << 5 | p[8] >> 3;
}
inline uint32_t Mpeg2ScrExt(const uint8_t* p) {
  return (uint32_t{p[8]} & 3) << 7 | p[9] >> 1;
}
// Mux rate (units of 50 bytes/s) of an MPEG-2 pack header: bytes 10-12.
inline uint32_t Mpeg2MuxRate(const uint8_t* p) {
  return uint32_t{p[10]} << 14 | uint32_t{p[11]} << 6 | p[12] >> 2;
}
// Clock and mux rate of an MPEG-1 pack header (needs 12 bytes from the start code).
inline uint64_t Mpeg1ScrBase(const uint8_t* p) {
  return DecodeTimeStamp(p + 4);
}
inline uint32_t Mpeg1MuxRate(const uint8_t* p) {
  return (uint32_t{p[9]} & 0x7F) << 15 | uint32_t{p[10]} << 7 | p[11] >> 1;
}

// What a PES packet header says. Offsets count from the packet's start code.
struct PesHeader {
  bool valid = false;  // the header fits the packet and follows the syntax
  uint32_t payload_offset = 6;
  bool has_pts = false;
  bool has_dts = false;
  uint64_t pts = 0;
  uint64_t dts = 0;
  // MPEG-2 flag fields (zero for MPEG-1).
  uint8_t scrambling = 0, priority = 0, alignment = 0, copyright = 0, original = 0;
  uint8_t pts_dts_flags = 0, escr_flag = 0, es_rate_flag = 0, dsm_trick_flag = 0;
  uint8_t copy_info_flag = 0, crc_flag = 0, extension_flag = 0, header_data_length = 0;
  uint64_t escr_base = 0;
  uint32_t escr_ext = 0;
  uint32_t es_rate = 0;
  // MPEG-1 STD buffer fields.
  bool has_std_buffer = false;
  uint8_t std_scale = 0;
  uint16_t std_size = 0;
};

// Stream ids whose packets carry no PES header extension: bytes follow the length.
inline bool HasNoPesExtension(uint8_t id) {
  return id == 0xBC || id == kPaddingStream || id == kPrivateStream2 || id == 0xF0 || id == 0xF1 ||
         id == 0xF2 || id == 0xF8 || id == 0xFF;
}

// Parses the header of the PES packet `packet` of `size` bytes (start code included;
// size is the whole packet, 6 + its length field).
PesHeader ParseMpeg2PesHeader(const uint8_t* packet, uint32_t size);
PesHeader ParseMpeg1PesHeader(const uint8_t* packet, uint32_t size);

// True when payload[0, size) holds a picture start code (00 00 01 00) whose picture
// coding type is 1 (intra).
bool HoldsIntraPicture(const uint8_t* payload, uint32_t size);

// Audio sub-stream of a private stream 1 packet, from its first payload byte:
// 0x80-0x88 is number (value - 0x80) of kind 1 (AC-3); 0xA0-0xA8 is number
// (value - 0xA0) of kind 4 (linear PCM); anything else kind 0, number 0.
struct AudioSubStream {
  int32_t kind = 0;
  int32_t number = 0;
};
AudioSubStream PrivateStreamAudio(uint8_t first_payload_byte);

}  // namespace marquel::ps
