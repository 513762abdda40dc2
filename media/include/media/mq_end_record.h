// The end record of the server's data inside a program-stream file, and the finder that
// locates it from the end of the file.
//
// When the server's data packs are appended to a program stream, the last of them carries
// a 36-byte end record as the last bytes of its 0xFA packet's payload. The record says
// where the data begins and what the file was before it was added, so that a reader finds
// the data without scanning the file. All numbers are big-endian:
//
//   offset 0   4 bytes  00 00 01 FF
//   offset 4   8 bytes  MQ start address (signed)
//   offset 12  8 bytes  the media file's modified time before the data was added
//   offset 20  8 bytes  the media file's size before the data was added
//   offset 28  8 bytes  -1 after an append; after an in-place merge, where the merged
//                       region ends
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/files.h"

namespace marquel {

constexpr size_t kMQEndRecordSize = 36;

struct MQEndRecord {
  int64_t start_address = -1;
  int64_t original_mtime = 0;
  uint64_t original_size = 0;
  int64_t last = -1;
};

// Writes the record's 36 bytes to `out`.
void SerialiseMQEndRecord(const MQEndRecord& record, uint8_t* out);

// Reads 36 bytes as an end record and checks them against a file of `file_size` bytes in
// which the record begins at `record_offset`: the marker 00 00 01 FF,
// a start address from 0 up to (not including) the record's offset and the file size, and
// an original size not below the start address; the last field -1, or past the start
// address and not after the record. False when any check fails.
bool ParseMQEndRecord(const uint8_t* bytes, int64_t record_offset, int64_t file_size,
                      MQEndRecord* out);

// A record found in a file and the offset of its first byte.
struct FoundMQEndRecord {
  MQEndRecord record;
  int64_t offset = -1;
};

// How many bytes at the end of a file the finder reads: four of the largest packs.
constexpr size_t kMQEndRecordSearchBytes = 4 * 2324;

// Looks for the end record in the last bytes of a file. `tail` holds the file's bytes
// from `tail_offset` to the end (`file_size`). The pack structure is followed from the
// first pack start code from which whole packs (pack header, then packets by their
// lengths) run exactly to the end of the file; the last pack must carry a 0xFA packet,
// and the last 36 bytes of the last such packet's payload must be a valid end record.
// Nothing is returned otherwise: a damaged last pack means no data, never an older copy.
// *damaged (when given) tells whether the file ends in whole packs whose last one carries
// a 0xFA packet, but without a valid record: data of ours that cannot be trusted.
std::optional<FoundMQEndRecord> FindMQEndRecordInTail(const uint8_t* tail, size_t size,
                                                      int64_t tail_offset, int64_t file_size,
                                                      bool* damaged = nullptr);

// Reads at most the last kMQEndRecordSearchBytes of the open file in one read and looks
// for the end record there (FindMQEndRecordInTail). The file position is left anywhere.
std::optional<FoundMQEndRecord> FindMQEndRecord(FileHandle file, bool* damaged = nullptr);

}  // namespace marquel
