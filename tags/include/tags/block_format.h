// The fixed parts of the serialised data block of one program.
//
// A block is a 26-byte header followed by three streams, in this order wherever a block
// is stored: the tag-id stream, the length stream and the data stream. Each stream ends
// in the CRC-32 of its own bytes (big-endian), and the header ends in the CRC-32 of its
// first 22 bytes. Header fields, in order:
//
//   offset  0   8 bits  format version, first byte   (1)
//   offset  1   8 bits  format version, second byte  (1)
//   offset  2  32 bits  block identifier             (0xFA010000)
//   offset  6  32 bits  length stream size, CRC included
//   offset 10  32 bits  data stream size, CRC included
//   offset 14  32 bits  tag-id stream size, CRC included
//   offset 18  32 bits  capacity of the program's tag table (256)
//   offset 22  32 bits  CRC-32 of bytes 0..21
//
// docs/block-format.md describes the streams entry by entry.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tags/bit_buffer.h"

namespace marquel {

constexpr size_t kBlockHeaderSize = 26;
// The header buffer of a program is always made with this many bytes.
constexpr size_t kBlockHeaderBufferSize = 52;
constexpr size_t kBlockCrcSize = 4;
constexpr uint8_t kBlockVersionFirst = 1;
constexpr uint8_t kBlockVersionSecond = 1;
constexpr uint32_t kBlockIdentifier = 0xFA010000u;
constexpr uint32_t kBlockTagTableCapacity = 256;

// Tag-id bytes of the two time entries; sample entries use the tag id itself.
constexpr uint8_t kAbsoluteTimeEntry = 0;
constexpr uint8_t kRelativeTimeEntry = 1;
// A time step of this size or more is written as an absolute time entry.
constexpr int64_t kAbsoluteTimeGap = 1000000;
// Bits of one length item (the value width of a sample entry).
constexpr int kLengthItemBits = 5;
// The sampling interval written for a state tag whose interval is 0.
constexpr int64_t kDefaultStateInterval = 333333;

// Tag types of the tag definition table, as far as the block codes them differently.
constexpr int32_t kTagTypeValue = 0;   // the value in `width` bits
constexpr int32_t kTagTypeDelta = 1;   // the difference to the previous value
constexpr int32_t kTagTypeValue2 = 2;  // as kTagTypeValue
constexpr int32_t kTagTypeState = 3;   // run-length coded 0/1 state
constexpr int32_t kTagTypeState2 = 4;  // as kTagTypeState
constexpr int32_t kTagTypeRaw = 5;     // a byte count, then the bytes

inline bool IsStateTagType(int32_t type) {
  return type == kTagTypeState || type == kTagTypeState2;
}

// The header's fields as read from or written to disk.
struct BlockHeader {
  uint8_t version_first = kBlockVersionFirst;
  uint8_t version_second = kBlockVersionSecond;
  uint32_t identifier = kBlockIdentifier;
  uint32_t length_size = 0;  // bytes of the length stream, CRC included
  uint32_t data_size = 0;    // bytes of the data stream, CRC included
  uint32_t tag_id_size = 0;  // bytes of the tag-id stream, CRC included
  uint32_t capacity = kBlockTagTableCapacity;
  uint32_t crc = 0;
};

// Writes the 26 header bytes for the given stream sizes into `out` (emptied first):
// version 1.1, the identifier, the three sizes, capacity 256 and the header CRC.
void WriteBlockHeader(uint32_t length_size, uint32_t data_size, uint32_t tag_id_size,
                      BitBuffer* out);

// Reads the fields of 26 header bytes. The CRC field is taken as stored; test it with
// BlockHeaderCrcOk.
BlockHeader ParseBlockHeader(const uint8_t* bytes);

// Whether bytes 22..25 hold, big-endian, the CRC-32 of bytes 0..21.
bool BlockHeaderCrcOk(const uint8_t* bytes);

// Whether a stream of n bytes ends in the CRC-32 of the bytes before its last 4. A
// stream shorter than 4 bytes cannot hold its CRC and fails.
bool StreamCrcOk(const uint8_t* bytes, size_t n);

// Reads a 32-bit big-endian value.
inline uint32_t LoadBigEndian32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

}  // namespace marquel
