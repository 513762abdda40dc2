// TransportStreamStore::Write. A close writes a transport stream's data to its cache;
// the data goes into the file only through the interleave of a move (ts_merge.cc), so
// this call fails rather than claiming a write that did not happen.
#include "log/log.h"
#include "persist/marquel_one_file.h"
#include "ts_in_file_store.h"

namespace marquel {

int32_t TransportStreamStore::Write(MarquelOneFile& f, FileHandle, int64_t, int64_t, uint64_t) {
  MQ_LOG("[%d] writing MQ data into a transport stream is not supported yet", f.handle_);
  return -1;
}

}  // namespace marquel
