// MQAdaptor: tag lists, intervals, time offsets and periods.
#include "adaptor_guard.h"
#include "mq_adaptor.h"

namespace marquel::host {
namespace {

using Hr = int32_t;
using HrInt = std::tuple<int32_t, int32_t>;
using HrList = std::tuple<int32_t, std::vector<int32_t>>;
using HrTwoLists = std::tuple<int32_t, std::vector<int32_t>, std::vector<int32_t>>;
using HrIntervals = std::tuple<int32_t, std::vector<int64_t>, std::vector<int64_t>>;

}  // namespace

HrInt MQAdaptor::QueryOneFileTagCount(const int32_t& nFileHandle) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t count = 0;
    Hr hr = mq_.QueryOneFileTagCount(nFileHandle, 0, &count);
    return HrInt{hr, count};
  });
}

HrInt MQAdaptor::QueryOneFileTagCount2(const int32_t& nFileHandle, const int32_t& nProgramIndex) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t count = 0;
    Hr hr = mq_.QueryOneFileTagCount(nFileHandle, nProgramIndex, &count);
    return HrInt{hr, count};
  });
}

HrList MQAdaptor::QueryOneFileTagList(const int32_t& nFileHandle, const int32_t& m) {
  Admit();
  return Guarded<HrList>([&] {
    std::vector<int32_t> ids;
    Hr hr = mq_.QueryOneFileTagList(nFileHandle, 0, m, &ids);
    return HrList{hr, std::move(ids)};
  });
}

HrList MQAdaptor::QueryOneFileTagList2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                       const int32_t& m) {
  Admit();
  return Guarded<HrList>([&] {
    std::vector<int32_t> ids;
    Hr hr = mq_.QueryOneFileTagList(nFileHandle, nProgramIndex, m, &ids);
    return HrList{hr, std::move(ids)};
  });
}

HrInt MQAdaptor::QueryOneFileRawDataTagCount(const int32_t& nFileHandle) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t count = 0;
    Hr hr = mq_.QueryOneFileRawDataTagCount(nFileHandle, 0, &count);
    return HrInt{hr, count};
  });
}

HrInt MQAdaptor::QueryOneFileRawDataTagCount2(const int32_t& nFileHandle,
                                              const int32_t& nProgramIndex) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t count = 0;
    Hr hr = mq_.QueryOneFileRawDataTagCount(nFileHandle, nProgramIndex, &count);
    return HrInt{hr, count};
  });
}

HrTwoLists MQAdaptor::QueryOneFileRawDataTagList(const int32_t& nFileHandle, const int32_t& m) {
  Admit();
  return Guarded<HrTwoLists>([&] {
    std::vector<int32_t> ids, sizes;
    Hr hr = mq_.QueryOneFileRawDataTagList(nFileHandle, 0, m, &ids, &sizes);
    return HrTwoLists{hr, std::move(ids), std::move(sizes)};
  });
}

HrTwoLists MQAdaptor::QueryOneFileRawDataTagList2(const int32_t& nFileHandle,
                                                  const int32_t& nProgramIndex, const int32_t& m) {
  Admit();
  return Guarded<HrTwoLists>([&] {
    std::vector<int32_t> ids, sizes;
    Hr hr = mq_.QueryOneFileRawDataTagList(nFileHandle, nProgramIndex, m, &ids, &sizes, true);
    return HrTwoLists{hr, std::move(ids), std::move(sizes)};
  });
}

// --- Intervals -----------------------------------------------------------------------

HrInt MQAdaptor::QueryValidIntervalSize(const int32_t& nFileHandle, const int32_t& nTagID) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = 0;
    Hr hr = mq_.QueryValidIntervalSize(nFileHandle, 0, nTagID, &size);
    return HrInt{hr, size};
  });
}

HrInt MQAdaptor::QueryValidIntervalSize2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                         const int32_t& nTagID) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = 0;
    Hr hr = mq_.QueryValidIntervalSize(nFileHandle, nProgramIndex, nTagID, &size);
    return HrInt{hr, size};
  });
}

static HrIntervals Intervals(CMQInterface& mq, int32_t h, int32_t program, int32_t tag, int32_t m) {
  std::vector<int64_t> starts, ends;
  Hr hr = mq.QueryValidInterval(h, program, tag, m, &starts, &ends);
  // Each of the two arrays must stay below the reply bound.
  if (starts.size() * sizeof(int64_t) > kMaxReplyArrayBytes / 2)
    return HrIntervals{E_OUTOFMEMORY, {}, {}};
  return HrIntervals{hr, std::move(starts), std::move(ends)};
}

HrIntervals MQAdaptor::QueryValidInterval(const int32_t& nFileHandle, const int32_t& nTagID,
                                          const int32_t& m) {
  Admit();
  return Guarded<HrIntervals>([&] { return Intervals(mq_, nFileHandle, 0, nTagID, m); });
}

HrIntervals MQAdaptor::QueryValidInterval2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                           const int32_t& nTagID, const int32_t& m) {
  Admit();
  return Guarded<HrIntervals>(
      [&] { return Intervals(mq_, nFileHandle, nProgramIndex, nTagID, m); });
}

Hr MQAdaptor::SetTimeIntervalForTag(const int32_t& nFileHandle, const int32_t& nTagID,
                                    const int64_t& llTimeInterval) {
  Admit();
  return Guarded<Hr>(
      [&] { return mq_.SetTimeIntervalForTag(nFileHandle, 0, nTagID, llTimeInterval); });
}

Hr MQAdaptor::SetTimeIntervalForTag2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                     const int32_t& nTagID, const int64_t& llTimeInterval) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.SetTimeIntervalForTag(nFileHandle, nProgramIndex, nTagID, llTimeInterval);
  });
}

