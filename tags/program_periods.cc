// MQOneProgram: deletes, time offsets, intervals, per tag, per category, for all tags.
#include "tags/mq_one_program.h"
#include "tags/period_edit.h"

namespace marquel {

int MQOneProgram::DeleteDataPeriodForOneTag(int32_t tagId, int64_t start, int64_t end) {
  TagObject* tag = TagOrNull(tagId);
  if (tag == nullptr) return 1;
  // No count first: a count that fails reads as 0, and the delete would then report
  // success for samples it never removed. A delete of an empty range removes nothing.
  return tag->DeletePeriod(start, end);
}

int MQOneProgram::DeleteDataPeriod(int64_t start, int64_t end) {
  int result = 1;
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    if (DeleteDataPeriodForOneTag(id, start, end) < 0) result = -1;
  }
  return result;
}

int MQOneProgram::DeleteDataPeriodForOneCategory(int32_t category, int64_t start, int64_t end) {
  TagScope scope = TagScope::Category(category);
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    if (!ScopeCovers(scope, *this, id)) continue;
    // The category form stops at the first failing tag and reports it.
    int rc = DeleteDataPeriodForOneTag(id, start, end);
    if (rc == -1) return rc;
  }
  return 1;
}

int MQOneProgram::MinusTimeOffset(int64_t offset) {
  int result = 1;
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    TagObject* tag = TagOrNull(id);
    if (tag != nullptr && tag->MinusTimeOffset(offset) < 0) result = -1;
  }
  return result;
}

int MQOneProgram::MinusTimeOffsetForOneCategory(int32_t category, int64_t offset) {
  TagScope scope = TagScope::Category(category);
  int result = 1;
  for (int32_t id = 0, top = HighestTagId(); id <= top; ++id) {
    TagObject* tag = TagOrNull(id);
    if (tag != nullptr && ScopeCovers(scope, *this, id) && tag->MinusTimeOffset(offset) < 0)
      result = -1;
  }
  return result;
}

int MQOneProgram::MinustTimeOffsetForOneTag(int32_t tagId, int64_t offset) {
  TagObject* tag = TagOrNull(tagId);
  if (tag == nullptr) return 1;
  return tag->MinusTimeOffset(offset) < 0 ? -1 : 1;
}

int MQOneProgram::SetTimeIntervalForTag(int32_t tagId, int64_t interval) {
  TagObject* tag = TagOrNull(tagId);
  if (tag == nullptr) return -1;
  tag->SetInterval(interval, true);
  return 1;
}

int MQOneProgram::SetMinTimeInterval(int64_t /*interval*/) {
  return 1;
}

int64_t MQOneProgram::QueryValidIntervalSize(int32_t tagId) {
  TagObject* tag = TagOrNull(tagId);
  return tag ? tag->ValidIntervalCount() : 0;
}

int64_t MQOneProgram::QueryValidInterval(int32_t tagId, int64_t capacity, int64_t* starts,
                                         int64_t* ends) {
  TagObject* tag = TagOrNull(tagId);
  if (tag == nullptr) return 0;
  if (starts == nullptr || ends == nullptr || capacity < 0) capacity = 0;
  return tag->ValidIntervals(starts, ends, capacity);
}

}  // namespace marquel
