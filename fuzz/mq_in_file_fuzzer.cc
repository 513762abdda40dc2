// Fuzzes the in-file reading of a program stream as the open does it: the end record is
// found from the file's end, and the block is read from the start address it gives.
//
// Input: one mode byte, then bytes. Mode (low 3 bits):
//   0     the bytes are the file;
//   1..6  the bytes are a block (its CRCs put right) behind a stand-in media part of
//         (second byte × 37) bytes; the block is packed by the pack muxer of that type
//         and closed with an end record that points at the block's start. The high bits
//         of the mode byte, when set, damage one byte of the packs at a place chosen by
//         the third byte.
// A block that is read is loaded with LoadProgramBlock.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "media/mq_end_record.h"
#include "media/mq_pack_muxer.h"
#include "persist/block_from_media.h"
#include "platform/files.h"
#include "tags/block_program.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The stand-in media, then the block in packs of `type` with the end record.
Bytes Packed(int32_t type, size_t lead, const Bytes& block) {
  Bytes file(lead, 0x47);
  marquel::MQPackMuxer muxer;
  muxer.SetType(type);
  if (muxer.Initialise(8 * 65536) != 1) return file;
  Bytes out(65536);
  auto drain = [&] {
    size_t n;
    while ((n = muxer.TakeOutput(out.data(), out.size())) > 0)
      file.insert(file.end(), out.begin(), out.begin() + n);
  };
  for (size_t at = 0; at < block.size();) {
    at += muxer.Feed(block.data() + at, block.size() - at);
    drain();
  }
  marquel::MQEndRecord record;
  record.start_address = static_cast<int64_t>(lead);
  record.original_size = lead;
  muxer.Flush(&record);
  drain();
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const int mode = data[0] & 7;
  if (mode > 6) return 0;
  Bytes bytes(data + 3, data + size);
  int32_t format = 2;
  if (mode >= 1) {
    fuzzblock::FixCrcs(bytes);
    const size_t lead = size_t{data[1]} * 37;
    bytes = Packed(mode, lead, bytes);
    if ((data[0] & 0xF8) != 0 && bytes.size() > lead)
      bytes[lead + (size_t{data[2]} * 131 + data[0]) % (bytes.size() - lead)] ^= data[0];
    format = mode == 1 ? 1 : mode == 3 ? 3 : mode == 6 ? 4 : 2;
  }
  marquel::FileHandle f = fuzzblock::FreshFile("mq_in_file_fuzzer", "media", bytes);
  if (f == marquel::kInvalidFileHandle) return 0;
  auto found = marquel::FindMQEndRecord(f);
  if (found) {
    marquel::MQOneProgram program(0);
    if (marquel::ReadBlockFromProgramStream(program, f, format, found->record.start_address, 0) ==
        1)
      marquel::LoadProgramBlock(program, nullptr, nullptr, 1 << 16);
  }
  marquel::CloseFileHandle(f);
  return 0;
}
