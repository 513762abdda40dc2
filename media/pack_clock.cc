// Reading and rewriting the clock of a pack header (MPEG-1 and MPEG-2 layouts).
#include "media/pack_clock.h"

namespace marquel {
namespace {

constexpr size_t kMpeg1HeaderBytes = 12;
constexpr size_t kMpeg2HeaderBytes = 14;

bool IsPackStart(const uint8_t* p, size_t size) {
  return size >= kMpeg1HeaderBytes && p[0] == 0 && p[1] == 0 && p[2] == 1 && p[3] == 0xBA;
}
bool IsMpeg2(const uint8_t* p) {
  return (p[4] & 0xC0) == 0x40;
}
bool IsMpeg1(const uint8_t* p) {
  return (p[4] & 0xF0) == 0x20;
}

}  // namespace

bool ReadPackClock(const uint8_t* pack, size_t size, PackClock* clock) {
  if (pack == nullptr || clock == nullptr || !IsPackStart(pack, size)) return false;
  const uint8_t* b = pack + 4;
  if (IsMpeg2(pack) && size >= kMpeg2HeaderBytes) {
    clock->base = (uint64_t{b[0] & 0x38u} << 27) | (uint64_t{b[0] & 0x03u} << 28) |
                  (uint64_t{b[1]} << 20) | (uint64_t{b[2] & 0xF8u} << 12) |
                  (uint64_t{b[2] & 0x03u} << 13) | (uint64_t{b[3]} << 5) | (b[4] >> 3);
    clock->ext = ((b[4] & 0x03u) << 7) | (b[5] >> 1);
    return true;
  }
  if (IsMpeg1(pack)) {
    clock->base = (uint64_t{b[0] & 0x0Eu} << 29) | (uint64_t{b[1]} << 22) |
                  (uint64_t{b[2] & 0xFEu} << 14) | (uint64_t{b[3]} << 7) | (b[4] >> 1);
    clock->ext = 0;
    return true;
  }
  return false;
}

bool WritePackClock(uint8_t* pack, size_t size, const PackClock& clock) {
  if (pack == nullptr || !IsPackStart(pack, size)) return false;
  uint8_t* b = pack + 4;
  const uint64_t base = clock.base;
  if (IsMpeg2(pack) && size >= kMpeg2HeaderBytes) {
    const uint32_t ext = clock.ext % 300;
    b[0] = static_cast<uint8_t>(0x44 | ((base >> 27) & 0x38) | ((base >> 28) & 0x03));
    b[1] = static_cast<uint8_t>(base >> 20);
    b[2] = static_cast<uint8_t>(((base >> 12) & 0xF8) | 0x04 | ((base >> 13) & 0x03));
    b[3] = static_cast<uint8_t>(base >> 5);
    b[4] = static_cast<uint8_t>(((base << 3) & 0xF8) | 0x04 | ((ext >> 7) & 0x03));
    b[5] = static_cast<uint8_t>(((ext << 1) & 0xFE) | 0x01);
    return true;
  }
  if (IsMpeg1(pack)) {
    b[0] = static_cast<uint8_t>(0x21 | ((base >> 29) & 0x0E));
    b[1] = static_cast<uint8_t>(base >> 22);
    b[2] = static_cast<uint8_t>(((base >> 14) & 0xFE) | 0x01);
    b[3] = static_cast<uint8_t>(base >> 7);
    b[4] = static_cast<uint8_t>(((base << 1) & 0xFE) | 0x01);
    return true;
  }
  return false;
}

PackClock SteppedClock(const PackClock& previous, const PackClock& next, uint32_t i,
                       uint32_t steps) {
  const uint64_t from = previous.Full();
  const uint64_t to = next.Full();
  if (to <= from || steps == 0) return previous;
  const uint64_t step = (to - from) / (uint64_t{steps} + 1);
  return PackClock::FromFull(from + step * i);
}

}  // namespace marquel
