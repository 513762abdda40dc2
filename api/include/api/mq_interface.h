// CMQInterface: the server object behind the four client interfaces.
//
// Every method checks its arguments, calls one operation of the open-file table or of the
// controller (MQCtrl, which the object owns), and turns the result into an HRESULT by the
// method's rule. The object holds no state of its own beyond the controller. Methods are
// plain C++: the bus adaptor (host/) hands them what arrived and sends back what they
// wrote; in-process callers and tests use them directly.
//
// Output arrays are vectors that the method sizes to what it writes. Where the client
// interface leaves a caller's variable untouched, the pointer's target is left as is.
// Counts that can exceed 32 bits inside (memory figures, sample counts) are reported
// clamped to 2^31-1. File names are absolute UTF-8 paths; a relative or empty name gets
// E_INVALIDARG. No method throws.
//
// Methods of IMQInterface act on program 0; their twins of IMQInterface2 take the program
// index. Both forms are one method here, with the program index second.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "api/hresult.h"
#include "files/mq_ctrl.h"
#include "tags/sample.h"

namespace marquel {

// Raw samples in columns: time codes, byte lengths, and the bytes back to back.
struct RawSampleColumns {
  std::vector<int64_t> times;
  std::vector<int32_t> lengths;
  std::vector<uint8_t> bytes;
  size_t size() const { return times.size(); }
};

class CMQInterface {
 public:
  // The largest number of samples one read may ask for (m); larger requests answer
  // E_OUTOFMEMORY as an allocation failure would.
  static constexpr int32_t kMaxReadSamples = 1 << 24;
  // The largest number of raw sample bytes one read may gather.
  static constexpr int64_t kMaxReadRawBytes = int64_t{1} << 30;
  // A read takes its samples from the tag store a piece at a time: at most this many
  // samples, and for raw tags about kReadPieceBytes of sample bytes (at least one sample).
  static constexpr int64_t kReadPieceSamples = 65536;
  static constexpr int64_t kReadPieceBytes = int64_t{4} << 20;

  // One piece of a read, in time order. Raw bytes are valid only during the call. An
  // answer other than S_OK ends the read with that answer.
  using ReadSink = std::function<HRESULT(const SampleRecord* records, size_t count)>;

  // Loads the log settings, makes the controller and starts it: its list of files whose
  // cached tags wait for a move comes back from the store, and its monitor moves them
  // every `monitor.interval` once no session holds them (files/mq_ctrl.h).
  explicit CMQInterface(MonitorOptions monitor = {});
  // Uses a given controller (tests), started the same way.
  explicit CMQInterface(std::unique_ptr<MQCtrl> controller);
  // Stops the controller's monitor and destroys the controller.
  ~CMQInterface();
  CMQInterface(const CMQInterface&) = delete;
  CMQInterface& operator=(const CMQInterface&) = delete;

  MQCtrl& Controller() { return *ctrl_; }

  // --- Files ---------------------------------------------------------------------------

  // *nFileHandle always receives the table's answer (also -1); E_FAIL for -1. bOverwrite
  // deletes every sample of the file, negative time codes too. nFileType counts only for a
  // file that does not exist yet: it must then be a format code, 1 to 26
  // (media/file_type.h); 0 or another number fails, as no cache could keep the tags.
  // A path that exists but is not a regular file (a FIFO, a device, a folder) is E_FAIL
  // and -1, whatever nFileType says; it is never opened in a way that could wait.
  HRESULT InitialFile(const std::string& wFileName, int32_t nFileType, int32_t bOverwrite,
                      int32_t* nFileHandle);
  HRESULT InitialFile2(const std::string& wFileName, int32_t nFileType, int32_t bOverwrite,
                       int32_t nTags, const int32_t* pnTags, int32_t bReadOnly, int64_t llStartTime,
                       int64_t llEndTime, int32_t* nFileHandle);
  // S_OK when the tags were kept: written to the cache (the last close), or the file is
  // still held by other references. The last close of an MPEG-2, SVCD or TS file without
  // bWriteToCache also puts the file on the pending list, but only once its cache write
  // succeeded. E_FAIL when nothing was closed, or the last close could not keep the tags
  // (cache folder unwritable, disk full, media file gone, path too long for a record):
  // nothing is then pending. tableResult, when given, receives the table's close result
  // (MQ_ERR when nothing was closed): the bus adaptor uses it to keep its per-client
  // record of opens.
  HRESULT CloseFile(int32_t nFileHandle, int32_t bWriteToCache, int32_t* tableResult = nullptr);
  HRESULT CloseVOBFile(int32_t nFileHandle);
  HRESULT CloseVCDORSVCDFile(int32_t nFileHandle);
  // Deletes every sample of the file, negative time codes too; E_FAIL for a closed handle.
  HRESULT CleanFile(int32_t nFileHandle);
  HRESULT FileRename(int32_t nFileHandle, const std::string& wNewFileName);

