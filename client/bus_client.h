// BusClient: IMarquelClient over the session bus, through the proxy generated from
// marquel.xml.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/marquel_proxy.h"
#include "marquel/marquel_client.h"

namespace marquel::client {

// Transfers larger than these go through the bulk interface in pages.
constexpr int32_t kPlainStandardMax = 65536;    // plain samples per standard call
constexpr int32_t kRawStandardMax = 1024;       // raw samples per standard call
constexpr int32_t kPlainPageSamples = 1 << 20;  // plain samples per bulk page (12 MiB)
constexpr int32_t kRawPageBytes = 16 << 20;     // raw sample bytes per bulk page
// Bulk calls may read millions of samples on the server before the first page.
constexpr uint64_t kBulkTimeoutUs = 300ull * 1000 * 1000;

using Sample = sdbus::Struct<int64_t, int32_t>;
using RawSample = sdbus::Struct<int64_t, std::vector<uint8_t>>;

class MarquelProxy final
    : public sdbus::ProxyInterfaces<
          com::halvern::Marquel::IMQInterface_proxy, com::halvern::Marquel::IMQInterface2_proxy,
          com::halvern::Marquel::IMarquelTool_proxy, com::halvern::Marquel::IMarquelEx_proxy,
          com::halvern::Marquel::IMarquelBulk_proxy> {
 public:
  explicit MarquelProxy(sdbus::IConnection& connection)
      : ProxyInterfaces(connection, kMarquelBusName, kMarquelObjectPath) {
    registerProxy();
  }
  ~MarquelProxy() { unregisterProxy(); }
  sdbus::IProxy& Raw() { return getProxy(); }
};

// The first `n` of `count` elements, never more than the caller's `capacity`.
inline size_t Clamp(size_t count, int64_t capacity) {
  if (capacity <= 0) return 0;
  return count < static_cast<size_t>(capacity) ? count : static_cast<size_t>(capacity);
}

// A file name as the server wants it: absolute, against this process's working directory.
std::string AbsoluteName(const char* name);

class BusClient final : public IMarquelClient {
 public:
  explicit BusClient(std::unique_ptr<sdbus::IConnection> connection);
  ~BusClient() override;

  std::string LastTransportError() const override;

