// File-system limits and predicted growth.
#include "persist/cache_limits.h"

namespace marquel {

int64_t FileSystemSizeLimit(const std::string& fileSystemName) {
  if (fileSystemName == "FAT32") return kFat32SizeLimit;
  if (fileSystemName == "FAT16") return kFat16SizeLimit;
  return 0;
}

int64_t PredictedGrowth(int32_t format, int64_t n) {
  if (format == 10) return (n + 183) * 188 / 183;
  return (n + 2025) * 2048 / 2025;
}

bool ReachesLimitAtClose(int64_t limit, int32_t format, int64_t n, uint64_t originalSize) {
  if (limit <= 0) return false;
  return PredictedGrowth(format, n) + static_cast<int64_t>(originalSize) >= limit;
}

bool PassesLimitAtMove(int64_t limit, int32_t format, int64_t n, int64_t start) {
  if (limit <= 0) return false;
  return PredictedGrowth(format, n) + start > limit;
}

}  // namespace marquel
