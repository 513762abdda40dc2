#include "media/ac3_probe.h"

namespace marquel {

namespace {

// Bit rate column of the A/52 frame-size-code table, indexed by the 6-bit code.
constexpr int32_t kFrameSizeCodeKbits[38] = {
    32,  32,  40,  40,  48,  48,  56,  56,  64,  64,  80,  80,  96,  96,  112, 112, 128, 128, 160,
    160, 192, 192, 224, 224, 256, 256, 320, 320, 384, 384, 448, 448, 512, 512, 576, 576, 640, 640};

constexpr uint16_t kSyncMask = 0x770B;

}  // namespace

int32_t ProbeAc3BitRate(const uint8_t* data, int32_t size) {
  if (data == nullptr || size < kAc3HeaderBytes) return kAc3NeedMoreData;
  const uint16_t word = static_cast<uint16_t>(data[0] | (data[1] << 8));
  // Masked on purpose: extra bits set in the first word do not reject the header.
  if ((word & kSyncMask) != kSyncMask) return 0;
  const int32_t code = data[4] & 0x3F;
  if (code >= 38) return 0;
  return kFrameSizeCodeKbits[code];
}

}  // namespace marquel
