// MQAdaptor: IMarquelTool and IMarquelEx.
#include <algorithm>

#include "adaptor_guard.h"
#include "mq_adaptor.h"

namespace marquel::host {

std::tuple<int32_t, uint64_t, uint64_t> MQAdaptor::QueryOrgFileSizeAndMTime(
    const std::string& wFileName) {
  Admit();
  return Guarded<std::tuple<int32_t, uint64_t, uint64_t>>([&] {
    uint64_t size = 0, mtime = 0;
    int32_t hr = mq_.QueryOrgFileSizeAndMTime(wFileName, &size, &mtime);
    return std::make_tuple(hr, size, mtime);
  });
}

int32_t MQAdaptor::CacheRename(const std::string& wOriFileName, const std::string& wNewFileName,
                               const int32_t& nFileType) {
  Admit();
  return Guarded<int32_t>([&] { return mq_.CacheRename(wOriFileName, wNewFileName, nFileType); });
}

int32_t MQAdaptor::MoveCacheDataToOrgFile(const std::string& wOriFileName) {
  Admit();
  return Guarded<int32_t>([&] { return mq_.MoveCacheDataToOrgFile(wOriFileName); });
}

std::tuple<int32_t, int32_t> MQAdaptor::IsWriteToFileDone(const std::string& wOriFileName) {
  Admit();
  return Guarded<std::tuple<int32_t, int32_t>>([&] {
    int32_t done = 0;
    int32_t hr = mq_.IsWriteToFileDone(wOriFileName, &done);
    return std::make_tuple(hr, done);
  });
}

// InBuffer is checked against the bytes that arrived. The client's output buffer has
// nOutBufLen bytes; the server writes at most 4 of them, so only those are made here and
// sent back (the reply's OutBuffer holds the bytes written).
std::tuple<int32_t, std::vector<uint8_t>, int32_t> MQAdaptor::ExecuteCmd(
    const int32_t& nCmd, const std::vector<uint8_t>& InBuffer, const int32_t& nInBufLen,
    const int32_t& nOutBufLen) {
  Admit();
  return Guarded<std::tuple<int32_t, std::vector<uint8_t>, int32_t>>([&] {
    int32_t out_length = nOutBufLen;
    std::vector<uint8_t> out(std::clamp(nOutBufLen, 0, 4));
    int32_t hr =
        mq_.ExecuteCmd(nCmd, InBuffer.empty() ? nullptr : InBuffer.data(), InBuffer.size(),
                       nInBufLen, out.empty() ? nullptr : out.data(), out.size(), &out_length);
    bool wrote = hr == S_OK && (nCmd == 0 || nCmd == 1);
    if (!wrote) out.clear();
    return std::make_tuple(hr, std::move(out), out_length);
  });
}

}  // namespace marquel::host
