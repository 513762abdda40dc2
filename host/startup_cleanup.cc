// What the server removes at its start: the leftovers of processes that were killed.
#include "startup_cleanup.h"

#include "log/log.h"
#include "persist/cache_sweep.h"
#include "persist/merge_rollback.h"
#include "platform/temp_folders.h"

namespace marquel::host {

void RemoveLeftoversOfKilledProcesses() {
  log::LoadSettings();  // the controller reads them again; this start-up is logged too
  const int folders = RemoveEndedProcessTempFolders();
  // Before the sweep: the backups of an unfinished merge are named by its record only.
  const int restored = RollBackInterruptedMerges();
  const int files = RemoveOrphanCacheFiles();
  MQ_LOG("start: %d temporary folder(s) of ended processes removed, %d file(s) rolled back, "
         "cache sweep %d",
         folders, restored, files);
}

}  // namespace marquel::host
