// CMQInterface: tag lists, intervals, time offsets and periods.
#include <new>

#include "api/mq_interface.h"
#include "result_rules.h"

namespace marquel {
namespace {

// Tag ids are 0 to 255, so no list is longer.
constexpr int32_t kMaxTags = 256;

}  // namespace

HRESULT CMQInterface::QueryOneFileTagCount(int32_t nFileHandle, int32_t nProgramIndex,
                                           int32_t* nTagCount) {
  if (nTagCount == nullptr) return E_FAIL;
  return R6(ctrl_->QueryTagCount(nFileHandle, nProgramIndex), nTagCount);
}

HRESULT CMQInterface::QueryOneFileTagList(int32_t nFileHandle, int32_t nProgramIndex, int32_t m,
                                          std::vector<int32_t>* nTagList) {
  std::vector<int32_t> ids(kMaxTags);
  int32_t count = ctrl_->QueryTagList(nFileHandle, nProgramIndex, ids.data(), kMaxTags);
  ids.resize(Written(count, kMaxTags));
  if (nTagList) *nTagList = std::move(ids);
  return R3(count, m);
}

HRESULT CMQInterface::QueryOneFileRawDataTagCount(int32_t nFileHandle, int32_t nProgramIndex,
                                                  int32_t* nTagCount) {
  if (nTagCount == nullptr) return E_FAIL;
  return R6(ctrl_->QueryRawDataTagCount(nFileHandle, nProgramIndex), nTagCount);
}

HRESULT CMQInterface::QueryOneFileRawDataTagList(int32_t nFileHandle, int32_t nProgramIndex,
                                                 int32_t m, std::vector<int32_t>* pnTagList,
                                                 std::vector<int32_t>* pnOneDataLength, bool twin) {
  if (pnOneDataLength == nullptr || (twin && pnTagList == nullptr)) return E_INVALIDARG;
  std::vector<int32_t> ids(kMaxTags);
  std::vector<int32_t> sizes(kMaxTags);
  int32_t count =
      ctrl_->QueryRawDataTagList(nFileHandle, nProgramIndex, ids.data(), sizes.data(), kMaxTags);
  ids.resize(Written(count, kMaxTags));
  sizes.resize(Written(count, kMaxTags));
  if (pnTagList) *pnTagList = std::move(ids);
  *pnOneDataLength = std::move(sizes);
  return R3(count, m);
}

// --- Intervals and offsets -----------------------------------------------------------

HRESULT CMQInterface::QueryValidIntervalSize(int32_t nFileHandle, int32_t nProgramIndex,
                                             int32_t nTagID, int32_t* nSize) {
  return R4(ctrl_->QueryValidIntervalSize(nFileHandle, nProgramIndex, nTagID), nSize);
}

// The arrays are made as long as the tag's list of intervals (not m), so a small m cannot
// be overrun and a huge one allocates nothing; R3 then compares the count with m.
HRESULT CMQInterface::QueryValidInterval(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                         int32_t m, std::vector<int64_t>* llStartTimes,
                                         std::vector<int64_t>* llEndTimes) {
  int64_t size = ctrl_->QueryValidIntervalSize(nFileHandle, nProgramIndex, nTagID);
  if (size > kMaxReadSamples) return E_OUTOFMEMORY;
  size_t capacity = size > 0 ? static_cast<size_t>(size) : 0;
  std::vector<int64_t> starts, ends;
  try {
    starts.resize(capacity);
    ends.resize(capacity);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  int64_t count = ctrl_->QueryValidInterval(nFileHandle, nProgramIndex, nTagID, capacity,
                                            starts.data(), ends.data());
  starts.resize(Written(count, capacity));
  ends.resize(Written(count, capacity));
  if (llStartTimes) *llStartTimes = std::move(starts);
  if (llEndTimes) *llEndTimes = std::move(ends);
  return R3(count, m);
}

HRESULT CMQInterface::SetTimeIntervalForTag(int32_t nFileHandle, int32_t nProgramIndex,
                                            int32_t nTagID, int64_t llTimeInterval) {
  return R1(ctrl_->SetTimeIntervalForTag(nFileHandle, nProgramIndex, nTagID, llTimeInterval));
}

HRESULT CMQInterface::SetMinTimeInterval(int32_t /*nFileHandle*/, int64_t /*llMinTimeInterval*/) {
  return S_OK;
}

HRESULT CMQInterface::MinusTimeOffset(int32_t nFileHandle, int64_t llTimeOffset) {
  return R1(ctrl_->MinusTimeOffset(nFileHandle, 0, llTimeOffset));
}

HRESULT CMQInterface::MinusTimeOffsetForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                                    int64_t llTimeOffset) {
  return R1(ctrl_->MinusTimeOffsetForOneCategory(nFileHandle, 0, nCategory, llTimeOffset));
}

HRESULT CMQInterface::MinustTimeOffsetForOneTag(int32_t nFileHandle, int32_t nTagID,
                                                int64_t llTimeOffset) {
  return R1(ctrl_->MinustTimeOffsetForOneTag(nFileHandle, 0, nTagID, llTimeOffset));
}

// --- Periods -------------------------------------------------------------------------

HRESULT CMQInterface::DeleteDataPeriod(int32_t nFileHandle, int64_t llTimeStart,
                                       int64_t llTimeEnd) {
  return R1(ctrl_->DeleteDataPeriod(nFileHandle, llTimeStart, llTimeEnd));
}

HRESULT CMQInterface::DeleteDataPeriodForOneTag(int32_t nFileHandle, int32_t nTagID,
                                                int64_t llTimeStart, int64_t llTimeEnd) {
  return R1(ctrl_->DeleteDataPeriodForOneTag(nFileHandle, nTagID, llTimeStart, llTimeEnd));
}

HRESULT CMQInterface::DeleteDataPeriodForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                                     int64_t llTimeStart, int64_t llTimeEnd) {
  return R1(ctrl_->DeleteDataPeriodForOneCategory(nFileHandle, nCategory, llTimeStart, llTimeEnd));
}

