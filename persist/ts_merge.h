// The in-place interleave of the server's data into a transport stream: each program's
// block as MQ packets on one private PID spread among the file's last original units,
// closed by the information packet, with a backup and a roll-back record made durable
// before the file is touched. docs/in-file-ts.md gives the design.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/files.h"
#include "tags/mq_one_program.h"

namespace marquel {

// MQ units per group (M) and original units after each group (O): the interleaved stretch
// carries one MQ packet per three of the stream's own, so its byte rate rises by a third
// over a stretch of about four times the data. A transport stream declares no mux rate
// to stay under, and players drop the packets of a PID no program lists; a larger O
// would rewrite (and first back up) a longer tail of a big file for every move.
constexpr int64_t kTsMergeMQUnits = 1;
constexpr int64_t kTsMergeOriginalUnits = 3;
// The MQ PID of a file without data is the first candidate that no unit of the scanned
// stretch uses; the stretch is the last kTsFreePidScanBytes, or more when the rewrite
// starts further back.
constexpr int64_t kTsFreePidScanBytes = 2000000;
constexpr uint16_t kTsFirstCandidatePid = 8128;
constexpr uint16_t kTsLastCandidatePid = 8175;
// Bytes per read and write of the copies.
constexpr size_t kTsMergeCopyBytes = size_t{1} << 20;

// What the interleave needs of the session (TransportStreamStore::MergeInputOf).
struct TsMergeInput {
  std::string media_path;
  int32_t session = 0;  // the number of the log lines
  int32_t unit = 0;     // 188, 192 or 204
  int64_t first_offset = 0;
  uint64_t original_size = 0;           // 0: unknown, the current size is taken
  int64_t original_mtime = 0;           // 0: unknown, the current time of the file is taken
  std::vector<MQOneProgram*> programs;  // in the session's order
};

// Where the interleave starts and what it rewrites.
struct TsMergePlan {
  int64_t size = 0;         // of the file before the interleave
  bool has_data = false;    // the file held data already (the open's check found it)
  int64_t data_start = -1;  // where that data began
  uint16_t mq_pid = 0;
  int64_t start = 0;         // S: where the interleave of the new data starts at the latest
  int64_t rewrite_from = 0;  // the first byte rewritten: the earlier data's start when before S
  uint64_t original_size = 0;
  int64_t original_mtime = 0;
  std::vector<size_t> programs;    // indices of the programs with data
  std::vector<uint16_t> pmt_pids;  // theirs, in the same order
};

// Serialised bytes of the block of a program with data: header and three streams.
int64_t SerialisedBlockBytes(MQOneProgram& program);

// S for a file of `size` bytes and `blockBytes` bytes of blocks, with earlier data at
// `dataStart` (-1: none): size less the MQ bytes times O/M, less (size - dataStart) x M/O
// when there is earlier data, rounded down to whole units plus the first-packet offset
// and kept on the unit grid within the file. -1 when it falls below half the file.
int64_t TsMergeStart(int64_t size, int64_t blockBytes, int64_t dataStart, int32_t unit,
                     int64_t firstOffset);

// The first candidate PID that no unit in [from, size) uses, read in one buffered pass
// over the units of the grid from `from`. False when all are used or a read fails (*why).
bool FindFreeMQPid(FileHandle media, int32_t unit, int64_t from, int64_t size, uint16_t* pid,
                   std::string* why);

// Plans the interleave into the open `media` (ts_merge_plan.cc). False, with a log line
// saying why, when the file must stay as it is.
bool PlanTsMerge(const TsMergeInput& in, FileHandle media, TsMergePlan* plan);

// --- The backup and the roll-back record (ts_merge_backup.cc) --------------------------

struct TsBackup {
  std::string path;
  int64_t units_before_start = 0;  // its units from before S
};

// Copies every byte from plan.rewrite_from to the end, as it is, into a new file of the
// cache folder, and syncs the file and the folder: a restore gives back the very file,
// earlier data included, so its cache entry still matches it. The rewrite passes over the
// earlier data's units as it reads the backup. False, with nothing left behind, on a
// failure.
bool MakeTsBackup(FileHandle media, const TsMergePlan& plan, int32_t unit, TsBackup* backup);
// The 536-byte record: the backup's path as 260 UTF-16 units at 0, the offset at 520 and
// the file's modified time before the merge at 528 (64-bit, little-endian). False when the path is too
// long for it.
bool EncodeTsRollBack(const std::string& backup, int64_t offset, int64_t mtime,
                      std::vector<uint8_t>* buf);
// Reads a record made by EncodeTsRollBack (`mtime` may be null). False when its size or
// offset is wrong.
bool DecodeTsRollBack(const std::vector<uint8_t>& buf, std::string* backup, int64_t* offset,
                      int64_t* mtime = nullptr);
// Writes the record of type 2 of `mediaPath`; `added`: the bytes the interleave may add
// to the file. False when it cannot be written.
bool WriteTsRollBackRecord(const std::string& mediaPath, const std::string& backup, int64_t offset,
                           int64_t mtime, int64_t added);
// Copies the backup back at `offset`, cuts the file at offset + the backup's size, gives
// it back its modified time `mtime` (0: unknown, left) and syncs it. True when the file is
// whole again. The time counts: a cache knows its file by size and time, and a restored
// file with a new time would lose its cached tags.
bool RestoreTsFromBackup(FileHandle media, const std::string& backup, int64_t offset,
                         int64_t mtime);

// --- The interleave (ts_merge.cc, ts_merge_write.cc) -------------------------------------

// What the rewrite reads: the programs' packet files (in plan order), the backup, and
// the file's modified time read just before it.
struct TsRewriteSources {
  const std::vector<std::string>* program_files = nullptr;
  const TsBackup* backup = nullptr;
  int64_t merge_mtime = 0;
};
// The interleave itself, from the files made before it: the backup's original units
// (those not on the earlier data's MQ PID or PID 225, when the file held data) from
// before S written back, then groups of M MQ units each followed by up to O original
// units, the information packet, the cut and the sync. False on any failure; the file
// is then in any state (the caller restores it).
bool RewriteTransportStream(FileHandle media, const TsMergeInput& in, const TsMergePlan& plan,
                            const TsRewriteSources& sources);

// Interleaves the data of every program with data into the file: plan, packet files,
// backup and record, rewrite, read-back check, then record, backup and packet files
// removed. 1 with *dataStart where the data begins now, or 0 with the file as it was
// (restored from the backup when it was touched; when even that fails, the record and the
// backup stay for the roll-back at the next start).
int32_t InterleaveIntoTransportStream(const TsMergeInput& in, int64_t* dataStart);

}  // namespace marquel
