// MarquelFiles' claims: a closed file taken for a move, so that no session opens it while
// it is rewritten.
#include <algorithm>

#include "file_names.h"
#include "files/marquel_files.h"

namespace marquel {

bool MarquelFiles::ClaimedLocked(const std::string& name) const {
  if (claims_.empty()) return false;
  const FileKey key = MakeFileKey(name);
  return std::any_of(claims_.begin(), claims_.end(),
                     [&](const std::string& c) { return SameFile(MakeFileKey(c), key); });
}

bool MarquelFiles::ClaimClosedFile(const std::string& name) {
  std::unique_lock<std::mutex> lock(table_mu_);
  claims_cv_.wait(lock, [&] { return !ClaimedLocked(name); });
  if (FindLocked(name) >= 0) return false;
  claims_.push_back(name);
  return true;
}

void MarquelFiles::ReleaseFile(const std::string& name) {
  {
    std::lock_guard<std::mutex> lock(table_mu_);
    auto it = std::find(claims_.begin(), claims_.end(), name);
    if (it != claims_.end()) claims_.erase(it);
  }
  claims_cv_.notify_all();
}

}  // namespace marquel
