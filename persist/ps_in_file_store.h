// The in-file store of MPEG-1 system streams and MPEG-2 program streams: the data as 0xFA
// packs closed by an end record (docs/in-file.md).
#pragma once

#include "in_file_store.h"

namespace marquel {

class ProgramStreamStore final : public InFileStore {
 public:
  // The end record found from the file's end, and the block it names read with every
  // CRC checked (ps_store_check.cc).
  MQDataInFile Check(MarquelOneFile& f, FileHandle file) override;
  // The block appended as packs at `start`, after the cut there (ps_store_write.cc).
  int32_t Write(MarquelOneFile& f, FileHandle file, int64_t start, int64_t mtime,
                uint64_t size) override;
  // The block merged in place near the file's end (ps_store_merge.cc).
  int32_t Merge(MarquelOneFile& f, int32_t hasData) override;
  // Program 0's block as a pack stream of its own into `out` (ps_store_write.cc): 1 when
  // written whole, or when there is no block; 0 when the muxer cannot be made; -1 when a
  // write failed and the stream is cut short.
  static int32_t GeneratePacks(MarquelOneFile& f, FileHandle out, uint32_t muxRate);
};

}  // namespace marquel
