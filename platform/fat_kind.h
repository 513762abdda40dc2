// The FAT kind of a vfat volume (private to the platform layer).
#pragma once

#include <cstdint>
#include <string>

namespace marquel {

// FAT16 has fewer than 65525 data clusters, FAT32 at least that many. For vfat the kernel
// reports the cluster as the block size, so statfs's f_blocks is the cluster count.
constexpr uint64_t kFat16MaxClusters = 65525;

inline std::string FatKindName(uint64_t clusters) {
  return clusters < kFat16MaxClusters ? "FAT16" : "FAT32";
}

}  // namespace marquel
