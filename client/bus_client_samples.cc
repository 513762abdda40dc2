// BusClient: reading and inserting many plain samples, in pages when they are many.
#include <algorithm>
#include <cstring>

#include "bus_client.h"
#include "raw_message.h"

namespace marquel::client {
namespace {

constexpr const char* kBulk = "com.halvern.Marquel.IMarquelBulk";

void CopySamples(const std::vector<Sample>& from, int64_t capacity, MarquelOneTag* to) {
  size_t n = Clamp(from.size(), capacity);
  for (size_t i = 0; i < n; ++i) {
    to[i].llTimeCode = std::get<0>(from[i]);
    to[i].value = std::get<1>(from[i]);
  }
}

// Reads the two columns of a bulk reply into the caller's array from `offset` on, never
// past `capacity`; returns the number of elements the page held.
size_t CopyColumns(const sdbus::MethodReply& reply, MarquelOneTag* to, int64_t offset,
                   int64_t capacity) {
  const void* times = nullptr;
  const void* values = nullptr;
  size_t time_bytes = 0, value_bytes = 0;
  ReadArray(reply, 'x', &times, &time_bytes);
  ReadArray(reply, 'i', &values, &value_bytes);
  size_t count = std::min(time_bytes / sizeof(int64_t), value_bytes / sizeof(int32_t));
  size_t n = Clamp(count, capacity - offset);
  const auto* t = static_cast<const int64_t*>(times);
  const auto* v = static_cast<const int32_t*>(values);
  for (size_t i = 0; i < n; ++i) {
    to[offset + i].llTimeCode = t[i];
    to[offset + i].value = v[i];
  }
  return count;
}

}  // namespace

HRESULT BusClient::GetDataPeriod(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime,
                                 int64_t llEndTime, int32_t m, MarquelOneTag* mqTags) {
  return ReadPlain(nFileHandle, 0, false, nTagID, false, llStartTime, llEndTime, m, mqTags);
}

HRESULT BusClient::GetDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                  int64_t llStartTime, int64_t llEndTime, int32_t m,
                                  MarquelOneTag* mqTags) {
  return ReadPlain(nFileHandle, nProgramIndex, true, nTagID, false, llStartTime, llEndTime, m,
                   mqTags);
}

HRESULT BusClient::GetDataAll(int32_t nFileHandle, int32_t nTagID, int32_t m,
                              MarquelOneTag* mqTags) {
  return ReadPlain(nFileHandle, 0, false, nTagID, true, 0, -1, m, mqTags);
}

HRESULT BusClient::GetDataAll2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                               int32_t m, MarquelOneTag* mqTags) {
  return ReadPlain(nFileHandle, nProgramIndex, true, nTagID, true, 0, -1, m, mqTags);
}

HRESULT BusClient::InsertDataPeriod(int32_t nFileHandle, int32_t nTagID,
                                    const MarquelOneTag* mqTags, int32_t nDataCount) {
  return InsertPlain(nFileHandle, 0, false, nTagID, mqTags, nDataCount);
}

HRESULT BusClient::InsertDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                     const MarquelOneTag* mqTags, int32_t nDataCount) {
  return InsertPlain(nFileHandle, nProgramIndex, true, nTagID, mqTags, nDataCount);
}

HRESULT BusClient::ReadPlain(int32_t h, int32_t program, bool twin, int32_t tag, bool all,
                             int64_t start, int64_t end, int32_t m, MarquelOneTag* out) {
  if (out == nullptr || m <= 0) return E_INVALIDARG;
  if (m > kPlainStandardMax) return ReadPlainPaged(h, program, tag, all, start, end, m, out);
  return Guarded([&] {
    HRESULT hr;
    std::vector<Sample> samples;
    if (all && twin)
      std::tie(hr, samples) = proxy_->GetDataAll2(h, program, tag, m);
    else if (all)
      std::tie(hr, samples) = proxy_->GetDataAll(h, tag, m);
    else if (twin)
      std::tie(hr, samples) = proxy_->GetDataPeriod2(h, program, tag, start, end, m);
    else
      std::tie(hr, samples) = proxy_->GetDataPeriod(h, tag, start, end, m);
    if (hr == S_OK) CopySamples(samples, m, out);
    return hr;
  });
}

