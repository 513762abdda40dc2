// The file-system limits that keep a media file from growing past what its volume takes,
// and the predicted growth of a file when its MQ data is added.
#pragma once

#include <cstdint>
#include <string>

namespace marquel {

constexpr int64_t kFat32SizeLimit = 4000000000;
constexpr int64_t kFat16SizeLimit = 2000000000;

// The size limit of a volume by its file-system name: "FAT32" 4,000,000,000 bytes,
// "FAT16" 2,000,000,000; 0 (no limit) for any other name.
int64_t FileSystemSizeLimit(const std::string& fileSystemName);

// The bytes a file grows by when an MQ data block of n bytes is added: whole 188-byte
// packets of 183 payload bytes for a transport stream (format 10), (n + 183) * 188 / 183;
// whole 2048-byte packs of 2025 payload bytes for any other format,
// (n + 2025) * 2048 / 2025. Integer arithmetic, truncating.
int64_t PredictedGrowth(int32_t format, int64_t n);

// The close's test: whether a file of `originalSize` bytes on a volume of limit `limit`
// reaches it (at or above) once a block of n bytes is added. False when limit is 0.
// (The move into the media file tests strictly above instead; both are intended.)
bool ReachesLimitAtClose(int64_t limit, int32_t format, int64_t n, uint64_t originalSize);
// The move's test: whether the file, with the block of n bytes added at `start`, would be
// strictly above the limit. False when limit is 0.
bool PassesLimitAtMove(int64_t limit, int32_t format, int64_t n, int64_t start);

}  // namespace marquel
