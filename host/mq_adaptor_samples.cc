// MQAdaptor: plain and raw-data samples.
#include "adaptor_guard.h"
#include "mq_adaptor.h"

namespace marquel::host {
namespace {

using Hr = int32_t;
using HrInt = std::tuple<int32_t, int32_t>;
using HrBytes = std::tuple<int32_t, std::vector<uint8_t>>;
using HrSamples = std::tuple<int32_t, std::vector<MQAdaptor::Sample>>;
using HrRawSamples = std::tuple<int32_t, std::vector<MQAdaptor::RawSample>>;

// Bus bytes of one element of a(xi) and the fixed part of one element of a(xay).
constexpr size_t kSampleBytes = 16;
constexpr size_t kRawSampleHeadBytes = 16;

}  // namespace

// --- Plain samples -------------------------------------------------------------------

Hr MQAdaptor::InsertDataOne(const int32_t& nFileHandle, const int32_t& nTagID,
                            const int64_t& llTimeCode, const int32_t& nData) {
  Admit();
  return Guarded<Hr>([&] { return mq_.InsertDataOne(nFileHandle, 0, nTagID, llTimeCode, nData); });
}

Hr MQAdaptor::InsertDataOne2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                             const int32_t& nTagID, const int64_t& llTimeCode,
                             const int32_t& nData) {
  Admit();
  return Guarded<Hr>(
      [&] { return mq_.InsertDataOne(nFileHandle, nProgramIndex, nTagID, llTimeCode, nData); });
}

Hr MQAdaptor::InsertDataPeriod(const int32_t& nFileHandle, const int32_t& nTagID,
                               const std::vector<Sample>& mqTags, const int32_t& nDataCount) {
  Admit();
  return Guarded<Hr>([&] { return InsertPlain(nFileHandle, 0, nTagID, mqTags, nDataCount); });
}

Hr MQAdaptor::InsertDataPeriod2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                const int32_t& nTagID, const std::vector<Sample>& mqTags,
                                const int32_t& nDataCount) {
  Admit();
  return Guarded<Hr>(
      [&] { return InsertPlain(nFileHandle, nProgramIndex, nTagID, mqTags, nDataCount); });
}

// nDataCount may not name more records than arrived: the method would read past them.
int32_t MQAdaptor::InsertPlain(int32_t h, int32_t program, int32_t tag,
                               const std::vector<Sample>& tags, int32_t count) {
  if (count <= 0) return E_INVALIDARG;
  if (static_cast<size_t>(count) > tags.size()) return E_INVALIDARG;
  std::vector<MarquelOneTag> records(count);
  for (int32_t i = 0; i < count; ++i) {
    records[i].llTimeCode = std::get<0>(tags[i]);
    records[i].value = std::get<1>(tags[i]);
  }
  return mq_.InsertDataPeriod(h, program, tag, records.data(), count);
}

HrInt MQAdaptor::GetDataOne(const int32_t& nFileHandle, const int32_t& nTagID,
                            const int64_t& llTimeCode) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t value = 0;
    Hr hr = mq_.GetDataOne(nFileHandle, 0, nTagID, llTimeCode, &value);
    return HrInt{hr, value};
  });
}

HrInt MQAdaptor::GetDataOne2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                             const int32_t& nTagID, const int64_t& llTimeCode) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t value = 0;
    Hr hr = mq_.GetDataOne(nFileHandle, nProgramIndex, nTagID, llTimeCode, &value);
    return HrInt{hr, value};
  });
}

HrSamples MQAdaptor::GetDataAll(const int32_t& nFileHandle, const int32_t& nTagID,
                                const int32_t& m) {
  Admit();
  return Guarded<HrSamples>([&] { return ReadPlain(nFileHandle, 0, nTagID, true, 0, -1, m); });
}

HrSamples MQAdaptor::GetDataAll2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                 const int32_t& nTagID, const int32_t& m) {
  Admit();
  return Guarded<HrSamples>(
      [&] { return ReadPlain(nFileHandle, nProgramIndex, nTagID, true, 0, -1, m); });
}

