// Fuzzes the temporary-file reader and the conversion of a block into a program store.
//
// Input: one mode byte, then the file's bytes. With mode bit 0 set, the header CRC is
// put right, and so is the CRC of every stream that the header's sizes place inside the
// input, so that the reader gets past its checks. The bytes are written to a file in the
// temporary folder, read with ReadProgramBlockFromTempFile and, when that succeeds,
// loaded into the program with LoadProgramBlock.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_util.h"
#include "platform/files.h"
#include "tags/block_program.h"
#include "tags/block_tempfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  std::vector<uint8_t> bytes(data + 1, data + size);
  if (data[0] & 1) fuzzblock::FixCrcs(bytes);
  marquel::FileHandle f = fuzzblock::FreshFile("block_tempfile_fuzzer", "blk", bytes);
  if (f == marquel::kInvalidFileHandle) return 0;
  marquel::SeekFile(f, 0, marquel::FILE_BEGIN);
  marquel::MQOneProgram program(0);
  if (marquel::ReadProgramBlockFromTempFile(program, f) == 1)
    marquel::LoadProgramBlock(program, nullptr, nullptr, 1 << 16);
  marquel::CloseFileHandle(f);
  return 0;
}
