// The in-place merge of the server's data packs into a program-stream file: the packs are
// spread among the stream's own packs near the file's end, with backups and a roll-back
// record made durable before the file is touched. docs/in-file-merge.md gives the design.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "media/pack_clock.h"
#include "merge_record.h"
#include "platform/files.h"

namespace marquel {

// Data packs per group, and the most stream packs between two groups: one data pack
// after every O stream packs raises the merged region's byte rate by 1/O, and O is chosen
// from the room the stream leaves below its mux rate, up to 15 (docs/in-file.md).
constexpr uint32_t kMergeGroupDataPacks = 1;
constexpr uint32_t kMergeMaxStreamPacks = 15;

// O for a stream read at `streamRate` bytes/s under a mux rate of `muxRate` bytes/s: the
// fewest stream packs per data pack whose added 1/O still fits under the mux rate, at
// least 1 and at most kMergeMaxStreamPacks (also when either rate is unknown).
uint32_t StreamPacksPerGroup(double streamRate, double muxRate);
// Bytes before the merge start searched for the clock the first data packs step from.
constexpr int64_t kMergeClockLookBack = 10240;

// Builds the closing pack(s) holding the end record: merge start, merged region's end,
// and the clock to repeat. Appends to *out; false when they cannot be made.
using MergeEndPackFn = std::function<bool(int64_t mergeStart, int64_t mergedEnd,
                                          const PackClock& clock, std::vector<uint8_t>* out)>;

struct PsMergeRequest {
  std::string media_path;
  FileHandle media = kInvalidFileHandle;  // open for reading and writing
  bool mpeg1 = false;                     // the stream's pack layout
  // The merge starts at or before this offset: where the server's data of an earlier
  // write begins, else the file's size.
  int64_t keep_before = 0;
  FileHandle data_packs = kInvalidFileHandle;  // whole data packs, from offset 0
  uint32_t data_pack_size = 2048;
  int64_t data_pack_count = 0;
  MergeEndPackFn end_pack;
  // Reads the data back from the merge start once the file is rewritten and synced; a
  // false answer undoes the merge. None: no check.
  std::function<bool(int64_t mergeStart)> verify;
  int32_t session = 0;  // the number of the log lines
};

struct PsMergeResult {
  uint32_t group_stream_packs = 0;
  int64_t merge_start = -1;
  int64_t merged_end = -1;
  int64_t new_size = -1;
};

// Where the merge starts and what it rewrites.
struct MergePlan {
  int64_t start = 0;         // first byte rewritten (a pack start)
  int64_t packs_end = 0;     // end of the last stream pack: the first backup is [start, here)
  int64_t file_size = 0;     // the second backup (the tail) is [packs_end, file_size)
  PackClock clock_before;    // the stream's last clock before `start`
  int64_t stream_packs = 0;  // stream packs in [start, packs_end)
  uint32_t group_stream_packs = kMergeMaxStreamPacks;  // O
};

// Chooses the merge start: far enough back that the stream packs after it can take every
// data pack at the group rate, and never after request.keep_before. False (with a log
// line) when the file holds no stream pack or cannot be read.
bool PlanMerge(const PsMergeRequest& request, MergePlan* plan);

// The stream's mux rate (50 bytes/s units) from the system decoder over the bytes before
// `before`; 0 when none is found.
uint32_t StreamMuxRate(FileHandle media, bool mpeg1, int64_t before);

// --- Backups and the roll-back record (ps_merge_backup.cc) -----------------------------

struct MergeBackups {
  std::string packs;  // the first backup: [start, packs_end)
  std::string tail;   // the second backup: [packs_end, file_size)
};

// Copies the two regions into new files of the cache folder and makes them durable (the
// files and the folder). False, with nothing left behind, on a failure.
bool MakeMergeBackups(FileHandle media, const MergePlan& plan, MergeBackups* backups);
// Records the merge under the roll-back key of `mediaPath`, durably: "TYPE" 1, "BUF" (the
// 1056-byte record: tail path, packs path, each 260 UTF-16 units, then the start offset
// at 1040) and "PATH" (the media file's path, since a hashed key name cannot be turned
// back into one); `added`: the bytes the merge may add to the file. False when it cannot
// be written (nothing is left then).
bool WriteRollBackRecord(const std::string& mediaPath, const MergeBackups& backups, int64_t start,
                         int64_t added);
// Copies the backups back at plan.start and cuts the file at its old size. True when the
// file is whole again.
bool RestoreFromBackups(FileHandle media, const MergePlan& plan, const MergeBackups& backups);
// Removes both backup files.
void RemoveMergeBackups(const MergeBackups& backups);

// --- The merge (ps_merge.cc) ---------------------------------------------------------

// Merges request.data_pack_count data packs into the file: plan, backups, record, rewrite
// from the merge start, end pack, cut, sync, and the record and backups removed. On a
// failed rewrite the file is restored from the backups. 1, or -1.
int32_t MergeIntoProgramStream(const PsMergeRequest& request, PsMergeResult* result);

}  // namespace marquel
