// The first program's PMT PID of a transport-stream file, found from its PAT.
//
// The persistence code uses this PID to name the program whose tags it keeps and where
// its own data goes. Both functions answer -1 (all bits set when seen as unsigned) for
// every failure and never read outside the bytes they were given.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/files.h"

namespace marquel {

// The largest PAT section_length accepted: a PSI section is at most 1024 bytes.
constexpr int32_t kTsMaxPatSectionLength = 1021;

// How far FindPmtPid reads before it gives up.
constexpr int64_t kFindPmtPidReadLimit = 2097152;

// The PID of the first entry of a PAT section whose program number is not 0, or -1.
// `section` starts at the table id; `size` is how many bytes of it are available.
// A section_length above 1021, fewer than one entry, or no program entry within the
// section and within `size` answers -1.
int32_t ParsePatSection(const uint8_t* section, size_t size);

// Reads `file` from `startOffset` one unit of `packetSize` bytes (188, 192 or 204; the
// 188-byte packet follows a prefix of packetSize - 188 bytes) at a time and answers the
// PMT PID of the first program of the first PAT found, or -1: seek or read failure, end
// of file, a packet size below 188, or more than 2 MiB read without a result.
int32_t FindPmtPid(FileHandle file, int32_t packetSize, int64_t startOffset);

}  // namespace marquel