  // --- Table figures -------------------------------------------------------------------

  HRESULT QueryFileCount(int32_t* nFileCount);
  // Lists every open handle; S_OK only when there are exactly m.
  HRESULT QueryAllFileHandles(int32_t m, std::vector<int32_t>* nFileHandles);
  HRESULT QueryAllMemory(int32_t* nMemory);
  HRESULT QueryOneFileMemory(int32_t nFileHandle, int32_t* nMemory);
  // S_OK for every handle; nothing is written.
  HRESULT QueryFilename(int32_t nFileHandle, std::string* wFileName);

  // --- File facts and programs ---------------------------------------------------------

  HRESULT QueryMQExisted(int32_t nFileHandle, int32_t* bMQExisted);
  HRESULT GetMQDataStartAddress(int32_t nFileHandle, int64_t* llStartAddress);
  HRESULT GetMQInfo(int32_t dwValue, void* pVariant);
  HRESULT SetMQInfo(int32_t dwValue, void* pVariant);
  HRESULT QueryNowMQDataFileSize(int32_t nFileHandle, int32_t* nSize);
  HRESULT QueryNowMQDataPeriodSize(int32_t nFileHandle, int64_t llStartTime, int64_t llEndTime,
                                   int32_t* nSize);
  HRESULT QueryOriginalFileSizeAndMTime(int32_t nFileHandle, uint64_t* pullOrgFileSize,
                                        uint64_t* pullMTime);
  HRESULT QueryMQDataStatus(int32_t nFileHandle, int32_t* pnStatus);
  HRESULT GetMQProgramCounts(int32_t nFileHandle, int32_t* nProgramCount);
  HRESULT GetMQPMTPIDS(int32_t nFileHandle, int32_t nTotal, std::vector<int32_t>* pnPMTPIDs);
  HRESULT InsertNewProgram(int32_t nFileHandle, int32_t nNewPMTPID, int32_t* nProgramIndex);
  HRESULT SetPMTPID(int32_t nFileHandle, int32_t nProgramIndex, int32_t nPMTPID);

  // --- Plain samples -------------------------------------------------------------------

  // S_OK when the sample is stored (or, by R2, the handle has no file or the file has no
  // program nProgramIndex: nothing is stored then, and the log says so); E_FAIL when an
  // open file does not store it: a tag id that takes raw data, a tag of raw samples, or a
  // record-file failure. A value with bits above its tag's width (other than a delta
  // tag's) is kept whole while the file is open but comes back cut to the width after
  // the close; the log names the tag and the width.
  HRESULT InsertDataOne(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                        int64_t llTimeCode, int32_t nData);
  // Inserts nDataCount records of mqTags one by one (converted 65,536 at a time); S_OK
  // when all were stored.
  HRESULT InsertDataPeriod(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                           const MarquelOneTag* mqTags, int32_t nDataCount,
                           int32_t* nInserted = nullptr);
  HRESULT GetDataOne(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int64_t llTimeCode,
                     int32_t* nValue);
  // Hands out exactly m records: the samples of the request, then zeros. m above
  // kMaxReadSamples: E_OUTOFMEMORY. What the read holds is sized by the samples that
  // exist, not by m (ReadPieces).
  HRESULT GetDataAll(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int32_t m,
                     std::vector<MarquelOneTag>* mqTags);
  HRESULT GetDataPeriod(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                        int64_t llStartTime, int64_t llEndTime, int32_t m,
                        std::vector<MarquelOneTag>* mqTags);
  HRESULT QueryOneTagSize(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                          int32_t* nSize);
  HRESULT QueryOneTagPeriodSize(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                int64_t llStartTime, int64_t llEndTime, int32_t* nSize);

  // --- Raw-data samples ----------------------------------------------------------------

