// The in-file store of transport streams: each program's data as packets on one private
// PID, interleaved with the file's last original packets, and an information packet on
// PID 225 as the file's last unit (docs/in-file-ts.md).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "in_file_store.h"
#include "media/mq_ts_info.h"
#include "ts_merge.h"

namespace marquel {

class TransportStreamStore final : public InFileStore {
 public:
  // The information packet read from the file's last unit, each program's packets walked
  // with their continuity counter checked, and each block read with every CRC checked
  // (ts_store_check.cc). Any fault rejects all the file's data.
  MQDataInFile Check(MarquelOneFile& f, FileHandle file) override;
  // Writing into a transport stream is not built yet: -1, with a log line
  // (ts_store_write.cc).
  int32_t Write(MarquelOneFile& f, FileHandle file, int64_t start, int64_t mtime,
                uint64_t size) override;
  // ProcessMQInterLeaveInTS: every program with data interleaved into the file's last
  // units in place and read back (InterleaveIntoTransportStream, ts_merge.h); the session's
  // MQ start address follows the data. 1, or 0 with the file as it was. `hasData` is not
  // used: the file itself is checked for earlier data.
  int32_t Merge(MarquelOneFile& f, int32_t hasData) override;
  // What the interleave takes from the session: path, number, unit layout, original size
  // and time, and the programs.
  static TsMergeInput MergeInputOf(MarquelOneFile& f);
};

// One program's run of MQ packets as the walk found it.
struct MQTsPacketRun {
  int64_t start = -1;   // offset of the run's first unit
  int64_t packets = 0;  // units in the run
};

// Walks the units of `unit_size` bytes from `begin` up to `end` (both on the unit grid)
// and finds the run of packets on `pid`: the first must carry counter 0, each further one
// the next counter modulo 16, all payload only with payload unit start. Other PIDs are
// skipped. False, with the reason in *why, for a hole or a bad header, no packet at all,
// or a failed read; the file position is left anywhere.
bool WalkMQTsPackets(FileHandle file, int32_t unit_size, int64_t begin, int64_t end, uint16_t pid,
                     MQTsPacketRun* run, std::string* why);

// Finds where a program's run of MQ packets begins, walking back from `end` to `floor`
// (both on the unit grid): the nearest packet on `pid` with counter 0 whose payload opens
// a block header with a right CRC, whose block fills exactly the MQ packets from there to
// `end`. So the search reads only the program's own stretch of the file. On the way the
// counters must fall by one from packet to packet. False, with the reason in *why, for a
// hole or a bad header, no packet or no start found, or a failed read.
bool FindMQTsRunStart(FileHandle file, int32_t unit_size, int64_t floor, int64_t end, uint16_t pid,
                      int64_t* start, std::string* why);

// The file's data as the open's check finds it: the information packet in the last unit
// of `unit` bytes, then for each program the start of its packet run (FindMQTsRunStart,
// never before the later of `first_offset` and half the original size, nor before the
// previous program's end), the run walked (WalkMQTsPackets) and its block
// read with every CRC checked. True with the packet's fields and the programs; false, with
// a log line of session `session` for damage, when anything is missing or wrong. With
// `headers`, each program's block header (kBlockHeaderSize bytes) as read comes too.
bool FindTsInFileData(FileHandle file, int32_t unit, int64_t first_offset, int32_t session,
                      MQTsInfo* info, std::vector<InFileProgram>* programs,
                      std::vector<std::vector<uint8_t>>* headers = nullptr);

}  // namespace marquel
