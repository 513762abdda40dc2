// MQCtrl's monitor: the thread that, every interval, moves the cached tags of each listed
// file into the file once no session holds it open.
#include <algorithm>

#include "file_names.h"
#include "files/mq_ctrl.h"
#include "log/log.h"
#include "persist/marquel_one_file.h"
#include "platform/env.h"

namespace marquel {

void MQCtrl::Monitor() {
  std::unique_lock<std::mutex> lock(wake_mu_);
  while (!stopping_) {
    lock.unlock();
    const size_t left = RunRound();
    if (left > 0) MQ_LOG("MQCtrl: pCtrl->m_FileList.size() = %d", static_cast<int32_t>(left));
    lock.lock();
    if (wake_.wait_for(lock, options_.interval, [this] { return stopping_; })) break;
  }
  MQ_LOG("MQCtrl: ready to exit thread MonitorCloseProc(0x%08x)", 1u);
}

size_t MQCtrl::RunRound() {
  std::lock_guard<std::mutex> round(round_mu_);
  const std::vector<Entry> entries = Entries();
  const int32_t n = static_cast<int32_t>(entries.size());
  for (int32_t i = 0; i < n && !stop_requested_.load(); ++i) {
    const Entry& entry = entries[static_cast<size_t>(i)];
    const std::string& path = entry.path;
    MQ_LOG("MQCtrl: process '%s' (%d/%d)", path.c_str(), i + 1, n);
    // The claim makes the open-file check and the move one step: a client that opens the
    // file meanwhile waits for the move, and a file open now is left alone.
    if (!ClaimClosedFile(path)) {
      MQ_LOG("MQCtrl: '%s' stil open, skip", path.c_str());
      continue;
    }
    SetWorkingFile(path);
    const bool done = ProcessFile(entry);
    SetWorkingFile(std::string());
    ReleaseFile(path);
    if (done) RemoveFromList(path);
  }
  return MirrorPendingKeys();
}

// The carried record is used although its key was deleted at the start: without it the
// move would run on a half-written file, its old bytes orphaned in the backups. A roll-back
// that could not copy keeps the flag (and the move waits), since moving into a file of
// mixed bytes would damage it; one that found nothing to restore with, or a file changed
// by another program since, clears it as a finished one does.
bool MQCtrl::RollBackFile(const Entry& entry) {
  const std::string& path = entry.path;
  MQ_LOG("MQCtrl: RollBackToOrg(%s)", path.c_str());
  if (RollBackToOrg(entry.record) == RollBackOutcome::kFailed) {
    MQ_LOG("MQCtrl: RollBackToOrg(%s) failed; the file waits for the next round", path.c_str());
    return false;
  }
  ClearRollBack(path);
  MQ_LOG("MQCtrl: RollBackToOrg() OK");
  return true;
}

bool MQCtrl::ProcessFile(const Entry& entry) {
  const std::string& path = entry.path;
  MarquelOneFile session;
  session.SetHandle(MarquelOneFile::kDetachedSessionNumber);
  if (!CurrentEnv()->IsPathPresent(path)) {
    // An unplugged disk is not a deleted file: its tags wait for the volume to return.
    if (!CurrentEnv()->IsPathPresent(FolderOf(path))) {
      MQ_LOG(
          "MQCtrl: '%s' and its folder are not there (a volume not mounted?); kept for "
          "a later round",
          path.c_str());
      return false;
    }
    if (entry.roll_back) DiscardRollBackBackups(entry.record);  // nothing to restore into
    session.ForceDeleteCacheData(path);
    return true;
  }
  if (entry.roll_back && !RollBackFile(entry)) return false;
  MQ_LOG("MQCtrl: MoveCacheDataToOrgFile(%s)", path.c_str());
  return session.MoveCacheDataToOrgFile(path, 1) != -1;
}

}  // namespace marquel
