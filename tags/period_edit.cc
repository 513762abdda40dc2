// Period copy and move between programs.
#include "tags/period_edit.h"

#include <algorithm>
#include <limits>
#include <new>
#include <vector>

namespace marquel {

int64_t StretchTimeCode(int64_t targetStart, int64_t srcStart, int64_t timeCode, int32_t numerator,
                        int32_t denominator) {
  // Two's complement arithmetic through unsigned values: the same bits as a plain signed
  // 64-bit machine computation, without undefined behaviour on overflow.
  uint64_t sum = static_cast<uint64_t>(targetStart) - static_cast<uint64_t>(srcStart) +
                 static_cast<uint64_t>(timeCode);
  int64_t product =
      static_cast<int64_t>(sum * static_cast<uint64_t>(static_cast<int64_t>(numerator)));
  if (denominator == -1) return static_cast<int64_t>(0 - static_cast<uint64_t>(product));
  return product / denominator;  // C++ division truncates toward zero
}

bool ScopeCovers(const TagScope& scope, const MQOneProgram& program, int32_t tagId) {
  if (!IsValidTagId(tagId) || tagId > program.HighestTagId()) return false;
  switch (scope.kind) {
    case TagScope::kAllTags:
      return true;
    case TagScope::kOneCategory:
      return kTagDefinitions[tagId].nCategory == scope.value;
    case TagScope::kOneTag:
      return tagId == scope.value;
  }
  return false;
}

namespace {

// Stretches one chunk and inserts it into the target tag. Stretching keeps the order for a
// positive ratio and reverses it for a negative one; equal new time codes (a ratio that
// collapses times) go in one at a time so that the later sample wins, as single inserts do.
void InsertStretched(MQOneProgram& target, int32_t tagId, std::vector<SampleRecord>& chunk,
                     int64_t targetStart, int64_t srcStart, int32_t num, int32_t den) {
  for (SampleRecord& r : chunk) {
    r.llTimeCode = StretchTimeCode(targetStart, srcStart, r.llTimeCode, num, den);
  }
  bool descending = chunk.size() > 1 && chunk.front().llTimeCode > chunk.back().llTimeCode;
  if (descending) {
    bool strictly = true;
    for (size_t i = 1; i < chunk.size() && strictly; ++i)
      strictly = chunk[i].llTimeCode < chunk[i - 1].llTimeCode;
    if (strictly) std::reverse(chunk.begin(), chunk.end());
  }
  bool raw = !chunk.empty() && chunk.front().nKind == kRawSample;
  if (raw && !AcceptsRawData(tagId)) return;
  TagObject* tag = target.GetOrCreateTag(tagId);
  if (tag != nullptr) tag->InsertSorted(chunk.data(), static_cast<int64_t>(chunk.size()));
}

// Copies the covered period of one tag. A source tag that is also the target is read
// whole before anything is inserted, and refused (-1, nothing changed) when that would
// hold more than kSameTagCopyBytes; otherwise it is read in chunks of at most 65,536
// records and kStorePieceBytes.
int CopyOneTag(TagObject* source, MQOneProgram& target, int32_t tagId, int64_t targetStart,
               int64_t srcStart, int64_t srcEnd, int32_t num, int32_t den) {
  int64_t total = source->CountInPeriod(srcStart, srcEnd);
  if (total == 0) return 1;
  bool sameTag = target.Tag(tagId) == source;
  const int64_t recordBytes = int64_t{32} + source->RawSampleSize();
  if (sameTag && total > RecordsWithin(kSameTagCopyBytes, recordBytes)) return -1;
  const int64_t chunkMax =
      sameTag ? total
              : std::min<int64_t>({total, 65536, RecordsWithin(kStorePieceBytes, recordBytes)});
  std::vector<SampleRecord> chunk;
  try {
    chunk.resize(static_cast<size_t>(chunkMax));
  } catch (const std::bad_alloc&) {
    return -1;
  }
  int64_t from = srcStart;
  while (true) {
    chunk.resize(static_cast<size_t>(chunkMax));
    int64_t got = source->ReadPeriod(from, srcEnd, chunk.data(), chunkMax);
    if (got <= 0) break;
    chunk.resize(static_cast<size_t>(got));
    int64_t lastSource = chunk.back().llTimeCode;
    InsertStretched(target, tagId, chunk, targetStart, srcStart, num, den);
    FreeSampleBuffers(chunk.data(), got);
    if (sameTag || got < chunkMax || lastSource == std::numeric_limits<int64_t>::max()) break;
    from = lastSource + 1;
  }
  return 1;
}

}  // namespace

int CopyPeriodBetweenPrograms(MQOneProgram& source, MQOneProgram& target, const TagScope& scope,
                              int64_t targetStart, int64_t srcStart, int64_t srcEnd,
                              int32_t numerator, int32_t denominator, bool move) {
  if (denominator == 0) return -1;  // would divide by zero; refused before any change
  for (int32_t id = 0, top = source.HighestTagId(); id <= top; ++id) {
    if (!ScopeCovers(scope, source, id)) continue;
    TagObject* tag = source.Tag(id);
    if (tag == nullptr || tag->CountInPeriod(srcStart, srcEnd) == 0) continue;
    if (CopyOneTag(tag, target, id, targetStart, srcStart, srcEnd, numerator, denominator) < 0)
      return -1;
    if (move) tag->DeletePeriod(srcStart, srcEnd);
  }
  return 1;
}

}  // namespace marquel
