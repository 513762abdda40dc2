// Where a session's stored data can come from, as the session's open sees it.
//
// A media file may carry its own MQ data (written into it by a migration); the per-user
// caches may hold an entry for it. The in-file check fills MQDataInFile; the open then
// chooses a source (MQDataSource) and loads from it.
#pragma once

#include <cstdint>
#include <vector>

namespace marquel {

// The data source the open recorded.
enum MQDataSource : int32_t {
  kSourceNone = 0,
  kSourceMediaFile = 1,
  kSourceRegistry = 2,
};

// One program's data inside a transport stream.
struct InFileProgram {
  int32_t pmt_pid = 0;    // the program it belongs to
  uint32_t data_pid = 0;  // the PID whose packets carry the block
  int64_t start = -1;     // where its packets begin
};

// What the in-file check found in a media file.
struct MQDataInFile {
  bool has_data = false;
  // Where the MQ data begins (program streams; for transport streams the first
  // program's start). -1 when there is none.
  int64_t start_address = -1;
  // The identity words recorded with the data: the original size of the file before the
  // data was added, and its modification time then.
  uint64_t identity[2] = {0, 0};
  // Program streams: the check has read the block into program 0's buffers (with its
  // CRCs checked), so the open takes it from there instead of reading it again.
  bool block_in_buffers = false;
  // Transport streams: the programs that carry data, in order.
  std::vector<InFileProgram> programs;
};

}  // namespace marquel
