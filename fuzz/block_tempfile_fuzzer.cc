// Fuzzes the temporary-file reader and the conversion of a block into a program store.
//
// Input: one mode byte, then the file's bytes. With mode bit 0 set, the header CRC is
// put right, and so is the CRC of every stream that the header's sizes place inside the
// input, so that the reader gets past its checks. The bytes are written to a file in the
// temporary folder, read with ReadProgramBlockFromTempFile and, when that succeeds,
// loaded into the program with LoadProgramBlock.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/crc32.h"
#include "platform/env.h"
#include "platform/files.h"
#include "tags/block_format.h"
#include "tags/block_program.h"
#include "tags/block_tempfile.h"

namespace {

void PutCrc(uint8_t* p, size_t n) {
  uint32_t crc = marquel::Crc32Ieee(p, n);
  for (int i = 0; i < 4; ++i) p[n + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}

// Puts the header CRC right, then each stream's CRC that fits the input.
void FixCrcs(std::vector<uint8_t>& b) {
  if (b.size() < marquel::kBlockHeaderSize) return;
  PutCrc(b.data(), marquel::kBlockHeaderSize - 4);
  marquel::BlockHeader h = marquel::ParseBlockHeader(b.data());
  size_t at = marquel::kBlockHeaderSize;
  for (uint32_t n : {h.tag_id_size, h.length_size, h.data_size}) {
    if (n < 4 || n > b.size() - at) return;
    PutCrc(b.data() + at, n - 4);
    at += n;
  }
}

std::string FilePath() {
  return marquel::CurrentEnv()->TempFolder() + "/block_tempfile_fuzzer." +
         std::to_string(getpid()) + ".blk";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  std::vector<uint8_t> bytes(data + 1, data + size);
  if (data[0] & 1) FixCrcs(bytes);
  static const std::string path = FilePath();
  marquel::FileHandle f =
      marquel::OpenFileHandle(path, marquel::GENERIC_READ | marquel::GENERIC_WRITE, 0, nullptr,
                              marquel::CREATE_ALWAYS, 0, marquel::kInvalidFileHandle);
  if (f == marquel::kInvalidFileHandle) return 0;
  uint32_t written = 0;
  if (!bytes.empty())
    marquel::WriteFile(f, bytes.data(), static_cast<uint32_t>(bytes.size()), &written);
  marquel::SeekFile(f, 0, marquel::FILE_BEGIN);
  marquel::MQOneProgram program(0);
  if (marquel::ReadProgramBlockFromTempFile(program, f) == 1)
    marquel::LoadProgramBlock(program, nullptr, nullptr, 1 << 16);
  marquel::CloseFileHandle(f);
  return 0;
}
