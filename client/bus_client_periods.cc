// BusClient: moving, copying and deleting periods, and time offsets.
#include "bus_client.h"

namespace marquel::client {

HRESULT BusClient::MoveDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle,
                                  int64_t llTargetStartTime, int64_t llSrcStartTime,
                                  int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                  int32_t nTimestretchDenominator) {
  return Guarded([&] {
    return proxy_->MoveDataPeriod(nTargetHandle, nSourceHandle, llTargetStartTime, llSrcStartTime,
                                  llSrcEndTime, nTimeStretchNumerator, nTimestretchDenominator);
  });
}

HRESULT BusClient::CopyDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle,
                                  int64_t llTargetStartTime, int64_t llSrcStartTime,
                                  int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                  int32_t nTimestretchDenominator) {
  return Guarded([&] {
    return proxy_->CopyDataPeriod(nTargetHandle, nSourceHandle, llTargetStartTime, llSrcStartTime,
                                  llSrcEndTime, nTimeStretchNumerator, nTimestretchDenominator);
  });
}

HRESULT BusClient::DeleteDataPeriod(int32_t nFileHandle, int64_t llTimeStart, int64_t llTimeEnd) {
  return Guarded([&] { return proxy_->DeleteDataPeriod(nFileHandle, llTimeStart, llTimeEnd); });
}

HRESULT BusClient::MoveDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle,
                                           int32_t nTagID, int64_t llTargetStartTime,
                                           int64_t llSrcStartTime, int64_t llSrcEndTime,
                                           int32_t nTimeStretchNumerator,
                                           int32_t nTimestretchDenominator) {
  return Guarded([&] {
    return proxy_->MoveDataPeriodForOneTag(nTargetHandle, nSourceHandle, nTagID, llTargetStartTime,
                                           llSrcStartTime, llSrcEndTime, nTimeStretchNumerator,
                                           nTimestretchDenominator);
  });
}

HRESULT BusClient::CopyDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle,
                                           int32_t nTagID, int64_t llTargetStartTime,
                                           int64_t llSrcStartTime, int64_t llSrcEndTime,
                                           int32_t nTimeStretchNumerator,
                                           int32_t nTimestretchDenominator) {
  return Guarded([&] {
    return proxy_->CopyDataPeriodForOneTag(nTargetHandle, nSourceHandle, nTagID, llTargetStartTime,
                                           llSrcStartTime, llSrcEndTime, nTimeStretchNumerator,
                                           nTimestretchDenominator);
  });
}

HRESULT BusClient::DeleteDataPeriodForOneTag(int32_t nFileHandle, int32_t nTagID,
                                             int64_t llTimeStart, int64_t llTimeEnd) {
  return Guarded([&] {
    return proxy_->DeleteDataPeriodForOneTag(nFileHandle, nTagID, llTimeStart, llTimeEnd);
  });
}

HRESULT BusClient::MoveDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                                int32_t nCategory, int64_t llTargetStartTime,
                                                int64_t llSrcStartTime, int64_t llSrcEndTime,
                                                int32_t nTimeStretchNumerator,
                                                int32_t nTimestretchDenominator) {
  return Guarded([&] {
    return proxy_->MoveDataPeriodForOneCategory(nTargetHandle, nSourceHandle, nCategory,
                                                llTargetStartTime, llSrcStartTime, llSrcEndTime,
                                                nTimeStretchNumerator, nTimestretchDenominator);
  });
}

HRESULT BusClient::CopyDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                                int32_t nCategory, int64_t llTargetStartTime,
                                                int64_t llSrcStartTime, int64_t llSrcEndTime,
                                                int32_t nTimeStretchNumerator,
                                                int32_t nTimestretchDenominator) {
  return Guarded([&] {
    return proxy_->CopyDataPeriodForOneCategory(nTargetHandle, nSourceHandle, nCategory,
                                                llTargetStartTime, llSrcStartTime, llSrcEndTime,
                                                nTimeStretchNumerator, nTimestretchDenominator);
  });
}

HRESULT BusClient::DeleteDataPeriodForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                                  int64_t llTimeStart, int64_t llTimeEnd) {
  return Guarded([&] {
    return proxy_->DeleteDataPeriodForOneCategory(nFileHandle, nCategory, llTimeStart, llTimeEnd);
  });
}

HRESULT BusClient::MinusTimeOffset(int32_t nFileHandle, int64_t llTimeOffset) {
  return Guarded([&] { return proxy_->MinusTimeOffset(nFileHandle, llTimeOffset); });
}

HRESULT BusClient::MinusTimeOffsetForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                                 int64_t llTimeOffset) {
  return Guarded(
      [&] { return proxy_->MinusTimeOffsetForOneCategory(nFileHandle, nCategory, llTimeOffset); });
}

HRESULT BusClient::MinustTimeOffsetForOneTag(int32_t nFileHandle, int32_t nTagID,
                                             int64_t llTimeOffset) {
  return Guarded(
      [&] { return proxy_->MinustTimeOffsetForOneTag(nFileHandle, nTagID, llTimeOffset); });
}

}  // namespace marquel::client
