// The RIFF AVI probe and the transport-stream sync probe.
#include <cstring>
#include <memory>
#include <new>

#include "media/file_type.h"

namespace marquel {
namespace {

constexpr uint32_t kTsProbeBytes = 512000;
// Positions p are tried while p < n - 2040: five more packets of the largest unit fit.
constexpr size_t kTsProbeTail = 2040;
constexpr uint8_t kSyncByte = 0x47;

// Reads 4 bytes at `offset` and compares them with `letters`; *ok is false on a short
// or failed read.
bool FourBytesAre(ProbeSource& source, int64_t offset, const char* letters, bool* ok) {
  uint8_t bytes[4] = {};
  *ok = source.Seek(offset) == offset && source.Read(bytes, 4) == 4;
  return *ok && std::memcmp(bytes, letters, 4) == 0;
}

bool SyncAtSteps(const uint8_t* data, size_t p, size_t step) {
  for (size_t k = 1; k <= 5; ++k) {
    if (data[p + step * k] != kSyncByte) return false;
  }
  return true;
}

}  // namespace

uint32_t ProbeAviFile(ProbeSource& source) {
  bool ok = false;
  const bool riff = FourBytesAre(source, 0, "RIFF", &ok);
  if (!ok) return MQ_FORMAT_NONE;
  const bool avih = FourBytesAre(source, 24, "avih", &ok);
  if (!ok) return MQ_FORMAT_NONE;
  source.Seek(0);
  return riff && avih ? MQ_FORMAT_AVI : MQ_FORMAT_NONE;
}

uint32_t ProbeAviFile(FileHandle handle) {
  FileProbeSource source(handle);
  return ProbeAviFile(source);
}

uint32_t ProbeTransportStreamBuffer(const uint8_t* data, size_t size, uint32_t* packet_size,
                                    uint32_t* first_packet_offset) {
  if (packet_size != nullptr) *packet_size = 0;
  if (first_packet_offset != nullptr) *first_packet_offset = 0;
  if (data == nullptr || size <= kTsProbeTail) return MQ_FORMAT_NONE;
  const size_t end = size - kTsProbeTail;
  uint32_t unit = 0;
  size_t offset = 0;
  for (size_t p = 0; p < end && unit == 0; ++p) {
    const void* hit = std::memchr(data + p, kSyncByte, end - p);
    if (hit == nullptr) break;
    p = static_cast<size_t>(static_cast<const uint8_t*>(hit) - data);
    // At one position 188 is tried before 192 before 204; the prefix of a 192- or
    // 204-byte unit must fit before the sync byte.
    if (SyncAtSteps(data, p, 188)) {
      unit = 188;
      offset = p;
    } else if (p >= 4 && SyncAtSteps(data, p, 192)) {
      unit = 192;
      offset = p - 4;
    } else if (p >= 16 && SyncAtSteps(data, p, 204)) {
      unit = 204;
      offset = p - 16;
    }
  }
  if (unit == 0) return MQ_FORMAT_NONE;
  if (packet_size != nullptr) *packet_size = unit;
  if (first_packet_offset != nullptr) *first_packet_offset = static_cast<uint32_t>(offset);
  return MQ_FORMAT_TS;
}

uint32_t ProbeTransportStream(ProbeSource& source, uint32_t* packet_size,
                              uint32_t* first_packet_offset) {
  if (packet_size != nullptr) *packet_size = 0;
  if (first_packet_offset != nullptr) *first_packet_offset = 0;
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kTsProbeBytes]);
  if (!buffer || source.Seek(0) != 0) return MQ_FORMAT_NONE;
  const int64_t n = source.Read(buffer.get(), kTsProbeBytes);
  if (n <= 0) return MQ_FORMAT_NONE;
  return ProbeTransportStreamBuffer(buffer.get(), static_cast<size_t>(n), packet_size,
                                    first_packet_offset);
}

uint32_t ProbeTransportStream(FileHandle handle, uint32_t* packet_size,
                              uint32_t* first_packet_offset) {
  FileProbeSource source(handle);
  return ProbeTransportStream(source, packet_size, first_packet_offset);
}

}  // namespace marquel
