// The system clock reference of a program-stream pack header, read and rewritten in place.
//
// MPEG-1 pack headers carry a 33-bit base (90 kHz); MPEG-2 ones add a 9-bit extension
// (27 MHz ticks within one 90 kHz tick). A full clock here is base * 300 + extension, the
// unit in which two clocks can be stepped between.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marquel {

struct PackClock {
  uint64_t base = 0;  // 33 bits
  uint32_t ext = 0;   // 0..299; 0 for MPEG-1

  uint64_t Full() const { return base * 300 + ext; }
  static PackClock FromFull(uint64_t full) {
    return PackClock{(full / 300) & ((uint64_t{1} << 33) - 1), static_cast<uint32_t>(full % 300)};
  }
};

// Reads the clock of the pack header at pack[0..size). False when the bytes are not a pack
// header (no 00 00 01 BA, too short, or neither the MPEG-1 nor the MPEG-2 layout).
bool ReadPackClock(const uint8_t* pack, size_t size, PackClock* clock);

// Rewrites the clock of the pack header at pack[0..size) in the layout it already has,
// marker bits included; nothing else of the pack changes. False (and nothing written) when
// the bytes are not a pack header.
bool WritePackClock(uint8_t* pack, size_t size, const PackClock& clock);

// The clock of step `i` (1..steps) of `steps` clocks placed evenly between `previous` and
// `next`: previous + (next - previous) * i / (steps + 1). A next clock that is not later
// than the previous one (a clock restart) gives the previous clock for every step.
PackClock SteppedClock(const PackClock& previous, const PackClock& next, uint32_t i,
                       uint32_t steps);

}  // namespace marquel
