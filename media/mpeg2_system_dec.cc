// The MPEG-2 program-stream decoder: pack headers with stuffing, system headers and PES
// packets with the MPEG-2 header extension.
#include <algorithm>
#include <cstring>

#include "media/mpeg_system_dec.h"
#include "mpeg_ps_syntax.h"

namespace marquel {
namespace {

// Longest PES header: start code, length, two flag bytes, header length, 255 bytes.
constexpr uint32_t kMaxPesHeader = 9 + 255;

}  // namespace

MPEG2SystemDec_c::MPEG2SystemDec_c(int32_t ring_capacity)
    : CMpegMuxDec("M2SAna.txt", ring_capacity) {}

// The 10 bytes after the start code, then the stuffing they announce.
int32_t MPEG2SystemDec_c::PackHeader() {
  const uint8_t* p = Data();
  const int32_t held = Held();
  if (held < 10) return 0;
  const int32_t stuffing = p[9] & 7;
  if (held < 10 + stuffing) return 0;
  if ((p[0] & 0xC0) != 0x40) {
    // Not an MPEG-2 pack header: its fields mean something else, so its clock is not
    // kept; the search for the next start code goes on after the start code.
    error_ = 1;
    Print("Error not MPEG2 Pack\n");
    return 1;
  }
  uint8_t header[14] = {0x00, 0x00, 0x01, ps::kPackCode};
  std::memcpy(header + 4, p, 10);
  const uint64_t base = ps::Mpeg2ScrBase(header);
  const uint32_t ext = ps::Mpeg2ScrExt(header);
  const uint32_t mux_rate = ps::Mpeg2MuxRate(header);
  ++pack_count_;
  Print("PACK %d, SCR_base %ld, SCR_ext %ld, MuxRate %d, Staff %d\n", static_cast<int>(pack_count_),
        static_cast<long>(base), static_cast<long>(ext), static_cast<int>(mux_rate), stuffing);
  KeepPackClock(base, ext, mux_rate);
  Consume(10 + stuffing);
  return 1;
}

int32_t MPEG2SystemDec_c::SystemHeader() {
  return ReadSystemHeader(false);
}

int32_t MPEG2SystemDec_c::Packet(uint32_t code) {
  const uint8_t id = static_cast<uint8_t>(code & 0xFF);
  const uint8_t* p = Data();
  const int32_t held = Held();
  if (held < 2) return 0;
  const uint32_t length = ps::Be16(p);
  if (static_cast<uint32_t>(held) < 2 + length) return 0;
  const uint32_t whole = 6 + length;
  ++packet_count_;
  Print("  PACKET: %d, ", static_cast<int>(packet_count_));
  if (ps::HasNoPesExtension(id)) {
    if (id == ps::kPaddingStream) {
      Print("    PADDING, Size: %d\n", static_cast<int>(length));
    } else {
      Print("Other Types, Size %d\n", static_cast<int>(length));
    }
    DeliverPayload(id, p + 2, length);
    Consume(static_cast<int32_t>(2 + length));
    return 1;
  }
  // The header is parsed from a copy that starts with the start code, so that offsets
  // count as the syntax counts them.
  uint8_t header[kMaxPesHeader];
  const uint32_t header_bytes = std::min(whole, kMaxPesHeader);
  header[0] = 0x00;
  header[1] = 0x00;
  header[2] = 0x01;
  header[3] = id;
  std::memcpy(header + 4, p, header_bytes - 4);
  ps::PesHeader h = ps::ParseMpeg2PesHeader(header, header_bytes);
  if (!h.valid) {
    error_ = 1;
    Print("Error Packet Header!!!\n");
    Consume(static_cast<int32_t>(2 + length));
    return 1;
  }
  Print(
      "Scramble %d, Priority %d, Alignment %d, Copyright %d, ORIGorCOPY %d, PTS_DTS %d, "
      "ESCR %d, ESrate %d, DSMtrick %d, CopyInfo %d, PES_CRC %d, PESextension %d, "
      "PESHeaderDataLength %d",
      h.scrambling, h.priority, h.alignment, h.copyright, h.original, h.pts_dts_flags, h.escr_flag,
      h.es_rate_flag, h.dsm_trick_flag, h.copy_info_flag, h.crc_flag, h.extension_flag,
      h.header_data_length);
  if (h.escr_flag) {
    Print("\n    ESCRbase %ld, ESCRext %ld, ", static_cast<long>(h.escr_base),
          static_cast<long>(h.escr_ext));
  }
  if (h.es_rate_flag) Print("\n    ESrate %ld, ", static_cast<long>(h.es_rate));
  if (h.dsm_trick_flag || h.copy_info_flag || h.crc_flag || h.extension_flag) {
    Print("\n    NOT FINISHED YET ");
  }
  const bool video = ps::IsVideoStream(id);
  if (h.has_pts && (video || ps::IsAudioStream(id) || id == ps::kPrivateStream1)) {
    PrintTimeStamps(video, h.pts, h.has_dts, h.dts);
  }
  const uint8_t* payload = p + (h.payload_offset - 4);
  const uint32_t size = whole - h.payload_offset;
  DeliverPayload(id, payload, size);
  PrintPayloadLine(id, payload, size);
  Consume(static_cast<int32_t>(2 + length));
  return 1;
}

void MPEG2SystemDec_c::EndCode() {
  end_of_stream_ = 1;
  Print("End of MPEG2\n");
}

}  // namespace marquel
