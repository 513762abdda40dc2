// CMQInterface: construction, files, table figures, file facts and programs.
#include "api/mq_interface.h"

#include <climits>

#include "log/log.h"
#include "result_rules.h"

namespace marquel {

bool IsAbsoluteFileName(const std::string& name) {
  return !name.empty() && name[0] == '/';
}

CMQInterface::CMQInterface(MonitorOptions monitor)
    : CMQInterface(std::make_unique<MQCtrl>(monitor)) {}

CMQInterface::CMQInterface(std::unique_ptr<MQCtrl> controller) : ctrl_(std::move(controller)) {
  log::LoadSettings();  // before anything of the controller runs
  // Without its monitor the server still serves; the moves wait in the store until a
  // later start.
  if (ctrl_->Start() != 1) MQ_LOG("MQCtrl: the monitor thread could not be started");
}

CMQInterface::~CMQInterface() {
  ctrl_.reset();
}

// --- Files ---------------------------------------------------------------------------

HRESULT CMQInterface::InitialFile(const std::string& wFileName, int32_t nFileType,
                                  int32_t bOverwrite, int32_t* nFileHandle) {
  return InitialFile2(wFileName, nFileType, bOverwrite, 0, nullptr, 0, 0, -1, nFileHandle);
}

HRESULT CMQInterface::InitialFile2(const std::string& wFileName, int32_t nFileType,
                                   int32_t bOverwrite, int32_t nTags, const int32_t* pnTags,
                                   int32_t bReadOnly, int64_t llStartTime, int64_t llEndTime,
                                   int32_t* nFileHandle) {
  if (!IsAbsoluteFileName(wFileName)) {
    Put(nFileHandle, -1);
    return E_INVALIDARG;
  }
  int32_t handle = ctrl_->OpenFile(wFileName, nFileType, bOverwrite, nTags, pnTags, bReadOnly,
                                   llStartTime, llEndTime);
  Put(nFileHandle, handle);
  return R1(handle);
}

HRESULT CMQInterface::CloseFile(int32_t nFileHandle, int32_t bWriteToCache, int32_t* tableResult) {
  std::string name;
  ctrl_->QueryFilename(nFileHandle, &name);  // the name is needed after the slot is gone
  int32_t result = ctrl_->CloseFile(nFileHandle, bWriteToCache);
  Put(tableResult, result);
  if (result == MQ_ERR) return E_FAIL;
  if (result == MQ_AUTOPROCESSFAIL) return ctrl_->AddPendingFile(name) == 1 ? S_OK : E_FAIL;
  return S_OK;
}

HRESULT CMQInterface::CloseVOBFile(int32_t nFileHandle) {
  return R1(ctrl_->CloseVOBFile(nFileHandle));
}

HRESULT CMQInterface::CloseVCDORSVCDFile(int32_t nFileHandle) {
  return R1(ctrl_->CloseVCDORSVCDFile(nFileHandle));
}

HRESULT CMQInterface::CleanFile(int32_t nFileHandle) {
  return R1(ctrl_->CleanFile(nFileHandle));
}

HRESULT CMQInterface::FileRename(int32_t nFileHandle, const std::string& wNewFileName) {
  if (!IsAbsoluteFileName(wNewFileName)) return E_INVALIDARG;
  return R1(ctrl_->FileRename(nFileHandle, wNewFileName));
}

// --- Table figures -------------------------------------------------------------------

HRESULT CMQInterface::QueryFileCount(int32_t* nFileCount) {
  return R5(ctrl_->QueryFileCount(), nFileCount);
}

HRESULT CMQInterface::QueryAllFileHandles(int32_t m, std::vector<int32_t>* nFileHandles) {
  // The table may list every slot; the whole list is handed out (the client library
  // copies at most m of them into the caller's array).
  std::vector<int32_t> handles(MarquelFiles::kSlotCount);
  int32_t count = ctrl_->QueryAllFileHandles(handles.data(), MarquelFiles::kSlotCount);
  handles.resize(Written(count, MarquelFiles::kSlotCount));
  if (nFileHandles) *nFileHandles = std::move(handles);
  return R3(count, m);
}

HRESULT CMQInterface::QueryAllMemory(int32_t* nMemory) {
  return R5(ctrl_->QueryAllMemory(), nMemory);
}

HRESULT CMQInterface::QueryOneFileMemory(int32_t nFileHandle, int32_t* nMemory) {
  return R5(ctrl_->QueryOneFileMemory(nFileHandle), nMemory);
}

HRESULT CMQInterface::QueryFilename(int32_t /*nFileHandle*/, std::string* /*wFileName*/) {
  return S_OK;
}

// --- File facts and programs ---------------------------------------------------------

HRESULT CMQInterface::QueryMQExisted(int32_t nFileHandle, int32_t* bMQExisted) {
  return R4(ctrl_->QueryMQExisted(nFileHandle), bMQExisted);
}

HRESULT CMQInterface::GetMQDataStartAddress(int32_t nFileHandle, int64_t* llStartAddress) {
  if (llStartAddress == nullptr) return E_FAIL;
  return R1(ctrl_->GetMQDataStartAddress(nFileHandle, llStartAddress));
}

HRESULT CMQInterface::GetMQInfo(int32_t /*dwValue*/, void* /*pVariant*/) {
  return S_OK;
}

HRESULT CMQInterface::SetMQInfo(int32_t /*dwValue*/, void* /*pVariant*/) {
  return S_OK;
}

HRESULT CMQInterface::QueryOriginalFileSizeAndMTime(int32_t nFileHandle, uint64_t* pullOrgFileSize,
                                                    uint64_t* pullMTime) {
  int64_t mtime = 0;
  int32_t result = ctrl_->QueryOriginalFileSizeAndMTime(nFileHandle, pullOrgFileSize,
                                                        pullMTime ? &mtime : nullptr);
  if (result != -1 && pullMTime) *pullMTime = static_cast<uint64_t>(mtime);
  return R1(result);
}

// The status of the MQ data is where the open found it: 0 nowhere, 1 in the media file,
// 2 in the registry cache.
HRESULT CMQInterface::QueryMQDataStatus(int32_t nFileHandle, int32_t* pnStatus) {
  MarquelOneFile* file = ctrl_->Session(nFileHandle);
  if (file == nullptr) return E_FAIL;
  Put(pnStatus, file->DataSource());
  return S_OK;
}

HRESULT CMQInterface::GetMQProgramCounts(int32_t nFileHandle, int32_t* nProgramCount) {
  if (nProgramCount == nullptr) return E_INVALIDARG;
  return ctrl_->GetMQProgramCounts(nFileHandle, nProgramCount) == 1 ? S_OK : E_FAIL;
}

HRESULT CMQInterface::GetMQPMTPIDS(int32_t nFileHandle, int32_t nTotal,
                                   std::vector<int32_t>* pnPMTPIDs) {
  if (pnPMTPIDs == nullptr) return E_INVALIDARG;
  // nTotal must equal the program count, which never exceeds the session's maximum; the
  // array is made with nTotal elements only when it can be that count.
  if (nTotal < 0 || nTotal > MarquelOneFile::kMaxPrograms) return E_FAIL;
  std::vector<int32_t> pids(nTotal);
  if (ctrl_->GetMQPMTPIDS(nFileHandle, nTotal, pids.data()) != 1) return E_FAIL;
  *pnPMTPIDs = std::move(pids);
  return S_OK;
}

HRESULT CMQInterface::InsertNewProgram(int32_t nFileHandle, int32_t nNewPMTPID,
                                       int32_t* nProgramIndex) {
  if (nProgramIndex == nullptr) return E_INVALIDARG;
  return ctrl_->InsertNewProgram(nFileHandle, nNewPMTPID, nProgramIndex) == 1 ? S_OK : E_FAIL;
}

HRESULT CMQInterface::SetPMTPID(int32_t nFileHandle, int32_t nProgramIndex, int32_t nPMTPID) {
  return ctrl_->SetPMTPID(nFileHandle, nProgramIndex, nPMTPID) == 1 ? S_OK : E_FAIL;
}

}  // namespace marquel
