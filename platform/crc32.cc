#include "platform/crc32.h"

#include <array>

#include "crc32_internal.h"

namespace marquel {
namespace {

// Slicing-by-8 tables for the reflected CRC: table[0] is the classic byte table, and
// table[k][b] is the CRC of byte b followed by k zero bytes, so eight bytes go per step.
struct IeeeTables {
  std::array<std::array<uint32_t, 256>, 8> t{};
  constexpr IeeeTables() {
    for (uint32_t b = 0; b < 256; ++b) {
      uint32_t c = b;
      for (int i = 0; i < 8; ++i) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
      t[0][b] = c;
    }
    for (int k = 1; k < 8; ++k)
      for (uint32_t b = 0; b < 256; ++b) t[k][b] = (t[k - 1][b] >> 8) ^ t[0][t[k - 1][b] & 0xFF];
  }
};

// MSB-first table for the MPEG-2 CRC.
struct MpegTable {
  std::array<uint32_t, 256> t{};
  constexpr MpegTable() {
    for (uint32_t b = 0; b < 256; ++b) {
      uint32_t c = b << 24;
      for (int i = 0; i < 8; ++i) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : c << 1;
      t[b] = c;
    }
  }
};

constexpr IeeeTables kIeee;
constexpr MpegTable kMpeg;

inline uint32_t Load32Le(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

}  // namespace

namespace crc32_internal {

uint32_t IeeeUpdateTable(uint32_t crc, const uint8_t* p, size_t size) {
  const auto& t = kIeee.t;
  while (size >= 8) {
    uint32_t lo = Load32Le(p) ^ crc;
    uint32_t hi = Load32Le(p + 4);
    crc = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
          t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
    p += 8;
    size -= 8;
  }
  while (size--) crc = (crc >> 8) ^ t[0][(crc ^ *p++) & 0xFF];
  return crc;
}

}  // namespace crc32_internal

uint32_t Crc32IeeeUpdate(uint32_t crc, const void* data, size_t size) {
  const auto* p = static_cast<const uint8_t*>(data);
  // Folding is several times faster on long buffers; the table serves where the
  // processor cannot fold.
  if (crc32_internal::HaveWideClmul()) return crc32_internal::IeeeUpdateWideClmul(crc, p, size);
  if (crc32_internal::HaveClmul()) return crc32_internal::IeeeUpdateClmul(crc, p, size);
  return crc32_internal::IeeeUpdateTable(crc, p, size);
}

uint32_t Crc32Ieee(const void* data, size_t size) {
  return Crc32IeeeFinish(Crc32IeeeUpdate(kCrc32IeeeInit, data, size));
}

uint32_t Crc32MpegUpdate(uint32_t crc, const void* data, size_t size) {
  const auto* p = static_cast<const uint8_t*>(data);
  while (size--) crc = (crc << 8) ^ kMpeg.t[((crc >> 24) ^ *p++) & 0xFF];
  return crc;
}

uint32_t Crc32Mpeg(const void* data, size_t size) {
  return Crc32MpegUpdate(kCrc32MpegInit, data, size);
}

}  // namespace marquel
