// The size of a file's MQ data as it would be written now.
#pragma once

#include <cstdint>

#include "persist/marquel_one_file.h"

namespace marquel {

// The predicted size in bytes of the data blocks of every program of `file` (header and
// streams), over the samples of [start, end) (end below 0: to the last sample), or -1 when
// a tag's samples cannot be read.
int64_t PredictMQDataSize(MarquelOneFile* file, int64_t start, int64_t end);

}  // namespace marquel
