// TransferStore and the paging of bulk reads.
#include "transfer_store.h"

#include <gtest/gtest.h>

namespace marquel::host {
namespace {

Transfer Plain(const std::string& owner, int n) {
  Transfer t;
  t.owner = owner;
  for (int i = 0; i < n; ++i) t.plain.push_back(MarquelOneTag{i * 10, i});
  return t;
}

TEST(TransferStore, OnlyTheOwnerFindsItsTransfer) {
  TransferStore store;
  uint64_t id = store.Add(Plain("a", 3));
  EXPECT_NE(id, 0u);
  EXPECT_NE(store.Find("a", id), nullptr);
  EXPECT_EQ(store.Find("b", id), nullptr);
  EXPECT_EQ(store.Find("a", id + 1), nullptr);
  store.EraseOwner("a");
  EXPECT_EQ(store.Count(), 0u);
}

TEST(TransferStore, ANewTransferBeyondTheLimitEndsTheOldest) {
  TransferStore store;
  uint64_t first = store.Add(Plain("a", 1));
  for (size_t i = 1; i < TransferStore::kMaxPerClient; ++i) store.Add(Plain("a", 1));
  uint64_t other = store.Add(Plain("b", 1));
  store.Add(Plain("a", 1));
  EXPECT_EQ(store.Find("a", first), nullptr);
  EXPECT_NE(store.Find("b", other), nullptr);
  EXPECT_EQ(store.Count(), TransferStore::kMaxPerClient + 1);
}

TEST(TransferStore, PlainPagesCoverEverySampleOnce) {
  Transfer t = Plain("a", 10);
  std::vector<int64_t> times;
  std::vector<int32_t> values;
  TakePlainPage(t, 4, &times, &values);
  EXPECT_EQ(values, (std::vector<int32_t>{0, 1, 2, 3}));
  TakePlainPage(t, 4, &times, &values);
  TakePlainPage(t, 4, &times, &values);
  EXPECT_EQ(values, (std::vector<int32_t>{8, 9}));
  EXPECT_EQ(times, (std::vector<int64_t>{80, 90}));
  EXPECT_TRUE(t.Done());
  TakePlainPage(t, 4, &times, &values);
  EXPECT_TRUE(times.empty());
}

TEST(TransferStore, RawPagesKeepToTheirByteBudgetButTakeAtLeastOneSample) {
  Transfer t;
  t.raw = true;
  for (int i = 0; i < 4; ++i) {
    t.columns.times.push_back(i);
    t.columns.lengths.push_back(3);
    for (int b = 0; b < 3; ++b) t.columns.bytes.push_back(static_cast<uint8_t>(i));
  }
  std::vector<int64_t> times;
  std::vector<int32_t> lengths;
  std::vector<uint8_t> bytes;
  TakeRawPage(t, 7, &times, &lengths, &bytes);
  EXPECT_EQ(times, (std::vector<int64_t>{0, 1}));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 0, 0, 1, 1, 1}));
  TakeRawPage(t, 1, &times, &lengths, &bytes);  // one sample even over the budget
  EXPECT_EQ(times, std::vector<int64_t>{2});
  EXPECT_EQ(bytes, (std::vector<uint8_t>{2, 2, 2}));
  TakeRawPage(t, 100, &times, &lengths, &bytes);
  EXPECT_EQ(times, std::vector<int64_t>{3});
  EXPECT_TRUE(t.Done());
}

}  // namespace
}  // namespace marquel::host