HrSamples MQAdaptor::GetDataPeriod(const int32_t& nFileHandle, const int32_t& nTagID,
                                   const int64_t& llStartTime, const int64_t& llEndTime,
                                   const int32_t& m) {
  Admit();
  return Guarded<HrSamples>(
      [&] { return ReadPlain(nFileHandle, 0, nTagID, false, llStartTime, llEndTime, m); });
}

HrSamples MQAdaptor::GetDataPeriod2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                    const int32_t& nTagID, const int64_t& llStartTime,
                                    const int64_t& llEndTime, const int32_t& m) {
  Admit();
  return Guarded<HrSamples>([&] {
    return ReadPlain(nFileHandle, nProgramIndex, nTagID, false, llStartTime, llEndTime, m);
  });
}

// A reply of m records must fit the bus; larger reads go through IMarquelBulk.
HrSamples MQAdaptor::ReadPlain(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                               int64_t end, int32_t m) {
  if (m > 0 && static_cast<size_t>(m) > kMaxReplyArrayBytes / kSampleBytes)
    return HrSamples{E_OUTOFMEMORY, {}};
  std::vector<MarquelOneTag> samples;
  Hr hr = all ? mq_.GetDataAll(h, program, tag, m, &samples)
              : mq_.GetDataPeriod(h, program, tag, start, end, m, &samples);
  std::vector<Sample> reply;
  if (hr == S_OK) {
    reply.reserve(samples.size());
    for (const MarquelOneTag& s : samples) reply.emplace_back(s.llTimeCode, s.value);
  }
  return HrSamples{hr, std::move(reply)};
}

HrInt MQAdaptor::QueryOneTagSize(const int32_t& nFileHandle, const int32_t& nTagID) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = 0;
    Hr hr = mq_.QueryOneTagSize(nFileHandle, 0, nTagID, &size);
    return HrInt{hr, size};
  });
}

HrInt MQAdaptor::QueryOneTagSize2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                  const int32_t& nTagID) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = 0;
    Hr hr = mq_.QueryOneTagSize(nFileHandle, nProgramIndex, nTagID, &size);
    return HrInt{hr, size};
  });
}

HrInt MQAdaptor::QueryOneTagPeriodSize(const int32_t& nFileHandle, const int32_t& nTagID,
                                       const int64_t& llStartTime, const int64_t& llEndTime) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = 0;
    Hr hr = mq_.QueryOneTagPeriodSize(nFileHandle, 0, nTagID, llStartTime, llEndTime, &size);
    return HrInt{hr, size};
  });
}

HrInt MQAdaptor::QueryOneTagPeriodSize2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                        const int32_t& nTagID, const int64_t& llStartTime,
                                        const int64_t& llEndTime) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = 0;
    Hr hr = mq_.QueryOneTagPeriodSize(nFileHandle, nProgramIndex, nTagID, llStartTime, llEndTime,
                                      &size);
    return HrInt{hr, size};
  });
}

// --- Raw-data samples ----------------------------------------------------------------

Hr MQAdaptor::InsertRawDataOne(const int32_t& nFileHandle, const int32_t& nTagID,
                               const int64_t& llTimeCode, const int32_t& nLength,
                               const std::vector<uint8_t>& pData) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.InsertRawDataOne(nFileHandle, 0, nTagID, llTimeCode, nLength,
                                pData.empty() ? nullptr : pData.data(), pData.size());
  });
}

Hr MQAdaptor::InsertRawDataOne2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                const int32_t& nTagID, const int64_t& llTimeCode,
                                const int32_t& nLength, const std::vector<uint8_t>& pData) {
  Admit();
  return Guarded<Hr>([&] {
    return mq_.InsertRawDataOne(nFileHandle, nProgramIndex, nTagID, llTimeCode, nLength,
                                pData.empty() ? nullptr : pData.data(), pData.size());
  });
}

