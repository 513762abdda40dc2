// Test helpers: synthesized MPEG-1 / MPEG-2 program-stream bytes, and access to the
// ffmpeg-made test media.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace marquel::pstest {

using Bytes = std::vector<uint8_t>;

// Folder of the ffmpeg-made media: $MARQUEL_TEST_MEDIA_DIR, else the build's folder.
inline std::string MediaPath(const std::string& name) {
  const char* env = std::getenv("MARQUEL_TEST_MEDIA_DIR");
  std::string dir = env != nullptr && *env != '\0' ? env : MARQUEL_TEST_MEDIA_DIR;
  return dir + "/" + name;
}

inline Bytes ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteAll(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

inline void Append(Bytes* out, const Bytes& more) {
  out->insert(out->end(), more.begin(), more.end());
}

// 5-byte time stamp with marker bits; `prefix` is the 4-bit code (0010 PTS, 0011 PTS of
// a PTS+DTS pair, 0001 DTS, 0010 for an MPEG-1 SCR).
inline Bytes TimeStamp(uint8_t prefix, uint64_t t) {
  return {static_cast<uint8_t>(prefix << 4 | (t >> 29 & 0x0E) | 1), static_cast<uint8_t>(t >> 22),
          static_cast<uint8_t>((t >> 14 & 0xFE) | 1), static_cast<uint8_t>(t >> 7),
          static_cast<uint8_t>((t << 1 & 0xFE) | 1)};
}

// MPEG-2 pack header (14 bytes + stuffing 0xFF bytes).
inline Bytes Mpeg2Pack(uint64_t base, uint32_t ext, uint32_t mux_rate, int stuffing = 0) {
  Bytes b = {0x00, 0x00, 0x01, 0xBA};
  b.push_back(static_cast<uint8_t>(0x44 | (base >> 27 & 0x38) | (base >> 28 & 0x03)));
  b.push_back(static_cast<uint8_t>(base >> 20));
  b.push_back(static_cast<uint8_t>((base >> 12 & 0xF8) | 0x04 | (base >> 13 & 0x03)));
  b.push_back(static_cast<uint8_t>(base >> 5));
  b.push_back(static_cast<uint8_t>((base << 3 & 0xF8) | 0x04 | (ext >> 7 & 0x03)));
  b.push_back(static_cast<uint8_t>((ext << 1 & 0xFE) | 1));
  b.push_back(static_cast<uint8_t>(mux_rate >> 14));
  b.push_back(static_cast<uint8_t>(mux_rate >> 6));
  b.push_back(static_cast<uint8_t>((mux_rate << 2 & 0xFC) | 0x03));
  b.push_back(static_cast<uint8_t>(0xF8 | stuffing));
  for (int i = 0; i < stuffing; ++i) b.push_back(0xFF);
  return b;
}

// MPEG-1 pack header (12 bytes).
inline Bytes Mpeg1Pack(uint64_t scr, uint32_t mux_rate) {
  Bytes b = {0x00, 0x00, 0x01, 0xBA};
  Append(&b, TimeStamp(0x2, scr));
  b.push_back(static_cast<uint8_t>(0x80 | (mux_rate >> 15 & 0x7F)));
  b.push_back(static_cast<uint8_t>(mux_rate >> 7));
  b.push_back(static_cast<uint8_t>((mux_rate << 1 & 0xFE) | 1));
  return b;
}

// MPEG-2 PES packet with an optional PTS (pts < 0: none) and `stuffing` header bytes.
inline Bytes Pes2(uint8_t id, int64_t pts, const Bytes& payload, int stuffing = 0) {
  Bytes header = {0x81, static_cast<uint8_t>(pts >= 0 ? 0x80 : 0x00)};
  Bytes data;
  if (pts >= 0) data = TimeStamp(0x2, static_cast<uint64_t>(pts));
  for (int i = 0; i < stuffing; ++i) data.push_back(0xFF);
  header.push_back(static_cast<uint8_t>(data.size()));
  Append(&header, data);
  const size_t length = header.size() + payload.size();
  Bytes b = {0x00, 0x00, 0x01, id, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
  Append(&b, header);
  Append(&b, payload);
  return b;
}

// MPEG-1 packet with an optional PTS and an STD buffer field.
inline Bytes Pes1(uint8_t id, int64_t pts, const Bytes& payload, int stuffing = 0) {
  Bytes header(static_cast<size_t>(stuffing), 0xFF);
  header.push_back(0x60);  // '01', scale 1, size high bits
  header.push_back(0x2E);
  if (pts >= 0) {
    Append(&header, TimeStamp(0x2, static_cast<uint64_t>(pts)));
  } else {
    header.push_back(0x0F);
  }
  const size_t length = header.size() + payload.size();
  Bytes b = {0x00, 0x00, 0x01, id, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
  Append(&b, header);
  Append(&b, payload);
  return b;
}

// A packet without header fields (padding, private stream 2): start code, length, bytes.
inline Bytes RawPacket(uint8_t id, const Bytes& payload) {
  Bytes b = {0x00,
             0x00,
             0x01,
             id,
             static_cast<uint8_t>(payload.size() >> 8),
             static_cast<uint8_t>(payload.size())};
  Append(&b, payload);
  return b;
}

// A sequence header start code with its size/rate word.
inline Bytes SequenceHeader(uint32_t width, uint32_t height, uint32_t rate_code) {
  const uint32_t word = width << 20 | height << 8 | 0x30 | rate_code;  // aspect 3
  return {0x00,
          0x00,
          0x01,
          0xB3,
          static_cast<uint8_t>(word >> 24),
          static_cast<uint8_t>(word >> 16),
          static_cast<uint8_t>(word >> 8),
          static_cast<uint8_t>(word),
          0x12,
          0x34,
          0x56,
          0x78};
}

// A picture start code with the given coding type (1 I, 2 P, 3 B).
inline Bytes PictureHeader(int coding_type) {
  return {0x00, 0x00, 0x01, 0x00, 0x00, static_cast<uint8_t>(coding_type << 3), 0xFF, 0xF8};
}

// Pads `b` with 0xAA bytes (never part of a start code) up to `size`.
inline void PadTo(Bytes* b, size_t size) {
  if (b->size() < size) b->resize(size, 0xAA);
}

}  // namespace marquel::pstest
