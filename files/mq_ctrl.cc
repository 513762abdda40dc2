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

constexpr char kPathValue[] = "PATH";
constexpr char kRollBackValue[] = "ROLLBACK";

std::string SubKey(const std::string& keyName) {
  return std::string(kPendingMovesKey) + "\\" + keyName;
}

std::string PendingKey(const std::string& path) {
  return SubKey(CacheSubKeyName(path));
}

// The sub-key of a listed file. Its name may be a hash of the path (a long path does not
// fit in a key name), so the path itself is kept in "PATH"; a roll-back record the entry
// carries is kept in "ROLLBACK", so that a server killed before the roll-back still has it.
bool WritePendingKey(const std::string& path, const RollBackRecord* carried = nullptr) {
  AccessReg reg;
  const std::string key = PendingKey(path);
  if (!reg.CreateKey(HKEY_CURRENT_USER, key.c_str()) ||
      !reg.Open(HKEY_CURRENT_USER, key.c_str()) || !reg.SetString(kPathValue, path.c_str()))
    return false;
  if (carried == nullptr) {
    reg.DeleteValue(kRollBackValue);  // there is none, or it has done its work
    return true;
  }
  const std::vector<uint8_t> packed = PackRollBackRecord(*carried);
  return reg.SetValue(kRollBackValue, packed.data(), REG_BINARY,
                      static_cast<uint32_t>(packed.size()));
}

// The roll-back record a saved entry carries, if any.
bool ReadCarriedRecord(const std::string& keyName, RollBackRecord* record) {
  AccessReg reg;
  uint32_t kind = 0;
  std::vector<uint8_t> packed;
  return reg.Open(HKEY_CURRENT_USER, SubKey(keyName).c_str()) &&
         reg.QueryValue(kRollBackValue, &kind, &packed) && UnpackRollBackRecord(packed, record);
}

bool Same(const std::string& a, const std::string& b) {
  return SameFile(MakeFileKey(a), MakeFileKey(b));
}

// Whether a listed file is to be kept: it is there, or its whole folder is not (a volume
// that is not mounted now is not a deleted file).
bool WorthKeeping(const std::string& path) {
  return CurrentEnv()->IsPathPresent(path) || !CurrentEnv()->IsPathPresent(FolderOf(path));
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
                  [&](const Entry& e) { return Same(e.path, name); }))
    return 1;
  // The mark first: a crash right after the close still finds the file at the next start.
  // A store that cannot take it costs the restart only, not the move.
  WritePendingKey(name);
  pending_.push_back({name, false, {}});
  MQ_LOG("MQCtrl: Add '%s' to unfinish file list", name.c_str());
  return 1;
}

bool MQCtrl::IsPendingFile(const std::string& name) {
  FileKey key = MakeFileKey(name);
  std::lock_guard<std::mutex> lock(list_mu_);
  return std::any_of(pending_.begin(), pending_.end(),
                     [&](const Entry& e) { return SameFile(MakeFileKey(e.path), key); });
}

bool MQCtrl::RenamePendingFile(const std::string& from, const std::string& to) {
  Entry renamed;
  {
    std::lock_guard<std::mutex> lock(list_mu_);
    auto is_from = [&](const Entry& e) { return Same(e.path, from); };
    auto it = std::find_if(pending_.begin(), pending_.end(), is_from);
    if (it == pending_.end()) return false;
    // A listed file the rename replaced is gone: its entry would only repeat this one.
    pending_.erase(std::remove_if(pending_.begin(), pending_.end(),
                                  [&](const Entry& e) { return !is_from(e) && Same(e.path, to); }),
                   pending_.end());
    it = std::find_if(pending_.begin(), pending_.end(), is_from);
    it->path = to;
    if (it->roll_back) it->record.media = to;
    renamed = *it;
  }
  // The new key first: a crash in between leaves the file listed under one name or both.
  // When the store cannot take it the old key stays, so a restart still finds the move;
  // the round's mirror writes the new key once the store can.
  if (WritePendingKey(to, renamed.roll_back ? &renamed.record : nullptr))
    AccessReg().DeleteKey(HKEY_CURRENT_USER, PendingKey(from).c_str());
  MQ_LOG("MQCtrl: '%s' renamed to '%s' on the list", from.c_str(), to.c_str());
  return true;
}

bool MQCtrl::IsRollBackPending(const std::string& name) {
  std::lock_guard<std::mutex> lock(list_mu_);
  return std::any_of(pending_.begin(), pending_.end(),
                     [&](const Entry& e) { return e.roll_back && Same(e.path, name); });
}

std::vector<std::string> MQCtrl::PendingFiles() {
  std::vector<std::string> paths;
  for (const Entry& e : Entries()) paths.push_back(e.path);
  return paths;
}

