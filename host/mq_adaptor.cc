// MQAdaptor: construction, admission, files, table figures, file facts and programs.
#include "mq_adaptor.h"

#include "adaptor_guard.h"
#include "host_names.h"
#include "persist/result_codes.h"

namespace marquel::host {

using Hr = int32_t;
using HrInt = std::tuple<int32_t, int32_t>;

MQAdaptor::MQAdaptor(sdbus::IConnection& connection, CMQInterface& mq, ClientRegistry& registry)
    : AdaptorInterfaces(connection, kObjectPath), mq_(mq), registry_(registry) {}

MQAdaptor::~MQAdaptor() {
  Revoke();
}

void MQAdaptor::Publish() {
  registerAdaptor();
  published_ = true;
}

void MQAdaptor::Revoke() {
  if (!published_) return;
  published_ = false;
  unregisterAdaptor();
}

std::string MQAdaptor::Admit() {
  const sdbus::Message* message = getObject().getCurrentlyProcessedMessage();
  if (message == nullptr) throw sdbus::Error("org.freedesktop.DBus.Error.Failed", "no caller");
  return registry_.Admit(*message);
}

void MQAdaptor::NoteOpen(const std::string& client, int32_t handle) {
  if (handle < 0) return;
  registry_.Opened(client, handle, mq_.Controller().QueryRefCount(handle) == 1);
}

// --- Files ---------------------------------------------------------------------------

HrInt MQAdaptor::InitialFile(const std::string& wFileName, const int32_t& nFileType,
                             const int32_t& bOverwrite) {
  std::string client = Admit();
  return Guarded<HrInt>([&] {
    int32_t handle = -1;
    Hr hr = mq_.InitialFile(wFileName, nFileType, bOverwrite, &handle);
    NoteOpen(client, handle);
    return HrInt{hr, handle};
  });
}

HrInt MQAdaptor::InitialFile2(const std::string& wFileName, const int32_t& nFileType,
                              const int32_t& bOverwrite, const int32_t& nTags,
                              const std::vector<int32_t>& pnTags, const int32_t& bReadOnly,
                              const int64_t& llStartTime, const int64_t& llEndTime) {
  std::string client = Admit();
  return Guarded<HrInt>([&] {
    // The selection never reads more ids than arrived.
    int32_t tags = std::min<int64_t>(nTags, static_cast<int64_t>(pnTags.size()));
    if (nTags < 1) tags = nTags;
    int32_t handle = -1;
    Hr hr = mq_.InitialFile2(wFileName, nFileType, bOverwrite, tags,
                             pnTags.empty() ? nullptr : pnTags.data(), bReadOnly, llStartTime,
                             llEndTime, &handle);
    NoteOpen(client, handle);
    return HrInt{hr, handle};
  });
}

Hr MQAdaptor::CloseFile(const int32_t& nFileHandle, const int32_t& bWriteToCache) {
  std::string client = Admit();
  return Guarded<Hr>([&] {
    int32_t result = MQ_ERR;
    Hr hr = mq_.CloseFile(nFileHandle, bWriteToCache, &result);
    if (result != MQ_ERR) registry_.Closed(client, nFileHandle);
    return hr;
  });
}

Hr MQAdaptor::CloseVOBFile(const int32_t& nFileHandle) {
  std::string client = Admit();
  return Guarded<Hr>([&] {
    Hr hr = mq_.CloseVOBFile(nFileHandle);
    if (hr == S_OK) registry_.Closed(client, nFileHandle);
    return hr;
  });
}

Hr MQAdaptor::CloseVCDORSVCDFile(const int32_t& nFileHandle) {
  std::string client = Admit();
  return Guarded<Hr>([&] {
    Hr hr = mq_.CloseVCDORSVCDFile(nFileHandle);
    if (hr == S_OK) registry_.Closed(client, nFileHandle);
    return hr;
  });
}

Hr MQAdaptor::CleanFile(const int32_t& nFileHandle) {
  Admit();
  return Guarded<Hr>([&] { return mq_.CleanFile(nFileHandle); });
}

Hr MQAdaptor::FileRename(const int32_t& nFileHandle, const std::string& wNewFileName) {
  Admit();
  return Guarded<Hr>([&] { return mq_.FileRename(nFileHandle, wNewFileName); });
}

// --- Table figures -------------------------------------------------------------------

HrInt MQAdaptor::QueryFileCount() {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t count = 0;
    Hr hr = mq_.QueryFileCount(&count);
    return HrInt{hr, count};
  });
}

std::tuple<int32_t, std::vector<int32_t>> MQAdaptor::QueryAllFileHandles(const int32_t& m) {
  Admit();
  return Guarded<std::tuple<int32_t, std::vector<int32_t>>>([&] {
    std::vector<int32_t> handles;
    Hr hr = mq_.QueryAllFileHandles(m, &handles);
    return std::make_tuple(hr, std::move(handles));
  });
}

HrInt MQAdaptor::QueryAllMemory() {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t memory = 0;
    Hr hr = mq_.QueryAllMemory(&memory);
    return HrInt{hr, memory};
  });
}

