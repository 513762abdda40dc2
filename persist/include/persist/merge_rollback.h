// Undoing in-place merges that a killed server left half done.
//
// Before a merge touches a program-stream file it keeps two backups and a roll-back
// record (docs/in-file.md); before the interleave touches a transport stream, one backup
// of the units it rewrites and a record of type 2 (docs/in-file-ts.md). A record still there at the
// next start means the merge never finished: the file may hold a mix of old and new bytes, while
// the tags are still in their cache, which is only removed after a merge has finished.
#pragma once

namespace marquel {

// For each roll-back record of type 1 under "Software\Halvern\Marquel\RollBack": copies
// the first and then the second backup back into the media file at the record's offset,
// cuts the file where the old bytes end (so it is the file it was) and syncs it, then
// deletes the record and both backups. Type 2 the same with its one backup: copied back
// at the offset, the file cut at offset + backup size, then the record and the backup
// deleted. The backups go only once the restored file is synced. A record whose backups
// are missing is deleted without a copy; one whose file is missing, or whose restore
// fails, stays for the next start with its backups. A file whose bytes before the offset
// changed since the merge began (another program rewrote it) is left alone, and its
// record and backups stay, logged. Logs "MQCtrl: RollBackToOrg(%s)" and, once the file is
// restored, "MQCtrl: RollBackToOrg() OK". Returns the number of files restored.
int RollBackInterruptedMerges();

}  // namespace marquel
