// CMQInterface: the MQ data size queries, IMarquelTool and IMarquelEx.
#include <algorithm>
#include <cstring>

#include "api/mq_interface.h"
#include "log/log.h"
#include "mq_data_size.h"
#include "persist/cache_writer.h"
#include "platform/files.h"
#include "result_rules.h"

namespace marquel {

HRESULT CMQInterface::QueryNowMQDataFileSize(int32_t nFileHandle, int32_t* nSize) {
  MarquelOneFile* file = ctrl_->Session(nFileHandle);
  if (file != nullptr && nSize != nullptr) *nSize = Clamp32(PredictMQDataSize(file, 0, -1));
  return S_OK;
}

HRESULT CMQInterface::QueryNowMQDataPeriodSize(int32_t nFileHandle, int64_t llStartTime,
                                               int64_t llEndTime, int32_t* nSize) {
  MarquelOneFile* file = ctrl_->Session(nFileHandle);
  int64_t size = file ? PredictMQDataSize(file, llStartTime, llEndTime) : -1;
  if (size != -1) Put(nSize, Clamp32(size));
  return R1(size);
}

// --- IMarquelTool --------------------------------------------------------------------

// A session of its own, outside the table, numbered -5203, made and destroyed here.
HRESULT CMQInterface::QueryOrgFileSizeAndMTime(const std::string& wFileName,
                                               uint64_t* pullOrgFileSize, uint64_t* pullMTime) {
  MQ_LOG("CMQInterface::QueryOrgFileSizeAndMTime");
  if (!IsAbsoluteFileName(wFileName)) return E_INVALIDARG;
  auto session = std::make_unique<MarquelOneFile>();
  session->SetHandle(MarquelOneFile::kDetachedSessionNumber);
  session->SetFileName(wFileName);
  uint64_t size = 0;
  uint64_t mtime = 0;
  if (session->Open(0, 0, 0) == 1) {
    size = session->OriginalSize();
    mtime = static_cast<uint64_t>(session->OriginalMTime());
  } else {
    // A FIFO, a device or a folder has no size or time of a media file.
    FileStatusRecord status;
    if (FileStatus(wFileName, &status) != 0 || !IsRegularFile(wFileName)) return E_FAIL;
    size = static_cast<uint64_t>(status.size);
    mtime = static_cast<uint64_t>(status.mtime);
  }
  Put(pullOrgFileSize, size);
  Put(pullMTime, mtime);
  session->Close(0);
  return S_OK;
}

// The file's cache entries move to the new name (persist/cache_writer.h); a file without
// one has nothing to carry over, which is a success. A move still pending for the old name
// follows too: otherwise the monitor would find the old name gone and the tags would stay
// in the cache, never moved into the renamed file.
HRESULT CMQInterface::CacheRename(const std::string& wOriFileName, const std::string& wNewFileName,
                                  int32_t nFileType) {
  MQ_LOG("CMQInterface::CacheRename");
  if (!IsAbsoluteFileName(wOriFileName) || !IsAbsoluteFileName(wNewFileName)) return E_INVALIDARG;
  const HRESULT hr = R1(marquel::CacheRename(wOriFileName, wNewFileName, nFileType));
  if (hr == S_OK) ctrl_->RenamePendingFile(wOriFileName, wNewFileName);
  return hr;
}

// The move on a session of its own (-5203). The move's 1 covers both "moved" and "nothing
// was moved" (no cache, a format or volume that cannot take it); the client hears S_OK
// only when its tags are in the file now, and S_FALSE when they stay where they were. A
// file that a session holds open is not moved under it: S_FALSE too.
HRESULT CMQInterface::MoveCacheDataToOrgFile(const std::string& wOriFileName) {
  MQ_LOG("CMQInterface::MoveCacheDataToOrgFile(%s)", wOriFileName.c_str());
  if (!IsAbsoluteFileName(wOriFileName)) return E_INVALIDARG;
  // The claim keeps sessions off the file while it is rewritten, and waits for a move of
  // the monitor's to end first.
  if (!ctrl_->ClaimClosedFile(wOriFileName)) {
    MQ_LOG("CMQInterface::MoveCacheDataToOrgFile: %s is open, not moved", wOriFileName.c_str());
    return S_FALSE;
  }
  auto session = std::make_unique<MarquelOneFile>();
  session->SetHandle(MarquelOneFile::kDetachedSessionNumber);
  bool moved = false;
  const int32_t result = session->MoveCacheDataToOrgFile(wOriFileName, 1, &moved);
  ctrl_->ReleaseFile(wOriFileName);
  // Tags in the file are there even when their cache could not be removed afterwards.
  if (moved) return S_OK;
  return result == -1 ? E_FAIL : S_FALSE;
}

// --- IMarquelEx ----------------------------------------------------------------------

HRESULT CMQInterface::IsWriteToFileDone(const std::string& wOriFileName, int32_t* bDone) {
  if (!IsAbsoluteFileName(wOriFileName)) return E_INVALIDARG;
  bool pending = ctrl_->IsPendingFile(wOriFileName);
  Put(bDone, pending ? 0 : 1);
  return S_OK;
}

// The readable and writable memory checks become checks against the sizes that were
// really given. The value 20 of command 1 is written into at most the bytes available:
// the output length is not compared with 4 first (the result and the reported length 4
// stay as they are), but nothing is written past the buffer.
HRESULT CMQInterface::ExecuteCmd(int32_t nCmd, const uint8_t* InBuffer, size_t in_size,
                                 int32_t nInBufLen, uint8_t* OutBuffer, size_t out_size,
                                 int32_t* nOutBufLen) {
  if (nInBufLen < 0) return E_FAIL;
  if (nInBufLen > 0 && (InBuffer == nullptr || in_size < static_cast<size_t>(nInBufLen)))
    return E_FAIL;
  if (nOutBufLen == nullptr) return E_FAIL;
  int32_t n = *nOutBufLen;
  if (n < 0) return E_FAIL;
  if (n > 0 && OutBuffer == nullptr) return E_FAIL;
  size_t writable = OutBuffer ? out_size : 0;
  if (nCmd == 0) {
    size_t length = static_cast<size_t>(nInBufLen);
    const char* text = reinterpret_cast<const char*>(InBuffer);
    if (text) length = strnlen(text, length);
    int32_t done = 0;
    HRESULT hr = IsWriteToFileDone(std::string(text ? text : "", length), &done);
    if (hr == S_OK && writable > 0)
      std::memcpy(OutBuffer, &done, std::min<size_t>(writable, sizeof done));
    return hr;
  }
  if (nCmd == 1) {
    int32_t value = 20;
    if (writable > 0) std::memcpy(OutBuffer, &value, std::min<size_t>(writable, sizeof value));
    *nOutBufLen = 4;
    return S_OK;
  }
  return S_FALSE;
}

}  // namespace marquel
