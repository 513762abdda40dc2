// MQAdaptor: the object on the bus. It implements the adaptor generated from marquel.xml
// by handing each call to CMQInterface and sending back what that wrote.
//
// Every call first admits its caller (ClientRegistry). Opens and closes are reported to
// the registry so that a client's outstanding opens can be released when it goes. Arrays
// are bounded before they are built: a reply that would not fit the bus answers
// E_OUTOFMEMORY instead, and counts larger than the array that arrived answer
// E_INVALIDARG.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "api/marquel_adaptor.h"
#include "api/mq_interface.h"
#include "client_registry.h"

namespace marquel::host {

// The largest reply array the standard methods build (the bus refuses 64 MiB).
constexpr size_t kMaxReplyArrayBytes = 32u << 20;

class MQAdaptor final
    : public sdbus::AdaptorInterfaces<
          com::halvern::Marquel::IMQInterface_adaptor, com::halvern::Marquel::IMQInterface2_adaptor,
          com::halvern::Marquel::IMarquelTool_adaptor, com::halvern::Marquel::IMarquelEx_adaptor> {
 public:
  using Sample = sdbus::Struct<int64_t, int32_t>;
  using RawSample = sdbus::Struct<int64_t, std::vector<uint8_t>>;

  // Registers the methods on a new object at the server's path; Publish() finishes it.
  MQAdaptor(sdbus::IConnection& connection, CMQInterface& mq, ClientRegistry& registry);
  ~MQAdaptor();

  // The object, for further methods registered beside the generated ones.
  sdbus::IObject& Object() { return getObject(); }
  // Makes the object visible on the bus.
  void Publish();
  // Takes the object off the bus.
  void Revoke();

 private:
  // IMQInterface.
  std::tuple<int32_t, int32_t> InitialFile(const std::string& wFileName, const int32_t& nFileType,
                                           const int32_t& bOverwrite) override;
  int32_t CloseFile(const int32_t& nFileHandle, const int32_t& bWriteToCache) override;
  std::tuple<int32_t, int32_t> GetDataOne(const int32_t& nFileHandle, const int32_t& nTagID,
                                          const int64_t& llTimeCode) override;
  std::tuple<int32_t, int32_t> QueryOneTagPeriodSize(const int32_t& nFileHandle,
                                                     const int32_t& nTagID,
                                                     const int64_t& llStartTime,
                                                     const int64_t& llEndTime) override;
  std::tuple<int32_t, std::vector<sdbus::Struct<int64_t, int32_t>>> GetDataPeriod(
      const int32_t& nFileHandle, const int32_t& nTagID, const int64_t& llStartTime,
      const int64_t& llEndTime, const int32_t& m) override;
  std::tuple<int32_t, int32_t> QueryOneTagSize(const int32_t& nFileHandle,
                                               const int32_t& nTagID) override;
  std::tuple<int32_t, std::vector<sdbus::Struct<int64_t, int32_t>>> GetDataAll(
      const int32_t& nFileHandle, const int32_t& nTagID, const int32_t& m) override;
  int32_t InsertDataOne(const int32_t& nFileHandle, const int32_t& nTagID,
                        const int64_t& llTimeCode, const int32_t& nData) override;
  int32_t InsertDataPeriod(const int32_t& nFileHandle, const int32_t& nTagID,
                           const std::vector<sdbus::Struct<int64_t, int32_t>>& mqTags,
                           const int32_t& nDataCount) override;
  std::tuple<int32_t, int32_t> QueryFileCount() override;
  std::tuple<int32_t, std::vector<int32_t>> QueryAllFileHandles(const int32_t& m) override;
  std::tuple<int32_t, int32_t> QueryAllMemory() override;
  std::tuple<int32_t, int32_t> QueryOneFileMemory(const int32_t& nFileHandle) override;
  std::tuple<int32_t, std::string> QueryFilename(const int32_t& nFileHandle,
                                                 const std::string& wFileName) override;
  std::tuple<int32_t, int32_t> QueryOneFileTagCount(const int32_t& nFileHandle) override;
  std::tuple<int32_t, std::vector<int32_t>> QueryOneFileTagList(const int32_t& nFileHandle,
                                                                const int32_t& m) override;
  std::tuple<int32_t, int32_t> QueryMQExisted(const int32_t& nFileHandle) override;
  int32_t CleanFile(const int32_t& nFileHandle) override;
  std::tuple<int32_t, int64_t> GetMQDataStartAddress(const int32_t& nFileHandle,
                                                     const int64_t& llStartAddress) override;
  std::tuple<int32_t, sdbus::Variant> GetMQInfo(const int32_t& dwValue,
                                                const sdbus::Variant& pVariant) override;
  int32_t SetMQInfo(const int32_t& dwValue, const sdbus::Variant& pVariant) override;
  int32_t MoveDataPeriod(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                         const int64_t& llTargetStartTime, const int64_t& llSrcStartTime,
                         const int64_t& llSrcEndTime, const int32_t& nTimeStretchNumerator,
                         const int32_t& nTimestretchDenominator) override;
  int32_t CopyDataPeriod(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                         const int64_t& llTargetStartTime, const int64_t& llSrcStartTime,
                         const int64_t& llSrcEndTime, const int32_t& nTimeStretchNumerator,
                         const int32_t& nTimestretchDenominator) override;
  int32_t DeleteDataPeriod(const int32_t& nFileHandle, const int64_t& llTimeStart,
                           const int64_t& llTimeEnd) override;
  int32_t MoveDataPeriodForOneTag(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                                  const int32_t& nTagID, const int64_t& llTargetStartTime,
                                  const int64_t& llSrcStartTime, const int64_t& llSrcEndTime,
                                  const int32_t& nTimeStretchNumerator,
                                  const int32_t& nTimestretchDenominator) override;
  int32_t CopyDataPeriodForOneTag(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                                  const int32_t& nTagID, const int64_t& llTargetStartTime,
                                  const int64_t& llSrcStartTime, const int64_t& llSrcEndTime,
                                  const int32_t& nTimeStretchNumerator,
                                  const int32_t& nTimestretchDenominator) override;
  int32_t DeleteDataPeriodForOneTag(const int32_t& nFileHandle, const int32_t& nTagID,
                                    const int64_t& llTimeStart, const int64_t& llTimeEnd) override;
  int32_t CloseVOBFile(const int32_t& nFileHandle) override;
  std::tuple<int32_t, int32_t> QueryNowMQDataFileSize(const int32_t& nFileHandle,
                                                      const int32_t& nSize) override;
  int32_t MoveDataPeriodForOneCategory(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                                       const int32_t& nCategory, const int64_t& llTargetStartTime,
                                       const int64_t& llSrcStartTime, const int64_t& llSrcEndTime,
                                       const int32_t& nTimeStretchNumerator,
                                       const int32_t& nTimestretchDenominator) override;
  int32_t CopyDataPeriodForOneCategory(const int32_t& nTargetHandle, const int32_t& nSourceHandle,
                                       const int32_t& nCategory, const int64_t& llTargetStartTime,
                                       const int64_t& llSrcStartTime, const int64_t& llSrcEndTime,
                                       const int32_t& nTimeStretchNumerator,
                                       const int32_t& nTimestretchDenominator) override;
  int32_t DeleteDataPeriodForOneCategory(const int32_t& nFileHandle, const int32_t& nCategory,
                                         const int64_t& llTimeStart,
                                         const int64_t& llTimeEnd) override;
  std::tuple<int32_t, int32_t> QueryValidIntervalSize(const int32_t& nFileHandle,
                                                      const int32_t& nTagID) override;
  std::tuple<int32_t, std::vector<int64_t>, std::vector<int64_t>> QueryValidInterval(
      const int32_t& nFileHandle, const int32_t& nTagID, const int32_t& m) override;
  std::tuple<int32_t, std::vector<uint8_t>> GetRawDataOne(const int32_t& nFileHandle,
                                                          const int32_t& nTagID,
                                                          const int64_t& llTimeCode,
                                                          const int32_t& nLength) override;
  int32_t InsertRawDataOne(const int32_t& nFileHandle, const int32_t& nTagID,
                           const int64_t& llTimeCode, const int32_t& nLength,
                           const std::vector<uint8_t>& pData) override;
  std::tuple<int32_t, std::vector<int32_t>, std::vector<int32_t>> QueryOneFileRawDataTagList(
      const int32_t& nFileHandle, const int32_t& m) override;
  std::tuple<int32_t, int32_t> QueryOneFileRawDataTagCount(const int32_t& nFileHandle) override;
  std::tuple<int32_t, std::vector<sdbus::Struct<int64_t, std::vector<uint8_t>>>> GetRawDataAll(
      const int32_t& nFileHandle, const int32_t& nTagID, const int32_t& m) override;
  std::tuple<int32_t, std::vector<sdbus::Struct<int64_t, std::vector<uint8_t>>>> GetRawDataPeriod(
      const int32_t& nFileHandle, const int32_t& nTagID, const int64_t& llStartTime,
      const int64_t& llEndTime, const int32_t& m) override;
  std::tuple<int32_t, int32_t> QueryNowMQDataPeriodSize(const int32_t& nFileHandle,
                                                        const int64_t& llStartTime,
                                                        const int64_t& llEndTime) override;
  int32_t FileRename(const int32_t& nFileHandle, const std::string& wNewFileName) override;
  std::tuple<int32_t, uint64_t, uint64_t> QueryOriginalFileSizeAndMTime(
      const int32_t& nFileHandle) override;
  int32_t CloseVCDORSVCDFile(const int32_t& nFileHandle) override;
  int32_t SetMinTimeInterval(const int32_t& nFileHandle, const int64_t& llMinTimeInterval) override;
  int32_t MinusTimeOffset(const int32_t& nFileHandle, const int64_t& llTimeOffset) override;
  int32_t MinusTimeOffsetForOneCategory(const int32_t& nFileHandle, const int32_t& nCategory,
                                        const int64_t& llTimeOffset) override;
  int32_t MinustTimeOffsetForOneTag(const int32_t& nFileHandle, const int32_t& nTagID,
                                    const int64_t& llTimeOffset) override;
  int32_t SetTimeIntervalForTag(const int32_t& nFileHandle, const int32_t& nTagID,
                                const int64_t& llTimeInterval) override;

  // IMQInterface2.
  std::tuple<int32_t, int32_t> InitialFile2(const std::string& wFileName, const int32_t& nFileType,
                                            const int32_t& bOverwrite, const int32_t& nTags,
                                            const std::vector<int32_t>& pnTags,
                                            const int32_t& bReadOnly, const int64_t& llStartTime,
                                            const int64_t& llEndTime) override;
  std::tuple<int32_t, int32_t> QueryRawDataTagSampleSize(const int32_t& nFileHandle,
                                                         const int32_t& nProgramIndex,
                                                         const int32_t& nTagID) override;
  std::tuple<int32_t, std::vector<int32_t>, std::vector<int32_t>> QueryOneFileRawDataTagList2(
      const int32_t& nFileHandle, const int32_t& nProgramIndex, const int32_t& m) override;
  std::tuple<int32_t, int32_t> GetMQProgramCounts(const int32_t& nFileHandle) override;
  std::tuple<int32_t, std::vector<int32_t>> GetMQPMTPIDS(const int32_t& nFileHandle,
                                                         const int32_t& nTotal) override;
  std::tuple<int32_t, int32_t> InsertNewProgram(const int32_t& nFileHandle,
                                                const int32_t& nNewPMTPID) override;
  int32_t SetPMTPID(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                    const int32_t& nPMTPID) override;
  int32_t InsertDataOne2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                         const int32_t& nTagID, const int64_t& llTimeCode,
                         const int32_t& nData) override;
  int32_t InsertDataPeriod2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                            const int32_t& nTagID,
                            const std::vector<sdbus::Struct<int64_t, int32_t>>& mqTags,
                            const int32_t& nDataCount) override;
  std::tuple<int32_t, int32_t> GetDataOne2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                           const int32_t& nTagID,
                                           const int64_t& llTimeCode) override;
  std::tuple<int32_t, int32_t> QueryOneTagPeriodSize2(const int32_t& nFileHandle,
                                                      const int32_t& nProgramIndex,
                                                      const int32_t& nTagID,
                                                      const int64_t& llStartTime,
                                                      const int64_t& llEndTime) override;
  std::tuple<int32_t, std::vector<sdbus::Struct<int64_t, int32_t>>> GetDataPeriod2(
      const int32_t& nFileHandle, const int32_t& nProgramIndex, const int32_t& nTagID,
      const int64_t& llStartTime, const int64_t& llEndTime, const int32_t& m) override;
  std::tuple<int32_t, int32_t> QueryOneTagSize2(const int32_t& nFileHandle,
                                                const int32_t& nProgramIndex,
                                                const int32_t& nTagID) override;
  std::tuple<int32_t, std::vector<sdbus::Struct<int64_t, int32_t>>> GetDataAll2(
      const int32_t& nFileHandle, const int32_t& nProgramIndex, const int32_t& nTagID,
      const int32_t& m) override;
  int32_t InsertRawDataOne2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                            const int32_t& nTagID, const int64_t& llTimeCode,
                            const int32_t& nLength, const std::vector<uint8_t>& pData) override;
  std::tuple<int32_t, std::vector<uint8_t>> GetRawDataOne2(const int32_t& nFileHandle,
                                                           const int32_t& nProgramIndex,
                                                           const int32_t& nTagID,
                                                           const int64_t& llTimeCode,
                                                           const int32_t& nLength) override;
  std::tuple<int32_t, std::vector<int32_t>> QueryOneFileTagList2(const int32_t& nFileHandle,
                                                                 const int32_t& nProgramIndex,
                                                                 const int32_t& m) override;
  std::tuple<int32_t, int32_t> QueryOneFileTagCount2(const int32_t& nFileHandle,
                                                     const int32_t& nProgramIndex) override;
  std::tuple<int32_t, int32_t> QueryValidIntervalSize2(const int32_t& nFileHandle,
                                                       const int32_t& nProgramIndex,
                                                       const int32_t& nTagID) override;
  std::tuple<int32_t, std::vector<int64_t>, std::vector<int64_t>> QueryValidInterval2(
      const int32_t& nFileHandle, const int32_t& nProgramIndex, const int32_t& nTagID,
      const int32_t& m) override;
  std::tuple<int32_t, int32_t> QueryOneFileRawDataTagCount2(const int32_t& nFileHandle,
                                                            const int32_t& nProgramIndex) override;
  std::tuple<int32_t, std::vector<sdbus::Struct<int64_t, std::vector<uint8_t>>>> GetRawDataPeriod2(
      const int32_t& nFileHandle, const int32_t& nProgramIndex, const int32_t& nTagID,
      const int64_t& llStartTime, const int64_t& llEndTime, const int32_t& m) override;
  int32_t SetTimeIntervalForTag2(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                                 const int32_t& nTagID, const int64_t& llTimeInterval) override;
  std::tuple<int32_t, int32_t> QueryMQDataStatus(const int32_t& nFileHandle,
                                                 const int32_t& pnStatus) override;
  std::tuple<int32_t, std::vector<sdbus::Struct<int64_t, std::vector<uint8_t>>>> GetRawDataAll2(
      const int32_t& nFileHandle, const int32_t& nProgramIndex, const int32_t& nTagID,
      const int32_t& m) override;

  // IMarquelTool.
  std::tuple<int32_t, uint64_t, uint64_t> QueryOrgFileSizeAndMTime(
      const std::string& wFileName) override;
  int32_t CacheRename(const std::string& wOriFileName, const std::string& wNewFileName,
                      const int32_t& nFileType) override;
  int32_t MoveCacheDataToOrgFile(const std::string& wOriFileName) override;

  // IMarquelEx.
  std::tuple<int32_t, int32_t> IsWriteToFileDone(const std::string& wOriFileName) override;
  std::tuple<int32_t, std::vector<uint8_t>, int32_t> ExecuteCmd(
      const int32_t& nCmd, const std::vector<uint8_t>& InBuffer, const int32_t& nInBufLen,
      const int32_t& nOutBufLen) override;

  // The caller of the call being processed, admitted (or AccessDenied is thrown).
  std::string Admit();
  void NoteOpen(const std::string& client, int32_t handle);
  std::tuple<int32_t, std::vector<Sample>> ReadPlain(int32_t h, int32_t program, int32_t tag,
                                                     bool all, int64_t start, int64_t end,
                                                     int32_t m);
  std::tuple<int32_t, std::vector<RawSample>> ReadRaw(int32_t h, int32_t program, int32_t tag,
                                                      bool all, int64_t start, int64_t end,
                                                      int32_t m);
  int32_t InsertPlain(int32_t h, int32_t program, int32_t tag, const std::vector<Sample>& tags,
                      int32_t count);

  CMQInterface& mq_;
  ClientRegistry& registry_;
  bool published_ = false;
};

}  // namespace marquel::host
