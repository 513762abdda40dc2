#include "mpeg_ps_syntax.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace marquel::ps {

namespace {

inline bool PrefixAt(const uint8_t* data, size_t p) {
  return data[p] == 0 && data[p + 1] == 0 && data[p + 2] == 1;
}

}  // namespace

// A prefix needs two zero bytes in a row followed by 01, which compressed media rarely
// holds: 32 bytes are tested at a time (SSE2, part of every x86-64); the tail, and other
// machines, go byte by byte.
size_t FindStartCodePrefix(const uint8_t* data, size_t from, size_t end) {
  size_t p = from;
#if defined(__SSE2__)
  const __m128i zero = _mm_setzero_si128();
  const __m128i one = _mm_set1_epi8(1);
  for (; p + 32 <= end; p += 32) {
    const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + p));
    const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + p + 16));
    const uint32_t zeros = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(lo, zero))) |
                           static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(hi, zero))) << 16;
    if (zeros == 0) continue;
    const uint32_t ones = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(lo, one))) |
                          static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(hi, one))) << 16;
    // Positions 0..29 of the block, decided within it, in stream order.
    const uint32_t found = zeros & (zeros >> 1) & (ones >> 2);
    if (found != 0) return p + static_cast<size_t>(__builtin_ctz(found));
    // Positions 30 and 31 reach into the next block (p + 32 <= end, so p + 33 < end + 2).
    if ((zeros >> 30) == 3 && data[p + 32] == 1) return p + 30;
    if ((zeros >> 31) != 0 && data[p + 32] == 0 && data[p + 33] == 1) return p + 31;
  }
#endif
  for (; p < end; ++p) {
    if (PrefixAt(data, p)) return p;
  }
  return end;
}

PesHeader ParseMpeg2PesHeader(const uint8_t* packet, uint32_t size) {
  PesHeader h;
  if (size < 9 || (packet[6] & 0xC0) != 0x80) return h;
  const uint8_t b6 = packet[6];
  const uint8_t b7 = packet[7];
  h.scrambling = b6 >> 4 & 3;
  h.priority = b6 >> 3 & 1;
  h.alignment = b6 >> 2 & 1;
  h.copyright = b6 >> 1 & 1;
  h.original = b6 & 1;
  h.pts_dts_flags = b7 >> 6;
  h.escr_flag = b7 >> 5 & 1;
  h.es_rate_flag = b7 >> 4 & 1;
  h.dsm_trick_flag = b7 >> 3 & 1;
  h.copy_info_flag = b7 >> 2 & 1;
  h.crc_flag = b7 >> 1 & 1;
  h.extension_flag = b7 & 1;
  h.header_data_length = packet[8];
  const uint32_t end = 9u + h.header_data_length;
  if (end > size) return h;
  uint32_t at = 9;
  if (h.pts_dts_flags >= 2) {
    if (at + 5 > end) return h;
    h.has_pts = true;
    h.pts = DecodeTimeStamp(packet + at);
    at += 5;
    if (h.pts_dts_flags == 3) {
      if (at + 5 > end) return h;
      h.has_dts = true;
      h.dts = DecodeTimeStamp(packet + at);
      at += 5;
    }
  }
  if (h.escr_flag) {
    if (at + 6 > end) return h;
    const uint8_t* e = packet + at;
    h.escr_base = (uint64_t{e[0]} >> 3 & 7) << 30 | (uint64_t{e[0]} & 3) << 28 |
                  uint64_t{e[1]} << 20 | (uint64_t{e[2]} >> 3) << 15 | (uint64_t{e[2]} & 3) << 13 |
                  uint64_t{e[3]} << 5 | e[4] >> 3;
    h.escr_ext = (uint32_t{e[4]} & 3) << 7 | e[5] >> 1;
    at += 6;
  }
  if (h.es_rate_flag) {
    if (at + 3 > end) return h;
    const uint8_t* r = packet + at;
    h.es_rate = (uint32_t{r[0]} & 0x7F) << 15 | uint32_t{r[1]} << 7 | r[2] >> 1;
  }
  h.payload_offset = end;
  h.valid = true;
  return h;
}

PesHeader ParseMpeg1PesHeader(const uint8_t* packet, uint32_t size) {
  PesHeader h;
  uint32_t at = 6;
  while (at < size && packet[at] == 0xFF) ++at;  // stuffing
  if (at >= size) return h;
  if ((packet[at] & 0xC0) == 0x40) {
    if (at + 2 > size) return h;
    h.has_std_buffer = true;
    h.std_scale = packet[at] >> 5 & 1;
    h.std_size = static_cast<uint16_t>((packet[at] & 0x1F) << 8 | packet[at + 1]);
    at += 2;
    if (at >= size) return h;
  }
  const uint8_t kind = packet[at] & 0xF0;
  if (kind == 0x20 || kind == 0x30) {
    const uint32_t need = kind == 0x20 ? 5 : 10;
    if (at + need > size) return h;
    h.has_pts = true;
    h.pts = DecodeTimeStamp(packet + at);
    if (kind == 0x30) {
      h.has_dts = true;
      h.dts = DecodeTimeStamp(packet + at + 5);
    }
    h.pts_dts_flags = kind == 0x20 ? 2 : 3;
    at += need;
  } else if (packet[at] == 0x0F) {
    at += 1;
  } else {
    return h;
  }
  h.payload_offset = at;
  h.valid = true;
  return h;
}

bool HoldsIntraPicture(const uint8_t* payload, uint32_t size) {
  if (size < 6) return false;
  size_t at = 0;
  const size_t end = size - 2;  // a prefix needs its three bytes
  while ((at = FindStartCodePrefix(payload, at, end)) < end) {
    // The picture coding type sits in byte 5 after the prefix: 10 bits of temporal
    // reference, then 3 bits of type.
    if (at + 5 < size && payload[at + 3] == 0x00 && (payload[at + 5] >> 3 & 7) == 1) {
      return true;
    }
    ++at;
  }
  return false;
}

AudioSubStream PrivateStreamAudio(uint8_t first_payload_byte) {
  AudioSubStream s;
  if (first_payload_byte >= 0x80 && first_payload_byte <= 0x88) {
    s.kind = 1;
    s.number = first_payload_byte - 0x80;
  } else if (first_payload_byte >= 0xA0 && first_payload_byte <= 0xA8) {
    s.kind = 4;
    s.number = first_payload_byte - 0xA0;
  }
  return s;
}

}  // namespace marquel::ps
