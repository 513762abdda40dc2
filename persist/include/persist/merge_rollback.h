// Undoing in-place merges that a killed server left half done.
//
// Before a merge touches a program-stream file it keeps two backups and a roll-back
// record (docs/in-file.md); before the interleave touches a transport stream, one backup
// of the units it rewrites and a record of type 2 (docs/in-file-ts.md). A record still there at the
// next start means the merge never finished: the file may hold a mix of old and new bytes, while
// the tags are still in their cache, which is only removed after a merge has finished.
//
// The controller takes the records at its start (and deletes their keys), carries each in
// the list entry of its file, and rolls the file back in the monitor's first round with
// RollBackToOrg (docs/monitor.md).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marquel {

// Where the close monitor keeps its pending list: one sub-key per file. A roll-back
// record carried by a list entry is kept there too, so the cache sweep reads it.
constexpr char kPendingMovesKey[] = "Software\\Halvern\\Common\\MQTemp";

// One roll-back record, as the merge wrote it.
struct RollBackRecord {
  std::string key_name;        // the sub-key it was read from
  std::string media;           // the media file's path
  uint32_t type = 0;           // 1 program stream, 2 transport stream
  std::vector<uint8_t> buf;    // "BUF": the backups and the offset
  std::vector<uint8_t> guard;  // "GUARD": CRC of the bytes before the offset
  std::vector<uint8_t> state;  // "STATE": the file's size and time, and when writing began
};

// Every readable record under "Software\Halvern\Marquel\RollBack", in key order. A key
// that cannot be read whole is left out (and left in the store).
std::vector<RollBackRecord> ReadRollBackRecords();
// Deletes the records read by ReadRollBackRecords, then the root key when it is empty.
void DeleteRollBackRecords(const std::vector<RollBackRecord>& records);
// Files the record again under its key (for a file left alone, so that its backups stay
// named). False when the store cannot take it.
bool KeepRollBackRecord(const RollBackRecord& record);

// The record in one value's bytes, to be carried under another key, and back.
std::vector<uint8_t> PackRollBackRecord(const RollBackRecord& record);
bool UnpackRollBackRecord(const std::vector<uint8_t>& bytes, RollBackRecord* record);

enum class RollBackOutcome {
  kRestored,        // the file is as it was before the merge; backups deleted
  kNoBackups,       // the record names no backup that is there: nothing to restore with
  kChangedSince,    // another program changed the file since: left alone, record kept
  kFailed,          // the copy failed or the file cannot be opened: try again later
};

// Copies the backups back into the media file at the record's offset, cuts the file at
// its original length, syncs it, and only then deletes the backups. Before any byte is
// copied, checks that the file is still the one the merge was writing: the bytes before
// the offset are those it began with, and its size and time are either those before the
// merge or those a writer leaves (not shorter than the offset, not older than the start
// of the writing). A file changed since is left alone; its backups stay, and the record
// goes back under its key (KeepRollBackRecord), logged with the reason.
RollBackOutcome RollBackToOrg(const RollBackRecord& record);
// Deletes the record's backups: for a file that is gone for good.
void DiscardRollBackBackups(const RollBackRecord& record);

}  // namespace marquel
