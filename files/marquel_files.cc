// MarquelFiles: slots, open and close, table queries.
#include "files/marquel_files.h"

#include <atomic>
#include <cstdint>

#include "file_names.h"
#include "log/log.h"

namespace marquel {
namespace {

// Overwrite and clean leave no sample at all, those at negative time codes included.
constexpr int64_t kEveryTimeCode = INT64_MIN;

}  // namespace

// One slot. The session pointer is atomic because routed operations read it without the
// table lock; filling and emptying happen under the lock. The key is only used under it.
struct MarquelFiles::Slot {
  std::atomic<MarquelOneFile*> session{nullptr};
  FileKey key;
};

MarquelFiles::MarquelFiles() : slots_(new Slot[kSlotCount]) {}

MarquelFiles::~MarquelFiles() {
  std::lock_guard<std::mutex> lock(table_mu_);
  for (int32_t i = 0; i < kSlotCount; ++i) delete slots_[i].session.exchange(nullptr);
}

std::unique_ptr<MarquelOneFile> MarquelFiles::MakeSession() {
  return std::make_unique<MarquelOneFile>();
}

// Every handle is checked against both bounds: a handle of 2048 or more, or a negative
// one, is an empty slot and never indexes the table.
MarquelOneFile* MarquelFiles::SessionAt(int32_t handle) const {
  if (handle < 0 || handle >= kSlotCount) return nullptr;
  return slots_[handle].session.load(std::memory_order_acquire);
}

MarquelOneFile* MarquelFiles::Session(int32_t handle) {
  return SessionAt(handle);
}

MarquelOneFile* MarquelFiles::WritableSessionAt(int32_t handle) const {
  MarquelOneFile* file = SessionAt(handle);
  return file != nullptr && !file->ReadOnly() ? file : nullptr;
}

MQOneProgram* MarquelFiles::ProgramAt(int32_t handle, int32_t program) const {
  MarquelOneFile* file = SessionAt(handle);
  return file ? file->Program(program) : nullptr;
}

int32_t MarquelFiles::FindLocked(const std::string& name) const {
  FileKey key = MakeFileKey(name);
  for (int32_t i = 0; i < kSlotCount; ++i) {
    if (slots_[i].session.load(std::memory_order_relaxed) != nullptr &&
        SameFile(slots_[i].key, key))
      return i;
  }
  return -1;
}

int32_t MarquelFiles::FindFile(const std::string& name) {
  std::lock_guard<std::mutex> lock(table_mu_);
  return FindLocked(name);
}

int32_t MarquelFiles::OpenFile(const std::string& name, int32_t nFileType, int32_t bOverwrite,
                               int32_t nTags, const int32_t* pnTags, int32_t bReadOnly,
                               int64_t llStartTime, int64_t llEndTime) {
  (void)llStartTime;  // the time window belongs to the loading of stored data
  (void)llEndTime;
  std::unique_lock<std::mutex> lock(table_mu_);
  // A file being rewritten by a move is opened once the move is over: half rewritten it
  // would show neither its cache nor its data.
  claims_cv_.wait(lock, [&] { return !ClaimedLocked(name); });
  int32_t handle = FindLocked(name);
  MarquelOneFile* file = nullptr;
  if (handle < 0) {
    for (int32_t i = 0; i < kSlotCount && handle < 0; ++i) {
      if (slots_[i].session.load(std::memory_order_relaxed) == nullptr) handle = i;
    }
    // Table full: -1, and the lock is released on this path too (the lock_guard), so that
    // later requests do not wait for ever.
    if (handle < 0) return -1;
    std::unique_ptr<MarquelOneFile> made = MakeSession();
    made->SetHandle(handle);
    made->SetFileName(name);
    made->SetTagSelection(bReadOnly, nTags, pnTags);
    made->AddRef();
    file = made.release();
    SetSlotKey(handle, name);
    slots_[handle].session.store(file, std::memory_order_release);
    lock.unlock();
    MQ_LOG("[%d] MarquelFiles::OpenFile(%s), new slot", handle, name.c_str());
    if (file->Open(nFileType, 1, 0) < 0) {
      lock.lock();
      slots_[handle].session.store(nullptr, std::memory_order_release);
      lock.unlock();
      delete file;
      return -1;
    }
  } else {
    file = slots_[handle].session.load(std::memory_order_relaxed);
    lock.unlock();
    MQ_LOG("[%d] MarquelFiles::OpenFile(%s), file already opened", handle, name.c_str());
    lock.lock();
    // A reopen clears the loaded tags and reads the stored ones again. Only a read-only
    // session can hold no unsaved change; a writable one keeps its state (and its tags)
    // whatever a later open asks, or another client's changes would be dropped.
    if (file->ReadOnly() && file->TagSelectionDiffers(bReadOnly, nTags, pnTags)) {
      file->SetTagSelection(bReadOnly, nTags, pnTags);
      file->Open(nFileType, 1, 0);  // the result of a reopen is ignored
    } else if (file->TagSelectionDiffers(bReadOnly, nTags, pnTags)) {
      MQ_LOG("[%d] selection kept: the file is open for writing", handle);
    }
    file->AddRef();
    lock.unlock();
  }
  if (bOverwrite != 0 && file->ReadOnly()) {
    // A read-only session is never written, so the cleared samples would come back.
    MQ_LOG("[%d] overwrite refused: the file is open read-only", handle);
    CloseFile(handle, 0);
    return -1;
  }
  if (bOverwrite != 0) DeleteAll(file, TagScope::All(), kEveryTimeCode, -1);
  MQ_LOG("[%d] MarquelFiles::OpenFile(%s) ok, ref count = %d", handle, name.c_str(),
         file->RefCount());
  return handle;
}

int32_t MarquelFiles::CloseFile(int32_t handle, int32_t bWriteToCache) {
  MQ_LOG("MarquelFiles::CloseFile(%d, %d)", handle, bWriteToCache);
  std::lock_guard<std::mutex> lock(table_mu_);
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr) {
    MQ_LOG("[%d] handle does not exist or invalid", handle);
    return MQ_ERR;
  }
  int32_t result = MQ_SUCCESS;
  int32_t count = file->Release();
  if (count < 1) {
    result = file->Close(bWriteToCache);
    slots_[handle].session.store(nullptr, std::memory_order_release);
    delete file;
    MQ_LOG("[%d] write file & clean up handle", handle);
    count = -1;
  }
  MQ_LOG("MarquelFiles::CloseFile(%d) %s, ref count = %d", handle, ResultText(result), count);
  return result;
}

