// What the server removes at its start: the leftovers of processes that were killed.
#pragma once

namespace marquel::host {

// Removes the temporary folders of ended processes (record files of a killed server,
// marquelctl or test), puts back the files whose in-place merge a killed server left
// unfinished (persist/merge_rollback.h), and removes the cache files that no store entry
// names (the files of a close that was killed before the store named them). Only a server that holds the
// single-instance lock calls it, before it serves anyone; both steps leave alone whatever
// a live process is using (platform/temp_folders.h, persist/cache_sweep.h).
void RemoveLeftoversOfKilledProcesses();

}  // namespace marquel::host
