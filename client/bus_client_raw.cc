// BusClient: reading many raw-data samples, in pages when they are many or large.
#include <algorithm>

#include "bus_client.h"
#include "raw_message.h"

namespace marquel::client {
namespace {

constexpr const char* kBulk = "com.halvern.Marquel.IMarquelBulk";

// Applies the raw copy rule to the elements of one bulk page (time codes, lengths and the
// concatenated bytes) from `offset` on; returns the number of samples the page held.
size_t CopyRawColumns(const sdbus::MethodReply& reply, MarquelRawDataTag* to, int64_t offset,
                      int64_t capacity) {
  const void* times = nullptr;
  const void* lengths = nullptr;
  const void* bytes = nullptr;
  size_t time_bytes = 0, length_bytes = 0, data_bytes = 0;
  ReadArray(reply, 'x', &times, &time_bytes);
  ReadArray(reply, 'i', &lengths, &length_bytes);
  ReadArray(reply, 'y', &bytes, &data_bytes);
  size_t count = std::min(time_bytes / sizeof(int64_t), length_bytes / sizeof(int32_t));
  size_t n = Clamp(count, capacity - offset);
  const auto* t = static_cast<const int64_t*>(times);
  const auto* l = static_cast<const int32_t*>(lengths);
  const auto* data = static_cast<const uint8_t*>(bytes);
  size_t position = 0;
  for (size_t i = 0; i < n; ++i) {
    size_t length = l[i] > 0 ? static_cast<size_t>(l[i]) : 0;
    if (position + length > data_bytes) length = 0;  // a malformed page carries no bytes
    CopyRawSample(t[i], data + position, length, &to[offset + i]);
    position += length;
  }
  return count;
}

}  // namespace

HRESULT BusClient::GetRawDataAll(int32_t nFileHandle, int32_t nTagID, int32_t m,
                                 MarquelRawDataTag* pTagList) {
  return ReadRaw(nFileHandle, 0, false, nTagID, true, 0, -1, m, pTagList);
}

HRESULT BusClient::GetRawDataAll2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                  int32_t m, MarquelRawDataTag* pTagList) {
  return ReadRaw(nFileHandle, nProgramIndex, true, nTagID, true, 0, -1, m, pTagList);
}

HRESULT BusClient::GetRawDataPeriod(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime,
                                    int64_t llEndTime, int32_t m, MarquelRawDataTag* pTagList) {
  return ReadRaw(nFileHandle, 0, false, nTagID, false, llStartTime, llEndTime, m, pTagList);
}

HRESULT BusClient::GetRawDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                     int64_t llStartTime, int64_t llEndTime, int32_t m,
                                     MarquelRawDataTag* pTagList) {
  return ReadRaw(nFileHandle, nProgramIndex, true, nTagID, false, llStartTime, llEndTime, m,
                 pTagList);
}

// A few samples go through the standard method; when their bytes would not fit one
// reply the server says E_OUTOFMEMORY and the read is repeated in pages.
HRESULT BusClient::ReadRaw(int32_t h, int32_t program, bool twin, int32_t tag, bool all,
                           int64_t start, int64_t end, int32_t m, MarquelRawDataTag* out) {
  if (out == nullptr || m < 1) return E_INVALIDARG;
  if (m > kRawStandardMax) return ReadRawPaged(h, program, tag, all, start, end, m, out);
  HRESULT result = Guarded([&] {
    HRESULT hr;
    std::vector<RawSample> samples;
    if (all && twin)
      std::tie(hr, samples) = proxy_->GetRawDataAll2(h, program, tag, m);
    else if (all)
      std::tie(hr, samples) = proxy_->GetRawDataAll(h, tag, m);
    else if (twin)
      std::tie(hr, samples) = proxy_->GetRawDataPeriod2(h, program, tag, start, end, m);
    else
      std::tie(hr, samples) = proxy_->GetRawDataPeriod(h, tag, start, end, m);
    if (hr != S_OK) return hr;
    size_t n = Clamp(samples.size(), m);
    for (size_t i = 0; i < n; ++i) {
      const auto& bytes = std::get<1>(samples[i]);
      CopyRawSample(std::get<0>(samples[i]), bytes.data(), bytes.size(), &out[i]);
    }
    return hr;
  });
  if (result == E_OUTOFMEMORY) return ReadRawPaged(h, program, tag, all, start, end, m, out);
  return result;
}

HRESULT BusClient::ReadRawPaged(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                                int64_t end, int32_t m, MarquelRawDataTag* out) {
  uint64_t transfer = 0;
  HRESULT result = Guarded([&] {
    sdbus::IProxy& raw = proxy_->Raw();
    auto call = raw.createMethodCall(kBulk, "ReadRawData");
    call << h << program << tag << int32_t{all ? 1 : 0} << start << end << m << kRawPageBytes;
    auto reply = raw.callMethod(call, kBulkTimeoutUs);
    int32_t hr = 0;
    reply >> hr >> transfer;
    if (hr != S_OK) return hr;
    int64_t done = CopyRawColumns(reply, out, 0, m);
    while (transfer != 0 && done < m) {
      auto next = raw.createMethodCall(kBulk, "ReadRawDataNext");
      next << transfer << kRawPageBytes;
      auto page = raw.callMethod(next, kBulkTimeoutUs);
      int32_t more = 0;
      page >> hr >> more;
      if (hr != S_OK) return hr;
      done += CopyRawColumns(page, out, done, m);
      if (!more) transfer = 0;
    }
    return S_OK;
  });
  if (transfer != 0) EndTransfer(transfer);
  return result;
}

}  // namespace marquel::client
