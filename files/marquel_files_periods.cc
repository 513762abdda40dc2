// MarquelFiles: deletes over all programs and the two-handle move and copy.
#include "files/marquel_files.h"

namespace marquel {

int32_t MarquelFiles::DeleteAll(MarquelOneFile* file, const TagScope& scope, int64_t start,
                                int64_t end) {
  if (file == nullptr) return -1;
  int32_t result = 1;
  for (int32_t p = 0, n = file->ProgramCount(); p < n; ++p) {
    MQOneProgram* program = file->Program(p);
    int rc = 1;
    switch (scope.kind) {
      case TagScope::kAllTags:
        rc = program->DeleteDataPeriod(start, end);
        break;
      case TagScope::kOneCategory:
        // As within a program, the category form stops at the first tag that fails:
        // the programs after it keep their samples.
        rc = program->DeleteDataPeriodForOneCategory(scope.value, start, end);
        if (rc < 0) return -1;
        break;
      case TagScope::kOneTag:
        rc = program->DeleteDataPeriodForOneTag(scope.value, start, end);
        break;
    }
    if (rc < 0) result = -1;
  }
  return result;
}

int32_t MarquelFiles::DeleteDataPeriod(int32_t handle, int64_t start, int64_t end) {
  return DeleteAll(WritableSessionAt(handle), TagScope::All(), start, end);
}

int32_t MarquelFiles::DeleteDataPeriodForOneTag(int32_t handle, int32_t tagId, int64_t start,
                                                int64_t end) {
  return DeleteAll(WritableSessionAt(handle), TagScope::OneTag(tagId), start, end);
}

int32_t MarquelFiles::DeleteDataPeriodForOneCategory(int32_t handle, int32_t category,
                                                     int64_t start, int64_t end) {
  return DeleteAll(WritableSessionAt(handle), TagScope::Category(category), start, end);
}

int32_t MarquelFiles::TwoHandle(int32_t target, int32_t source, const TagScope& scope,
                                int64_t targetStart, int64_t srcStart, int64_t srcEnd,
                                int32_t numerator, int32_t denominator, bool move) {
  // The target is changed, and so is the source of a move.
  MarquelOneFile* to = WritableSessionAt(target);
  MarquelOneFile* from = move ? WritableSessionAt(source) : SessionAt(source);
  if (to == nullptr || from == nullptr || denominator == 0) return -1;
  // A program whose copy refused samples fails the call; the other programs still go.
  int32_t result = 1;
  for (int32_t p = 0, n = from->ProgramCount(); p < n; ++p) {
    MQOneProgram* src = from->Program(p);
    // The target program is the one with the same PMT PID, made when missing.
    int32_t index = -1;
    if (to->InsertNewProgram(src->PMTPID(), &index) != 1) continue;
    MQOneProgram* dst = to->Program(index);
    if (dst == nullptr) continue;
    if (CopyPeriodBetweenPrograms(*src, *dst, scope, targetStart, srcStart, srcEnd, numerator,
                                  denominator, move) < 0)
      result = -1;
  }
  return result;
}

int32_t MarquelFiles::MoveDataPeriod(int32_t target, int32_t source, int64_t llTargetStartTime,
                                     int64_t llSrcStartTime, int64_t llSrcEndTime,
                                     int32_t numerator, int32_t denominator) {
  return TwoHandle(target, source, TagScope::All(), llTargetStartTime, llSrcStartTime, llSrcEndTime,
                   numerator, denominator, true);
}

int32_t MarquelFiles::CopyDataPeriod(int32_t target, int32_t source, int64_t llTargetStartTime,
                                     int64_t llSrcStartTime, int64_t llSrcEndTime,
                                     int32_t numerator, int32_t denominator) {
  return TwoHandle(target, source, TagScope::All(), llTargetStartTime, llSrcStartTime, llSrcEndTime,
                   numerator, denominator, false);
}

int32_t MarquelFiles::MoveDataPeriodForOneTag(int32_t target, int32_t source, int32_t tagId,
                                              int64_t llTargetStartTime, int64_t llSrcStartTime,
                                              int64_t llSrcEndTime, int32_t numerator,
                                              int32_t denominator) {
  return TwoHandle(target, source, TagScope::OneTag(tagId), llTargetStartTime, llSrcStartTime,
                   llSrcEndTime, numerator, denominator, true);
}

int32_t MarquelFiles::CopyDataPeriodForOneTag(int32_t target, int32_t source, int32_t tagId,
                                              int64_t llTargetStartTime, int64_t llSrcStartTime,
                                              int64_t llSrcEndTime, int32_t numerator,
                                              int32_t denominator) {
  return TwoHandle(target, source, TagScope::OneTag(tagId), llTargetStartTime, llSrcStartTime,
                   llSrcEndTime, numerator, denominator, false);
}

int32_t MarquelFiles::MoveDataPeriodForOneCategory(int32_t target, int32_t source, int32_t category,
                                                   int64_t llTargetStartTime,
                                                   int64_t llSrcStartTime, int64_t llSrcEndTime,
                                                   int32_t numerator, int32_t denominator) {
  return TwoHandle(target, source, TagScope::Category(category), llTargetStartTime, llSrcStartTime,
                   llSrcEndTime, numerator, denominator, true);
}

int32_t MarquelFiles::CopyDataPeriodForOneCategory(int32_t target, int32_t source, int32_t category,
                                                   int64_t llTargetStartTime,
                                                   int64_t llSrcStartTime, int64_t llSrcEndTime,
                                                   int32_t numerator, int32_t denominator) {
  return TwoHandle(target, source, TagScope::Category(category), llTargetStartTime, llSrcStartTime,
                   llSrcEndTime, numerator, denominator, false);
}

}  // namespace marquel
