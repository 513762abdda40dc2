// File type detection over arbitrary bytes held in memory.
//
// Input: byte 0 picks the file name's extension; the rest is the file. Detection must
// answer a known code, and a transport-stream answer must carry a real packet layout.
#include <cstddef>
#include <cstdint>

#include "media/file_type.h"

namespace {

const char* const kNames[] = {"clip.mpg",  "clip.MPEG",   "clip.vob", "clip.ts",
                              "clip.m2ts", "clip.mp4",    "clip.mov", "clip.avi",
                              "clip",      "clip.dvr-ms", "clip.wmv", "clip.asf",
                              "clip.tivo", "a.b/clip",    "clip.mts", "clip.vro"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const char* name = kNames[data[0] % (sizeof kNames / sizeof kNames[0])];
  marquel::MemoryProbeSource source(data + 1, size - 1);
  marquel::TsLayout layout;
  const uint32_t code = marquel::DetectFileType(&layout, source, name);
  if (code >= marquel::kFormatCount || code == marquel::MQ_FORMAT_DV) __builtin_trap();
  if (code == marquel::MQ_FORMAT_TS) {
    if (layout.packet_size != 188 && layout.packet_size != 192 && layout.packet_size != 204) {
      __builtin_trap();
    }
    if (layout.first_packet_offset >= size) __builtin_trap();
  }
  // The probes on their own agree with detection's steps.
  uint32_t packet_size = 0;
  const uint32_t ts = marquel::ProbeTransportStream(source, &packet_size, nullptr);
  if ((ts == marquel::MQ_FORMAT_TS) != (packet_size != 0)) __builtin_trap();
  const uint32_t ps = marquel::ProbeProgramStream(source);
  if (ps > marquel::MQ_FORMAT_VRO) __builtin_trap();
  const uint32_t magic = marquel::ProbeMagicNumbers(source);
  if (magic != 0 && !marquel::IsMagicNumberFormat(magic)) __builtin_trap();
  if (marquel::IsMagicNumberFormat(code) && magic != code) __builtin_trap();
  return 0;
}
