// MQCtrl: the open-file table plus the list of files still to be written.
#include "files/mq_ctrl.h"

#include <algorithm>

#include "file_names.h"

namespace marquel {

MQCtrl::MQCtrl() = default;

MQCtrl::~MQCtrl() = default;

int32_t MQCtrl::AddPendingFile(const std::string& name) {
  std::lock_guard<std::mutex> lock(list_mu_);
  if (std::find(pending_.begin(), pending_.end(), name) == pending_.end()) {
    pending_.push_back(name);
  }
  return 1;
}

bool MQCtrl::IsPendingFile(const std::string& name) {
  FileKey key = MakeFileKey(name);
  std::lock_guard<std::mutex> lock(list_mu_);
  return std::any_of(pending_.begin(), pending_.end(),
                     [&](const std::string& entry) { return SameFile(MakeFileKey(entry), key); });
}

std::vector<std::string> MQCtrl::PendingFiles() {
  std::lock_guard<std::mutex> lock(list_mu_);
  return pending_;
}

}  // namespace marquel
