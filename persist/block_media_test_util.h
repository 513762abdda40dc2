// Builders of small program-stream and transport-stream files that carry a data block
// the way the server's writers place it, for the block reader tests and fuzz seeds.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace marquel::mediatest {

using Bytes = std::vector<uint8_t>;

inline void Put16(Bytes& b, uint32_t v) {
  b.push_back(static_cast<uint8_t>(v >> 8));
  b.push_back(static_cast<uint8_t>(v));
}

// MPEG-2 pack header, clock 0, mux rate 25200, no stuffing (14 bytes).
inline void Mpeg2PackHeader(Bytes& b) {
  b.insert(b.end(),
           {0x00, 0x00, 0x01, 0xBA, 0x44, 0x00, 0x04, 0x00, 0x04, 0x01, 0x01, 0x89, 0xC3, 0xF8});
}

// MPEG-1 pack header, clock 0, mux rate 3528 (12 bytes).
inline void Mpeg1PackHeader(Bytes& b) {
  b.insert(b.end(), {0x00, 0x00, 0x01, 0xBA, 0x21, 0x00, 0x01, 0x00, 0x01, 0x80, 0x1B, 0x91});
}

// One MPEG-2 pack holding a packet of `stream_id` with `payload` (no time stamps).
inline void Mpeg2Pack(Bytes& out, uint8_t stream_id, const uint8_t* payload, size_t n) {
  Mpeg2PackHeader(out);
  out.insert(out.end(), {0x00, 0x00, 0x01, stream_id});
  Put16(out, static_cast<uint32_t>(n + 3));
  out.insert(out.end(), {0x81, 0x00, 0x00});
  out.insert(out.end(), payload, payload + n);
}

// One MPEG-1 pack holding a packet of `stream_id` with 9 stuffing bytes, the STD buffer
// field and no time stamps, as the server's MPEG-1 packs are made.
inline void Mpeg1Pack(Bytes& out, uint8_t stream_id, const uint8_t* payload, size_t n) {
  Mpeg1PackHeader(out);
  out.insert(out.end(), {0x00, 0x00, 0x01, stream_id});
  Put16(out, static_cast<uint32_t>(n + 12));
  out.insert(out.end(), 9, 0xFF);
  out.insert(out.end(), {0x60, 0x2E, 0x0F});
  out.insert(out.end(), payload, payload + n);
}

// A program stream: `lead` video packs, then the block's payload in 0xFA packs of
// `per_pack` bytes (2025 for MPEG-2, 2294 for MPEG-1), each followed now and then by a
// video pack. *start receives the offset of the first 0xFA pack.
inline Bytes ProgramStream(const Bytes& payload, bool mpeg1, int lead, size_t* start) {
  Bytes out;
  Bytes video(1500);
  for (size_t i = 0; i < video.size(); ++i) video[i] = static_cast<uint8_t>(i * 7);
  auto pack = [&](uint8_t id, const uint8_t* p, size_t n) {
    if (mpeg1)
      Mpeg1Pack(out, id, p, n);
    else
      Mpeg2Pack(out, id, p, n);
  };
  for (int i = 0; i < lead; ++i) pack(0xE0, video.data(), video.size());
  *start = out.size();
  size_t per_pack = mpeg1 ? 2294 : 2025;
  for (size_t at = 0, k = 0; at < payload.size(); at += per_pack, ++k) {
    pack(0xFA, payload.data() + at, std::min(per_pack, payload.size() - at));
    if (k % 3 == 1) pack(0xE0, video.data(), video.size());
  }
  return out;
}

// One transport unit of `packet_size` (188, 192 or 204): prefix of 0xFF bytes, then the
// packet with payload unit start set, payload only, and the given continuity counter.
inline void TsPacket(Bytes& out, int packet_size, uint32_t pid, uint8_t cc, const uint8_t* body,
                     size_t n) {
  out.insert(out.end(), static_cast<size_t>(packet_size - 188), 0xFF);
  out.push_back(0x47);
  out.push_back(static_cast<uint8_t>(0x40 | (pid >> 8)));
  out.push_back(static_cast<uint8_t>(pid));
  out.push_back(static_cast<uint8_t>(0x10 | (cc & 0x0F)));
  out.insert(out.end(), body, body + n);
  out.insert(out.end(), 184 - n, 0xFF);
}

// The block's payload as MQ packets on `pid` (pointer field 0, 183 payload bytes, the
// last padded with 0xFF), every other one followed by a packet of another PID.
inline void TsBlock(Bytes& out, int packet_size, uint32_t pid, const Bytes& payload) {
  Bytes other(184, 0x5A);
  uint8_t cc = 0;
  for (size_t at = 0; at < payload.size(); at += 183) {
    size_t n = std::min<size_t>(183, payload.size() - at);
    Bytes body(1 + n, 0x00);  // the pointer field, then the payload
    std::copy(payload.begin() + static_cast<ptrdiff_t>(at),
              payload.begin() + static_cast<ptrdiff_t>(at + n), body.begin() + 1);
    TsPacket(out, packet_size, pid, cc++, body.data(), body.size());
    if (cc % 2 == 0) TsPacket(out, packet_size, 0x100, cc, other.data(), other.size());
  }
}

}  // namespace marquel::mediatest
