// CMQInterface: inserting and reading plain and raw-data samples.
#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "api/mq_interface.h"
#include "log/log.h"
#include "result_rules.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

// The temporary array of m internal samples a read fills; null when it cannot be had.
std::unique_ptr<SampleRecord[]> TempSamples(int64_t m) {
  return std::unique_ptr<SampleRecord[]>(new (std::nothrow) SampleRecord[m]);
}

// Frees the byte buffers a read handed out with its samples.
void FreeBuffers(SampleRecord* records, int64_t count) {
  if (count > 0) FreeSampleBuffers(records, count);
}

// The width of `tag` when `value` has bits above it, else 0. Such a value is kept whole
// while the file is open, but the data block holds only its low `width` bits, so it comes
// back cut after the close. A delta tag's values may be wider: the block holds their
// steps (and the block writer logs the steps it cannot hold).
// A state tag (types 3 and 4) keeps one bit: its item is the value with bit 1 set.
int32_t WidthCutting(int32_t tag, int32_t value) {
  const TagDefinition* d = FindTagDefinition(tag);
  if (d == nullptr || d->nType == kTagTypeDelta || d->nBits <= 0 || d->nBits >= 32) return 0;
  const int32_t kept = IsStateTagType(d->nType) ? 1 : d->nBits;
  return static_cast<uint32_t>(value) >> kept != 0 ? kept : 0;
}

void LogValueTooWide(const char* method, int32_t handle, int32_t tag, int32_t value,
                     int32_t width) {
  MQ_LOG(
      "%s: [%d] tag %d is %d bits wide; value %d is kept while the file is open and "
      "written cut to its low %d bits",
      method, handle, tag, width, value, width);
}

// R2 makes the table's -1 a success; the log says that nothing was stored, and why.
void LogNothingStored(const char* method, int32_t handle, bool open, int32_t program) {
  if (open)
    MQ_LOG("%s: [%d] has no program %d; nothing stored", method, handle, program);
  else
    MQ_LOG("%s: [%d] is not an open file; nothing stored", method, handle);
}

}  // namespace

// The result codes stay those of R2; what they do not tell, the log does: a handle that is
// not open or a program index the file does not have stores nothing, and a value wider
// than its tag comes back cut.
HRESULT CMQInterface::InsertDataOne(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int64_t llTimeCode, int32_t nData) {
  const int32_t result =
      ctrl_->InsertOne(nFileHandle, nProgramIndex, nTagID, MakePlainSample(llTimeCode, nData));
  if (result == -1)
    LogNothingStored("InsertDataOne", nFileHandle, ctrl_->Session(nFileHandle) != nullptr,
                     nProgramIndex);
  if (result == 1) {
    const int32_t width = WidthCutting(nTagID, nData);
    if (width != 0) LogValueTooWide("InsertDataOne", nFileHandle, nTagID, nData, width);
  }
  return R2(result);
}

HRESULT CMQInterface::InsertDataPeriod(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                       const MarquelOneTag* mqTags, int32_t nDataCount,
                                       int32_t* nInserted) {
  Put(nInserted, 0);
  if (mqTags == nullptr || nDataCount <= 0) return E_INVALIDARG;
  // Converted and inserted a piece at a time: the same per-record results, bounded memory.
  int64_t piece = std::min<int64_t>(nDataCount, kReadPieceSamples);
  std::unique_ptr<SampleRecord[]> records = TempSamples(piece);
  if (!records) return E_OUTOFMEMORY;
  int64_t stored = 0;
  for (int64_t first = 0; first < nDataCount; first += piece) {
    int32_t count = static_cast<int32_t>(std::min<int64_t>(piece, nDataCount - first));
    for (int32_t i = 0; i < count; ++i)
      records[i] = MakePlainSample(mqTags[first + i].llTimeCode, mqTags[first + i].value);
    int32_t done = ctrl_->InsertMany(nFileHandle, nProgramIndex, nTagID, records.get(), count);
    if (done < 0) {  // a closed handle: nothing was stored
      stored = -1;
      break;
    }
    stored += done;
  }
  Put(nInserted, stored < 0 ? 0 : stored);
  for (int32_t i = 0; stored > 0 && i < nDataCount; ++i) {
    const int32_t width = WidthCutting(nTagID, mqTags[i].value);
    if (width == 0) continue;
    LogValueTooWide("InsertDataPeriod", nFileHandle, nTagID, mqTags[i].value, width);
    break;  // one line a call
  }
  return R3(stored, nDataCount);
}

