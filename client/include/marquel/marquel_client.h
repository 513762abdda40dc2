// The Marquel client library: the server's four interfaces as C++ abstract classes.
//
// CreateMarquelClient() connects to the user's session bus and returns one object that
// implements IMQInterface, IMQInterface2, IMarquelTool and IMarquelEx. Every call goes to
// the one server of the user (com.halvern.Marquel64), which the bus starts on demand, so
// all clients share one table of open files. Methods are declared in the server's slot
// order and answer HRESULTs (see marquel/hresult.h).
//
// Arguments follow the bus description (marquel.xml): the inputs in order, then the out
// arguments as pointers in order. A caller's array comes with its element count (m,
// nDataCount, nTotal); the library never writes more elements than that count, nor more
// bytes into a buffer than its nLength. Relative file names are made absolute against
// the caller's working directory before they are sent.
//
// One object may be used from several threads; calls are serialised.
#pragma once

// The headers use std::variant and inline constexpr values: a program of an older standard
// gets this message instead of errors deep inside them.
#if !defined(__cplusplus) || __cplusplus < 201703L
#error "The Marquel client headers need C++17 or later: compile with -std=c++17 or -std=c++20"
#endif

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "marquel/hresult.h"

namespace marquel {

// A plain sample: a time code (100 ns units) and a 32-bit value. 16 bytes.
struct MarquelOneTag {
  int64_t llTimeCode = 0;
  int32_t value = 0;
};

// A raw-data sample: a time code and nLength bytes at pBuffer. 24 bytes.
struct MarquelRawDataTag {
  int64_t llTimeCode = 0;
  int32_t nLength = 0;
  uint8_t* pBuffer = nullptr;
};

// The VARIANT of GetMQInfo and SetMQInfo. The server leaves it as it is.
using MarquelVariant = std::variant<int32_t, int64_t, double, std::string>;

// Names on the bus.
constexpr const char* kMarquelBusName = "com.halvern.Marquel64";
constexpr const char* kMarquelObjectPath = "/com/halvern/Marquel64/MQInterface";

// Slots 7 to 55. Methods that name no program act on the first program of the file.
class IMQInterface {
 public:
  virtual ~IMQInterface() = default;

