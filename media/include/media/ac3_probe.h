// Recognises an AC-3 (ATSC A/52) sync frame header at the start of a buffer and gives its
// nominal bit rate, from which the program-stream packet reader derives the byte rate of
// private-stream audio.
#pragma once

#include <cstdint>

namespace marquel {

// Result of ProbeAc3BitRate() when fewer than kAc3HeaderBytes bytes are given.
constexpr int32_t kAc3NeedMoreData = -1;
// Bytes the probe looks at: sync word (2), CRC1 (2), the rate byte (1) and one more.
constexpr int32_t kAc3HeaderBytes = 6;

// Nominal bit rate in kbit/s of the AC-3 frame header at `data`:
//   -1 (kAc3NeedMoreData) when size < 6;
//    0 when the bytes are not an AC-3 header;
//   the rate (32 .. 640) otherwise.
// The sync test is a mask, not an equality: the first two bytes read as a little-endian
// word must have every bit of 0x770B set, so the sync word 0B 77 passes and so does any
// word with extra bits set (FF FF, 0F 7F ...). The frame-size code, the low 6 bits of
// byte 4, must be below 38; two codes share each rate.
int32_t ProbeAc3BitRate(const uint8_t* data, int32_t size);

// The rate of ProbeAc3BitRate() in bytes per second (kbit/s * 125); 0 for no rate.
inline int32_t Ac3BytesPerSecond(int32_t kbits) {
  return kbits > 0 ? kbits * 125 : 0;
}

}  // namespace marquel