HrInt MQAdaptor::QueryOneFileMemory(const int32_t& nFileHandle) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t memory = 0;
    Hr hr = mq_.QueryOneFileMemory(nFileHandle, &memory);
    return HrInt{hr, memory};
  });
}

// The caller's text comes back as it was sent: nothing is copied into it.
std::tuple<int32_t, std::string> MQAdaptor::QueryFilename(const int32_t& nFileHandle,
                                                          const std::string& wFileName) {
  Admit();
  return Guarded<std::tuple<int32_t, std::string>>([&] {
    std::string name = wFileName;
    Hr hr = mq_.QueryFilename(nFileHandle, &name);
    return std::make_tuple(hr, name);
  });
}

// --- File facts and programs ---------------------------------------------------------

HrInt MQAdaptor::QueryMQExisted(const int32_t& nFileHandle) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t existed = 0;
    Hr hr = mq_.QueryMQExisted(nFileHandle, &existed);
    return HrInt{hr, existed};
  });
}

std::tuple<int32_t, int64_t> MQAdaptor::GetMQDataStartAddress(const int32_t& nFileHandle,
                                                              const int64_t& llStartAddress) {
  Admit();
  return Guarded<std::tuple<int32_t, int64_t>>([&] {
    int64_t address = llStartAddress;
    Hr hr = mq_.GetMQDataStartAddress(nFileHandle, &address);
    return std::make_tuple(hr, address);
  });
}

std::tuple<int32_t, sdbus::Variant> MQAdaptor::GetMQInfo(const int32_t& dwValue,
                                                         const sdbus::Variant& pVariant) {
  Admit();
  return Guarded<std::tuple<int32_t, sdbus::Variant>>([&] {
    sdbus::Variant same = pVariant;
    Hr hr = mq_.GetMQInfo(dwValue, &same);
    return std::make_tuple(hr, same);
  });
}

Hr MQAdaptor::SetMQInfo(const int32_t& dwValue, const sdbus::Variant& pVariant) {
  Admit();
  return Guarded<Hr>([&] {
    sdbus::Variant same = pVariant;
    return mq_.SetMQInfo(dwValue, &same);
  });
}

HrInt MQAdaptor::QueryNowMQDataFileSize(const int32_t& nFileHandle, const int32_t& nSize) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = nSize;
    Hr hr = mq_.QueryNowMQDataFileSize(nFileHandle, &size);
    return HrInt{hr, size};
  });
}

HrInt MQAdaptor::QueryNowMQDataPeriodSize(const int32_t& nFileHandle, const int64_t& llStartTime,
                                          const int64_t& llEndTime) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t size = 0;
    Hr hr = mq_.QueryNowMQDataPeriodSize(nFileHandle, llStartTime, llEndTime, &size);
    return HrInt{hr, size};
  });
}

std::tuple<int32_t, uint64_t, uint64_t> MQAdaptor::QueryOriginalFileSizeAndMTime(
    const int32_t& nFileHandle) {
  Admit();
  return Guarded<std::tuple<int32_t, uint64_t, uint64_t>>([&] {
    uint64_t size = 0, mtime = 0;
    Hr hr = mq_.QueryOriginalFileSizeAndMTime(nFileHandle, &size, &mtime);
    return std::make_tuple(hr, size, mtime);
  });
}

HrInt MQAdaptor::QueryMQDataStatus(const int32_t& nFileHandle, const int32_t& pnStatus) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t status = pnStatus;
    Hr hr = mq_.QueryMQDataStatus(nFileHandle, &status);
    return HrInt{hr, status};
  });
}

HrInt MQAdaptor::GetMQProgramCounts(const int32_t& nFileHandle) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t count = 0;
    Hr hr = mq_.GetMQProgramCounts(nFileHandle, &count);
    return HrInt{hr, count};
  });
}

std::tuple<int32_t, std::vector<int32_t>> MQAdaptor::GetMQPMTPIDS(const int32_t& nFileHandle,
                                                                  const int32_t& nTotal) {
  Admit();
  return Guarded<std::tuple<int32_t, std::vector<int32_t>>>([&] {
    std::vector<int32_t> pids;
    Hr hr = mq_.GetMQPMTPIDS(nFileHandle, nTotal, &pids);
    return std::make_tuple(hr, std::move(pids));
  });
}

HrInt MQAdaptor::InsertNewProgram(const int32_t& nFileHandle, const int32_t& nNewPMTPID) {
  Admit();
  return Guarded<HrInt>([&] {
    int32_t index = 0;
    Hr hr = mq_.InsertNewProgram(nFileHandle, nNewPMTPID, &index);
    return HrInt{hr, index};
  });
}

Hr MQAdaptor::SetPMTPID(const int32_t& nFileHandle, const int32_t& nProgramIndex,
                        const int32_t& nPMTPID) {
  Admit();
  return Guarded<Hr>([&] { return mq_.SetPMTPID(nFileHandle, nProgramIndex, nPMTPID); });
}

Hr MQAdaptor::SetMinTimeInterval(const int32_t& nFileHandle, const int64_t& llMinTimeInterval) {
  Admit();
  return Guarded<Hr>([&] { return mq_.SetMinTimeInterval(nFileHandle, llMinTimeInterval); });
}

}  // namespace marquel::host
