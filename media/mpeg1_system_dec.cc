// The MPEG-1 system-stream decoder: fixed 12-byte pack headers and MPEG-1 packet headers
// (stuffing, STD buffer, time stamps).
#include <algorithm>
#include <cstring>

#include "media/mpeg_system_dec.h"
#include "mpeg_ps_syntax.h"

namespace marquel {
namespace {

// Longest MPEG-1 packet header that the parser needs to see: start code, length, 16
// stuffing bytes, STD buffer, PTS and DTS; longer stuffing is invalid anyway.
constexpr uint32_t kMaxPacketHeader = 6 + 16 + 2 + 10;

}  // namespace

MPEG1SystemDec_c::MPEG1SystemDec_c(int32_t ring_capacity)
    : CMpegMuxDec("M1SAna.txt", ring_capacity) {}

// The 8 bytes after the start code: clock (5 bytes with markers) and mux rate.
int32_t MPEG1SystemDec_c::PackHeader() {
  const uint8_t* p = Data();
  if (Held() < 8) return 0;
  if ((p[0] & 0xF0) != 0x20) {
    error_ = 1;
    Print("Error not MPEG1 Pack\n");
    return 1;
  }
  const uint64_t base = ps::DecodeTimeStamp(p);
  const uint32_t mux_rate = (uint32_t{p[5]} & 0x7F) << 15 | uint32_t{p[6]} << 7 | p[7] >> 1;
  ++pack_count_;
  Print("PACK %d, SCR %ld, MuxRate %d\n", static_cast<int>(pack_count_), static_cast<long>(base),
        static_cast<int>(mux_rate));
  KeepPackClock(base, 0, mux_rate);
  Consume(8);
  return 1;
}

int32_t MPEG1SystemDec_c::SystemHeader() {
  return ReadSystemHeader(true);
}

int32_t MPEG1SystemDec_c::Packet(uint32_t code) {
  const uint8_t id = static_cast<uint8_t>(code & 0xFF);
  const uint8_t* p = Data();
  const int32_t held = Held();
  if (held < 2) return 0;
  const uint32_t length = ps::Be16(p);
  if (static_cast<uint32_t>(held) < 2 + length) return 0;
  const uint32_t whole = 6 + length;
  ++packet_count_;
  Print("  PACKET: %d, ", static_cast<int>(packet_count_));
  if (id == ps::kPrivateStream2) {  // the only stream without the header fields
    Print("Other Types, Size %d\n", static_cast<int>(length));
    DeliverPayload(id, p + 2, length);
    Consume(static_cast<int32_t>(2 + length));
    return 1;
  }
  // Padding is skipped whatever it holds (0x0F then 0xFF bytes, or only 0xFF).
  if (id == ps::kPaddingStream) {
    Print("PADDING, Size %d\n", static_cast<int>(length));
    Consume(static_cast<int32_t>(2 + length));
    return 1;
  }
  uint8_t header[kMaxPacketHeader];
  const uint32_t header_bytes = std::min(whole, kMaxPacketHeader);
  header[0] = 0x00;
  header[1] = 0x00;
  header[2] = 0x01;
  header[3] = id;
  std::memcpy(header + 4, p, header_bytes - 4);
  const ps::PesHeader h = ps::ParseMpeg1PesHeader(header, header_bytes);
  if (!h.valid) {
    error_ = 1;
    Print("Error Packet Header!!!\n");
    Consume(static_cast<int32_t>(2 + length));
    return 1;
  }
  const uint8_t* payload = p + (h.payload_offset - 4);
  const uint32_t size = whole - h.payload_offset;
  const bool video = ps::IsVideoStream(id);
  if (h.has_pts && (video || ps::IsAudioStream(id) || id == ps::kPrivateStream1)) {
    PrintTimeStamps(video, h.pts, h.has_dts, h.dts);
  }
  DeliverPayload(id, payload, size);
  PrintPayloadLine(id, payload, size);
  Consume(static_cast<int32_t>(2 + length));
  return 1;
}

void MPEG1SystemDec_c::EndCode() {
  end_of_stream_ = 1;
  Print("End of MPEG1 %d\n", static_cast<int>(pack_count_));
}

}  // namespace marquel
