#include "tags/sample_column.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
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

// Large columns made one after another start at different places within a page, so
// that walking them side by side does not put all their elements in the same cache sets;
// they still hold and keep their values through growth, and small ones are not moved.
TEST(SampleColumn, LargeColumnsStartAtDifferentPlacesInAPage) {
  std::vector<SampleColumn<int64_t>> columns(20);
  std::set<uintptr_t> offsets;
  for (size_t j = 0; j < columns.size(); ++j) {
    for (int64_t i = 0; i < 50000; ++i) columns[j].push_back(i * 3 + static_cast<int64_t>(j));
    offsets.insert(reinterpret_cast<uintptr_t>(columns[j].data()) % 4096);
  }
  EXPECT_GE(offsets.size(), 16u);
  for (size_t j = 0; j < columns.size(); ++j) {
    ASSERT_EQ(columns[j].size(), 50000u);
    EXPECT_EQ(columns[j][0], static_cast<int64_t>(j));
    EXPECT_EQ(columns[j][49999], 49999 * 3 + static_cast<int64_t>(j));
  }
  EXPECT_EQ(ColumnStagger(1024), 0u);
  EXPECT_EQ(ColumnStagger(1 << 20) % 64, 0u) << "whole cache lines, so alignment is kept";
}

// A whole word may be loaded at any element, the last one included: the memory past
// the capacity belongs to the column (an address sanitizer build checks that) and is zero.
TEST(SampleColumn, AWordCanBeReadAtItsLastElement) {
  for (size_t n : {1u, 7u, 8u, 100u, 40000u}) {
    SampleColumn<uint8_t> c;
    for (size_t i = 0; i < n; ++i) c.push_back(static_cast<uint8_t>(i + 1));
    uint64_t word;
    std::memcpy(&word, c.data() + c.capacity() - 1, sizeof word);
    EXPECT_EQ(word >> 8, 0u) << "n=" << n;  // the seven bytes past the capacity
    std::memcpy(&word, c.data() + c.capacity(), sizeof word);
    EXPECT_EQ(word, 0u) << "n=" << n;
  }
}

}  // namespace
}  // namespace marquel
