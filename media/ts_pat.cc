#include "media/ts_pat.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace marquel {

namespace {

constexpr int32_t kTsPacketSize = 188;
// Units larger than this are not transport streams; refusing them bounds the unit buffer.
constexpr int32_t kMaxUnitSize = 65536;
// Collected section bytes kept at most. A PAT section is at most 1024 bytes; anything
// collected beyond that cannot change the answer, so it is not kept.
constexpr size_t kCollectLimit = 4096;

int32_t SectionLength(const uint8_t* section) {
  return ((section[1] & 0x0F) << 8) | section[2];
}

// Where the payload of the 188-byte packet `packet` starts, or -1 when the packet carries
// no usable payload: no sync byte, transport error, no payload, or an adaptation field
// that runs past the packet.
int32_t PayloadStart(const uint8_t* packet, int32_t size) {
  if (size < 5 || packet[0] != 0x47 || (packet[1] & 0x80) != 0) return -1;
  const int control = (packet[3] >> 4) & 0x3;
  if (control == 1) return 4;
  if (control != 3) return -1;
  const int32_t start = 5 + packet[4];
  return start < size ? start : -1;
}

// The PAT assembly state of one FindPmtPid call.
class PatCollector {
 public:
  // Handles one PID-0 packet of `size` bytes whose payload starts at `start`. Returns the
  // answer (a PID or -1 from ParsePatSection) once one is due, or -2 to go on.
  int32_t Packet(const uint8_t* packet, int32_t size, int32_t start) {
    const bool unit_start = (packet[1] & 0x40) != 0;
    const uint8_t* section = packet + start + 1;  // behind a pointer field assumed 0
    const int32_t section_bytes = size - start - 1;
    if (unit_start) {
      if (collected_.empty() && section_bytes >= 3 && SectionLength(section) < 184) {
        return ParsePatSection(section, static_cast<size_t>(section_bytes));
      }
      if (collected_.size() >= 3 &&
          static_cast<size_t>(SectionLength(collected_.data())) <= collected_.size()) {
        return ParsePatSection(collected_.data(), collected_.size());
      }
    }
    // Every packet, continuation or not, gives its payload less the first byte.
    if (section_bytes > 0) {
      const size_t room = kCollectLimit - collected_.size();
      const size_t n = std::min(room, static_cast<size_t>(section_bytes));
      collected_.insert(collected_.end(), section, section + n);
    }
    return -2;
  }

 private:
  std::vector<uint8_t> collected_;
};

}  // namespace

int32_t ParsePatSection(const uint8_t* section, size_t size) {
  if (section == nullptr || size < 3) return -1;
  const int32_t length = SectionLength(section);
  if (length > kTsMaxPatSectionLength) return -1;
  const int32_t entries = (length - 9) / 4;
  if (entries < 1) return -1;
  for (int32_t i = 0; i < entries; ++i) {
    const size_t at = 8 + static_cast<size_t>(i) * 4;
    if (at + 4 > size) break;  // the rest of the section was not given
    const uint8_t* entry = section + at;
    if (entry[0] != 0 || entry[1] != 0) return ((entry[2] & 0x1F) << 8) | entry[3];
  }
  return -1;
}

int32_t FindPmtPid(FileHandle file, int32_t packetSize, int64_t startOffset) {
  if (packetSize < kTsPacketSize || packetSize > kMaxUnitSize) return -1;
  if (SeekFile(file, startOffset, FILE_BEGIN) < 0) return -1;
  const int32_t prefix = packetSize - kTsPacketSize;
  std::vector<uint8_t> unit(static_cast<size_t>(packetSize));
  PatCollector collector;
  int64_t total = 0;
  for (;;) {
    uint32_t got = 0;
    if (!ReadFile(file, unit.data(), static_cast<uint32_t>(packetSize), &got) || got == 0) {
      return -1;
    }
    total += got;
    // A short last unit is examined over the bytes that arrived only.
    const int32_t size = static_cast<int32_t>(got) - prefix;
    const uint8_t* packet = unit.data() + prefix;
    if (size >= 5 && ((packet[1] & 0x1F) << 8 | packet[2]) == 0) {
      const int32_t start = PayloadStart(packet, size);
      if (start >= 0) {
        const int32_t answer = collector.Packet(packet, size, start);
        if (answer != -2) return answer;
      }
    }
    if (total > kFindPmtPidReadLimit) return -1;
  }
}

}  // namespace marquel
