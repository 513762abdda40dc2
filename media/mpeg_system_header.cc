// The system header, read the same way by both system decoders.
#include "media/mpeg_system_dec.h"
#include "mpeg_ps_syntax.h"

namespace marquel {

// After the start code: header length (16 bits), rate bound, audio bound and flags,
// video bound, one reserved byte, then 3 bytes per stream while the next byte has its
// top bit set.
int32_t CMpegMuxDec::ReadSystemHeader(bool mpeg1_names) {
  const uint8_t* p = Data();
  const int32_t held = Held();
  if (held < 2) return 0;
  const uint32_t length = ps::Be16(p);
  if (static_cast<uint32_t>(held) < 2 + length) return 0;
  ++system_header_count_;
  if (length < 6) {
    error_ = 1;
    Consume(static_cast<int32_t>(2 + length));
    return 1;
  }
  const uint8_t* f = p + 2;
  const uint32_t rate_bound = (uint32_t{f[0]} & 0x7F) << 15 | uint32_t{f[1]} << 7 | f[2] >> 1;
  Print("SYSTEM %d, ", static_cast<int>(system_header_count_));
  Print("RateBound %d, AudioBound %d, Fixed %d, CSPS %d, ALock %d, VLock %d, VideoBound %d,",
        static_cast<int>(rate_bound), f[3] >> 2, f[3] >> 1 & 1, f[3] & 1, f[4] >> 7, f[4] >> 6 & 1,
        f[4] & 0x1F);
  for (uint32_t at = 6; at + 3 <= length && (f[at] & 0x80) != 0; at += 3) {
    const int scale = f[at + 1] >> 5 & 1;
    const int size = (f[at + 1] & 0x1F) << 8 | f[at + 2];
    if (mpeg1_names) {
      Print("m_nStreamID %X, Scale %d, BufferSize %d; ", f[at], scale, size);
    } else {
      Print("StreamID %X, Scale %d, BufferSize %d; ", f[at], scale, size);
    }
  }
  Print("\n");
  Consume(static_cast<int32_t>(2 + length));
  return 1;
}

}  // namespace marquel
