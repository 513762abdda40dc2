// MQCtrl: the list of files whose cached tags are still to be moved into them, and its
// copy under "Software\Halvern\Common\MQTemp" that outlasts a restart.
#include "files/mq_ctrl.h"

#include <algorithm>

#include "file_names.h"
#include "log/log.h"
#include "persist/cache_keys.h"
#include "platform/access_reg.h"
#include "platform/env.h"

namespace marquel {
namespace {

constexpr char kMQTempKey[] = "Software\\Halvern\\Common\\MQTemp";
constexpr char kPathValue[] = "PATH";

std::string PendingKey(const std::string& path) {
  return std::string(kMQTempKey) + "\\" + CacheSubKeyName(path);
}

// The sub-key of a listed file. Its name may be a hash of the path (a long path does not
// fit in a key name), so the path itself is kept in "PATH".
bool WritePendingKey(const std::string& path) {
  AccessReg reg;
  const std::string key = PendingKey(path);
  return reg.CreateKey(HKEY_CURRENT_USER, key.c_str()) &&
         reg.Open(HKEY_CURRENT_USER, key.c_str()) && reg.SetString(kPathValue, path.c_str());
}

bool Same(const std::string& a, const std::string& b) {
  return SameFile(MakeFileKey(a), MakeFileKey(b));
}

}  // namespace

MQCtrl::MQCtrl(MonitorOptions options) : options_(options) {}

MQCtrl::~MQCtrl() {
  if (worker_.joinable()) Stop();
}

int32_t MQCtrl::AddPendingFile(const std::string& name) {
  std::lock_guard<std::mutex> lock(list_mu_);
  if (!CurrentEnv()->IsPathPresent(name)) return 0;
  if (std::any_of(pending_.begin(), pending_.end(),
                  [&](const std::string& p) { return Same(p, name); }))
    return 1;
  // The mark first: a crash right after the close still finds the file at the next start.
  // A store that cannot take it costs the restart only, not the move.
  WritePendingKey(name);
  pending_.push_back(name);
  MQ_LOG("MQCtrl: Add '%s' to unfinish file list", name.c_str());
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

// What is still pending is written again, so that the store mirrors the list.
size_t MQCtrl::MirrorPendingKeys() {
  const std::vector<std::string> left = PendingFiles();
  for (const std::string& path : left) WritePendingKey(path);
  return left.size();
}

void MQCtrl::RemoveFromList(const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(list_mu_);
    auto it = std::find(pending_.begin(), pending_.end(), path);
    if (it != pending_.end()) pending_.erase(it);
  }
  AccessReg reg;
  reg.DeleteKey(HKEY_CURRENT_USER, PendingKey(path).c_str());
}

// The listed files of the last run are read back. Their keys stay until each file leaves
// the list, so that a server killed before its first round ends still finds them at the
// next start. A file that is not there is kept only while its folder is not there either
// (a volume that is not mounted now); the key of a dropped file goes.
std::vector<SavedPendingFile> SavedPendingFiles() {
  std::vector<SavedPendingFile> saved;
  AccessReg root;
  char name[1024];
  if (!root.Open(HKEY_CURRENT_USER, kMQTempKey)) return saved;
  for (uint32_t i = 0; root.EnumKey(i, name, sizeof name); ++i) saved.push_back({name, ""});
  for (SavedPendingFile& f : saved) {
    AccessReg reg;
    char path[4096];
    const std::string key = std::string(kMQTempKey) + "\\" + f.key_name;
    if (reg.Open(HKEY_CURRENT_USER, key.c_str()) &&
        reg.QueryString(kPathValue, path, sizeof path) && path[0] == '/')
      f.path = path;
  }
  return saved;
}

int32_t MQCtrl::Start() {
  MQ_LOG("MQCtrl: check HKCU\\Software\\Halvern\\Common\\MQTemp");
  for (const SavedPendingFile& f : SavedPendingFiles()) {
    const std::string& path = f.path;
    if (!path.empty() &&
        (CurrentEnv()->IsPathPresent(path) || !CurrentEnv()->IsPathPresent(FolderOf(path)))) {
      std::lock_guard<std::mutex> lock(list_mu_);
      pending_.push_back(path);
      MQ_LOG("MQCtrl: Add '%s' to move to cache list\r\n", path.c_str());
      continue;
    }
    AccessReg().DeleteKey(HKEY_CURRENT_USER, (std::string(kMQTempKey) + "\\" + f.key_name).c_str());
  }
  std::lock_guard<std::mutex> lock(wake_mu_);
  if (!options_.run_thread || worker_.joinable()) return 1;
  stopping_ = false;
  stop_requested_ = false;
  try {
    worker_ = std::thread([this] { Monitor(); });
  } catch (const std::system_error&) {
    return 0;
  }
  MQ_LOG("MQCtrl: Launch thread MonitorCloseProc(), handle = 0x%08x", 1u);
  return 1;
}

int32_t MQCtrl::Stop() {
  stop_requested_ = true;  // the round ends after the file it is working on
  {
    std::lock_guard<std::mutex> lock(wake_mu_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (worker_.joinable()) worker_.join();
  MQ_LOG("MQCtrl: Thread MonitorCloseProc() finished");
  std::lock_guard<std::mutex> lock(list_mu_);
  if (pending_.empty()) return 1;
  MQ_LOG("MQCtrl: move %d files to HKCU\\Software\\Halvern\\Common\\MQTemp",
         static_cast<int32_t>(pending_.size()));
  for (const std::string& path : pending_) WritePendingKey(path);
  pending_.clear();
  return 1;
}

}  // namespace marquel
