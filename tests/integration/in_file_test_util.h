// Helpers of the in-file data tests: damaging one byte of a media file, and reading a
// program's plain samples back through the bus.
#pragma once

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "marquel/marquel_client.h"
#include "sample_set.h"

namespace marquel::test {

// Flips bit 6 of the byte at `at` of the file.
inline void FlipByte(const std::string& path, int64_t at) {
  std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
  f.seekg(at);
  char c = 0;
  f.read(&c, 1);
  c = static_cast<char>(c ^ 0x40);
  f.seekp(at);
  f.write(&c, 1);
}

// The plain samples of a program; none when the tag is missing (its size query fails).
inline std::vector<std::pair<int64_t, int32_t>> ProgramPlainSamples(IMarquelClient& c, int32_t h,
                                                                    int32_t program) {
  std::vector<std::pair<int64_t, int32_t>> out;
  int32_t n = 0;
  if (c.QueryOneTagSize2(h, program, kPlainTag, &n) != S_OK || n <= 0) return out;
  std::vector<MarquelOneTag> tags(static_cast<size_t>(n));
  EXPECT_EQ(c.GetDataAll2(h, program, kPlainTag, n, tags.data()), S_OK);
  for (int32_t i = 0; i < n; ++i) out.emplace_back(tags[i].llTimeCode, tags[i].value);
  return out;
}

}  // namespace marquel::test
