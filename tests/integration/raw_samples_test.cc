// Raw samples through the bus: every length a tag can carry is kept and comes back after
// a restart, samples that cannot be kept fail at once, a move leaves in the source what
// the target refused, and clean and overwrite leave no sample behind.
#include <filesystem>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

constexpr int32_t kRawTag = 29;        // raw, byte counts in 16 bits
constexpr int32_t kWideRawTag = 32;    // raw, byte counts in 30 bits
constexpr int32_t kNarrowRawTag = 31;  // raw, byte counts in 4 bits
constexpr int32_t kPlainTag = 19;

using RawSamples = BusTest;

std::vector<uint8_t> Bytes(int64_t seed, size_t n) {
  std::vector<uint8_t> b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed * 7 + static_cast<int64_t>(i));
  return b;
}


int32_t Open(IMarquelClient& c, const std::string& path) {
  int32_t h = -1;
  EXPECT_EQ(c.InitialFile(path.c_str(), 0, 0, &h), S_OK) << path;
  return h;
}

// QueryOneTagSize answers E_FAIL for a count of 0.
void ExpectNoSample(IMarquelClient& c, int32_t h, int32_t tag) {
  int32_t n = 0;
  EXPECT_EQ(c.QueryOneTagSize(h, tag, &n), E_FAIL) << "tag " << tag << " keeps " << n;
}

void ExpectRaw(IMarquelClient& c, int32_t h, int32_t tag, int64_t t, size_t n) {
  std::vector<uint8_t> got(n + 1, 0xEE);
  ASSERT_EQ(c.GetRawDataOne2(h, 0, tag, t, static_cast<int32_t>(n), got.data()), S_OK)
      << "tag " << tag << " at " << t;
  got.resize(n);
  EXPECT_EQ(got, Bytes(t, n)) << "tag " << tag << " at " << t;
}

TEST_F(RawSamples, EveryLengthComesBackAfterARestart) {
  std::string path = CopyTestMedia("avi.avi", "raw.avi");
  int32_t h = Open(*client_, path);
  // The first sample fixes the tag's sample size; later ones are longer and shorter.
  const std::vector<std::pair<int64_t, size_t>> lengths = {
      {10, 4}, {20, 2}, {30, 5}, {40, 100}, {50, 5000}, {60, 65535}, {70, 0}};
  for (auto [t, n] : lengths) {
    auto bytes = Bytes(t, n);
    ASSERT_EQ(client_->InsertRawDataOne2(h, 0, kRawTag, t, static_cast<int32_t>(n), bytes.data()),
              S_OK)
        << n << " bytes";
  }
  auto wide = Bytes(5, 300000);
  ASSERT_EQ(client_->InsertRawDataOne2(h, 0, kWideRawTag, 1, 3, wide.data()), S_OK);
  ASSERT_EQ(client_->InsertRawDataOne2(h, 0, kWideRawTag, 5, 300000, wide.data()), S_OK);
  ExpectRaw(*client_, h, kRawTag, 50, 5000);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);

  client_.reset();
  StopServer();
  client_ = Connect();
  h = Open(*client_, path);
  for (auto [t, n] : lengths) ExpectRaw(*client_, h, kRawTag, t, n);
  ExpectRaw(*client_, h, kWideRawTag, 5, 300000);
  int32_t size = 0;
  ASSERT_EQ(client_->QueryRawDataTagSampleSize(h, 0, kRawTag, &size), S_OK);
  EXPECT_EQ(size, 4) << "the first sample's size stays the tag's";
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
}

TEST_F(RawSamples, SamplesThatCannotBeKeptFail) {
  std::string path = MediaFile("kinds.mpg");
  int32_t h = Open(*client_, path);
  auto bytes = Bytes(1, 70000);
  EXPECT_EQ(client_->InsertDataOne(h, kRawTag, 10, 5), E_FAIL) << "a plain sample, raw tag";
  EXPECT_EQ(client_->InsertRawDataOne(h, kPlainTag, 10, 2, bytes.data()), E_FAIL)
      << "a raw sample, plain tag";
  EXPECT_EQ(client_->InsertRawDataOne(h, kNarrowRawTag, 10, 15, bytes.data()), S_OK);
  EXPECT_EQ(client_->InsertRawDataOne(h, kNarrowRawTag, 20, 16, bytes.data()), E_FAIL)
      << "more bytes than the tag's 4-bit count carries";
  EXPECT_EQ(client_->InsertRawDataOne(h, kRawTag, 10, 65536, bytes.data()), E_FAIL)
      << "more bytes than the tag's 16-bit count carries";
  ExpectNoSample(*client_, h, kRawTag);
  int32_t n = 0;
  ASSERT_EQ(client_->QueryOneTagSize(h, kNarrowRawTag, &n), S_OK);
  EXPECT_EQ(n, 1);
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
}

TEST_F(RawSamples, AMoveIntoAReadOnlyTargetLeavesTheSourceWhole) {
  // Which samples of a move the target refused is pinned in the tag store; through the
  // bus, a target that takes nothing at all is a file opened read-only.
  std::string source = CopyTestMedia("avi.avi", "source.avi");
  std::string target = CopyTestMedia("avi.avi", "target.avi");
  int32_t t = Open(*client_, target);
  ASSERT_EQ(client_->InsertDataOne(t, 16, 1, 1), S_OK);
  ASSERT_EQ(client_->CloseFile(t, 1), S_OK);
  const int32_t only19[] = {kPlainTag};
  ASSERT_EQ(client_->InitialFile2(target.c_str(), 0, 0, 1, only19, 1, 0, -1, &t), S_OK);
  int32_t s = Open(*client_, source);
  ASSERT_EQ(client_->InsertDataOne(s, 16, 100, 7), S_OK);
  ASSERT_EQ(client_->InsertDataOne(s, kPlainTag, 100, 8), S_OK);

  EXPECT_EQ(client_->MoveDataPeriod(t, s, 0, 0, -1, 1, 1), E_FAIL);
  int32_t value = 0;
  ASSERT_EQ(client_->GetDataOne(s, 16, 100, &value), S_OK);
  EXPECT_EQ(value, 7);
  ASSERT_EQ(client_->GetDataOne(s, kPlainTag, 100, &value), S_OK);
  EXPECT_EQ(value, 8);
  ExpectNoSample(*client_, t, kPlainTag);
  ASSERT_EQ(client_->CloseFile(s, 1), S_OK);
  ASSERT_EQ(client_->CloseFile(t, 1), S_OK);
}

TEST_F(RawSamples, CleanAndOverwriteLeaveNoSampleAtAll) {
  std::string path = MediaFile("clean.mpg");
  int32_t h = Open(*client_, path);
  auto bytes = Bytes(1, 8);
  auto fill = [&] {
    ASSERT_EQ(client_->InsertDataOne(h, kPlainTag, -5000000, 1), S_OK);
    ASSERT_EQ(client_->InsertDataOne(h, kPlainTag, 100, 2), S_OK);
    ASSERT_EQ(client_->InsertRawDataOne(h, kRawTag, -1, 8, bytes.data()), S_OK);
  };
  fill();
  ASSERT_EQ(client_->CleanFile(h), S_OK);
  ExpectNoSample(*client_, h, kPlainTag);
  ExpectNoSample(*client_, h, kRawTag);

  fill();
  int32_t again = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 1, &again), S_OK);  // bOverwrite
  ExpectNoSample(*client_, h, kPlainTag);
  ExpectNoSample(*client_, h, kRawTag);
  ASSERT_EQ(client_->CloseFile(again, 1), S_OK);
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
}

}  // namespace
}  // namespace marquel::test
