// Fuzzes the end-record finder: the input is the whole file, and the finder looks at its
// last bytes as it does at a media file's end. A record it answers must lie inside the
// file and pass the record's own checks.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "media/mq_end_record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t n =
      size < marquel::kMQEndRecordSearchBytes ? size : marquel::kMQEndRecordSearchBytes;
  const int64_t offset = static_cast<int64_t>(size - n);
  bool damaged = false;
  auto found = marquel::FindMQEndRecordInTail(data + (size - n), n, offset,
                                              static_cast<int64_t>(size), &damaged);
  if (found) {
    if (damaged) abort();
    if (found->offset < offset || found->offset + static_cast<int64_t>(marquel::kMQEndRecordSize) >
                                      static_cast<int64_t>(size))
      abort();
    marquel::MQEndRecord again;
    if (!marquel::ParseMQEndRecord(data + found->offset, found->offset, static_cast<int64_t>(size),
                                   &again))
      abort();
    if (again.start_address != found->record.start_address) abort();
  }
  return 0;
}
