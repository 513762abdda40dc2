// What the server removes at its start: the leftovers of processes that were killed.
#include "startup_cleanup.h"

#include "log/log.h"
#include "persist/cache_sweep.h"
#include "platform/temp_folders.h"

namespace marquel::host {

void RemoveLeftoversOfKilledProcesses() {
  log::LoadSettings();  // the controller reads them again; this start-up is logged too
  const int folders = RemoveEndedProcessTempFolders();
  // The backups of an unfinished merge are named by its record only, which the sweep
  // reads; the controller rolls the file back in its first round.
  const int files = RemoveOrphanCacheFiles();
  MQ_LOG("start: %d temporary folder(s) of ended processes removed, cache sweep %d", folders,
         files);
}

}  // namespace marquel::host
