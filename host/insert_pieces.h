// Plain inserts that arrived as one large array, handed to the server object a piece at a
// time, so that no copy of the whole array is made beside the message.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "api/mq_interface.h"

namespace marquel::host {

// Inserts the n records that at(i) gives as one InsertDataPeriod of n records would:
// E_INVALIDARG for n below 1, E_OUTOFMEMORY when a piece answers so, else S_OK only when
// every record was stored. *inserted gets how many were.
template <typename At>
int32_t InsertInPieces(CMQInterface& mq, int32_t h, int32_t program, int32_t tag, size_t n, At at,
                       int32_t* inserted) {
  *inserted = 0;
  if (n == 0) return E_INVALIDARG;
  std::vector<MarquelOneTag> piece;
  int64_t stored = 0;
  for (size_t first = 0; first < n;) {
    size_t count =
        std::min<size_t>(n - first, static_cast<size_t>(CMQInterface::kReadPieceSamples));
    piece.resize(count);
    for (size_t i = 0; i < count; ++i) piece[i] = at(first + i);
    int32_t done = 0;
    int32_t hr =
        mq.InsertDataPeriod(h, program, tag, piece.data(), static_cast<int32_t>(count), &done);
    if (hr == E_OUTOFMEMORY) return hr;
    stored += done;
    first += count;
  }
  *inserted = static_cast<int32_t>(stored);
  return stored == static_cast<int64_t>(n) ? S_OK : E_FAIL;
}

}  // namespace marquel::host
