// Feeds arbitrary bytes through the transport-stream reader.
//
// Input: byte 0 picks the unit size (188, 192, 204, or found from the data), whether the
// analysis runs (written to the null device) and the feed chunk size; bytes 1-2 pick the
// selected PID; the rest is the stream.
#include <cstddef>
#include <cstdint>

#include "media/ts_decoder.h"

namespace {

constexpr int32_t kUnitSizes[] = {188, 192, 204};
constexpr int32_t kChunkSizes[] = {1, 7, 188, 192, 204, 2048, 2324, 65536};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const uint8_t mode = data[0];
  const uint32_t pid = ((data[1] & 0x1F) << 8) | data[2];
  data += 3;
  size -= 3;
  marquel::CTSSysDec dec;
  const int unit_choice = mode & 0x3;
  if (unit_choice < 3) {
    if (dec.Init(kUnitSizes[unit_choice]) != 1) __builtin_trap();
  } else if (dec.InitFromData(data, static_cast<int32_t>(size)) != 1) {
    return 0;
  }
  if (mode & 0x4) dec.SetAnalysis(1, (mode & 0x8) ? "/dev/null" : nullptr);
  dec.SelectPid((mode & 0x10) ? marquel::kTsNoPid : pid);
  const size_t chunk = static_cast<size_t>(kChunkSizes[(mode >> 5) & 0x7]);
  uint8_t out[4096];
  int64_t units = 0;
  for (size_t at = 0; at < size; at += chunk) {
    const size_t n = chunk < size - at ? chunk : size - at;
    const int32_t r = dec.Feed(data + at, static_cast<int32_t>(n));
    if (r < 0) __builtin_trap();
    units += r;
    while (dec.TakeCollected(0, out, sizeof(out)) > 0) {
    }
  }
  // Every whole unit was taken, and the program table stayed within its bounds.
  if (units != static_cast<int64_t>(size / dec.GetUnitSize())) __builtin_trap();
  if (dec.programs().count() > marquel::kTsMaxPrograms) __builtin_trap();
  for (int32_t i = 0; i < dec.programs().count(); ++i) {
    const auto& program = dec.programs().program(i);
    if (program.stream_count < 0 || program.stream_count > marquel::kTsMaxStreams) __builtin_trap();
  }
  dec.Release();
  return 0;
}
