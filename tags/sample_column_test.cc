#include "tags/sample_column.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace marquel {
namespace {

TEST(SampleColumn, BehavesAsAListOfValues) {
  SampleColumn<int64_t> c;
  EXPECT_TRUE(c.empty());
  for (int64_t i = 0; i < 1000; ++i) c.push_back(i * 3);
  ASSERT_EQ(c.size(), 1000u);
  EXPECT_EQ(c.front(), 0);
  EXPECT_EQ(c.back(), 2997);
  EXPECT_EQ(c[500], 1500);
  SampleColumn<int64_t> copy = c;
  EXPECT_EQ(copy, c);
  copy[7] = -1;
  EXPECT_FALSE(copy == c);
  SampleColumn<int64_t> moved = std::move(copy);
  EXPECT_EQ(moved.size(), 1000u);
  EXPECT_EQ(moved[7], -1);
}

TEST(SampleColumn, ClearKeepsTheMemory) {
  SampleColumn<int32_t> c{1, 2, 3};
  c.reserve(100);
  const int32_t* memory = c.data();
  c.clear();
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(c.capacity(), 100u);
  c.push_back(9);
  EXPECT_EQ(c.data(), memory);
}

TEST(SampleColumn, SpareRoomCountsOnlyOnceCommitted) {
  SampleColumn<int32_t> c{5};
  c.EnsureSpare(10);
  ASSERT_GE(c.Spare(), 10u);
  int32_t* room = c.SpareBegin();
  room[0] = 6;
  room[1] = 7;
  EXPECT_EQ(c.size(), 1u);
  c.Commit(2);
  EXPECT_EQ(c, (SampleColumn<int32_t>{5, 6, 7}));
}

TEST(SampleColumn, GrowingByManySmallAppendsStaysGeometric) {
  SampleColumn<uint8_t> c;
  std::vector<const uint8_t*> seen;
  const uint8_t bytes[12] = {};
  for (int i = 0; i < 100000; ++i) {
    c.insert_back(bytes, bytes + 12);
    if (seen.empty() || seen.back() != c.data()) seen.push_back(c.data());
  }
  EXPECT_EQ(c.size(), 1200000u);
  EXPECT_LT(seen.size(), 40u);  // doubling: about log2(1.2M / 8) moves
}

}  // namespace
}  // namespace marquel
