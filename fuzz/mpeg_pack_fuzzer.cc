// Both pack checkers over arbitrary bytes.
//
// Input: byte 0 picks the checker, the analysis switch, the final flag and where the
// buffer is split into two Check() calls (clock state carries over); the rest is the
// stream. Every record must lie inside the buffer it came from, and the bytes consumed
// never exceed the length.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "media/mpeg_pack_check.h"

namespace {

void CheckPart(marquel::MpegPackCheck& checker, const uint8_t* data, size_t size, bool final) {
  // An exact-size copy, so that AddressSanitizer sees any read past the end.
  std::unique_ptr<uint8_t[]> copy(new uint8_t[size + 1]);
  for (size_t i = 0; i < size; ++i) copy[i] = data[i];
  marquel::MpegPackList list;
  const uint32_t n = checker.Check(copy.get(), static_cast<uint32_t>(size), &list, final);
  if (n > size) __builtin_trap();
  uint32_t count = 0;
  for (const marquel::MpegPackRecord* r = list.head(); r != nullptr; r = r->next, ++count) {
    if (r->pack_start != copy.get() + r->pack_offset) __builtin_trap();
    if (uint64_t{r->pack_offset} + r->pack_length > size) __builtin_trap();
    if (r->pack_length == 0) __builtin_trap();
    if (r->scr_ext > 511) __builtin_trap();
  }
  if (count != list.count()) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t mode = data[0];
  ++data;
  --size;
  std::unique_ptr<marquel::MpegPackCheck> checker;
  const int32_t analysis = (mode & 0x2) ? 1 : 0;
  if (mode & 0x1) {
    checker = std::make_unique<marquel::Mpeg1PackCheck>(analysis);
  } else {
    checker = std::make_unique<marquel::Mpeg2PackCheck>(analysis);
  }
  const bool final = (mode & 0x4) != 0;
  const size_t split = size * (mode >> 3) / 31;
  CheckPart(*checker, data, split, final);
  CheckPart(*checker, data + split, size - split, final);
  return 0;
}
