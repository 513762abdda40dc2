// MQCtrl: the server's controller, the open-file table plus the list of files whose
// cached tags must still be moved into the media files, and the monitor thread that
// works that list off once nobody holds a file open (docs/monitor.md).
//
// The list outlasts restarts: every listed file has a sub-key under
// "Software\Halvern\Common\MQTemp" (its key name, with the path in "PATH"), written before
// the file joins the list and removed when it leaves it. Start reads them; Stop writes the
// rest back. Start also takes the roll-back records of merges a killed server left
// (deleting their keys): each is carried in its file's entry, and in the file's sub-key
// ("ROLLBACK"), until the monitor has rolled the file back.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "files/marquel_files.h"
#include "files/saved_pending.h"
#include "persist/merge_rollback.h"

namespace marquel {

struct MonitorOptions {
  // Time between two rounds over the list.
  std::chrono::milliseconds interval{10000};
  // Whether Start runs the monitor thread; without it only RunRound works the list.
  bool run_thread = true;
};

class MQCtrl : public MarquelFiles {
 public:
  explicit MQCtrl(MonitorOptions options = {});
  // Stops the monitor (Stop) when it runs.
  ~MQCtrl() override;

  // Takes the roll-back records (their files join the list flagged, each carrying its
  // record; the keys are deleted), loads the persisted list, then starts the monitor,
  // whose first round runs at once. 1, or 0 when the thread cannot be made (the list is
  // kept). Started again it only loads what the store holds.
  int32_t Start();
  // Ends the monitor once the file its round works on is done (a move ends or restores
  // the file), then writes what is left under MQTemp and empties the list. 1.
  int32_t Stop();

  // Puts a file on the list (once, names compared as the table compares them), its
  // MQTemp sub-key first, so that a crash right after a close still finds it. 1 when it
  // is on the list afterwards, 0 when the file does not exist.
  int32_t AddPendingFile(const std::string& name);
  // Whether a name is on the list.
  bool IsPendingFile(const std::string& name);
  // After a rename of a listed file (its caches renamed with it): the entry and its
  // MQTemp sub-key name the new path, so that the move goes into the file under its new
  // name. False when the old name is not listed.
  bool RenamePendingFile(const std::string& from, const std::string& to);
  // A copy of the list, in order.
  std::vector<std::string> PendingFiles();
  // The listed file whose cached tags the monitor is moving now; "" between files.
  std::string WorkingFile() {
    std::lock_guard<std::mutex> lock(list_mu_);
    return working_;
  }

  // Whether a name is on the list with a merge of it still to be rolled back.
  bool IsRollBackPending(const std::string& name);

  // One round over the list, as the monitor makes it: a file that a session holds open
  // is skipped; a flagged file is rolled back first (RollBackToOrg) and, when that fails,
  // waits for the next round; a file gone from a folder that is there has its caches
  // deleted; a file whose folder is gone too (a volume not mounted) stays; any other file
  // has its cached tags moved into it, and stays on the list only when that move failed.
  // Returns the number of files left.
  size_t RunRound();

 private:
  struct Entry {
    std::string path;
    bool roll_back = false;  // a merge of this file was cut short: undo it first
    RollBackRecord record;   // what to undo it with
  };

  // Whether the file is done with (to be taken off the list).
  bool ProcessFile(const Entry& entry);
  // Undoes the carried merge; false when the file must wait for a later round.
  bool RollBackFile(const Entry& entry);
  void ClearRollBack(const std::string& path);
  // Puts an entry on the list unless its file is there already (a flagged entry then
  // replaces a plain one); true when it was added. Under list_mu_.
  bool AppendLocked(Entry entry);
  void LoadRollBackRecords();
  void LoadSavedPending();
  std::vector<Entry> Entries();
  void RemoveFromList(const std::string& path);
  void SetWorkingFile(const std::string& path) {
    std::lock_guard<std::mutex> lock(list_mu_);
    working_ = path;
  }
  size_t MirrorPendingKeys();
  void Monitor();

  MonitorOptions options_;
  std::mutex list_mu_;  // guards pending_; never held while a file is worked on
  std::vector<Entry> pending_;
  std::string working_;  // under list_mu_; set by RunRound around ProcessFile
  std::mutex round_mu_;  // one round at a time
  std::mutex wake_mu_;
  std::condition_variable wake_;
  bool stopping_ = false;                    // under wake_mu_
  std::atomic<bool> stop_requested_{false};  // read by a round between two files
  std::thread worker_;
};

}  // namespace marquel