// --- Offsets -------------------------------------------------------------------------

Hr MQAdaptor::MinusTimeOffset(const int32_t& nFileHandle, const int64_t& llTimeOffset) {
  Admit();
  return Guarded<Hr>([&] { return mq_.MinusTimeOffset(nFileHandle, llTimeOffset); });
}

Hr MQAdaptor::MinusTimeOffsetForOneCategory(const int32_t& nFileHandle, const int32_t& nCategory,
                                            const int64_t& llTimeOffset) {
  Admit();
  return Guarded<Hr>(
      [&] { return mq_.MinusTimeOffsetForOneCategory(nFileHandle, nCategory, llTimeOffset); });
}

Hr MQAdaptor::MinustTimeOffsetForOneTag(const int32_t& nFileHandle, const int32_t& nTagID,
                                        const int64_t& llTimeOffset) {
  Admit();
  return Guarded<Hr>(
      [&] { return mq_.MinustTimeOffsetForOneTag(nFileHandle, nTagID, llTimeOffset); });
}

// --- Periods -------------------------------------------------------------------------

Hr MQAdaptor::DeleteDataPeriod(const int32_t& nFileHandle, const int64_t& llTimeStart,
                               const int64_t& llTimeEnd) {
  Admit();
  return Guarded<Hr>([&] { return mq_.DeleteDataPeriod(nFileHandle, llTimeStart, llTimeEnd); });
}

Hr MQAdaptor::DeleteDataPeriodForOneTag(const int32_t& nFileHandle, const int32_t& nTagID,
                                        const int64_t& llTimeStart, const int64_t& llTimeEnd) {
  Admit();
  return Guarded<Hr>(
      [&] { return mq_.DeleteDataPeriodForOneTag(nFileHandle, nTagID, llTimeStart, llTimeEnd); });
}

Hr MQAdaptor::DeleteDataPeriodForOneCategory(const int32_t& nFileHandle, const int32_t& nCategory,
                                             const int64_t& llTimeStart, const int64_t& llTimeEnd) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.DeleteDataPeriodForOneCategory(nFileHandle, nCategory, llTimeStart, llTimeEnd);
  });
}

Hr MQAdaptor::MoveDataPeriod(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                             const int64_t& llTargetStartTime, const int64_t& llSrcStartTime,
                             const int64_t& llSrcEndTime, const int32_t& nTimeStretchNumerator,
                             const int32_t& nTimestretchDenominator) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.MoveDataPeriod(nTargetHandle, nSourceHandle, llTargetStartTime, llSrcStartTime,
                              llSrcEndTime, nTimeStretchNumerator, nTimestretchDenominator);
  });
}

Hr MQAdaptor::CopyDataPeriod(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                             const int64_t& llTargetStartTime, const int64_t& llSrcStartTime,
                             const int64_t& llSrcEndTime, const int32_t& nTimeStretchNumerator,
                             const int32_t& nTimestretchDenominator) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.CopyDataPeriod(nTargetHandle, nSourceHandle, llTargetStartTime, llSrcStartTime,
                              llSrcEndTime, nTimeStretchNumerator, nTimestretchDenominator);
  });
}

Hr MQAdaptor::MoveDataPeriodForOneTag(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                                      const int32_t& nTagID, const int64_t& llTargetStartTime,
                                      const int64_t& llSrcStartTime, const int64_t& llSrcEndTime,
                                      const int32_t& nTimeStretchNumerator,
                                      const int32_t& nTimestretchDenominator) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.MoveDataPeriodForOneTag(nTargetHandle, nSourceHandle, nTagID, llTargetStartTime,
                                       llSrcStartTime, llSrcEndTime, nTimeStretchNumerator,
                                       nTimestretchDenominator);
  });
}

Hr MQAdaptor::CopyDataPeriodForOneTag(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                                      const int32_t& nTagID, const int64_t& llTargetStartTime,
                                      const int64_t& llSrcStartTime, const int64_t& llSrcEndTime,
                                      const int32_t& nTimeStretchNumerator,
                                      const int32_t& nTimestretchDenominator) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.CopyDataPeriodForOneTag(nTargetHandle, nSourceHandle, nTagID, llTargetStartTime,
                                       llSrcStartTime, llSrcEndTime, nTimeStretchNumerator,
                                       nTimestretchDenominator);
  });
}

Hr MQAdaptor::MoveDataPeriodForOneCategory(
    const int32_t& nTargetHandle, const int32_t& nSourceHandle, const int32_t& nCategory,
    const int64_t& llTargetStartTime, const int64_t& llSrcStartTime, const int64_t& llSrcEndTime,
    const int32_t& nTimeStretchNumerator, const int32_t& nTimestretchDenominator) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.MoveDataPeriodForOneCategory(nTargetHandle, nSourceHandle, nCategory,
                                            llTargetStartTime, llSrcStartTime, llSrcEndTime,
                                            nTimeStretchNumerator, nTimestretchDenominator);
  });
}

Hr MQAdaptor::CopyDataPeriodForOneCategory(
    const int32_t& nTargetHandle, const int32_t& nSourceHandle, const int32_t& nCategory,
    const int64_t& llTargetStartTime, const int64_t& llSrcStartTime, const int64_t& llSrcEndTime,
    const int32_t& nTimeStretchNumerator, const int32_t& nTimestretchDenominator) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.CopyDataPeriodForOneCategory(nTargetHandle, nSourceHandle, nCategory,
                                            llTargetStartTime, llSrcStartTime, llSrcEndTime,
                                            nTimeStretchNumerator, nTimestretchDenominator);
  });
}

}  // namespace marquel::host
