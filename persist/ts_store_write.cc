// TransportStreamStore's writing side. Writing the data into a transport stream (the
// interleave and its roll-back) is a piece of its own still to come; until it is here,
// both calls fail, so that a close keeps the data in the caches rather than claiming a
// write that did not happen.
#include "log/log.h"
#include "persist/marquel_one_file.h"
#include "ts_in_file_store.h"

namespace marquel {

int32_t TransportStreamStore::Write(MarquelOneFile& f, FileHandle, int64_t, int64_t, uint64_t) {
  MQ_LOG("[%d] writing MQ data into a transport stream is not supported yet", f.handle_);
  return -1;
}

int32_t TransportStreamStore::Merge(MarquelOneFile& f, int32_t) {
  MQ_LOG("[%d] merging MQ data into a transport stream is not supported yet", f.handle_);
  return 0;
}

}  // namespace marquel
