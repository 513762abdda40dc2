// Transfers beyond one message: paging through IMarquelBulk, the bound of the standard
// methods, and a read of 10,000,000 samples in one call of the library.
#include <climits>
#include <cstring>

#include "bus_fixture.h"

namespace marquel::test {
namespace {

constexpr int32_t kTag = 40;
constexpr int32_t kRawTag = 29;

using LargeTransfer = BusTest;

std::vector<MarquelOneTag> Ramp(int32_t n) {
  std::vector<MarquelOneTag> v(n);
  for (int32_t i = 0; i < n; ++i) v[i] = MarquelOneTag{int64_t{i} * 400000, i};
  return v;
}

// Inserts and reads more samples than one standard call carries, across page borders.
TEST_F(LargeTransfer, PagedInsertAndReadAcrossPages) {
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("a.mpg").c_str(), 0, 0, &h), S_OK);
  const int32_t n = (1 << 20) + 12345;  // more than one bulk page
  std::vector<MarquelOneTag> in = Ramp(n);
  ASSERT_EQ(client_->InsertDataPeriod(h, kTag, in.data(), n), S_OK);
  int32_t size = 0;
  ASSERT_EQ(client_->QueryOneTagSize(h, kTag, &size), S_OK);
  ASSERT_EQ(size, n);
  std::vector<MarquelOneTag> out(n + 1);
  out[n].value = -99;  // one element past the caller's count
  ASSERT_EQ(client_->GetDataAll(h, kTag, n, out.data()), S_OK);
  EXPECT_EQ(out[0].llTimeCode, 0);
  EXPECT_EQ(out[(1 << 20)].value, 1 << 20);
  EXPECT_EQ(out[n - 1].value, n - 1);
  EXPECT_EQ(out[n].value, -99);
  // A period in the middle, through the paged path as well.
  int64_t start = in[100000].llTimeCode, end = in[100000 + 70000].llTimeCode;
  ASSERT_EQ(client_->QueryOneTagPeriodSize(h, kTag, start, end, &size), S_OK);
  ASSERT_EQ(size, 70000);
  ASSERT_EQ(client_->GetDataPeriod(h, kTag, start, end, size, out.data()), S_OK);
  EXPECT_EQ(out[0].value, 100000);
  EXPECT_EQ(out[69999].value, 169999);
}

// A standard call is never asked to build an array near the bus limit: beyond its bound
// it answers E_OUTOFMEMORY, and the server serves on.
TEST_F(LargeTransfer, StandardMethodsRefuseRepliesBeyondTheBusLimit) {
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("a.mpg").c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->InsertDataOne(h, kTag, 1, 1), S_OK);
  auto connection = sdbus::createSessionBusConnection();
  auto proxy = RawProxy(*connection);
  int32_t hr = 0;
  std::vector<sdbus::Struct<int64_t, int32_t>> samples;
  proxy->callMethod("GetDataAll")
      .onInterface("com.halvern.Marquel.IMQInterface")
      .withArguments(h, kTag, int32_t{5000000})
      .storeResultsTo(hr, samples);
  EXPECT_EQ(hr, E_OUTOFMEMORY);
  EXPECT_TRUE(samples.empty());
  proxy->callMethod("GetDataAll")
      .onInterface("com.halvern.Marquel.IMQInterface")
      .withArguments(h, kTag, int32_t{1})
      .storeResultsTo(hr, samples);
  EXPECT_EQ(hr, S_OK);
  EXPECT_EQ(samples.size(), 1u);
}

TEST_F(LargeTransfer, RawSamplesInPages) {
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("a.mpg").c_str(), 0, 0, &h), S_OK);
  const int32_t n = 3000;  // beyond the standard raw read
  for (int32_t i = 0; i < n; ++i) {
    uint8_t bytes[4];
    std::memcpy(bytes, &i, 4);
    ASSERT_EQ(client_->InsertRawDataOne(h, kRawTag, int64_t{i} * 1000, 4, bytes), S_OK);
  }
  std::vector<std::array<uint8_t, 4>> buffers(n);
  std::vector<MarquelRawDataTag> list(n);
  for (int32_t i = 0; i < n; ++i) list[i] = MarquelRawDataTag{0, 4, buffers[i].data()};
  list[7].nLength = 3;  // too short: left alone
  ASSERT_EQ(client_->GetRawDataAll(h, kRawTag, n, list.data()), S_OK);
  int32_t last = 0;
  std::memcpy(&last, buffers[n - 1].data(), 4);
  EXPECT_EQ(last, n - 1);
  EXPECT_EQ(list[n - 1].llTimeCode, int64_t{n - 1} * 1000);
  EXPECT_EQ(list[7].nLength, 3);
  EXPECT_EQ(list[7].llTimeCode, 7000);
  std::vector<MarquelRawDataTag> few(2, MarquelRawDataTag{0, 4, nullptr});
  uint8_t a[4], b[4];
  few[0].pBuffer = a;
  few[1].pBuffer = b;
  ASSERT_EQ(client_->GetRawDataPeriod(h, kRawTag, 5000, 7000, 2, few.data()), S_OK);
  EXPECT_EQ(few[1].llTimeCode, 6000);
  EXPECT_EQ(b[0], 6);
}

// One GetDataAll call of the library for 10,000,000 samples: 160 MB of records, which
// no single message could carry.
TEST_F(LargeTransfer, TenMillionSamplesInOneCall) {
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(MediaFile("big.mpg").c_str(), 0, 0, &h), S_OK);
  const int32_t n = 10000000;
  {
    std::vector<MarquelOneTag> in = Ramp(n);
    ASSERT_EQ(client_->InsertDataPeriod(h, kTag, in.data(), n), S_OK);
  }
  int32_t size = 0;
  ASSERT_EQ(client_->QueryOneTagSize(h, kTag, &size), S_OK);
  ASSERT_EQ(size, n);
  std::vector<MarquelOneTag> out(n);
  ASSERT_EQ(client_->GetDataAll(h, kTag, n, out.data()), S_OK);
  EXPECT_EQ(out[0].value, 0);
  EXPECT_EQ(out[n / 2].llTimeCode, int64_t{n / 2} * 400000);
  EXPECT_EQ(out[n - 1].value, n - 1);
}

}  // namespace
}  // namespace marquel::test
