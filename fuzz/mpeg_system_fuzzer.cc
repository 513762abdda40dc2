// Both system decoders over arbitrary bytes fed in pieces.
//
// Input: byte 0 picks the decoder, the feed piece size, whether the analysis runs (its
// lines go to a folder that does not exist, so they are formatted but not written) and
// whether the server's own data stream is collected; the rest is the stream. The
// collected payload never exceeds what was fed, and the counters stay consistent.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "media/mpeg_system_dec.h"

namespace {

constexpr size_t kPieces[] = {1, 3, 16, 188, 2048, 2324, 65536, 1 << 20};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t mode = data[0];
  ++data;
  --size;
  std::unique_ptr<marquel::CMpegMuxDec> dec;
  if (mode & 0x1) {
    dec = std::make_unique<marquel::MPEG1SystemDec_c>();
  } else {
    dec = std::make_unique<marquel::MPEG2SystemDec_c>(static_cast<int32_t>(mode >> 6) * 100);
  }
  dec->Reset();
  if (mode & 0x2) dec->SetAnalysis(1, "/nonexistent-marquel-fuzz-folder");
  if (mode & 0x4) dec->SelectStream(0xFA);
  const size_t piece = kPieces[(mode >> 3) & 0x7];
  // An exact-size copy of the stream, so that AddressSanitizer sees any read past its
  // end (the decoder copies each piece into its ring at once).
  std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
  for (size_t i = 0; i < size; ++i) copy[i] = data[i];
  uint8_t out[1000];
  size_t taken = 0;
  for (size_t at = 0; at < size; at += piece) {
    const size_t n = piece < size - at ? piece : size - at;
    if (dec->Feed(copy.get() + at, static_cast<int32_t>(n)) != 1) __builtin_trap();
    int32_t got;
    while ((got = dec->TakePayload(out, sizeof out)) > 0) taken += static_cast<size_t>(got);
  }
  if (taken > size) __builtin_trap();
  if (dec->PackCount() < 0 || dec->PacketCount() < 0) __builtin_trap();
  if (static_cast<size_t>(dec->PackCount()) > size / 12 + 1) __builtin_trap();
  uint64_t base = 0;
  uint32_t ext = 0;
  dec->GetLastClock(&base, &ext);
  if (base >= (uint64_t{1} << 33) || ext > 511) __builtin_trap();
  return 0;
}