  // nFileType counts only for a file that does not exist yet: it must then be a format
  // code, 1 to 26 (the server's detection codes); 0 or another number gives E_FAIL.
  // E_FAIL (handle -1) for a path that exists but is not a regular file: a FIFO, a device
  // or a folder. The same holds for InitialFile2.
  virtual HRESULT InitialFile(const char* wFileName, int32_t nFileType, int32_t bOverwrite,
                              int32_t* nFileHandle) = 0;
  virtual HRESULT CloseFile(int32_t nFileHandle, int32_t bWriteToCache) = 0;
  virtual HRESULT GetDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                             int32_t* nValue) = 0;
  virtual HRESULT QueryOneTagPeriodSize(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime,
                                        int64_t llEndTime, int32_t* nSize) = 0;
  // m is the number of elements of mqTags; ask QueryOneTagPeriodSize first.
  virtual HRESULT GetDataPeriod(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime,
                                int64_t llEndTime, int32_t m, MarquelOneTag* mqTags) = 0;
  virtual HRESULT QueryOneTagSize(int32_t nFileHandle, int32_t nTagID, int32_t* nSize) = 0;
  // m is the number of elements of mqTags; ask QueryOneTagSize first.
  virtual HRESULT GetDataAll(int32_t nFileHandle, int32_t nTagID, int32_t m,
                             MarquelOneTag* mqTags) = 0;
  virtual HRESULT InsertDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                                int32_t nData) = 0;
  virtual HRESULT InsertDataPeriod(int32_t nFileHandle, int32_t nTagID, const MarquelOneTag* mqTags,
                                   int32_t nDataCount) = 0;
  virtual HRESULT QueryFileCount(int32_t* nFileCount) = 0;
  // Writes at most m handles; E_FAIL unless exactly m files are open.
  virtual HRESULT QueryAllFileHandles(int32_t m, int32_t* nFileHandles) = 0;
  virtual HRESULT QueryAllMemory(int32_t* nMemory) = 0;
  virtual HRESULT QueryOneFileMemory(int32_t nFileHandle, int32_t* nMemory) = 0;
  // Copies nothing into wFileName and answers S_OK for every handle.
  virtual HRESULT QueryFilename(int32_t nFileHandle, char* wFileName) = 0;
  virtual HRESULT QueryOneFileTagCount(int32_t nFileHandle, int32_t* nTagCount) = 0;
  virtual HRESULT QueryOneFileTagList(int32_t nFileHandle, int32_t m, int32_t* nTagList) = 0;
  virtual HRESULT QueryMQExisted(int32_t nFileHandle, int32_t* bMQExisted) = 0;
  // Deletes every sample of the file, negative time codes too.
  virtual HRESULT CleanFile(int32_t nFileHandle) = 0;
  // *llStartAddress is written only when the file has a start address above 0.
  virtual HRESULT GetMQDataStartAddress(int32_t nFileHandle, int64_t* llStartAddress) = 0;
  virtual HRESULT GetMQInfo(int32_t dwValue, MarquelVariant* pVariant) = 0;
  virtual HRESULT SetMQInfo(int32_t dwValue, MarquelVariant* pVariant) = 0;
  // Moves and copies insert what the target takes and a move deletes only that from the
  // source; E_FAIL when the target refused a sample (the rest still goes).
  virtual HRESULT MoveDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle,
                                 int64_t llTargetStartTime, int64_t llSrcStartTime,
                                 int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                 int32_t nTimestretchDenominator) = 0;
  virtual HRESULT CopyDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle,
                                 int64_t llTargetStartTime, int64_t llSrcStartTime,
                                 int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                 int32_t nTimestretchDenominator) = 0;
  virtual HRESULT DeleteDataPeriod(int32_t nFileHandle, int64_t llTimeStart, int64_t llTimeEnd) = 0;
  virtual HRESULT MoveDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle,
                                          int32_t nTagID, int64_t llTargetStartTime,
                                          int64_t llSrcStartTime, int64_t llSrcEndTime,
                                          int32_t nTimeStretchNumerator,
                                          int32_t nTimestretchDenominator) = 0;
  virtual HRESULT CopyDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle,
                                          int32_t nTagID, int64_t llTargetStartTime,
                                          int64_t llSrcStartTime, int64_t llSrcEndTime,
                                          int32_t nTimeStretchNumerator,
                                          int32_t nTimestretchDenominator) = 0;
  virtual HRESULT DeleteDataPeriodForOneTag(int32_t nFileHandle, int32_t nTagID,
                                            int64_t llTimeStart, int64_t llTimeEnd) = 0;
  virtual HRESULT CloseVOBFile(int32_t nFileHandle) = 0;
  // *nSize is written only for an open handle.
  virtual HRESULT QueryNowMQDataFileSize(int32_t nFileHandle, int32_t* nSize) = 0;
  virtual HRESULT MoveDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                               int32_t nCategory, int64_t llTargetStartTime,
                                               int64_t llSrcStartTime, int64_t llSrcEndTime,
                                               int32_t nTimeStretchNumerator,
                                               int32_t nTimestretchDenominator) = 0;
  virtual HRESULT CopyDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                               int32_t nCategory, int64_t llTargetStartTime,
                                               int64_t llSrcStartTime, int64_t llSrcEndTime,
                                               int32_t nTimeStretchNumerator,
                                               int32_t nTimestretchDenominator) = 0;
  virtual HRESULT DeleteDataPeriodForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                                 int64_t llTimeStart, int64_t llTimeEnd) = 0;
  virtual HRESULT QueryValidIntervalSize(int32_t nFileHandle, int32_t nTagID, int32_t* nSize) = 0;
  // Both arrays have m elements; ask QueryValidIntervalSize first.
  virtual HRESULT QueryValidInterval(int32_t nFileHandle, int32_t nTagID, int32_t m,
                                     int64_t* llStartTimes, int64_t* llEndTimes) = 0;
  // pData has nLength bytes; E_INVALIDARG when the stored sample is longer.
  virtual HRESULT GetRawDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                                int32_t nLength, uint8_t* pData) = 0;
  // Any length is kept, up to 2^width - 1 bytes for the tag's width and 1 MiB; E_FAIL
  // when the open file does not store the sample (too long for the tag's count field, a
  // tag of the other kind), E_INVALIDARG past 1 MiB.
  virtual HRESULT InsertRawDataOne(int32_t nFileHandle, int32_t nTagID, int64_t llTimeCode,
                                   int32_t nLength, const uint8_t* pData) = 0;
  virtual HRESULT QueryOneFileRawDataTagList(int32_t nFileHandle, int32_t m, int32_t* nTagList,
                                             int32_t* pnOneDataLength) = 0;
  virtual HRESULT QueryOneFileRawDataTagCount(int32_t nFileHandle, int32_t* nTagCount) = 0;
  // For each of the m elements: llTimeCode is set; the bytes are copied, and nLength set
  // to the sample's length, only where pBuffer is non-null and nLength is large enough.
  virtual HRESULT GetRawDataAll(int32_t nFileHandle, int32_t nTagID, int32_t m,
                                MarquelRawDataTag* pTagList) = 0;
  virtual HRESULT GetRawDataPeriod(int32_t nFileHandle, int32_t nTagID, int64_t llStartTime,
                                   int64_t llEndTime, int32_t m, MarquelRawDataTag* pTagList) = 0;
  virtual HRESULT QueryNowMQDataPeriodSize(int32_t nFileHandle, int64_t llStartTime,
                                           int64_t llEndTime, int32_t* nSize) = 0;
  virtual HRESULT FileRename(int32_t nFileHandle, const char* wNewFileName) = 0;
  virtual HRESULT QueryOriginalFileSizeAndMTime(int32_t nFileHandle, uint64_t* pullOrgFileSize,
                                                uint64_t* pullMTime) = 0;
  virtual HRESULT CloseVCDORSVCDFile(int32_t nFileHandle) = 0;
  virtual HRESULT SetMinTimeInterval(int32_t nFileHandle, int64_t llMinTimeInterval) = 0;
  virtual HRESULT MinusTimeOffset(int32_t nFileHandle, int64_t llTimeOffset) = 0;
  virtual HRESULT MinusTimeOffsetForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                                int64_t llTimeOffset) = 0;
  virtual HRESULT MinustTimeOffsetForOneTag(int32_t nFileHandle, int32_t nTagID,
                                            int64_t llTimeOffset) = 0;
  virtual HRESULT SetTimeIntervalForTag(int32_t nFileHandle, int32_t nTagID,
                                        int64_t llTimeInterval) = 0;
};