  // `available` is the number of bytes readable at pData; more than arrived is refused,
  // and so is nLength above kMaxRawSampleBytes (1 MiB): E_INVALIDARG. Any length up to
  // that is kept (QueryRawDataTagSampleSize keeps the first sample's) if the tag's count
  // field carries it (2^width - 1 bytes for the tag's width); S_OK when stored (or, by
  // R2, the handle has no file). E_FAIL when an open file does not store it: a sample
  // longer than the count field carries, a tag id that takes no raw data, a tag of plain
  // samples, no bytes with a length other than the record's it empties, or a record-file
  // failure.
  HRESULT InsertRawDataOne(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                           int64_t llTimeCode, int32_t nLength, const uint8_t* pData,
                           size_t available);
  // pData null is the caller without a buffer; otherwise it receives the sample's bytes.
  HRESULT GetRawDataOne(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                        int64_t llTimeCode, int32_t nLength, std::vector<uint8_t>* pData);
  // Reads m samples with their bytes (the samples of the request, then zeros); the caller
  // applies the copy rule to its elements. m above kMaxReadSamples, or more than
  // kMaxReadRawBytes of raw bytes: E_OUTOFMEMORY.
  HRESULT GetRawDataAll(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int32_t m,
                        RawSampleColumns* pTagList);
  HRESULT GetRawDataPeriod(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                           int64_t llStartTime, int64_t llEndTime, int32_t m,
                           RawSampleColumns* pTagList);
  // The same reads with the copy rule applied to the caller's m elements (in process).
  HRESULT GetRawDataAll(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int32_t m,
                        MarquelRawDataTag* pTagList);
  HRESULT GetRawDataPeriod(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                           int64_t llStartTime, int64_t llEndTime, int32_t m,
                           MarquelRawDataTag* pTagList);
  // The read behind the Get*Data* methods, in pieces, so that what a read holds is sized
  // by the samples that exist and not by m. Checks m as those methods do (m < 1:
  // E_INVALIDARG; above kMaxReadSamples: E_OUTOFMEMORY), then hands the request's samples
  // to `sink` in order, at most m in all, and writes their number to *delivered. The
  // other m - *delivered elements of the answer are zeros (time code 0, value or length
  // 0). Raw bytes beyond `byte_limit` in all: E_OUTOFMEMORY. No sample (the table's 0):
  // E_FAIL; a closed handle (-1): S_OK with nothing delivered.
  HRESULT ReadPieces(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, bool all,
                     int64_t llStartTime, int64_t llEndTime, int32_t m, int64_t byte_limit,
                     const ReadSink& sink, int64_t* delivered);
  HRESULT QueryRawDataTagSampleSize(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                    int32_t* nSampleSize);

  // --- Tag lists -----------------------------------------------------------------------

  HRESULT QueryOneFileTagCount(int32_t nFileHandle, int32_t nProgramIndex, int32_t* nTagCount);
  HRESULT QueryOneFileTagList(int32_t nFileHandle, int32_t nProgramIndex, int32_t m,
                              std::vector<int32_t>* nTagList);
  HRESULT QueryOneFileRawDataTagCount(int32_t nFileHandle, int32_t nProgramIndex,
                                      int32_t* nTagCount);
  // pnOneDataLength null: E_INVALIDARG (pnTagList null too, for the twin: `twin`).
  HRESULT QueryOneFileRawDataTagList(int32_t nFileHandle, int32_t nProgramIndex, int32_t m,
                                     std::vector<int32_t>* pnTagList,
                                     std::vector<int32_t>* pnOneDataLength, bool twin = false);

  // --- Intervals and offsets -----------------------------------------------------------

  HRESULT QueryValidIntervalSize(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                 int32_t* nSize);
  HRESULT QueryValidInterval(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID, int32_t m,
                             std::vector<int64_t>* llStartTimes, std::vector<int64_t>* llEndTimes);
  HRESULT SetTimeIntervalForTag(int32_t nFileHandle, int32_t nProgramIndex, int32_t nTagID,
                                int64_t llTimeInterval);
  HRESULT SetMinTimeInterval(int32_t nFileHandle, int64_t llMinTimeInterval);
  HRESULT MinusTimeOffset(int32_t nFileHandle, int64_t llTimeOffset);
  HRESULT MinusTimeOffsetForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                        int64_t llTimeOffset);
  HRESULT MinustTimeOffsetForOneTag(int32_t nFileHandle, int32_t nTagID, int64_t llTimeOffset);

  // --- Periods -------------------------------------------------------------------------

