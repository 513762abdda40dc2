// BusClient: opening and closing files, file facts, programs and the table's figures.
#include "bus_client.h"

#include <algorithm>

namespace marquel::client {
namespace {

sdbus::Variant ToBus(const MarquelVariant* v) {
  if (v == nullptr) return sdbus::Variant(int32_t{0});
  return std::visit([](const auto& value) { return sdbus::Variant(value); }, *v);
}

// Writes `value` where the caller gave a place for it.
template <typename T, typename U>
void Put(T* out, U value) {
  if (out) *out = static_cast<T>(value);
}

template <typename T>
void CopyOut(const std::vector<T>& from, int64_t capacity, T* to) {
  if (to == nullptr) return;
  size_t n = Clamp(from.size(), capacity);
  std::copy(from.begin(), from.begin() + n, to);
}

}  // namespace

HRESULT BusClient::InitialFile(const char* wFileName, int32_t nFileType, int32_t bOverwrite,
                               int32_t* nFileHandle) {
  std::string name = AbsoluteName(wFileName);
  Put(nFileHandle, -1);
  return Guarded([&] {
    auto [hr, handle] = proxy_->InitialFile(name, nFileType, bOverwrite);
    Put(nFileHandle, handle);
    return hr;
  });
}

HRESULT BusClient::InitialFile2(const char* wFileName, int32_t nFileType, int32_t bOverwrite,
                                int32_t nTags, const int32_t* pnTags, int32_t bReadOnly,
                                int64_t llStartTime, int64_t llEndTime, int32_t* nFileHandle) {
  std::string name = AbsoluteName(wFileName);
  // The tag selection names tag ids 0-255, so more than 256 entries are never needed; a
  // larger count is sent as it is with the entries the caller can have meant.
  std::vector<int32_t> tags;
  if (pnTags != nullptr && nTags > 0) tags.assign(pnTags, pnTags + std::min(nTags, 256));
  Put(nFileHandle, -1);
  return Guarded([&] {
    auto [hr, handle] = proxy_->InitialFile2(name, nFileType, bOverwrite, nTags, tags, bReadOnly,
                                             llStartTime, llEndTime);
    Put(nFileHandle, handle);
    return hr;
  });
}

HRESULT BusClient::CloseFile(int32_t nFileHandle, int32_t bWriteToCache) {
  return Guarded([&] { return proxy_->CloseFile(nFileHandle, bWriteToCache); });
}

HRESULT BusClient::CloseVOBFile(int32_t nFileHandle) {
  return Guarded([&] { return proxy_->CloseVOBFile(nFileHandle); });
}

HRESULT BusClient::CloseVCDORSVCDFile(int32_t nFileHandle) {
  return Guarded([&] { return proxy_->CloseVCDORSVCDFile(nFileHandle); });
}

HRESULT BusClient::CleanFile(int32_t nFileHandle) {
  return Guarded([&] { return proxy_->CleanFile(nFileHandle); });
}

HRESULT BusClient::QueryFileCount(int32_t* nFileCount) {
  return Guarded([&] {
    auto [hr, count] = proxy_->QueryFileCount();
    if (hr == S_OK) Put(nFileCount, count);
    return hr;
  });
}

// The server lists every open handle; the caller's array receives at most m of them.
HRESULT BusClient::QueryAllFileHandles(int32_t m, int32_t* nFileHandles) {
  return Guarded([&] {
    auto [hr, handles] = proxy_->QueryAllFileHandles(m);
    CopyOut(handles, m, nFileHandles);
    return hr;
  });
}

HRESULT BusClient::QueryAllMemory(int32_t* nMemory) {
  return Guarded([&] {
    auto [hr, memory] = proxy_->QueryAllMemory();
    if (hr == S_OK) Put(nMemory, memory);
    return hr;
  });
}

HRESULT BusClient::QueryOneFileMemory(int32_t nFileHandle, int32_t* nMemory) {
  return Guarded([&] {
    auto [hr, memory] = proxy_->QueryOneFileMemory(nFileHandle);
    if (hr == S_OK) Put(nMemory, memory);
    return hr;
  });
}

// Nothing is ever copied into wFileName; the call still goes to the server so that its
// answer (S_OK for every handle) is the server's.
HRESULT BusClient::QueryFilename(int32_t nFileHandle, char* /*wFileName*/) {
  return Guarded([&] { return std::get<0>(proxy_->QueryFilename(nFileHandle, std::string())); });
}

HRESULT BusClient::QueryMQExisted(int32_t nFileHandle, int32_t* bMQExisted) {
  return Guarded([&] {
    auto [hr, existed] = proxy_->QueryMQExisted(nFileHandle);
    Put(bMQExisted, existed);
    return hr;
  });
}

HRESULT BusClient::GetMQDataStartAddress(int32_t nFileHandle, int64_t* llStartAddress) {
  if (llStartAddress == nullptr) return E_FAIL;
  return Guarded([&] {
    auto [hr, address] = proxy_->GetMQDataStartAddress(nFileHandle, *llStartAddress);
    *llStartAddress = address;
    return hr;
  });
}

// The VARIANT travels to the server and back untouched; the caller's copy is left as is.
HRESULT BusClient::GetMQInfo(int32_t dwValue, MarquelVariant* pVariant) {
  return Guarded([&] { return std::get<0>(proxy_->GetMQInfo(dwValue, ToBus(pVariant))); });
}

HRESULT BusClient::SetMQInfo(int32_t dwValue, MarquelVariant* pVariant) {
  return Guarded([&] { return proxy_->SetMQInfo(dwValue, ToBus(pVariant)); });
}

HRESULT BusClient::QueryNowMQDataFileSize(int32_t nFileHandle, int32_t* nSize) {
  return Guarded([&] {
    auto [hr, size] = proxy_->QueryNowMQDataFileSize(nFileHandle, nSize ? *nSize : 0);
    Put(nSize, size);
    return hr;
  });
}

HRESULT BusClient::QueryNowMQDataPeriodSize(int32_t nFileHandle, int64_t llStartTime,
                                            int64_t llEndTime, int32_t* nSize) {
  return Guarded([&] {
    auto [hr, size] = proxy_->QueryNowMQDataPeriodSize(nFileHandle, llStartTime, llEndTime);
    if (hr == S_OK) Put(nSize, size);
    return hr;
  });
}

HRESULT BusClient::FileRename(int32_t nFileHandle, const char* wNewFileName) {
  std::string name = AbsoluteName(wNewFileName);
  return Guarded([&] { return proxy_->FileRename(nFileHandle, name); });
}

HRESULT BusClient::QueryOriginalFileSizeAndMTime(int32_t nFileHandle, uint64_t* pullOrgFileSize,
                                                 uint64_t* pullMTime) {
  return Guarded([&] {
    auto [hr, size, mtime] = proxy_->QueryOriginalFileSizeAndMTime(nFileHandle);
    if (hr == S_OK) {
      Put(pullOrgFileSize, size);
      Put(pullMTime, mtime);
    }
    return hr;
  });
}

HRESULT BusClient::SetMinTimeInterval(int32_t nFileHandle, int64_t llMinTimeInterval) {
  return Guarded([&] { return proxy_->SetMinTimeInterval(nFileHandle, llMinTimeInterval); });
}

HRESULT BusClient::GetMQProgramCounts(int32_t nFileHandle, int32_t* nProgramCount) {
  if (nProgramCount == nullptr) return E_INVALIDARG;
  return Guarded([&] {
    auto [hr, count] = proxy_->GetMQProgramCounts(nFileHandle);
    if (hr == S_OK) *nProgramCount = count;
    return hr;
  });
}

HRESULT BusClient::GetMQPMTPIDS(int32_t nFileHandle, int32_t nTotal, int32_t* pnPMTPIDs) {
  if (pnPMTPIDs == nullptr) return E_INVALIDARG;
  return Guarded([&] {
    auto [hr, pids] = proxy_->GetMQPMTPIDS(nFileHandle, nTotal);
    if (hr == S_OK) CopyOut(pids, nTotal, pnPMTPIDs);
    return hr;
  });
}

HRESULT BusClient::InsertNewProgram(int32_t nFileHandle, int32_t nNewPMTPID,
                                    int32_t* nProgramIndex) {
  if (nProgramIndex == nullptr) return E_INVALIDARG;
  return Guarded([&] {
    auto [hr, index] = proxy_->InsertNewProgram(nFileHandle, nNewPMTPID);
    if (hr == S_OK) *nProgramIndex = index;
    return hr;
  });
}

HRESULT BusClient::SetPMTPID(int32_t nFileHandle, int32_t nProgramIndex, int32_t nPMTPID) {
  return Guarded([&] { return proxy_->SetPMTPID(nFileHandle, nProgramIndex, nPMTPID); });
}

HRESULT BusClient::QueryMQDataStatus(int32_t nFileHandle, int32_t* pnStatus) {
  return Guarded([&] {
    auto [hr, status] = proxy_->QueryMQDataStatus(nFileHandle, pnStatus ? *pnStatus : 0);
    Put(pnStatus, status);
    return hr;
  });
}

}  // namespace marquel::client