// Slots 56 to 80: the methods for files with several programs.
class IMQInterface2 : public IMQInterface {
 public:
  virtual HRESULT InitialFile2(const char* wFileName, int32_t nFileType, int32_t bOverwrite,
                               int32_t nTags, const int32_t* pnTags, int32_t bReadOnly,
                               int64_t llStartTime, int64_t llEndTime, int32_t* nFileHandle) = 0;
  virtual HRESULT QueryRawDataTagSampleSize(int32_t nFileHandle, int32_t nProgramIndex,
                                            int32_t nTagID, int32_t* nSampleSize) = 0;
  virtual HRESULT QueryOneFileRawDataTagList2(int32_t nFileHandle, int32_t nProgramIndex, int32_t m,
                                              int32_t* pnTagList, int32_t* pnOneDataLength) = 0;
  virtual HRESULT GetMQProgramCounts(int32_t nFileHandle, int32_t* nProgramCount) = 0;
  // pnPMTPIDs has nTotal elements; nTotal must equal the program count.
  virtual HRESULT GetMQPMTPIDS(int32_t nFileHandle, int32_t nTotal, int32_t* pnPMTPIDs) = 0;
  virtual HRESULT InsertNewProgram(int32_t nFileHandle, int32_t nNewPMTPID,
                                   int32_t* nProgramIndex) = 0;
  virtual HRESULT SetPMTPID(int32_t nFileHandle, int32_t nProgramIndex, int32_t nPMTPID) = 0;
  virtual HRESULT InsertDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int64_t llTimeCode, int32_t nData) = 0;
  virtual HRESULT InsertDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    const MarquelOneTag* mqTags, int32_t nDataCount) = 0;
  virtual HRESULT GetDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                              int64_t llTimeCode, int32_t* nValue) = 0;
  virtual HRESULT QueryOneTagPeriodSize2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                         int64_t llStartTime, int64_t llEndTime,
                                         int32_t* nSize) = 0;
  virtual HRESULT GetDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int64_t llStartTime, int64_t llEndTime, int32_t m,
                                 MarquelOneTag* mqTags) = 0;
  virtual HRESULT QueryOneTagSize2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                   int32_t* nSize) = 0;
  virtual HRESULT GetDataAll2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int32_t m,
                              MarquelOneTag* mqTags) = 0;
  virtual HRESULT InsertRawDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int64_t llTimeCode, int32_t nLength, const uint8_t* pData) = 0;
  virtual HRESULT GetRawDataOne2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int64_t llTimeCode, int32_t nLength, uint8_t* pData) = 0;
  virtual HRESULT QueryOneFileTagList2(int32_t nFileHandle, int32_t nProgramIndex, int32_t m,
                                       int32_t* nTagList) = 0;
  virtual HRESULT QueryOneFileTagCount2(int32_t nFileHandle, int32_t nProgramIndex,
                                        int32_t* nTagCount) = 0;
  virtual HRESULT QueryValidIntervalSize2(int32_t nFileHandle, int32_t nProgramIndex,
                                          int32_t nTagID, int32_t* nSize) = 0;
  virtual HRESULT QueryValidInterval2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                      int32_t m, int64_t* llStartTimes, int64_t* llEndTimes) = 0;
  virtual HRESULT QueryOneFileRawDataTagCount2(int32_t nFileHandle, int32_t nProgramIndex,
                                               int32_t* nTagCount) = 0;
  virtual HRESULT GetRawDataPeriod2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int64_t llStartTime, int64_t llEndTime, int32_t m,
                                    MarquelRawDataTag* pTagList) = 0;
  virtual HRESULT SetTimeIntervalForTag2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                         int64_t llTimeInterval) = 0;
  virtual HRESULT QueryMQDataStatus(int32_t nFileHandle, int32_t* pnStatus) = 0;
  virtual HRESULT GetRawDataAll2(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int32_t m, MarquelRawDataTag* pTagList) = 0;
};

