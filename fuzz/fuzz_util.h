// Helpers of the fuzz targets: a fuzzed data block's CRCs put right, so that the targets
// reach past the CRC checks, and the file a target reads its input from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <unistd.h>

#include "platform/crc32.h"
#include "platform/env.h"
#include "platform/files.h"
#include "tags/block_format.h"

namespace fuzzblock {

inline void PutCrc(uint8_t* p, size_t n) {
  uint32_t crc = marquel::Crc32Ieee(p, n);
  for (int i = 0; i < 4; ++i) p[n + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
}

// Puts the header CRC right, then each stream's CRC that fits the input.
inline void FixCrcs(std::vector<uint8_t>& b) {
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

// Makes the target's own file in the temporary folder anew ("<target>.<pid>.<suffix>")
// with `bytes` in it. Open for reading and writing, or invalid.
inline marquel::FileHandle FreshFile(const char* target, const char* suffix,
                                     const std::vector<uint8_t>& bytes) {
  const std::string path = marquel::CurrentEnv()->TempFolder() + "/" + target + "." +
                           std::to_string(getpid()) + "." + suffix;
  marquel::FileHandle f =
      marquel::OpenFileHandle(path, marquel::GENERIC_READ | marquel::GENERIC_WRITE, 0, nullptr,
                              marquel::CREATE_ALWAYS, 0, marquel::kInvalidFileHandle);
  if (f == marquel::kInvalidFileHandle) return f;
  uint32_t written = 0;
  if (!bytes.empty())
    marquel::WriteFile(f, bytes.data(), static_cast<uint32_t>(bytes.size()), &written);
  return f;
}

}  // namespace fuzzblock
