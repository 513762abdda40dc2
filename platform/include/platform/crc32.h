// The two CRC-32 kinds of the system.
//
// Both are incremental: feed the value returned by one call into the next, starting from
// the initial value, and finish as the kind requires. Feeding a buffer in chunks gives
// the same result as feeding it at once.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marquel {

// The reflected CRC-32 of IEEE 802.3 (polynomial 0xEDB88320, initial value 0xFFFFFFFF,
// final complement), used on the server's own data and on cache fingerprints.
// "123456789" gives 0xCBF43926.
constexpr uint32_t kCrc32IeeeInit = 0xFFFFFFFFu;
uint32_t Crc32IeeeUpdate(uint32_t state, const void* data, size_t size);
inline uint32_t Crc32IeeeFinish(uint32_t state) { return ~state; }
uint32_t Crc32Ieee(const void* data, size_t size);

// The CRC_32 of MPEG-2 systems (polynomial 0x04C11DB7, most significant bit first,
// initial value 0xFFFFFFFF, no final complement), used on PSI sections. A section
// followed by its own CRC gives 0. "123456789" gives 0x0376E6E7.
constexpr uint32_t kCrc32MpegInit = 0xFFFFFFFFu;
uint32_t Crc32MpegUpdate(uint32_t state, const void* data, size_t size);
uint32_t Crc32Mpeg(const void* data, size_t size);

}  // namespace marquel
