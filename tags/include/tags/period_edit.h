// Copying and moving periods of samples between two programs, with time stretching.
#pragma once

#include <cstdint>

#include "tags/mq_one_program.h"

namespace marquel {

// The new time code of a sample at `timeCode` copied from a period starting at
// `srcStart` to one starting at `targetStart`:
//   ((targetStart - srcStart) + timeCode) * numerator / denominator
// in signed 64-bit arithmetic, the product first, the quotient truncated toward zero. The
// target start is scaled together with the sample's offset; that is the required formula.
// Overflowing sums and products wrap (two's complement) rather than being undefined.
// The caller rejects a zero denominator.
int64_t StretchTimeCode(int64_t targetStart, int64_t srcStart, int64_t timeCode, int32_t numerator,
                        int32_t denominator);

// Which tags of a program a period operation covers.
struct TagScope {
  enum Kind { kAllTags, kOneCategory, kOneTag };
  Kind kind = kAllTags;
  int32_t value = 0;  // the category or the tag id

  static TagScope All() { return {kAllTags, 0}; }
  static TagScope Category(int32_t category) { return {kOneCategory, category}; }
  static TagScope OneTag(int32_t tagId) { return {kOneTag, tagId}; }
};

// Whether tag `tagId` of `program` is covered by `scope`: all tags 0..highest in use; the
// tags of a category among 0..min(255, highest in use); or the one id.
bool ScopeCovers(const TagScope& scope, const MQOneProgram& program, int32_t tagId);

// Period copy of the samples of [srcStart, srcEnd) of the covered tags of `source` into
// the same tag ids of `target`, each at its stretched time code (an equal time code in the
// target is replaced). The target takes a sample as MQOneProgram::InsertOne would. With
// `move` the samples the target kept are then deleted from the source tag, after the
// inserts (when it kept all, the whole source period is deleted, so samples that land
// inside the source period of the same program are deleted again); samples the target
// refused stay in the source. `source` and `target` may be the same program. Returns 1;
// -1 for a zero denominator (before any change), when a buffer cannot be had, when the
// target refused a sample (every other sample is still copied or moved), or when the
// source's records cannot be read (a move then deletes nothing).
int CopyPeriodBetweenPrograms(MQOneProgram& source, MQOneProgram& target, const TagScope& scope,
                              int64_t targetStart, int64_t srcStart, int64_t srcEnd,
                              int32_t numerator, int32_t denominator, bool move);

}  // namespace marquel