HRESULT CMQInterface::MoveDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle,
                                     int64_t llTargetStartTime, int64_t llSrcStartTime,
                                     int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                     int32_t nTimestretchDenominator) {
  return R1(ctrl_->MoveDataPeriod(nTargetHandle, nSourceHandle, llTargetStartTime, llSrcStartTime,
                                  llSrcEndTime, nTimeStretchNumerator, nTimestretchDenominator));
}

HRESULT CMQInterface::CopyDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle,
                                     int64_t llTargetStartTime, int64_t llSrcStartTime,
                                     int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                     int32_t nTimestretchDenominator) {
  return R1(ctrl_->CopyDataPeriod(nTargetHandle, nSourceHandle, llTargetStartTime, llSrcStartTime,
                                  llSrcEndTime, nTimeStretchNumerator, nTimestretchDenominator));
}

HRESULT CMQInterface::MoveDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle,
                                              int32_t nTagID, int64_t llTargetStartTime,
                                              int64_t llSrcStartTime, int64_t llSrcEndTime,
                                              int32_t nTimeStretchNumerator,
                                              int32_t nTimestretchDenominator) {
  return R1(ctrl_->MoveDataPeriodForOneTag(nTargetHandle, nSourceHandle, nTagID, llTargetStartTime,
                                           llSrcStartTime, llSrcEndTime, nTimeStretchNumerator,
                                           nTimestretchDenominator));
}

HRESULT CMQInterface::CopyDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle,
                                              int32_t nTagID, int64_t llTargetStartTime,
                                              int64_t llSrcStartTime, int64_t llSrcEndTime,
                                              int32_t nTimeStretchNumerator,
                                              int32_t nTimestretchDenominator) {
  return R1(ctrl_->CopyDataPeriodForOneTag(nTargetHandle, nSourceHandle, nTagID, llTargetStartTime,
                                           llSrcStartTime, llSrcEndTime, nTimeStretchNumerator,
                                           nTimestretchDenominator));
}

HRESULT CMQInterface::MoveDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                                   int32_t nCategory, int64_t llTargetStartTime,
                                                   int64_t llSrcStartTime, int64_t llSrcEndTime,
                                                   int32_t nTimeStretchNumerator,
                                                   int32_t nTimestretchDenominator) {
  return R1(ctrl_->MoveDataPeriodForOneCategory(nTargetHandle, nSourceHandle, nCategory,
                                                llTargetStartTime, llSrcStartTime, llSrcEndTime,
                                                nTimeStretchNumerator, nTimestretchDenominator));
}

HRESULT CMQInterface::CopyDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                                   int32_t nCategory, int64_t llTargetStartTime,
                                                   int64_t llSrcStartTime, int64_t llSrcEndTime,
                                                   int32_t nTimeStretchNumerator,
                                                   int32_t nTimestretchDenominator) {
  return R1(ctrl_->CopyDataPeriodForOneCategory(nTargetHandle, nSourceHandle, nCategory,
                                                llTargetStartTime, llSrcStartTime, llSrcEndTime,
                                                nTimeStretchNumerator, nTimestretchDenominator));
}

}  // namespace marquel
