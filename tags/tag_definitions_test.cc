// Every row of the tag definition table, checked against the table as published.
#include "tags/tag_definitions.h"

#include <gtest/gtest.h>

namespace marquel {
namespace {

struct Range {
  int first, last, bits, type, category;
};

// The published table: id ranges with their bits, type and category.
constexpr Range kPublished[] = {
    {0, 0, 64, 0, 3},     {1, 1, 24, 1, 3},     {2, 15, 8, 0, 3},     {16, 16, 16, 0, 0},
    {17, 17, 2, 3, 0},    {18, 18, 8, 0, 0},    {19, 19, 16, 0, 0},   {20, 20, 4, 0, 0},
    {21, 23, 16, 0, 0},   {24, 24, 8, 0, 0},    {25, 25, 1, 0, 0},    {26, 28, 16, 0, 0},
    {29, 30, 16, 5, 0},   {31, 31, 4, 5, 0},    {32, 32, 30, 5, 0},   {33, 34, 16, 0, 0},
    {35, 63, 8, 0, 0},    {64, 64, 16, 0, 1},   {65, 65, 8, 0, 1},    {66, 66, 16, 0, 1},
    {67, 67, 30, 5, 1},   {68, 68, 4, 5, 1},    {69, 111, 8, 0, 1},   {112, 113, 16, 5, 2},
    {114, 114, 4, 0, 2},  {115, 115, 8, 0, 2},  {116, 117, 16, 5, 2}, {118, 118, 8, 0, 2},
    {119, 119, 16, 0, 2}, {120, 120, 8, 0, 2},  {121, 121, 16, 5, 2}, {122, 122, 1, 0, 2},
    {123, 123, 15, 5, 2}, {124, 124, 12, 5, 2}, {125, 125, 5, 5, 2},  {126, 126, 9, 5, 2},
    {127, 128, 10, 5, 2}, {129, 129, 16, 0, 2}, {130, 130, 4, 5, 2},  {131, 131, 10, 5, 2},
    {132, 132, 4, 5, 2},  {133, 135, 10, 5, 2}, {136, 136, 30, 5, 2}, {137, 139, 10, 5, 2},
    {140, 141, 8, 5, 2},  {142, 175, 8, 0, 2},  {176, 250, 8, 0, 3},  {251, 251, 2, 4, 3},
    {252, 252, 2, 3, 3},  {253, 253, 1, 2, 3},  {254, 254, 8, 1, 3},  {255, 255, 0, 0, 3},
};

TEST(TagDefinitionsTest, EveryRowMatchesThePublishedTable) {
  int checked = 0;
  int expectedId = 0;
  for (const Range& r : kPublished) {
    ASSERT_EQ(r.first, expectedId) << "the ranges cover 0..255 without gaps";
    for (int id = r.first; id <= r.last; ++id) {
      const TagDefinition& row = kTagDefinitions[id];
      EXPECT_EQ(row.nTagID, id);
      EXPECT_EQ(row.nBits, r.bits) << "tag " << id;
      EXPECT_EQ(row.nType, r.type) << "tag " << id;
      EXPECT_EQ(row.nCategory, r.category) << "tag " << id;
      ++checked;
    }
    expectedId = r.last + 1;
  }
  EXPECT_EQ(checked, 256);
}

TEST(TagDefinitionsTest, RawDataTagsAreTypeFive) {
  int raw = 0;
  for (int id = 0; id < kTagIdCount; ++id) raw += AcceptsRawData(id);
  EXPECT_EQ(raw, 29);
  EXPECT_TRUE(AcceptsRawData(29));
  EXPECT_FALSE(AcceptsRawData(16));
  EXPECT_FALSE(AcceptsRawData(-1));
  EXPECT_FALSE(AcceptsRawData(256));
  EXPECT_EQ(FindTagDefinition(256), nullptr);
  EXPECT_EQ(FindTagDefinition(-1), nullptr);
}

}  // namespace
}  // namespace marquel
