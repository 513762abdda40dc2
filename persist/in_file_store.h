// Where a container keeps the server's data inside the media file itself: one store per
// container kind, which the session asks at open (Check), at a close that writes into
// the file (Write) and when cached data is moved in (Merge). Program streams have one
// (ps_in_file_store.h); a format without one keeps its data in the caches only.
#pragma once

#include <cstdint>

#include "persist/cache_sources.h"
#include "platform/files.h"

namespace marquel {

class MarquelOneFile;

class InFileStore {
 public:
  virtual ~InFileStore() = default;

  // Whether the open media file carries the session's data, where it begins and with
  // which identity words; the block is read into the session's program buffers when the
  // answer is yes. A damaged record or block is logged and answered "none".
  virtual MQDataInFile Check(MarquelOneFile& session, FileHandle file) = 0;
  // Writes program 0's finalised block into the file open for reading and writing from
  // `start` on. 1 when the data is in the file; otherwise as WriteMPEGFile says.
  virtual int32_t Write(MarquelOneFile& session, FileHandle file, int64_t start, int64_t mtime,
                        uint64_t size) = 0;
  // Merges the session's data into its media file in place: program 0's block into a
  // program stream (1, or -1 with the file as it was), every program's block into a
  // transport stream (1, or 0 with the file as it was).
  virtual int32_t Merge(MarquelOneFile& session, int32_t hasData) = 0;
};

// The store of a format code, or null when the format keeps no data inside the file.
InFileStore* InFileStoreFor(int32_t format);

}  // namespace marquel
