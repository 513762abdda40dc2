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

// The source samples a move may delete: runs of consecutive accepted samples, in source
// order, each deleted as one period once the whole tag is copied.
class AcceptedRuns {
 public:
  void Add(int64_t sourceTime, bool accepted) {
    if (!accepted) {
      refused_ = true;
      open_ = false;
      return;
    }
    if (!open_) runs_.push_back({sourceTime, sourceTime});
    runs_.back().second = sourceTime;
    open_ = true;
  }
  bool AnyRefused() const { return refused_; }
  // Deletes the runs from `tag`; without a refusal the whole period goes, as a move of
  // everything deletes its source period.
  int DeleteFrom(TagObject* tag, int64_t srcStart, int64_t srcEnd) const {
    if (!refused_) return tag->DeletePeriod(srcStart, srcEnd);
    for (const auto& [first, last] : runs_) {
      int64_t end = last == std::numeric_limits<int64_t>::max() ? -1 : last + 1;
      if (tag->DeletePeriod(first, end) < 0) return -1;
    }
    return 1;
  }

 private:
  std::vector<std::pair<int64_t, int64_t>> runs_;
  bool open_ = false;
  bool refused_ = false;
};

// Stretches one chunk and inserts it into the target tag, noting in `runs` which source
// samples the target kept. Stretching keeps the order for a positive ratio and reverses
// it for a negative one; equal new time codes (a ratio that collapses times) go in one at
// a time so that the later sample wins, as single inserts do. The target takes what
// InsertOne would take: a sample its rules refuse is not inserted.
int InsertStretched(MQOneProgram& target, int32_t tagId, std::vector<SampleRecord>& chunk,
                    int64_t targetStart, int64_t srcStart, int32_t num, int32_t den,
                    AcceptedRuns* runs) {
  std::vector<int64_t> sourceTimes(chunk.size());
  std::vector<uint8_t> kept(chunk.size(), 0);
  for (size_t i = 0; i < chunk.size(); ++i) {
    sourceTimes[i] = chunk[i].llTimeCode;
    chunk[i].llTimeCode = StretchTimeCode(targetStart, srcStart, chunk[i].llTimeCode, num, den);
  }
  bool reversed = false;
  if (chunk.size() > 1 && chunk.front().llTimeCode > chunk.back().llTimeCode) {
    bool strictly = true;
    for (size_t i = 1; i < chunk.size() && strictly; ++i)
      strictly = chunk[i].llTimeCode < chunk[i - 1].llTimeCode;
    if (strictly) std::reverse(chunk.begin(), chunk.end());
    reversed = strictly;
  }
  // The admitted samples keep their order; the others stay out of the target.
  std::vector<SampleRecord> admitted;
  std::vector<size_t> at;
  for (size_t i = 0; i < chunk.size(); ++i) {
    if (!MQOneProgram::Admits(tagId, chunk[i])) continue;
    admitted.push_back(chunk[i]);
    at.push_back(i);
  }
  TagObject* tag = admitted.empty() ? nullptr : target.GetOrCreateTag(tagId);
  if (tag != nullptr) {
    std::vector<uint8_t> stored(admitted.size(), 0);
    tag->InsertSorted(admitted.data(), static_cast<int64_t>(admitted.size()), stored.data());
    for (size_t k = 0; k < admitted.size(); ++k) kept[at[k]] = stored[k];
  }
  if (reversed) std::reverse(kept.begin(), kept.end());
  for (size_t i = 0; i < chunk.size(); ++i) runs->Add(sourceTimes[i], kept[i] != 0);
  return runs->AnyRefused() ? -1 : 1;
}

// Copies the covered period of one tag, and with `move` deletes from the source what the
// target kept. A source tag that is also the target is read whole before anything is
// inserted, and refused (-1, nothing changed) when that would hold more than
// kSameTagCopyBytes; otherwise it is read in chunks of at most 65,536 records and
// kStorePieceBytes of raw bytes (and one sample). Returns 1, or -1 when a buffer cannot be
// had or the target refused a sample (the rest is still copied).
int CopyOneTag(TagObject* source, MQOneProgram& target, int32_t tagId, int64_t targetStart,
               int64_t srcStart, int64_t srcEnd, int32_t num, int32_t den, bool move) {
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
  AcceptedRuns runs;
  int result = 1;
  int64_t from = srcStart;
  while (true) {
    chunk.resize(static_cast<size_t>(chunkMax));
    // Samples may be longer than the tag's sample size, so chunks are bounded in bytes too.
    int64_t got = source->ReadPeriod(from, srcEnd, chunk.data(), chunkMax,
                                     sameTag ? kSameTagCopyBytes : kStorePieceBytes);
    if (got < 0) {
      // Unread samples are neither copied nor, for a move, deleted: the source keeps them.
      result = -1;
      move = false;
    }
    if (got <= 0) break;
    chunk.resize(static_cast<size_t>(got));
    if (sameTag && got < total) {
      // The tag's own period holds more bytes than a copy within it may: nothing changes.
      FreeSampleBuffers(chunk.data(), got);
      return -1;
    }
    int64_t lastSource = chunk.back().llTimeCode;
    if (InsertStretched(target, tagId, chunk, targetStart, srcStart, num, den, &runs) < 0)
      result = -1;
    FreeSampleBuffers(chunk.data(), got);
    if (sameTag || lastSource == std::numeric_limits<int64_t>::max()) break;
    from = lastSource + 1;
  }
  if (move && runs.DeleteFrom(source, srcStart, srcEnd) < 0) result = -1;
  return result;
}

}  // namespace

int CopyPeriodBetweenPrograms(MQOneProgram& source, MQOneProgram& target, const TagScope& scope,
                              int64_t targetStart, int64_t srcStart, int64_t srcEnd,
                              int32_t numerator, int32_t denominator, bool move) {
  if (denominator == 0) return -1;  // would divide by zero; refused before any change
  int result = 1;
  for (int32_t id = 0, top = source.HighestTagId(); id <= top; ++id) {
    if (!ScopeCovers(scope, source, id)) continue;
    TagObject* tag = source.Tag(id);
    if (tag == nullptr || tag->CountInPeriod(srcStart, srcEnd) == 0) continue;
    if (CopyOneTag(tag, target, id, targetStart, srcStart, srcEnd, numerator, denominator, move) <
        0)
      result = -1;
  }
  return result;
}

}  // namespace marquel