  HRESULT DeleteDataPeriod(int32_t nFileHandle, int64_t llTimeStart, int64_t llTimeEnd);
  HRESULT DeleteDataPeriodForOneTag(int32_t nFileHandle, int32_t nTagID, int64_t llTimeStart,
                                    int64_t llTimeEnd);
  HRESULT DeleteDataPeriodForOneCategory(int32_t nFileHandle, int32_t nCategory,
                                         int64_t llTimeStart, int64_t llTimeEnd);
  // Moves and copies (every form below) insert what the target takes, as an insert would;
  // a move deletes from the source only those samples. E_FAIL for a closed handle, a zero
  // denominator (nothing changes), or when the target refused a sample (the rest is still
  // copied or moved, and the refused samples stay in the source).
  HRESULT MoveDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle, int64_t llTargetStartTime,
                         int64_t llSrcStartTime, int64_t llSrcEndTime,
                         int32_t nTimeStretchNumerator, int32_t nTimestretchDenominator);
  HRESULT CopyDataPeriod(int32_t nTargetHandle, int32_t nSourceHandle, int64_t llTargetStartTime,
                         int64_t llSrcStartTime, int64_t llSrcEndTime,
                         int32_t nTimeStretchNumerator, int32_t nTimestretchDenominator);
  HRESULT MoveDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle, int32_t nTagID,
                                  int64_t llTargetStartTime, int64_t llSrcStartTime,
                                  int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                  int32_t nTimestretchDenominator);
  HRESULT CopyDataPeriodForOneTag(int32_t nTargetHandle, int32_t nSourceHandle, int32_t nTagID,
                                  int64_t llTargetStartTime, int64_t llSrcStartTime,
                                  int64_t llSrcEndTime, int32_t nTimeStretchNumerator,
                                  int32_t nTimestretchDenominator);
  HRESULT MoveDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                       int32_t nCategory, int64_t llTargetStartTime,
                                       int64_t llSrcStartTime, int64_t llSrcEndTime,
                                       int32_t nTimeStretchNumerator,
                                       int32_t nTimestretchDenominator);
  HRESULT CopyDataPeriodForOneCategory(int32_t nTargetHandle, int32_t nSourceHandle,
                                       int32_t nCategory, int64_t llTargetStartTime,
                                       int64_t llSrcStartTime, int64_t llSrcEndTime,
                                       int32_t nTimeStretchNumerator,
                                       int32_t nTimestretchDenominator);

  // --- IMarquelTool --------------------------------------------------------------------

  // E_FAIL for a file that does not exist or is not a regular file.
  HRESULT QueryOrgFileSizeAndMTime(const std::string& wFileName, uint64_t* pullOrgFileSize,
                                   uint64_t* pullMTime);
  // E_FAIL, and nothing carried over, when wNewFileName exists but is not a regular file.
  HRESULT CacheRename(const std::string& wOriFileName, const std::string& wNewFileName,
                      int32_t nFileType);
  // Moves a file's cached tags into the file (MPEG-2, SVCD and transport streams): S_OK
  // when they are in the file now; S_FALSE when they stay cached (no cache, another
  // format, a FAT volume the grown file would not fit, the file open in a session); E_FAIL
  // when the move failed (the file is left as it was, the tags stay cached). A file being
  // moved by the close monitor is moved after it.
  HRESULT MoveCacheDataToOrgFile(const std::string& wOriFileName);

  // --- IMarquelEx ----------------------------------------------------------------------

  HRESULT IsWriteToFileDone(const std::string& wOriFileName, int32_t* bDone);
  // InBuffer has `in_size` readable bytes and OutBuffer `out_size` writable ones; the
  // length arguments are checked against them as readable and writable memory.
  HRESULT ExecuteCmd(int32_t nCmd, const uint8_t* InBuffer, size_t in_size, int32_t nInBufLen,
                     uint8_t* OutBuffer, size_t out_size, int32_t* nOutBufLen);

 private:
  HRESULT ReadPlain(int32_t h, int32_t program, int32_t tag, bool all, int64_t start, int64_t end,
                    int32_t m, std::vector<MarquelOneTag>* out);
  HRESULT ReadRaw(int32_t h, int32_t program, int32_t tag, bool all, int64_t start, int64_t end,
                  int32_t m, RawSampleColumns* out);
  HRESULT CopyRawOut(HRESULT hr, const RawSampleColumns& columns, int32_t m,
                     MarquelRawDataTag* pTagList);

  std::unique_ptr<MQCtrl> ctrl_;
};

// Whether a name is an absolute path (what the server accepts as a file name).
bool IsAbsoluteFileName(const std::string& name);

}  // namespace marquel
