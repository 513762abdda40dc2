// The content fingerprint of a media file: the CRC-32 (IEEE) of the 5120 bytes at byte
// offset 3172. It finds a cache entry again after the media file was renamed or moved.
// A file too short to hold those bytes has no fingerprint.
#pragma once

#include <cstdint>
#include <string>

#include "platform/files.h"

namespace marquel {

constexpr int64_t kFingerprintOffset = 3172;
constexpr uint32_t kFingerprintBytes = 5120;

// What was read at the fingerprint's place.
struct ContentSample {
  bool taken = false;       // all 5120 bytes came: `crc` is the fingerprint
  uint32_t crc = 0;         // CRC-32 of the 5120 bytes, 0 when not taken
  uint32_t first_word = 0;  // the first 32-bit word read (little endian), or the number of
                            // bytes read when fewer than 4 came
};

// Reads the sample from an open file (the file position moves). Never fails: a file that
// cannot be read gives an empty sample.
ContentSample ReadContentSample(FileHandle file);

// Opens `path` for reading and reads its sample; an empty sample when it cannot be opened.
ContentSample ReadContentSample(const std::string& path);

}  // namespace marquel