// Operations on file names that need no open handle.
class IMarquelTool {
 public:
  virtual ~IMarquelTool() = default;
  // E_FAIL for a file that does not exist or is not a regular file.
  virtual HRESULT QueryOrgFileSizeAndMTime(const char* wFileName, uint64_t* pullOrgFileSize,
                                           uint64_t* pullMTime) = 0;
  // E_FAIL, nothing carried over, when wNewFileName exists but is not a regular file.
  virtual HRESULT CacheRename(const char* wOriFileName, const char* wNewFileName,
                              int32_t nFileType) = 0;
  // Moves a file's cached tags into the file itself (MPEG-2, SVCD and transport
  // streams): S_OK when they are in the file now; S_FALSE when they stay in their cache
  // (nothing cached, another format, a FAT volume that the grown file would not fit, the
  // file open in a session); E_FAIL when the move failed, the file left as it was and the
  // tags still cached.
  virtual HRESULT MoveCacheDataToOrgFile(const char* wOriFileName) = 0;
};

class IMarquelEx {
 public:
  virtual ~IMarquelEx() = default;
  // *bDone is 0 while the server still has to write the file's data into it.
  virtual HRESULT IsWriteToFileDone(const char* wOriFileName, int32_t* bDone) = 0;
  // nCmd 0: InBuffer holds a file name, OutBuffer receives IsWriteToFileDone's bDone.
  // nCmd 1: OutBuffer receives the 32-bit value 20 and *nOutBufLen becomes 4. Other
  // commands answer S_FALSE. At most *nOutBufLen bytes are written to OutBuffer.
  virtual HRESULT ExecuteCmd(int32_t nCmd, const uint8_t* InBuffer, int32_t nInBufLen,
                             uint8_t* OutBuffer, int32_t* nOutBufLen) = 0;
};

// The one object that implements all four interfaces.
class IMarquelClient : public IMQInterface2, public IMarquelTool, public IMarquelEx {
 public:
  // The bus error behind the latest E_SERVER_UNAVAILABLE or E_ACCESSDENIED of the calling
  // object, empty when there was none.
  virtual std::string LastTransportError() const = 0;
};

// Connects to the user's session bus. Returns null when there is no session bus, and
// then puts the reason into *error when given. The server itself is started by the bus
// on the first call.
std::unique_ptr<IMarquelClient> CreateMarquelClient(std::string* error = nullptr);

}  // namespace marquel