std::vector<MQCtrl::Entry> MQCtrl::Entries() {
  std::lock_guard<std::mutex> lock(list_mu_);
  return pending_;
}

// A key whose write failed earlier is written again, so that the store mirrors the list.
// Keys that are there are left as they are: each one rewritten would cost a synced store
// write per pending file every round.
size_t MQCtrl::MirrorPendingKeys() {
  const std::vector<Entry> left = Entries();
  for (const Entry& e : left) {
    if (!AccessReg().Open(HKEY_CURRENT_USER, PendingKey(e.path).c_str()))
      WritePendingKey(e.path, e.roll_back ? &e.record : nullptr);
  }
  return left.size();
}

void MQCtrl::ClearRollBack(const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(list_mu_);
    for (Entry& e : pending_) {
      if (e.path == path) e = {path, false, {}};
    }
  }
  WritePendingKey(path);
}

void MQCtrl::RemoveFromList(const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(list_mu_);
    auto it = std::find_if(pending_.begin(), pending_.end(),
                           [&](const Entry& e) { return e.path == path; });
    if (it != pending_.end()) pending_.erase(it);
  }
  AccessReg reg;
  reg.DeleteKey(HKEY_CURRENT_USER, PendingKey(path).c_str());
}

std::vector<SavedPendingFile> SavedPendingFiles() {
  std::vector<SavedPendingFile> saved;
  AccessReg root;
  char name[1024];
  if (!root.Open(HKEY_CURRENT_USER, kPendingMovesKey)) return saved;
  for (uint32_t i = 0; root.EnumKey(i, name, sizeof name); ++i) saved.push_back({name, ""});
  for (SavedPendingFile& f : saved) {
    AccessReg reg;
    char path[4096];
    if (reg.Open(HKEY_CURRENT_USER, SubKey(f.key_name).c_str()) &&
        reg.QueryString(kPathValue, path, sizeof path) && path[0] == '/')
      f.path = path;
  }
  return saved;
}

bool MQCtrl::AppendLocked(Entry entry) {
  for (Entry& e : pending_) {
    if (!Same(e.path, entry.path)) continue;
    if (entry.roll_back && !e.roll_back) e = std::move(entry);
    return false;
  }
  pending_.push_back(std::move(entry));
  return true;
}

// The roll-back records are consumed here, as the saved list is: their keys go, and the
// record lives on in its file's entry. Unlike a plain delete, each record is first
// carried into the file's MQTemp sub-key: the roll-back runs in the monitor's first round,
// and a server killed before that would otherwise lose the only way back to the file's
// old bytes and move tags into a half-written file.
void MQCtrl::LoadRollBackRecords() {
  MQ_LOG("MQCtrl: check HKCU\\Software\\Halvern\\Marquel\\RollBack");
  std::vector<RollBackRecord> consumed;
  for (RollBackRecord& r : ReadRollBackRecords()) {
    if (!WorthKeeping(r.media)) {
      DiscardRollBackBackups(r);  // the file was deleted: nothing to restore into
      consumed.push_back(std::move(r));
      continue;
    }
    if (!WritePendingKey(r.media, &r)) continue;  // the key stays for the next start
    std::lock_guard<std::mutex> lock(list_mu_);
    if (AppendLocked({r.media, true, r}))
      MQ_LOG("MQCtrl: Add '%s' to unfinish file list", r.media.c_str());
    consumed.push_back(std::move(r));
  }
  DeleteRollBackRecords(consumed);
}

// The listed files of the last run are read back. Their keys stay until each file leaves
// the list, so that a server killed before its first round ends still finds them at the
// next start. A file that is not there is kept only while its folder is not there either
// (a volume that is not mounted now); the key of a dropped file goes.
void MQCtrl::LoadSavedPending() {
  MQ_LOG("MQCtrl: check HKCU\\Software\\Halvern\\Common\\MQTemp");
  for (const SavedPendingFile& f : SavedPendingFiles()) {
    RollBackRecord carried;
    const bool flagged = ReadCarriedRecord(f.key_name, &carried);
    if (!f.path.empty() && WorthKeeping(f.path)) {
      std::lock_guard<std::mutex> lock(list_mu_);
      if (AppendLocked({f.path, flagged, flagged ? carried : RollBackRecord{}}))
        MQ_LOG("MQCtrl: Add '%s' to move to cache list\r\n", f.path.c_str());
      continue;
    }
    if (flagged) DiscardRollBackBackups(carried);
    AccessReg().DeleteKey(HKEY_CURRENT_USER, SubKey(f.key_name).c_str());
  }
}

int32_t MQCtrl::Start() {
  LoadRollBackRecords();
  LoadSavedPending();
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
  for (const Entry& e : pending_) WritePendingKey(e.path, e.roll_back ? &e.record : nullptr);
  pending_.clear();
  return 1;
}

}  // namespace marquel
