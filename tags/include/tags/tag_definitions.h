// The built-in tag definition table: one row per tag id 0..255.
//
// Each row gives the value width in bits (used by the serialised data block), the type
// (5 = accepts raw-data samples, 0 = plain, 1 to 4 on single ids) and the category that
// groups tag ids for the per-category period operations.
#pragma once

#include <cstdint>

namespace marquel {

// Number of tag ids, and of slots in a program's tag table.
constexpr int32_t kTagIdCount = 256;
// The type of the tags that accept raw-data samples.
constexpr int32_t kRawDataTagType = 5;
// Categories are 0 to 3.
constexpr int32_t kCategoryCount = 4;

struct TagDefinition {
  int32_t nTagID;
  int32_t nBits;
  int32_t nType;
  int32_t nCategory;
};

// The 256 rows; row i describes tag id i.
extern const TagDefinition kTagDefinitions[kTagIdCount];

// Whether `tagId` is a tag id (0..255).
inline bool IsValidTagId(int32_t tagId) {
  return tagId >= 0 && tagId < kTagIdCount;
}

// The row of `tagId`, or null when it is not a tag id.
inline const TagDefinition* FindTagDefinition(int32_t tagId) {
  return IsValidTagId(tagId) ? &kTagDefinitions[tagId] : nullptr;
}

// Whether `tagId` is a tag id whose type accepts raw-data samples.
inline bool AcceptsRawData(int32_t tagId) {
  return IsValidTagId(tagId) && kTagDefinitions[tagId].nType == kRawDataTagType;
}

// Whether the data block can carry samples of `tagId`: ids 0 and 1 are the time entries
// id bytes, and a tag of width 0 (255) is written without its value, so samples of those
// would be gone after the close.
inline bool BlockCarriesTag(int32_t tagId) {
  return tagId >= 2 && tagId < kTagIdCount && kTagDefinitions[tagId].nBits > 0;
}

// The longest raw sample, in bytes, that the data block can carry for `tagId`: its count
// field is the tag's value width, so 2^width - 1 (tag 31, 4 bits: 15 bytes). 0 for an id
// that is not a tag id.
inline int64_t RawLengthLimit(int32_t tagId) {
  if (!IsValidTagId(tagId)) return 0;
  int32_t bits = kTagDefinitions[tagId].nBits;
  return bits >= 62 ? INT64_MAX : (int64_t{1} << bits) - 1;
}

}  // namespace marquel
