// Fuzzes reading a block out of a media file: through the program-stream system decoder
// (and the transport-stream reader), then into a program store.
//
// Input: one mode byte, then bytes. Mode (low 3 bits):
//   0, 1  the bytes are an MPEG-2 (0) or MPEG-1 (1) program stream, read from offset 0;
//   2     the bytes are a 188-byte transport stream, PID 8160 selected;
//   3, 4  the bytes are a block: its CRCs are put right, then it is packed here into
//         MPEG-2 (3) or MPEG-1 (4) 0xFA packs, so that the decoder sees well-formed packs;
//   5     the same, packed into transport packets on PID 8160.
// A block that is read is loaded with LoadProgramBlock.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "persist/block_from_media.h"
#include "platform/files.h"
#include "tags/block_program.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The payload in 0xFA packs: MPEG-2 packs of 2025 payload bytes, or MPEG-1 packs of 2294
// with stuffing and the STD buffer field.
Bytes ProgramStream(const Bytes& payload, bool mpeg1) {
  Bytes out;
  size_t per = mpeg1 ? 2294 : 2025;
  for (size_t at = 0; at < payload.size(); at += per) {
    size_t n = std::min(per, payload.size() - at);
    if (mpeg1) {
      out.insert(out.end(), {0x00, 0x00, 0x01, 0xBA, 0x21, 0x00, 0x01, 0x00, 0x01, 0x80, 0x1B, 0x91,
                             0x00, 0x00, 0x01, 0xFA});
      size_t len = n + 12;
      out.insert(out.end(), {static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)});
      out.insert(out.end(), 9, 0xFF);
      out.insert(out.end(), {0x60, 0x2E, 0x0F});
    } else {
      out.insert(out.end(), {0x00, 0x00, 0x01, 0xBA, 0x44, 0x00, 0x04, 0x00, 0x04, 0x01, 0x01, 0x89,
                             0xC3, 0xF8, 0x00, 0x00, 0x01, 0xFA});
      size_t len = n + 3;
      out.insert(out.end(),
                 {static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len), 0x81, 0x00, 0x00});
    }
    out.insert(out.end(), payload.begin() + static_cast<ptrdiff_t>(at),
               payload.begin() + static_cast<ptrdiff_t>(at + n));
  }
  return out;
}

// The payload in 188-byte packets on PID 8160, 183 bytes each after the pointer field.
Bytes TransportStream(const Bytes& payload) {
  Bytes out;
  uint8_t cc = 0;
  for (size_t at = 0; at < payload.size(); at += 183) {
    size_t n = std::min<size_t>(183, payload.size() - at);
    out.insert(out.end(), {0x47, 0x5F, 0xE0, static_cast<uint8_t>(0x10 | (cc++ & 15)), 0x00});
    out.insert(out.end(), payload.begin() + static_cast<ptrdiff_t>(at),
               payload.begin() + static_cast<ptrdiff_t>(at + n));
    out.insert(out.end(), 183 - n, 0xFF);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int mode = data[0] & 7;
  if (mode > 5) return 0;
  Bytes bytes(data + 1, data + size);
  if (mode >= 3) {
    fuzzblock::FixCrcs(bytes);
    bytes = mode == 5 ? TransportStream(bytes) : ProgramStream(bytes, mode == 4);
  }
  marquel::FileHandle f = fuzzblock::FreshFile("block_ps_fuzzer", "media", bytes);
  if (f == marquel::kInvalidFileHandle) return 0;
  marquel::MQOneProgram program(0);
  int32_t read;
  if (mode == 2 || mode == 5)
    read = marquel::ReadBlockFromTransportStream(program, f, 188, 0, 8160, 0);
  else
    read = marquel::ReadBlockFromProgramStream(program, f, (mode == 1 || mode == 4) ? 1 : 2, 0, 0);
  if (read == 1) marquel::LoadProgramBlock(program, nullptr, nullptr, 1 << 16);
  marquel::CloseFileHandle(f);
  return 0;
}