// The first call reads the whole request on the server and brings the first page; the
// rest comes page by page from the server's copy of the result.
HRESULT BusClient::ReadPlainPaged(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                                  int64_t end, int32_t m, MarquelOneTag* out) {
  uint64_t transfer = 0;
  HRESULT result = Guarded([&] {
    sdbus::IProxy& raw = proxy_->Raw();
    auto call = raw.createMethodCall(kBulk, "ReadData");
    call << h << program << tag << int32_t{all ? 1 : 0} << start << end << m << kPlainPageSamples;
    auto reply = raw.callMethod(call, kBulkTimeoutUs);
    int32_t hr = 0;
    reply >> hr >> transfer;
    if (hr != S_OK) return hr;
    int64_t done = CopyColumns(reply, out, 0, m);
    while (transfer != 0 && done < m) {
      auto next = raw.createMethodCall(kBulk, "ReadDataNext");
      next << transfer << kPlainPageSamples;
      auto page = raw.callMethod(next, kBulkTimeoutUs);
      int32_t more = 0;
      page >> hr >> more;
      if (hr != S_OK) return hr;
      done += CopyColumns(page, out, done, m);
      if (!more) transfer = 0;
    }
    return S_OK;
  });
  if (transfer != 0) EndTransfer(transfer);
  return result;
}

HRESULT BusClient::InsertPlain(int32_t h, int32_t program, bool twin, int32_t tag,
                               const MarquelOneTag* tags, int32_t count) {
  if (tags == nullptr || count <= 0) return E_INVALIDARG;
  if (count > kPlainStandardMax) return InsertPlainPaged(h, program, tag, tags, count);
  std::vector<Sample> samples;
  samples.reserve(count);
  for (int32_t i = 0; i < count; ++i) samples.emplace_back(tags[i].llTimeCode, tags[i].value);
  return Guarded([&] {
    return twin ? proxy_->InsertDataPeriod2(h, program, tag, samples, count)
                : proxy_->InsertDataPeriod(h, tag, samples, count);
  });
}

// Each page is inserted as the server inserts a period; the call succeeds when every
// sample of every page was stored, as for one call with all of them.
HRESULT BusClient::InsertPlainPaged(int32_t h, int32_t program, int32_t tag,
                                    const MarquelOneTag* tags, int32_t count) {
  std::vector<int64_t> times;
  std::vector<int32_t> values;
  return Guarded([&] {
    sdbus::IProxy& raw = proxy_->Raw();
    int64_t inserted_total = 0;
    for (int32_t offset = 0; offset < count; offset += kPlainPageSamples) {
      int32_t n = std::min(kPlainPageSamples, count - offset);
      times.resize(n);
      values.resize(n);
      for (int32_t i = 0; i < n; ++i) {
        times[i] = tags[offset + i].llTimeCode;
        values[i] = tags[offset + i].value;
      }
      auto call = raw.createMethodCall(kBulk, "InsertDataColumns");
      call << h << program << tag;
      AppendArray(call, 'x', times.data(), times.size() * sizeof(int64_t));
      AppendArray(call, 'i', values.data(), values.size() * sizeof(int32_t));
      auto reply = raw.callMethod(call, kBulkTimeoutUs);
      int32_t hr = 0, inserted = 0;
      reply >> hr >> inserted;
      if (hr == E_INVALIDARG || hr == E_OUTOFMEMORY) return hr;
      inserted_total += inserted;
    }
    return inserted_total == count ? S_OK : E_FAIL;
  });
}

void BusClient::EndTransfer(uint64_t transfer) {
  Guarded([&] {
    auto call = proxy_->Raw().createMethodCall(kBulk, "EndTransfer");
    call << transfer;
    auto reply = proxy_->Raw().callMethod(call, kBulkTimeoutUs);
    int32_t hr = 0;
    reply >> hr;
    return hr;
  });
}

}  // namespace marquel::client
