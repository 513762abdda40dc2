// BusClient: tag counts and lists, single samples, intervals, periods and time offsets.
#include <algorithm>
#include <cstring>

#include "bus_client.h"

namespace marquel::client {
namespace {

template <typename T>
void CopyOut(const std::vector<T>& from, int64_t capacity, T* to) {
  if (to == nullptr) return;
  size_t n = Clamp(from.size(), capacity);
  std::copy(from.begin(), from.begin() + n, to);
}

// The bytes of a raw sample to send: nLength bytes of pData, none without a buffer.
std::vector<uint8_t> RawBytes(int32_t nLength, const uint8_t* pData) {
  if (pData == nullptr || nLength <= 0) return {};
  return std::vector<uint8_t>(pData, pData + nLength);
}

// Copies a sample's bytes into the caller's buffer of `capacity` bytes (none without one).
void CopyBytes(const std::vector<uint8_t>& bytes, int32_t capacity, uint8_t* to) {
  if (to == nullptr) return;
  size_t n = Clamp(bytes.size(), capacity);
  if (n > 0) std::memcpy(to, bytes.data(), n);
}

}  // namespace

HRESULT BusClient::GetDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                              int32_t* nValue) {
  return Guarded([&] {
    auto [hr, value] = proxy_->GetDataOne(nFileHandle, nTagID, llTimeCode);
    if (hr == S_OK && nValue) *nValue = value;
    return hr;
  });
}

HRESULT BusClient::GetDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                               int64_t llTimeCode, int32_t* nValue) {
  return Guarded([&] {
    auto [hr, value] = proxy_->GetDataOne2(nFileHandle, nProgramIndex, nTagID, llTimeCode);
    if (hr == S_OK && nValue) *nValue = value;
    return hr;
  });
}

HRESULT BusClient::InsertDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                                 int32_t nData) {
  return Guarded([&] { return proxy_->InsertDataOne(nFileHandle, nTagID, llTimeCode, nData); });
}

HRESULT BusClient::InsertDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                  int64_t llTimeCode, int32_t nData) {
  return Guarded([&] {
    return proxy_->InsertDataOne2(nFileHandle, nProgramIndex, nTagID, llTimeCode, nData);
  });
}

HRESULT BusClient::QueryOneTagPeriodSize(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime,
                                         int64_t llEndTime, int32_t* nSize) {
  return Guarded([&] {
    auto [hr, size] = proxy_->QueryOneTagPeriodSize(nFileHandle, nTagID, llStartTime, llEndTime);
    if (hr == S_OK && nSize) *nSize = size;
    return hr;
  });
}

HRESULT BusClient::QueryOneTagPeriodSize2(int32_t nFileHandle, int32_t nProgramIndex,
                                          int32_t nTagID, int64_t llStartTime, int64_t llEndTime,
                                          int32_t* nSize) {
  return Guarded([&] {
    auto [hr, size] =
        proxy_->QueryOneTagPeriodSize2(nFileHandle, nProgramIndex, nTagID, llStartTime, llEndTime);
    if (hr == S_OK && nSize) *nSize = size;
    return hr;
  });
}

HRESULT BusClient::QueryOneTagSize(int32_t nFileHandle, int32_t nTagID, int32_t* nSize) {
  return Guarded([&] {
    auto [hr, size] = proxy_->QueryOneTagSize(nFileHandle, nTagID);
    if (hr == S_OK && nSize) *nSize = size;
    return hr;
  });
}

HRESULT BusClient::QueryOneTagSize2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int32_t* nSize) {
  return Guarded([&] {
    auto [hr, size] = proxy_->QueryOneTagSize2(nFileHandle, nProgramIndex, nTagID);
    if (hr == S_OK && nSize) *nSize = size;
    return hr;
  });
}

HRESULT BusClient::QueryOneFileTagCount(int32_t nFileHandle, int32_t* nTagCount) {
  if (nTagCount == nullptr) return E_FAIL;
  return Guarded([&] {
    auto [hr, count] = proxy_->QueryOneFileTagCount(nFileHandle);
    if (hr == S_OK) *nTagCount = count;
    return hr;
  });
}

HRESULT BusClient::QueryOneFileTagCount2(int32_t nFileHandle, int32_t nProgramIndex,
                                         int32_t* nTagCount) {
  if (nTagCount == nullptr) return E_FAIL;
  return Guarded([&] {
    auto [hr, count] = proxy_->QueryOneFileTagCount2(nFileHandle, nProgramIndex);
    if (hr == S_OK) *nTagCount = count;
    return hr;
  });
}

HRESULT BusClient::QueryOneFileTagList(int32_t nFileHandle, int32_t m, int32_t* nTagList) {
  return Guarded([&] {
    auto [hr, list] = proxy_->QueryOneFileTagList(nFileHandle, m);
    CopyOut(list, m, nTagList);
    return hr;
  });
}

HRESULT BusClient::QueryOneFileTagList2(int32_t nFileHandle, int32_t nProgramIndex, int32_t m,
                                        int32_t* nTagList) {
  return Guarded([&] {
    auto [hr, list] = proxy_->QueryOneFileTagList2(nFileHandle, nProgramIndex, m);
    CopyOut(list, m, nTagList);
    return hr;
  });
}

HRESULT BusClient::QueryOneFileRawDataTagCount(int32_t nFileHandle, int32_t* nTagCount) {
  if (nTagCount == nullptr) return E_FAIL;
  return Guarded([&] {
    auto [hr, count] = proxy_->QueryOneFileRawDataTagCount(nFileHandle);
    if (hr == S_OK) *nTagCount = count;
    return hr;
  });
}

