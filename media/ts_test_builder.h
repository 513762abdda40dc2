// Test-side builder of transport-stream bytes: PSI sections with their CRC, packets with
// and without adaptation fields, PES headers, and units of 188, 192 or 204 bytes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/crc32.h"

namespace marquel::test {

using Bytes = std::vector<uint8_t>;

constexpr int kTsPacket = 188;

inline void PutBe16(Bytes& b, uint32_t v) {
  b.push_back(static_cast<uint8_t>(v >> 8));
  b.push_back(static_cast<uint8_t>(v));
}

inline void PutBe32(Bytes& b, uint32_t v) {
  PutBe16(b, v >> 16);
  PutBe16(b, v & 0xFFFF);
}

// Sets section_length (bytes 1-2) to size - 3 and appends the MPEG-2 CRC_32.
inline Bytes FinishSection(Bytes s) {
  const uint32_t length = static_cast<uint32_t>(s.size() + 4 - 3);
  s[1] = static_cast<uint8_t>((s[1] & 0xF0) | ((length >> 8) & 0x0F));
  s[2] = static_cast<uint8_t>(length);
  PutBe32(s, marquel::Crc32Mpeg(s.data(), s.size()));
  return s;
}

struct PatEntry {
  uint32_t program_number;
  uint32_t pid;
};

// A PAT section (table id 0) with a correct CRC.
inline Bytes PatSection(const std::vector<PatEntry>& entries, uint32_t ts_id = 1) {
  Bytes s = {0x00, 0xB0, 0x00};
  PutBe16(s, ts_id);
  s.insert(s.end(), {0xC1, 0x00, 0x00});  // version 0, current, section 0 of 0
  for (const PatEntry& e : entries) {
    PutBe16(s, e.program_number);
    PutBe16(s, 0xE000 | e.pid);
  }
  return FinishSection(s);
}

struct PmtStream {
  uint8_t type;
  uint32_t pid;
  Bytes descriptors;
};

// A PMT section (table id 2) with a correct CRC.
inline Bytes PmtSection(uint32_t program_number, uint32_t pcr_pid,
                        const std::vector<PmtStream>& streams, const Bytes& program_info = {},
                        uint8_t table_id = 0x02) {
  Bytes s = {table_id, 0xB0, 0x00};
  PutBe16(s, program_number);
  s.insert(s.end(), {0xC1, 0x00, 0x00});
  PutBe16(s, 0xE000 | pcr_pid);
  PutBe16(s, 0xF000 | static_cast<uint32_t>(program_info.size()));
  s.insert(s.end(), program_info.begin(), program_info.end());
  for (const PmtStream& st : streams) {
    s.push_back(st.type);
    PutBe16(s, 0xE000 | st.pid);
    PutBe16(s, 0xF000 | static_cast<uint32_t>(st.descriptors.size()));
    s.insert(s.end(), st.descriptors.begin(), st.descriptors.end());
  }
  return FinishSection(s);
}

struct PacketSpec {
  uint32_t pid = 0;
  bool unit_start = false;
  uint8_t cc = 0;
  bool error = false;
  int control = -1;            // adaptation-field control; -1: chosen from the contents
  Bytes adaptation;            // adaptation field after its length byte (flags first)
  int adaptation_length = -1;  // length byte; -1: adaptation.size() plus stuffing
  Bytes payload;               // payload bytes; the rest of the packet is 0xFF
};

// One 188-byte packet. Without an explicit control the packet has an adaptation field
// when `adaptation` is set and a payload when `payload` is set.
inline Bytes Packet(const PacketSpec& spec) {
  Bytes p = {0x47};
  PutBe16(p, (spec.error ? 0x8000u : 0u) | (spec.unit_start ? 0x4000u : 0u) | (spec.pid & 0x1FFF));
  int control = spec.control;
  if (control < 0) control = (spec.adaptation.empty() ? 0 : 2) | (spec.payload.empty() ? 0 : 1);
  p.push_back(static_cast<uint8_t>((control << 4) | (spec.cc & 0x0F)));
  if (control & 2) {
    int length = spec.adaptation_length;
    if (length < 0) {
      // Stuff the field so that the payload ends the packet.
      length =
          (control & 1) ? kTsPacket - 5 - static_cast<int>(spec.payload.size()) : kTsPacket - 5;
      if (length < static_cast<int>(spec.adaptation.size())) {
        length = static_cast<int>(spec.adaptation.size());
      }
    }
    p.push_back(static_cast<uint8_t>(length));
    p.insert(p.end(), spec.adaptation.begin(), spec.adaptation.end());
    while (p.size() < 5 + static_cast<size_t>(length) && p.size() < kTsPacket) p.push_back(0xFF);
  }
  for (uint8_t b : spec.payload) {
    if (p.size() < kTsPacket) p.push_back(b);
  }
  p.resize(kTsPacket, 0xFF);
  return p;
}

// The packets carrying `section` on `pid`: a pointer field 0 in the first one, and the
// section continued from the first payload byte of each further one.
inline std::vector<Bytes> SectionPackets(uint32_t pid, const Bytes& section, uint8_t cc = 0) {
  std::vector<Bytes> out;
  size_t at = 0;
  bool first = true;
  do {
    PacketSpec spec;
    spec.pid = pid;
    spec.unit_start = first;
    spec.cc = static_cast<uint8_t>(cc + out.size());
    if (first) spec.payload.push_back(0x00);
    const size_t room = kTsPacket - 4 - spec.payload.size();
    const size_t n = std::min(room, section.size() - at);
    spec.payload.insert(spec.payload.end(), section.begin() + at, section.begin() + at + n);
    spec.control = 1;
    at += n;
    first = false;
    out.push_back(Packet(spec));
  } while (at < section.size());
  return out;
}

// An adaptation field (from the flags byte on) carrying a PCR of `base` × 300 + `ext`.
inline Bytes PcrField(uint64_t base, uint32_t ext, uint8_t extra_flags = 0) {
  Bytes f = {static_cast<uint8_t>(0x10 | extra_flags)};
  f.push_back(static_cast<uint8_t>(base >> 25));
  f.push_back(static_cast<uint8_t>(base >> 17));
  f.push_back(static_cast<uint8_t>(base >> 9));
  f.push_back(static_cast<uint8_t>(base >> 1));
  f.push_back(static_cast<uint8_t>(((base & 1) << 7) | 0x7E | ((ext >> 8) & 1)));
  f.push_back(static_cast<uint8_t>(ext));
  return f;
}

// A PES header of an MPEG-2 video stream with a PTS, followed by `es`.
inline Bytes VideoPes(const Bytes& es, uint64_t pts = 90000) {
  Bytes b = {0x00, 0x00, 0x01, 0xE0, 0x00, 0x00, 0x80, 0x80, 0x05};
  b.push_back(static_cast<uint8_t>(0x21 | ((pts >> 29) & 0x0E)));
  b.push_back(static_cast<uint8_t>(pts >> 22));
  b.push_back(static_cast<uint8_t>(0x01 | ((pts >> 14) & 0xFE)));
  b.push_back(static_cast<uint8_t>(pts >> 7));
  b.push_back(static_cast<uint8_t>(0x01 | ((pts << 1) & 0xFE)));
  b.insert(b.end(), es.begin(), es.end());
  return b;
}

// Units of `unit_size` bytes: 192 puts a 4-byte prefix, 204 a 16-byte prefix before
// each 188-byte packet (the layout this reader expects).
inline Bytes Units(const std::vector<Bytes>& packets, int unit_size = kTsPacket) {
  Bytes out;
  for (const Bytes& p : packets) {
    for (int i = 0; i < unit_size - kTsPacket; ++i) out.push_back(static_cast<uint8_t>(0xA0 + i));
    out.insert(out.end(), p.begin(), p.end());
  }
  return out;
}

// A null packet (PID 0x1FFF).
inline Bytes NullPacket(uint8_t cc = 0) {
  PacketSpec spec;
  spec.pid = 0x1FFF;
  spec.cc = cc;
  spec.payload = Bytes(184, 0xFF);
  return Packet(spec);
}

inline void Append(std::vector<Bytes>& to, const std::vector<Bytes>& more) {
  to.insert(to.end(), more.begin(), more.end());
}

inline Bytes Concat(const std::vector<Bytes>& packets) {
  return Units(packets, kTsPacket);
}

inline std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void WriteBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

}  // namespace marquel::test