int32_t MarquelFiles::CloseVOBFile(int32_t handle) {
  MQ_LOG("MarquelFiles::CloseVOBFile(%d)", handle);
  std::lock_guard<std::mutex> lock(table_mu_);
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr) return -1;
  int32_t result = file->CloseVOB();
  if (result == -1) return -1;  // the reference and the slot stay
  if (file->Release() < 1) {
    slots_[handle].session.store(nullptr, std::memory_order_release);
    delete file;
  }
  MQ_LOG("MarquelFiles::CloseVOBFile(%d), success", handle);
  return result;
}

int32_t MarquelFiles::CloseVCDORSVCDFile(int32_t handle) {
  std::lock_guard<std::mutex> lock(table_mu_);
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr) return -1;
  int32_t result = file->CloseVCDOrSVCD();
  if (result == -1) return -1;
  if (file->Release() < 1) {
    slots_[handle].session.store(nullptr, std::memory_order_release);
    delete file;
  }
  return result;
}

int32_t MarquelFiles::CleanFile(int32_t handle) {
  MQ_LOG("MarquelFiles::CleanFile(%d)", handle);
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr) {
    MQ_LOG("[%d] handle does not exist", handle);
    return -1;
  }
  if (file->ReadOnly()) {
    MQ_LOG("[%d] clean refused: the file is open read-only", handle);
    return -1;
  }
  int32_t result = DeleteAll(file, TagScope::All(), kEveryTimeCode, -1);
  MQ_LOG("[%d] clean file success", handle);
  return result;
}

void MarquelFiles::SetSlotKey(int32_t handle, const std::string& name) {
  slots_[handle].key = MakeFileKey(name);
}

int32_t MarquelFiles::QueryFilename(int32_t handle, std::string* name) {
  std::lock_guard<std::mutex> lock(table_mu_);
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr || name == nullptr) return -1;
  *name = file->FileName();
  return 1;
}

int32_t MarquelFiles::QueryFileCount() {
  return QueryAllFileHandles(nullptr, 0);
}

int32_t MarquelFiles::QueryAllFileHandles(int32_t* handles, int32_t capacity) {
  if (handles == nullptr) capacity = 0;
  int32_t n = 0;
  for (int32_t i = 0; i < kSlotCount; ++i) {
    if (SessionAt(i) == nullptr) continue;
    if (n < capacity) handles[n] = i;
    ++n;
  }
  return n;
}

int64_t MarquelFiles::QueryOneFileMemory(int32_t handle) {
  MarquelOneFile* file = SessionAt(handle);
  if (file == nullptr) return -1;
  int64_t total = kFileMemoryBase;
  for (int32_t p = 0, n = file->ProgramCount(); p < n; ++p) {
    total += file->Program(p)->QueryMemory();
  }
  return total;
}

int64_t MarquelFiles::QueryAllMemory() {
  int64_t total = kTableMemoryBase;
  for (int32_t i = 0; i < kSlotCount; ++i) {
    if (SessionAt(i) != nullptr) total += QueryOneFileMemory(i);
  }
  return total;
}

int32_t MarquelFiles::QueryRefCount(int32_t handle) {
  MarquelOneFile* file = SessionAt(handle);
  return file ? file->RefCount() : -1;
}

}  // namespace marquel