HRESULT BusClient::QueryOneFileRawDataTagCount2(int32_t nFileHandle, int32_t nProgramIndex,
                                                int32_t* nTagCount) {
  if (nTagCount == nullptr) return E_FAIL;
  return Guarded([&] {
    auto [hr, count] = proxy_->QueryOneFileRawDataTagCount2(nFileHandle, nProgramIndex);
    if (hr == S_OK) *nTagCount = count;
    return hr;
  });
}

HRESULT BusClient::QueryOneFileRawDataTagList(int32_t nFileHandle, int32_t m, int32_t* nTagList,
                                              int32_t* pnOneDataLength) {
  if (pnOneDataLength == nullptr) return E_INVALIDARG;
  return Guarded([&] {
    auto [hr, list, lengths] = proxy_->QueryOneFileRawDataTagList(nFileHandle, m);
    CopyOut(list, m, nTagList);
    CopyOut(lengths, m, pnOneDataLength);
    return hr;
  });
}

HRESULT BusClient::QueryOneFileRawDataTagList2(int32_t nFileHandle, int32_t nProgramIndex,
                                               int32_t m, int32_t* pnTagList,
                                               int32_t* pnOneDataLength) {
  if (pnTagList == nullptr || pnOneDataLength == nullptr) return E_INVALIDARG;
  return Guarded([&] {
    auto [hr, list, lengths] = proxy_->QueryOneFileRawDataTagList2(nFileHandle, nProgramIndex, m);
    CopyOut(list, m, pnTagList);
    CopyOut(lengths, m, pnOneDataLength);
    return hr;
  });
}

HRESULT BusClient::QueryRawDataTagSampleSize(int32_t nFileHandle, int32_t nProgramIndex,
                                             int32_t nTagID, int32_t* nSampleSize) {
  if (nSampleSize == nullptr) return E_INVALIDARG;
  return Guarded([&] {
    auto [hr, size] = proxy_->QueryRawDataTagSampleSize(nFileHandle, nProgramIndex, nTagID);
    if (hr == S_OK) *nSampleSize = size;
    return hr;
  });
}

HRESULT BusClient::GetRawDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                                 int32_t nLength, uint8_t* pData) {
  return Guarded([&] {
    auto [hr, bytes] = proxy_->GetRawDataOne(nFileHandle, nTagID, llTimeCode, nLength);
    if (hr == S_OK) CopyBytes(bytes, nLength, pData);
    return hr;
  });
}

HRESULT BusClient::GetRawDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                  int64_t llTimeCode, int32_t nLength, uint8_t* pData) {
  return Guarded([&] {
    auto [hr, bytes] =
        proxy_->GetRawDataOne2(nFileHandle, nProgramIndex, nTagID, llTimeCode, nLength);
    if (hr == S_OK) CopyBytes(bytes, nLength, pData);
    return hr;
  });
}

HRESULT BusClient::InsertRawDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                                    int32_t nLength, const uint8_t* pData) {
  std::vector<uint8_t> bytes = RawBytes(nLength, pData);
  return Guarded(
      [&] { return proxy_->InsertRawDataOne(nFileHandle, nTagID, llTimeCode, nLength, bytes); });
}

HRESULT BusClient::InsertRawDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                     int64_t llTimeCode, int32_t nLength, const uint8_t* pData) {
  std::vector<uint8_t> bytes = RawBytes(nLength, pData);
  return Guarded([&] {
    return proxy_->InsertRawDataOne2(nFileHandle, nProgramIndex, nTagID, llTimeCode, nLength,
                                     bytes);
  });
}

HRESULT BusClient::QueryValidIntervalSize(int32_t nFileHandle, int32_t nTagID, int32_t* nSize) {
  return Guarded([&] {
    auto [hr, size] = proxy_->QueryValidIntervalSize(nFileHandle, nTagID);
    if (nSize) *nSize = size;
    return hr;
  });
}

HRESULT BusClient::QueryValidIntervalSize2(int32_t nFileHandle, int32_t nProgramIndex,
                                           int32_t nTagID, int32_t* nSize) {
  return Guarded([&] {
    auto [hr, size] = proxy_->QueryValidIntervalSize2(nFileHandle, nProgramIndex, nTagID);
    if (nSize) *nSize = size;
    return hr;
  });
}

HRESULT BusClient::QueryValidInterval(int32_t nFileHandle, int32_t nTagID, int32_t m,
                                      int64_t* llStartTimes, int64_t* llEndTimes) {
  return Guarded([&] {
    auto [hr, starts, ends] = proxy_->QueryValidInterval(nFileHandle, nTagID, m);
    CopyOut(starts, m, llStartTimes);
    CopyOut(ends, m, llEndTimes);
    return hr;
  });
}

HRESULT BusClient::QueryValidInterval2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                       int32_t m, int64_t* llStartTimes, int64_t* llEndTimes) {
  return Guarded([&] {
    auto [hr, starts, ends] = proxy_->QueryValidInterval2(nFileHandle, nProgramIndex, nTagID, m);
    CopyOut(starts, m, llStartTimes);
    CopyOut(ends, m, llEndTimes);
    return hr;
  });
}

HRESULT BusClient::SetTimeIntervalForTag(int32_t nFileHandle, int32_t nTagID,
                                         int64_t llTimeInterval) {
  return Guarded(
      [&] { return proxy_->SetTimeIntervalForTag(nFileHandle, nTagID, llTimeInterval); });
}

HRESULT BusClient::SetTimeIntervalForTag2(int32_t nFileHandle, int32_t nProgramIndex,
                                          int32_t nTagID, int64_t llTimeInterval) {
  return Guarded([&] {
    return proxy_->SetTimeIntervalForTag2(nFileHandle, nProgramIndex, nTagID, llTimeInterval);
  });
}

}  // namespace marquel::client