HRESULT CMQInterface::GetDataOne(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int64_t llTimeCode, int32_t* nValue) {
  SampleRecord record;
  int32_t result = ctrl_->GetOne(nFileHandle, nProgramIndex, nTagID, llTimeCode, &record);
  FreeSampleBuffer(record.pBuffer);
  if (result == 0) return E_FAIL;
  // For a closed handle (-1) the value is the untouched record's, 0: not meaningful.
  Put(nValue, record.nValue);
  return S_OK;
}

HRESULT CMQInterface::GetDataAll(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int32_t m, std::vector<MarquelOneTag>* mqTags) {
  return ReadPlain(nFileHandle, nProgramIndex, nTagID, true, 0, -1, m, mqTags);
}

HRESULT CMQInterface::GetDataPeriod(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int64_t llStartTime, int64_t llEndTime, int32_t m,
                                    std::vector<MarquelOneTag>* mqTags) {
  return ReadPlain(nFileHandle, nProgramIndex, nTagID, false, llStartTime, llEndTime, m, mqTags);
}

// Exactly m records are handed out: the samples that exist, then zeros.
HRESULT CMQInterface::ReadPlain(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                                int64_t end, int32_t m, std::vector<MarquelOneTag>* out) {
  if (out == nullptr) return E_INVALIDARG;
  std::vector<MarquelOneTag> samples;
  HRESULT hr = ReadPieces(
      h, program, tag, all, start, end, m, kMaxReadRawBytes,
      [&](const SampleRecord* records, size_t count) {
        for (size_t i = 0; i < count; ++i)
          samples.push_back(MarquelOneTag{records[i].llTimeCode, records[i].nValue});
        return S_OK;
      },
      nullptr);
  if (hr != S_OK) return hr;
  try {
    samples.resize(static_cast<size_t>(m), MarquelOneTag{0, 0});
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  *out = std::move(samples);
  return S_OK;
}

// The samples come from the table a piece at a time into a temporary array of at most a
// piece (never more than m: the table is given the piece as the capacity). Each piece
// goes on after the last time code of the one before.
HRESULT CMQInterface::ReadPieces(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                                 int64_t end, int32_t m, int64_t byte_limit, const ReadSink& sink,
                                 int64_t* delivered) {
  Put(delivered, 0);
  if (!sink || m <= 0) return E_INVALIDARG;
  if (m > kMaxReadSamples) return E_OUTOFMEMORY;
  int64_t piece = kReadPieceSamples;
  int32_t sample_size = 0;
  if (ctrl_->QueryRawDataTagSampleSize(h, program, tag, &sample_size) == 1 && sample_size > 0)
    piece = std::clamp<int64_t>(kReadPieceBytes / sample_size, 1, kReadPieceSamples);
  piece = std::min<int64_t>(piece, m);
  std::unique_ptr<SampleRecord[]> temp = TempSamples(piece);
  if (!temp) return E_OUTOFMEMORY;
  int64_t from = all ? std::numeric_limits<int64_t>::min() : start;
  int64_t to = all ? -1 : end;
  int64_t total = 0;
  int64_t bytes = 0;
  for (;;) {
    int64_t want = std::min<int64_t>(piece, m - total);
    int64_t n = ctrl_->GetDataPeriod(h, program, tag, from, to, temp.get(), want);
    if (n == kReadFailed) return E_FAIL;  // stored samples that cannot be read
    struct Release {
      SampleRecord* records;
      int64_t count;
      ~Release() { FreeBuffers(records, count); }
    } release{temp.get(), static_cast<int64_t>(Written(n, want))};
    if (n == 0 && total == 0) return E_FAIL;
    if (n <= 0) break;
    for (int64_t i = 0; i < release.count; ++i)
      if (temp[i].nKind == kRawSample && temp[i].nValue > 0) bytes += temp[i].nValue;
    if (bytes > byte_limit) return E_OUTOFMEMORY;
    HRESULT hr = sink(temp.get(), static_cast<size_t>(release.count));
    if (hr != S_OK) return hr;
    total += release.count;
    Put(delivered, total);
    int64_t last = temp[release.count - 1].llTimeCode;
    if (release.count < want || total >= m || last == std::numeric_limits<int64_t>::max()) break;
    from = last + 1;
  }
  return S_OK;
}

HRESULT CMQInterface::QueryOneTagSize(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                      int32_t* nSize) {
  return R5(ctrl_->QueryOneTagSize(nFileHandle, nProgramIndex, nTagID), nSize);
}

HRESULT CMQInterface::QueryOneTagPeriodSize(int32_t nFileHandle, int32_t nProgramIndex,
                                            int32_t nTagID, int64_t llStartTime, int64_t llEndTime,
                                            int32_t* nSize) {
  return R5(
      ctrl_->QueryOneTagPeriodSize(nFileHandle, nProgramIndex, nTagID, llStartTime, llEndTime),
      nSize);
}

// --- Raw-data samples ----------------------------------------------------------------

HRESULT CMQInterface::InsertRawDataOne(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                       int64_t llTimeCode, int32_t nLength, const uint8_t* pData,
                                       size_t available) {
  // A length beyond the bytes that arrived would make the store read past them; one
  // beyond the store's ceiling is refused before anything is copied.
  if (nLength > 0 && (pData == nullptr || static_cast<size_t>(nLength) > available))
    return E_INVALIDARG;
  if (nLength > kMaxRawSampleBytes) return E_INVALIDARG;
  // Every length is a sample with bytes, 0 too: a caller on the bus cannot send "no
  // buffer", so a sample of no bytes is stored as one rather than taken for an emptying
  // of the record at that time.
  static const uint8_t kNoBytes = 0;
  const uint8_t* bytes = nLength > 0 ? pData : (nLength == 0 ? &kNoBytes : nullptr);
  const int32_t result = ctrl_->InsertOne(nFileHandle, nProgramIndex, nTagID,
                                          MakeRawSample(llTimeCode, nLength, bytes));
  if (result == -1)
    LogNothingStored("InsertRawDataOne", nFileHandle, ctrl_->Session(nFileHandle) != nullptr,
                     nProgramIndex);
  return R2(result);
}

HRESULT CMQInterface::GetRawDataOne(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int64_t llTimeCode, int32_t nLength,
                                    std::vector<uint8_t>* pData) {
  SampleRecord record;
  int32_t result = ctrl_->GetOne(nFileHandle, nProgramIndex, nTagID, llTimeCode, &record);
  std::unique_ptr<uint8_t, void (*)(uint8_t*)> bytes(record.pBuffer, FreeSampleBuffer);
  if (result == 0) return E_FAIL;
  int32_t length = record.nKind == kRawSample ? record.nValue : 0;
  if (length > nLength) return E_INVALIDARG;
  if (pData == nullptr) return S_OK;
  pData->assign(static_cast<size_t>(length > 0 ? length : 0), 0);
  if (length > 0 && bytes) std::memcpy(pData->data(), bytes.get(), length);
  return S_OK;
}

HRESULT CMQInterface::GetRawDataAll(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int32_t m, RawSampleColumns* pTagList) {
  return ReadRaw(nFileHandle, nProgramIndex, nTagID, true, 0, -1, m, pTagList);
}

HRESULT CMQInterface::GetRawDataPeriod(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                       int64_t llStartTime, int64_t llEndTime, int32_t m,
                                       RawSampleColumns* pTagList) {
  return ReadRaw(nFileHandle, nProgramIndex, nTagID, false, llStartTime, llEndTime, m, pTagList);
}

// The samples that exist with their bytes, then zeros up to m elements. A raw sample kept
// without bytes reads as zeros of its length.
HRESULT CMQInterface::ReadRaw(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                              int64_t end, int32_t m, RawSampleColumns* out) {
  if (out == nullptr) return E_INVALIDARG;
  RawSampleColumns columns;
  HRESULT hr = ReadPieces(
      h, program, tag, all, start, end, m, kMaxReadRawBytes,
      [&](const SampleRecord* records, size_t count) {
        for (size_t i = 0; i < count; ++i) {
          const SampleRecord& r = records[i];
          int32_t length = r.nKind == kRawSample && r.nValue > 0 ? r.nValue : 0;
          columns.times.push_back(r.llTimeCode);
          columns.lengths.push_back(length);
          if (r.pBuffer != nullptr)
            columns.bytes.insert(columns.bytes.end(), r.pBuffer, r.pBuffer + length);
          else
            columns.bytes.resize(columns.bytes.size() + static_cast<size_t>(length), 0);
        }
        return S_OK;
      },
      nullptr);
  if (hr != S_OK) return hr;
  try {
    columns.times.resize(static_cast<size_t>(m), 0);
    columns.lengths.resize(static_cast<size_t>(m), 0);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  *out = std::move(columns);
  return S_OK;
}

HRESULT CMQInterface::GetRawDataAll(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int32_t m, MarquelRawDataTag* pTagList) {
  if (pTagList == nullptr) return E_INVALIDARG;
  RawSampleColumns columns;
  return CopyRawOut(GetRawDataAll(nFileHandle, nProgramIndex, nTagID, m, &columns), columns, m,
                    pTagList);
}

HRESULT CMQInterface::GetRawDataPeriod(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                       int64_t llStartTime, int64_t llEndTime, int32_t m,
                                       MarquelRawDataTag* pTagList) {
  if (pTagList == nullptr) return E_INVALIDARG;
  RawSampleColumns columns;
  return CopyRawOut(
      GetRawDataPeriod(nFileHandle, nProgramIndex, nTagID, llStartTime, llEndTime, m, &columns),
      columns, m, pTagList);
}

// For each element: the time code; the bytes and their length only into a buffer that is
// there and long enough.
HRESULT CMQInterface::CopyRawOut(HRESULT hr, const RawSampleColumns& columns, int32_t m,
                                 MarquelRawDataTag* pTagList) {
  if (hr != S_OK) return hr;
  size_t position = 0;
  for (int32_t i = 0; i < m && static_cast<size_t>(i) < columns.size(); ++i) {
    MarquelRawDataTag& element = pTagList[i];
    int32_t length = columns.lengths[i];
    element.llTimeCode = columns.times[i];
    if (element.pBuffer != nullptr && element.nLength >= length) {
      element.nLength = length;
      if (length > 0) std::memcpy(element.pBuffer, columns.bytes.data() + position, length);
    }
    position += length;
  }
  return S_OK;
}

HRESULT CMQInterface::QueryRawDataTagSampleSize(int32_t nFileHandle, int32_t nProgramIndex,
                                                int32_t nTagID, int32_t* nSampleSize) {
  if (nSampleSize == nullptr) return E_INVALIDARG;
  int32_t result =
      ctrl_->QueryRawDataTagSampleSize(nFileHandle, nProgramIndex, nTagID, nSampleSize);
  return result == -1 ? E_INVALIDARG : S_OK;
}

}  // namespace marquel
