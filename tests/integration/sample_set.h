// The samples the restart tests put into a file and expect back: 40 plain values under
// one tag and a raw buffer under another, all derived from a seed.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "marquel/marquel_client.h"

namespace marquel::test {

constexpr int32_t kPlainTag = 19;  // 16-bit plain values
constexpr int32_t kRawTag = 29;    // raw data

inline std::vector<std::pair<int64_t, int32_t>> Samples(int32_t seed) {
  std::vector<std::pair<int64_t, int32_t>> out;
  for (int32_t i = 0; i < 40; ++i)
    out.emplace_back(int64_t{i} * 333667 + seed, (i * 31 + seed) & 0xFFFF);
  return out;
}

inline void Insert(IMarquelClient& c, int32_t h, int32_t program, int32_t seed) {
  for (auto [t, v] : Samples(seed)) ASSERT_EQ(c.InsertDataOne2(h, program, kPlainTag, t, v), S_OK);
  const uint8_t raw[4] = {uint8_t(seed), 1, 2, 3};
  ASSERT_EQ(c.InsertRawDataOne2(h, program, kRawTag, 77, 4, raw), S_OK);
}

inline void ExpectSamples(IMarquelClient& c, int32_t h, int32_t program, int32_t seed) {
  int32_t n = 0;
  ASSERT_EQ(c.QueryOneTagSize2(h, program, kPlainTag, &n), S_OK);
  std::vector<MarquelOneTag> tags(static_cast<size_t>(n > 0 ? n : 1));
  ASSERT_EQ(c.GetDataAll2(h, program, kPlainTag, n, tags.data()), S_OK);
  std::vector<std::pair<int64_t, int32_t>> got;
  for (int32_t i = 0; i < n; ++i) got.emplace_back(tags[i].llTimeCode, tags[i].value);
  EXPECT_EQ(got, Samples(seed)) << "program " << program;
  uint8_t raw[4] = {};
  ASSERT_EQ(c.GetRawDataOne2(h, program, kRawTag, 77, 4, raw), S_OK);
  EXPECT_EQ(raw[0], uint8_t(seed));
  EXPECT_EQ(raw[3], 3);
}

}  // namespace marquel::test
