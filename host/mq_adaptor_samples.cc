// MQAdaptor: plain and raw-data samples.
#include <algorithm>

#include "adaptor_guard.h"
#include "insert_pieces.h"
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
  int32_t inserted = 0;
  return InsertInPieces(
      mq_, h, program, tag, static_cast<size_t>(count),
      [&](size_t i) {
        return MarquelOneTag{std::get<0>(tags[i]), std::get<1>(tags[i])};
      },
      &inserted);
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

// A reply of m records must fit the bus; larger reads go through IMarquelBulk. The reply
// is built from the samples that exist, then zeros up to m.
HrSamples MQAdaptor::ReadPlain(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                               int64_t end, int32_t m) {
  if (m > 0 && static_cast<size_t>(m) > kMaxReplyArrayBytes / kSampleBytes)
    return HrSamples{E_OUTOFMEMORY, {}};
  std::vector<Sample> reply;
  Hr hr = mq_.ReadPieces(
      h, program, tag, all, start, end, m, CMQInterface::kMaxReadRawBytes,
      [&](const SampleRecord* records, size_t count) {
        for (size_t i = 0; i < count; ++i)
          reply.emplace_back(records[i].llTimeCode, records[i].nValue);
        return S_OK;
      },
      nullptr);
  if (hr != S_OK) return HrSamples{hr, {}};
  reply.resize(static_cast<size_t>(m), Sample{0, 0});
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
// is E_OUTOFMEMORY (found while reading, before more is gathered) and the client reads in
// pages through IMarquelBulk.
HrRawSamples MQAdaptor::ReadRaw(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                                int64_t end, int32_t m) {
  if (m > 0 && static_cast<size_t>(m) > kMaxReplyArrayBytes / kRawSampleHeadBytes)
    return HrRawSamples{E_OUTOFMEMORY, {}};
  int64_t room = static_cast<int64_t>(kMaxReplyArrayBytes) -
                 static_cast<int64_t>(std::max(m, 0)) * static_cast<int64_t>(kRawSampleHeadBytes);
  std::vector<RawSample> reply;
  Hr hr = mq_.ReadPieces(
      h, program, tag, all, start, end, m, room,
      [&](const SampleRecord* records, size_t count) {
        for (size_t i = 0; i < count; ++i) {
          const SampleRecord& r = records[i];
          size_t length = r.nKind == kRawSample && r.nValue > 0 ? r.nValue : 0;
          std::vector<uint8_t> bytes(length, 0);
          if (length > 0 && r.pBuffer != nullptr)
            std::copy(r.pBuffer, r.pBuffer + length, bytes.begin());
          reply.emplace_back(r.llTimeCode, std::move(bytes));
        }
        return S_OK;
      },
      nullptr);
  if (hr != S_OK) return HrRawSamples{hr, {}};
  reply.resize(static_cast<size_t>(m), RawSample{0, {}});
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
