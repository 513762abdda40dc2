// MQCtrl: the server's controller, the open-file table plus the list of files whose data
// must still be moved into the media file. The list is kept here under its own lock; the
// monitor that works it off comes with the close policy.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "files/marquel_files.h"

namespace marquel {

class MQCtrl : public MarquelFiles {
 public:
  MQCtrl();
  ~MQCtrl() override;

  // Adds a file name to the pending list (once). Returns 1.
  int32_t AddPendingFile(const std::string& name);
  // Whether a name is on the pending list (compared as the table compares file names).
  bool IsPendingFile(const std::string& name);
  // A copy of the list, in order.
  std::vector<std::string> PendingFiles();

 private:
  std::mutex list_mu_;  // guards pending_
  std::vector<std::string> pending_;
};

}  // namespace marquel
