// The pieces both in-place merges share: the roll-back record's key and values, and the
// copy of a backup file back into the media file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "persist/merge_rollback.h"
#include "platform/files.h"

namespace marquel {

// Where the roll-back records live: one subkey per media file.
constexpr char kRollBackRoot[] = "Software\\Halvern\\Marquel\\RollBack";
// The record types: the program-stream merge, and the transport-stream interleave.
constexpr uint32_t kRollBackProgramStream = 1;
constexpr uint32_t kRollBackTransportStream = 2;
// UTF-16 units of a path field in a record.
constexpr size_t kRollBackPathUnits = 260;

// The record's key of `mediaPath`: kRollBackRoot + "\" + the cache key name of the path.
std::string RollBackKey(const std::string& mediaPath);
// Writes the record of `mediaPath`: "TYPE" `type`, "BUF" `buf`, "PATH" (the media file's
// path, since a hashed key name cannot be turned back into one), "GUARD" (the CRC of
// the bytes just before `offset`, which no merge rewrites) and "STATE" (the file's size
// and time now, the time now, before any byte of it is written, and the largest size the
// merge can give the file: its size now plus `added`). False when it cannot be written
// whole (nothing is left then).
bool WriteRollBackValues(const std::string& mediaPath, uint32_t type,
                         const std::vector<uint8_t>& buf, int64_t offset, int64_t added);
// Whether `media` is still the file whose merge wrote `guard` and `state`: the bytes
// before `offset` are those the merge began with, and the file is either untouched (size
// and time as they were) or as a writer leaves it (not cut before `offset`, not longer
// than the merge can make it, not older than the start of the writing). Empty values
// pass (records of older versions).
bool RollBackStillTheMergesFile(const std::vector<uint8_t>& guard,
                                const std::vector<uint8_t>& state, FileHandle media,
                                int64_t offset);
// Writes `record`'s values ("BUF", "GUARD" and "STATE" when not empty, "PATH", "TYPE")
// under `key`, creating it. False when the store cannot take them all.
bool StoreRollBackValues(const std::string& key, const RollBackRecord& record);
// Deletes the record. True also when there was none; false when it stays.
bool DeleteRollBackRecord(const std::string& mediaPath);

// Copies `count` bytes of `from` at `at` into the new file `to` in large blocks, and syncs
// the file (not its folder). False on a failure.
bool CopyRegionToFile(FileHandle from, int64_t at, int64_t count, const std::string& to);
// Copies the whole file `from` into `media` at `at` in large blocks; the bytes copied,
// or -1.
int64_t CopyFileInto(const std::string& from, FileHandle media, int64_t at);

}  // namespace marquel