  // IMQInterface, slots 7-55.
  HRESULT InitialFile(const char* wFileName, int32_t nFileType, int32_t bOverwrite,
                      int32_t* nFileHandle) override;
  HRESULT CloseFile(int32_t nFileHandle, int32_t bWriteToCache) override;
  HRESULT GetDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                     int32_t* nValue) override;
  HRESULT QueryOneTagPeriodSize(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime,
                                int64_t llEndTime, int32_t* nSize) override;
  HRESULT GetDataPeriod(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime, int64_t llEndTime,
                        int32_t m, MarquelOneTag* mqTags) override;
  HRESULT QueryOneTagSize(int32_t nFileHandle, int32_t nTagID, int32_t* nSize) override;
  HRESULT GetDataAll(int32_t nFileHandle, int32_t nTagID, int32_t m,
                     MarquelOneTag* mqTags) override;
  HRESULT InsertDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                        int32_t nData) override;
  HRESULT InsertDataPeriod(int32_t nFileHandle, int32_t nTagID, const MarquelOneTag* mqTags,
                           int32_t nDataCount) override;
  HRESULT QueryFileCount(int32_t* nFileCount) override;
  HRESULT QueryAllFileHandles(int32_t m, int32_t* nFileHandles) override;
  HRESULT QueryAllMemory(int32_t* nMemory) override;
  HRESULT QueryOneFileMemory(int32_t nFileHandle, int32_t* nMemory) override;
  HRESULT QueryFilename(int32_t nFileHandle, char* wFileName) override;
  HRESULT QueryOneFileTagCount(int32_t nFileHandle, int32_t* nTagCount) override;
  HRESULT QueryOneFileTagList(int32_t nFileHandle, int32_t m, int32_t* nTagList) override;
  HRESULT QueryMQExisted(int32_t nFileHandle, int32_t* bMQExisted) override;
  HRESULT CleanFile(int32_t nFileHandle) override;
  HRESULT GetMQDataStartAddress(int32_t nFileHandle, int64_t* llStartAddress) override;
  HRESULT GetMQInfo(int32_t dwValue, MarquelVariant* pVariant) override;
  HRESULT SetMQInfo(int32_t dwValue, MarquelVariant* pVariant) override;
  HRESULT MoveDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle, int64_t llTargetStartTime,
                         int64_t llSrcStartTime, int64_t llSrcEndTime,
                         int32_t nTimeStretchNumerator, int32_t nTimestretchDenominator) override;
  HRESULT CopyDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle, int64_t llTargetStartTime,
                         int64_t llSrcStartTime, int64_t llSrcEndTime,
                         int32_t nTimeStretchNumerator, int32_t nTimestretchDenominator) override;
  HRESULT DeleteDataPeriod(int32_t nFileHandle, int64_t llTimeStart, int64_t llTimeEnd) override;
  HRESULT MoveDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle, int32_t nTagID,
                                  int64_t llTargetStartTime, int64_t llSrcStartTime,
                                  int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                  int32_t nTimestretchDenominator) override;
  HRESULT CopyDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle, int32_t nTagID,
                                  int64_t llTargetStartTime, int64_t llSrcStartTime,
                                  int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                  int32_t nTimestretchDenominator) override;
  HRESULT DeleteDataPeriodForOneTag(int32_t nFileHandle, int32_t nTagID, int64_t llTimeStart,
                                    int64_t llTimeEnd) override;
  HRESULT CloseVOBFile(int32_t nFileHandle) override;
  HRESULT QueryNowMQDataFileSize(int32_t nFileHandle, int32_t* nSize) override;
  HRESULT MoveDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                       int32_t nCategory, int64_t llTargetStartTime,
                                       int64_t llSrcStartTime, int64_t llSrcEndTime,
                                       int32_t nTimeStretchNumerator,
                                       int32_t nTimestretchDenominator) override;
  HRESULT CopyDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                       int32_t nCategory, int64_t llTargetStartTime,
                                       int64_t llSrcStartTime, int64_t llSrcEndTime,
                                       int32_t nTimeStretchNumerator,
                                       int32_t nTimestretchDenominator) override;
  HRESULT DeleteDataPeriodForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                         int64_t llTimeStart, int64_t llTimeEnd) override;
  HRESULT QueryValidIntervalSize(int32_t nFileHandle, int32_t nTagID, int32_t* nSize) override;
  HRESULT QueryValidInterval(int32_t nFileHandle, int32_t nTagID, int32_t m, int64_t* llStartTimes,
                             int64_t* llEndTimes) override;
  HRESULT GetRawDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode, int32_t nLength,
                        uint8_t* pData) override;
  HRESULT InsertRawDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode, int32_t nLength,
                           const uint8_t* pData) override;
  HRESULT QueryOneFileRawDataTagList(int32_t nFileHandle, int32_t m, int32_t* nTagList,
                                     int32_t* pnOneDataLength) override;
  HRESULT QueryOneFileRawDataTagCount(int32_t nFileHandle, int32_t* nTagCount) override;
  HRESULT GetRawDataAll(int32_t nFileHandle, int32_t nTagID, int32_t m,
                        MarquelRawDataTag* pTagList) override;
  HRESULT GetRawDataPeriod(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime,
                           int64_t llEndTime, int32_t m, MarquelRawDataTag* pTagList) override;
  HRESULT QueryNowMQDataPeriodSize(int32_t nFileHandle, int64_t llStartTime, int64_t llEndTime,
                                   int32_t* nSize) override;
  HRESULT FileRename(int32_t nFileHandle, const char* wNewFileName) override;
  HRESULT QueryOriginalFileSizeAndMTime(int32_t nFileHandle, uint64_t* pullOrgFileSize,
                                        uint64_t* pullMTime) override;
  HRESULT CloseVCDORSVCDFile(int32_t nFileHandle) override;
  HRESULT SetMinTimeInterval(int32_t nFileHandle, int64_t llMinTimeInterval) override;
  HRESULT MinusTimeOffset(int32_t nFileHandle, int64_t llTimeOffset) override;
  HRESULT MinusTimeOffsetForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                        int64_t llTimeOffset) override;
  HRESULT MinustTimeOffsetForOneTag(int32_t nFileHandle, int32_t nTagID,
                                    int64_t llTimeOffset) override;
  HRESULT SetTimeIntervalForTag(int32_t nFileHandle, int32_t nTagID,
                                int64_t llTimeInterval) override;

  // IMQInterface2, slots 56-80.
  HRESULT InitialFile2(const char* wFileName, int32_t nFileType, int32_t bOverwrite, int32_t nTags,
                       const int32_t* pnTags, int32_t bReadOnly, int64_t llStartTime,
                       int64_t llEndTime, int32_t* nFileHandle) override;
  HRESULT QueryRawDataTagSampleSize(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int32_t* nSampleSize) override;
  HRESULT QueryOneFileRawDataTagList2(int32_t nFileHandle, int32_t nProgramIndex, int32_t m,
                                      int32_t* pnTagList, int32_t* pnOneDataLength) override;
  HRESULT GetMQProgramCounts(int32_t nFileHandle, int32_t* nProgramCount) override;
  HRESULT GetMQPMTPIDS(int32_t nFileHandle, int32_t nTotal, int32_t* pnPMTPIDs) override;
  HRESULT InsertNewProgram(int32_t nFileHandle, int32_t nNewPMTPID,
                           int32_t* nProgramIndex) override;
  HRESULT SetPMTPID(int32_t nFileHandle, int32_t nProgramIndex, int32_t nPMTPID) override;
  HRESULT InsertDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                         int64_t llTimeCode, int32_t nData) override;
  HRESULT InsertDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                            const MarquelOneTag* mqTags, int32_t nDataCount) override;
  HRESULT GetDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                      int64_t llTimeCode, int32_t* nValue) override;
  HRESULT QueryOneTagPeriodSize2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int64_t llStartTime, int64_t llEndTime, int32_t* nSize) override;
  HRESULT GetDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                         int64_t llStartTime, int64_t llEndTime, int32_t m,
                         MarquelOneTag* mqTags) override;
  HRESULT QueryOneTagSize2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                           int32_t* nSize) override;
  HRESULT GetDataAll2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int32_t m,
                      MarquelOneTag* mqTags) override;
  HRESULT InsertRawDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                            int64_t llTimeCode, int32_t nLength, const uint8_t* pData) override;
  HRESULT GetRawDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                         int64_t llTimeCode, int32_t nLength, uint8_t* pData) override;
  HRESULT QueryOneFileTagList2(int32_t nFileHandle, int32_t nProgramIndex, int32_t m,
                               int32_t* nTagList) override;
  HRESULT QueryOneFileTagCount2(int32_t nFileHandle, int32_t nProgramIndex,
                                int32_t* nTagCount) override;
  HRESULT QueryValidIntervalSize2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                  int32_t* nSize) override;
  HRESULT QueryValidInterval2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int32_t m,
                              int64_t* llStartTimes, int64_t* llEndTimes) override;
  HRESULT QueryOneFileRawDataTagCount2(int32_t nFileHandle, int32_t nProgramIndex,
                                       int32_t* nTagCount) override;
  HRESULT GetRawDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                            int64_t llStartTime, int64_t llEndTime, int32_t m,
                            MarquelRawDataTag* pTagList) override;
  HRESULT SetTimeIntervalForTag2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int64_t llTimeInterval) override;
  HRESULT QueryMQDataStatus(int32_t nFileHandle, int32_t* pnStatus) override;
  HRESULT GetRawDataAll2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int32_t m,
                         MarquelRawDataTag* pTagList) override;

  // IMarquelTool.
  HRESULT QueryOrgFileSizeAndMTime(const char* wFileName, uint64_t* pullOrgFileSize,
                                   uint64_t* pullMTime) override;
  HRESULT CacheRename(const char* wOriFileName, const char* wNewFileName,
                      int32_t nFileType) override;
  HRESULT MoveCacheDataToOrgFile(const char* wOriFileName) override;

  // IMarquelEx.
  HRESULT IsWriteToFileDone(const char* wOriFileName, int32_t* bDone) override;
  HRESULT ExecuteCmd(int32_t nCmd, const uint8_t* InBuffer, int32_t nInBufLen, uint8_t* OutBuffer,
                     int32_t* nOutBufLen) override;

 private:
  // Runs `call` under the object's lock and turns bus failures into HRESULTs.
  template <typename F>
  HRESULT Guarded(F&& call) {
    std::lock_guard<std::mutex> lock(mu_);
    try {
      return call();
    } catch (const sdbus::Error& e) {
      return FromBusError(e.getName(), e.getMessage());
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    } catch (const std::exception& e) {
      return FromBusError("", e.what());
    }
  }
  HRESULT FromBusError(const std::string& name, const std::string& message);

  // Plain reads and inserts, for program `program` (0 for the IMQInterface methods).
  HRESULT ReadPlain(int32_t h, int32_t program, bool twin, int32_t tag, bool all, int64_t start,
                    int64_t end, int32_t m, MarquelOneTag* out);
  HRESULT ReadPlainPaged(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                         int64_t end, int32_t m, MarquelOneTag* out);
  HRESULT InsertPlain(int32_t h, int32_t program, bool twin, int32_t tag, const MarquelOneTag* tags,
                      int32_t count);
  HRESULT InsertPlainPaged(int32_t h, int32_t program, int32_t tag, const MarquelOneTag* tags,
                           int32_t count);
  // Raw reads: the copy rule applied to the caller's elements.
  HRESULT ReadRaw(int32_t h, int32_t program, bool twin, int32_t tag, bool all, int64_t start,
                  int64_t end, int32_t m, MarquelRawDataTag* out);
  HRESULT ReadRawPaged(int32_t h, int32_t program, int32_t tag, bool all, int64_t start,
                       int64_t end, int32_t m, MarquelRawDataTag* out);
  void EndTransfer(uint64_t transfer);

  mutable std::mutex mu_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<MarquelProxy> proxy_;
  std::string last_error_;
};

// The raw copy rule for one element: the time code always; the bytes and the length only
// where the caller gave a buffer at least as long as the sample.
void CopyRawSample(int64_t time_code, const uint8_t* bytes, size_t length,
                   MarquelRawDataTag* element);

}  // namespace marquel::client
