// The content fingerprint of a media file.
#include "persist/cache_fingerprint.h"

#include <vector>

#include "platform/crc32.h"

namespace marquel {

ContentSample ReadContentSample(FileHandle file) {
  ContentSample sample;
  if (file == kInvalidFileHandle || SeekFile(file, kFingerprintOffset, FILE_BEGIN) < 0) {
    return sample;
  }
  std::vector<uint8_t> bytes(kFingerprintBytes);
  uint32_t got = 0;
  while (got < kFingerprintBytes) {
    uint32_t n = 0;
    if (!ReadFile(file, bytes.data() + got, kFingerprintBytes - got, &n) || n == 0) break;
    got += n;
  }
  if (got >= 4) {
    sample.first_word = uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 |
                        uint32_t(bytes[3]) << 24;
  } else {
    sample.first_word = got;
  }
  if (got == kFingerprintBytes) {
    sample.taken = true;
    sample.crc = Crc32Ieee(bytes.data(), bytes.size());
  }
  return sample;
}

ContentSample ReadContentSample(const std::string& path) {
  FileHandle file = OpenRegularFile(path, GENERIC_READ);
  if (file == kInvalidFileHandle) return ContentSample{};
  ContentSample sample = ReadContentSample(file);
  CloseFileHandle(file);
  return sample;
}

}  // namespace marquel
