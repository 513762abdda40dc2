// BusClient: connection, error mapping, names, and the factory.
#include "bus_client.h"

#include <cstring>
#include <filesystem>

namespace marquel {

std::unique_ptr<IMarquelClient> CreateMarquelClient(std::string* error) {
  try {
    // A session connection kept by the client: the proxy then calls sd_bus_call directly
    // instead of through an event-loop thread of its own.
    auto connection = sdbus::createSessionBusConnection();
    return std::make_unique<client::BusClient>(std::move(connection));
  } catch (const std::exception& e) {
    if (error) *error = e.what();
    return nullptr;
  }
}

namespace client {

BusClient::BusClient(std::unique_ptr<sdbus::IConnection> connection)
    : connection_(std::move(connection)), proxy_(std::make_unique<MarquelProxy>(*connection_)) {}

BusClient::~BusClient() {
  proxy_.reset();
  connection_.reset();
}

std::string BusClient::LastTransportError() const {
  std::lock_guard<std::mutex> lock(mu_);
  return last_error_;
}

HRESULT BusClient::FromBusError(const std::string& name, const std::string& message) {
  last_error_ = name.empty() ? message : name + ": " + message;
  if (name == "org.freedesktop.DBus.Error.AccessDenied") return E_ACCESSDENIED;
  if (name == "org.freedesktop.DBus.Error.NoMemory") return E_OUTOFMEMORY;
  return E_SERVER_UNAVAILABLE;
}

std::string AbsoluteName(const char* name) {
  if (name == nullptr || *name == '\0') return std::string();
  std::filesystem::path path(name);
  if (path.is_absolute()) return path.string();
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  if (ec) return path.string();
  return absolute.lexically_normal().string();
}

void CopyRawSample(int64_t time_code, const uint8_t* bytes, size_t length,
                   MarquelRawDataTag* element) {
  element->llTimeCode = time_code;
  if (element->pBuffer == nullptr || element->nLength < 0 ||
      static_cast<size_t>(element->nLength) < length)
    return;
  element->nLength = static_cast<int32_t>(length);
  if (length > 0) std::memcpy(element->pBuffer, bytes, length);
}

// IMarquelTool.

HRESULT BusClient::QueryOrgFileSizeAndMTime(const char* wFileName, uint64_t* pullOrgFileSize,
                                            uint64_t* pullMTime) {
  std::string name = AbsoluteName(wFileName);
  return Guarded([&] {
    auto [hr, size, mtime] = proxy_->QueryOrgFileSizeAndMTime(name);
    if (hr == S_OK) {
      if (pullOrgFileSize) *pullOrgFileSize = size;
      if (pullMTime) *pullMTime = mtime;
    }
    return hr;
  });
}

HRESULT BusClient::CacheRename(const char* wOriFileName, const char* wNewFileName,
                               int32_t nFileType) {
  std::string from = AbsoluteName(wOriFileName);
  std::string to = AbsoluteName(wNewFileName);
  return Guarded([&] { return proxy_->CacheRename(from, to, nFileType); });
}

HRESULT BusClient::MoveCacheDataToOrgFile(const char* wOriFileName) {
  std::string name = AbsoluteName(wOriFileName);
  return Guarded([&] { return proxy_->MoveCacheDataToOrgFile(name); });
}

// IMarquelEx.

HRESULT BusClient::IsWriteToFileDone(const char* wOriFileName, int32_t* bDone) {
  std::string name = AbsoluteName(wOriFileName);
  return Guarded([&] {
    auto [hr, done] = proxy_->IsWriteToFileDone(name);
    if (bDone) *bDone = done;
    return hr;
  });
}

// The pointer tests stand for the readable and writable buffer checks: a missing buffer
// with a positive length fails as an unreadable or unwritable one would, and so does an
// input longer than any command takes (it is never sent).
HRESULT BusClient::ExecuteCmd(int32_t nCmd, const uint8_t* InBuffer, int32_t nInBufLen,
                              uint8_t* OutBuffer, int32_t* nOutBufLen) {
  constexpr int32_t kMaxCommandInput = 1 << 20;
  if (nInBufLen < 0 || nInBufLen > kMaxCommandInput) return E_FAIL;
  if (nInBufLen > 0 && InBuffer == nullptr) return E_FAIL;
  if (nOutBufLen == nullptr) return E_FAIL;
  int32_t n = *nOutBufLen;
  if (n < 0) return E_FAIL;
  if (n > 0 && OutBuffer == nullptr) return E_FAIL;
  std::vector<uint8_t> in;
  if (nInBufLen > 0) in.assign(InBuffer, InBuffer + nInBufLen);
  return Guarded([&] {
    auto [hr, out, out_len] = proxy_->ExecuteCmd(nCmd, in, nInBufLen, n);
    size_t copy = Clamp(out.size(), n);
    if (OutBuffer && copy > 0) std::memcpy(OutBuffer, out.data(), copy);
    *nOutBufLen = out_len;
    return hr;
  });
}

}  // namespace client
}  // namespace marquel
