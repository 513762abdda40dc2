// MarquelOneFile: the session skeleton - programs, tag selection, open of a missing file.
#include "persist/marquel_one_file.h"

#include <algorithm>

#include "log/log.h"
#include "media/file_type.h"
#include "persist/result_codes.h"
#include "platform/files.h"

namespace marquel {

MarquelOneFile::MarquelOneFile() = default;

MarquelOneFile::~MarquelOneFile() = default;

int32_t MarquelOneFile::AddRef() {
  ref_count_.fetch_add(1);
  return ref_count_.load();
}

int32_t MarquelOneFile::Release() {
  ref_count_.fetch_sub(1);
  return ref_count_.load();
}

int32_t MarquelOneFile::RefCount() const {
  return ref_count_.load();
}

void MarquelOneFile::SetTagSelection(int32_t bReadOnly, int32_t nTags, const int32_t* pnTags) {
  read_only_.store(bReadOnly != 0, std::memory_order_release);
  select_all_ = nTags < 1 || pnTags == nullptr;
  selected_tags_.clear();
  if (!select_all_) selected_tags_.assign(pnTags, pnTags + nTags);
}

bool MarquelOneFile::TagSelectionDiffers(int32_t bReadOnly, int32_t nTags,
                                         const int32_t* pnTags) const {
  if ((bReadOnly != 0) != ReadOnly()) return true;
  bool all = nTags < 1 || pnTags == nullptr;
  if (all != select_all_) return true;
  if (all) return false;
  return !std::equal(selected_tags_.begin(), selected_tags_.end(), pnTags, pnTags + nTags);
}

// A writable session loads every stored tag, whatever the selection: its close writes a
// new block from what is loaded, and a tag left out at the load would be gone from it.
bool MarquelOneFile::AcceptsTag(int32_t tagId) const {
  return select_all_ || !ReadOnly() ||
         std::find(selected_tags_.begin(), selected_tags_.end(), tagId) != selected_tags_.end();
}

void MarquelOneFile::MakeProgramZero() {
  std::lock_guard<std::mutex> lock(programs_mu_);
  if (program_count_.load() > 0) return;
  programs_[0] = std::make_unique<MQOneProgram>(0);
  programs_[0]->SetAcceptTagCallback([this](int32_t id) { return AcceptsTag(id); });
  programs_[0]->SetPMTPID(0);
  program_count_.store(1, std::memory_order_release);
}

int MarquelOneFile::Open(int32_t nType, int32_t bLoad, int32_t bQueryOnly) {
  m_bMQExisted = 0;
  data_source_ = 0;
  MakeProgramZero();
  if (!FileExists(file_name_)) {
    // A file that does not exist yet (a recording about to start) can hold tags when the
    // client says what type it will be.
    if (nType <= 0 || static_cast<uint32_t>(nType) >= kFormatCount) return -1;
    file_type_ = nType;
    mq_start_address_ = -1;
    identity_[0] = identity_[1] = 0;
    return 1;
  }
  // A FIFO, a device or a folder is never a media file; opening one must not wait.
  FileHandle h = OpenRegularFile(file_name_, GENERIC_READ);
  if (h == kInvalidFileHandle) {
    MQ_LOG("[%d] can not read %s", handle_, file_name_.c_str());
    return -1;
  }
  CloseFileHandle(h);
  return LoadExisting(nType, bLoad, bQueryOnly);
}

// LoadExisting (session_open.cc) and Close (session_close.cc) come with the caches.

int32_t MarquelOneFile::CloseVOB() {
  return MQ_SUCCESS;
}

int32_t MarquelOneFile::CloseVCDOrSVCD() {
  return MQ_SUCCESS;
}

MQOneProgram* MarquelOneFile::Program(int32_t index) {
  if (index < 0 || index >= ProgramCount()) return nullptr;
  return programs_[index].get();
}

int32_t MarquelOneFile::FindProgram(int32_t pmtPid) const {
  for (int32_t i = 0, n = ProgramCount(); i < n; ++i) {
    if (programs_[i]->PMTPID() == pmtPid) return i;
  }
  return -1;
}

int MarquelOneFile::InsertNewProgram(int32_t pmtPid, int32_t* index) {
  if (index == nullptr) return -1;
  std::lock_guard<std::mutex> lock(programs_mu_);
  int32_t found = FindProgram(pmtPid);
  if (found >= 0) {
    *index = found;
    return 1;
  }
  int32_t n = program_count_.load();
  if (n >= kMaxPrograms) return -1;
  programs_[n] = std::make_unique<MQOneProgram>(n);
  programs_[n]->SetPMTPID(pmtPid);
  programs_[n]->SetAcceptTagCallback([this](int32_t id) { return AcceptsTag(id); });
  *index = n;
  program_count_.store(n + 1, std::memory_order_release);
  return 1;
}

int MarquelOneFile::GetPMTPIDs(int32_t nTotal, int32_t* pids) const {
  int32_t n = ProgramCount();
  if (pids == nullptr || nTotal != n) return -1;
  for (int32_t i = 0; i < n; ++i) pids[i] = programs_[i]->PMTPID();
  return 1;
}

int MarquelOneFile::SetPMTPID(int32_t index, int32_t pmtPid) {
  MQOneProgram* program = Program(index);
  if (program == nullptr) return -1;
  program->SetPMTPID(pmtPid);
  return 1;
}

}  // namespace marquel