HrBytes MQAdaptor::GetRawDataOne(const int32_t& nFileHandle, const int32_t& nTagID,
                                 const int64_t& llTimeCode, const int32_t& nLength) {
  Admit();
  return Guarded<HrBytes>([&] {
    std::vector<uint8_t> bytes;
    Hr hr = mq_.GetRawDataOne(nFileHandle, 0, nTagID, llTimeCode, nLength, &bytes);
    return HrBytes{hr, std::move(bytes)};
  });
}

HrBytes MQAdaptor::GetRawDataOne2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                  const int32_t& nTagID, const int64_t& llTimeCode,
                                  const int32_t& nLength) {
  Admit();
  return Guarded<HrBytes>([&] {
    std::vector<uint8_t> bytes;
    Hr hr = mq_.GetRawDataOne(nFileHandle, nProgramIndex, nTagID, llTimeCode, nLength, &bytes);
    return HrBytes{hr, std::move(bytes)};
  });
}

HrRawSamples MQAdaptor::GetRawDataAll(const int32_t& nFileHandle, const int32_t& nTagID,
                                      const int32_t& m) {
  Admit();
  return Guarded<HrRawSamples>([&] { return ReadRaw(nFileHandle, 0, nTagID, true, 0, -1, m); });
}

HrRawSamples MQAdaptor::GetRawDataAll2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                       const int32_t& nTagID, const int32_t& m) {
  Admit();
  return Guarded<HrRawSamples>(
      [&] { return ReadRaw(nFileHandle, nProgramIndex, nTagID, true, 0, -1, m); });
}

HrRawSamples MQAdaptor::GetRawDataPeriod(const int32_t& nFileHandle, const int32_t& nTagID,
                                         const int64_t& llStartTime, const int64_t& llEndTime,
                                         const int32_t& m) {
  Admit();
  return Guarded<HrRawSamples>(
      [&] { return ReadRaw(nFileHandle, 0, nTagID, false, llStartTime, llEndTime, m); });
}

HrRawSamples MQAdaptor::GetRawDataPeriod2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                          const int32_t& nTagID, const int64_t& llStartTime,
                                          const int64_t& llEndTime, const int32_t& m) {
  Admit();
  return Guarded<HrRawSamples>([&] {
    return ReadRaw(nFileHandle, nProgramIndex, nTagID, false, llStartTime, llEndTime, m);
  });
}

// The reply carries every sample's bytes; when they would not fit one reply the answer
// is E_OUTOFMEMORY and the client reads in pages through IMarquelBulk.
HrRawSamples MQAdaptor::ReadRaw(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                                int64_t end, int32_t m) {
  if (m > 0 && static_cast<size_t>(m) > kMaxReplyArrayBytes / kRawSampleHeadBytes)
    return HrRawSamples{E_OUTOFMEMORY, {}};
  RawSampleColumns columns;
  Hr hr = all ? mq_.GetRawDataAll(h, program, tag, m, &columns)
              : mq_.GetRawDataPeriod(h, program, tag, start, end, m, &columns);
  if (hr != S_OK) return HrRawSamples{hr, {}};
  size_t bytes = columns.size() * kRawSampleHeadBytes + columns.bytes.size();
  if (bytes > kMaxReplyArrayBytes) return HrRawSamples{E_OUTOFMEMORY, {}};
  std::vector<RawSample> reply;
  reply.reserve(columns.size());
  size_t position = 0;
  for (size_t i = 0; i < columns.size(); ++i) {
    size_t length = static_cast<size_t>(columns.lengths[i]);
    const uint8_t* first = columns.bytes.data() + position;
    reply.emplace_back(columns.times[i], std::vector<uint8_t>(first, first + length));
    position += length;
  }
  return HrRawSamples{hr, std::move(reply)};
}

HrInt MQAdaptor::QueryRawDataTagSampleSize(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                           const int32_t& nTagID) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = 0;
    Hr hr = mq_.QueryRawDataTagSampleSize(nFileHandle, nProgramIndex, nTagID, &size);
    return HrInt{hr, size};
  });
}

}  // namespace marquel::host
