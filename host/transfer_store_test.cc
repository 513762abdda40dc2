// TransferStore and the paging of bulk reads from a transfer's spill files.
#include "transfer_store.h"

#include <gtest/gtest.h>

namespace marquel::host {
namespace {

// n stored samples (time i * 10, value i) in an answer of `total` elements.
Transfer Plain(const std::string& owner, int n, int64_t total = -1) {
  Transfer t;
  t.owner = owner;
  t.total = total < 0 ? n : total;
  for (int i = 0; i < n; ++i) EXPECT_TRUE(t.Keep(i * 10, i, nullptr, 0));
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
  EXPECT_EQ(store.StoredBytes(), 0u);
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

TEST(TransferStore, AFullStoreRefusesANewClientButLetsAnOwnerReplaceItsOldest) {
  TransferStore store;
  for (size_t i = 0; i < TransferStore::kMaxTransfers; ++i)
    store.Add(Plain("c" + std::to_string(i), 1));
  EXPECT_FALSE(store.Admits("newcomer"));
  EXPECT_TRUE(store.Admits("c0"));
  store.Add(Plain("c0", 1));
  EXPECT_EQ(store.Count(), TransferStore::kMaxTransfers);
}

TEST(TransferStore, TheStoreCountsTheBytesOfItsFiles) {
  TransferStore store;
  uint64_t id = store.Add(Plain("a", 100));
  EXPECT_EQ(store.StoredBytes(), 1200u);
  store.Erase(id);
  EXPECT_EQ(store.StoredBytes(), 0u);
}

TEST(TransferStore, PlainPagesCoverEverySampleOnce) {
  Transfer t = Plain("a", 10);
  std::vector<int64_t> times;
  std::vector<int32_t> values;
  ASSERT_TRUE(TakePlainPage(t, 4, &times, &values));
  EXPECT_EQ(values, (std::vector<int32_t>{0, 1, 2, 3}));
  ASSERT_TRUE(TakePlainPage(t, 4, &times, &values));
  ASSERT_TRUE(TakePlainPage(t, 4, &times, &values));
  EXPECT_EQ(values, (std::vector<int32_t>{8, 9}));
  EXPECT_EQ(times, (std::vector<int64_t>{80, 90}));
  EXPECT_TRUE(t.Done());
  ASSERT_TRUE(TakePlainPage(t, 4, &times, &values));
  EXPECT_TRUE(times.empty());
}

TEST(TransferStore, ElementsBeyondTheStoredSamplesAreZerosThatNoFileHolds) {
  Transfer t = Plain("a", 3, 1 << 24);
  EXPECT_EQ(t.Bytes(), 36u) << "sized by the three samples, not by m";
  std::vector<int64_t> times;
  std::vector<int32_t> values;
  ASSERT_TRUE(TakePlainPage(t, 5, &times, &values));
  EXPECT_EQ(values, (std::vector<int32_t>{0, 1, 2, 0, 0}));
  EXPECT_EQ(times, (std::vector<int64_t>{0, 10, 20, 0, 0}));
  ASSERT_TRUE(TakePlainPage(t, 1 << 30, &times, &values));
  EXPECT_EQ(times.size(), static_cast<size_t>(kMaxPageSamples));
}

TEST(TransferStore, RawPagesKeepToTheirByteBudgetButTakeAtLeastOneSample) {
  Transfer t;
  t.raw = true;
  t.total = 6;
  for (int i = 0; i < 4; ++i) {
    uint8_t bytes[3] = {static_cast<uint8_t>(i), static_cast<uint8_t>(i), static_cast<uint8_t>(i)};
    ASSERT_TRUE(t.Keep(i, 3, bytes, 3));
  }
  std::vector<int64_t> times;
  std::vector<int32_t> lengths;
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(TakeRawPage(t, 7, &times, &lengths, &bytes));
  EXPECT_EQ(times, (std::vector<int64_t>{0, 1}));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 0, 0, 1, 1, 1}));
  ASSERT_TRUE(TakeRawPage(t, 1, &times, &lengths, &bytes));  // one sample even over the budget
  EXPECT_EQ(times, std::vector<int64_t>{2});
  EXPECT_EQ(bytes, (std::vector<uint8_t>{2, 2, 2}));
  ASSERT_TRUE(TakeRawPage(t, 100, &times, &lengths, &bytes));
  EXPECT_EQ(times, (std::vector<int64_t>{3, 0, 0}));
  EXPECT_EQ(lengths, (std::vector<int32_t>{3, 0, 0}));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{3, 3, 3}));
  EXPECT_TRUE(t.Done());
}

TEST(TransferStore, ARawSampleWithoutBytesReadsAsZerosOfItsLength) {
  Transfer t;
  t.raw = true;
  t.total = 1;
  ASSERT_TRUE(t.Keep(5, 5000, nullptr, 5000));
  std::vector<int64_t> times;
  std::vector<int32_t> lengths;
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(TakeRawPage(t, 1 << 20, &times, &lengths, &bytes));
  EXPECT_EQ(bytes, std::vector<uint8_t>(5000, 0));
}

}  // namespace
}  // namespace marquel::host
