#include "tags/sample.h"

#include <cstdlib>

namespace marquel {

uint8_t* AllocSampleBuffer(int32_t n) {
  if (n <= 0) return nullptr;
  return static_cast<uint8_t*>(std::malloc(static_cast<size_t>(n)));
}

void FreeSampleBuffer(uint8_t* buffer) {
  std::free(buffer);
}

void FreeSampleBuffers(SampleRecord* records, int64_t count) {
  if (records == nullptr) return;
  for (int64_t i = 0; i < count; ++i) {
    FreeSampleBuffer(records[i].pBuffer);
    records[i].pBuffer = nullptr;
  }
}

}  // namespace marquel
