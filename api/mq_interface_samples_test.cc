// CMQInterface: plain and raw samples, lists, intervals, offsets and periods.
#include <gtest/gtest.h>

#include "api/mq_interface.h"
#include "log/log_capture.h"
#include "mq_interface_test_util.h"

namespace marquel {
namespace {

using test::MediaFile;

constexpr int32_t kPlainTag = 40;  // type 0
constexpr int32_t kRawTag = 29;    // type 5 (raw data)

class CMQInterfaceSamples : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(mq_.InitialFile(MediaFile("a.mpg"), 0, 0, &h_), S_OK); }
  CMQInterface mq_;
  int32_t h_ = -1;
};

TEST_F(CMQInterfaceSamples, InsertAndReadOne) {
  EXPECT_EQ(mq_.InsertDataOne(h_, 0, kPlainTag, 100, 5), S_OK);
  int32_t value = 0;
  EXPECT_EQ(mq_.GetDataOne(h_, 0, kPlainTag, 100, &value), S_OK);
  EXPECT_EQ(value, 5);
  value = 77;
  EXPECT_EQ(mq_.GetDataOne(h_, 0, kPlainTag, 101, &value), E_FAIL);  // no sample there
  EXPECT_EQ(value, 77);
}

// R2: a closed handle is not rejected; the insert silently does nothing.
TEST_F(CMQInterfaceSamples, InsertDataOneOnAClosedHandleSucceeds) {
  EXPECT_EQ(mq_.InsertDataOne(5, 0, kPlainTag, 100, 5), S_OK);
  EXPECT_EQ(mq_.InsertDataOne(-1, 0, kPlainTag, 100, 5), S_OK);
  EXPECT_EQ(mq_.InsertDataOne(2147483647, 0, kPlainTag, 100, 5), S_OK);
}

// R2 keeps S_OK for a program index the file does not have; the log tells that nothing
// was stored (and says nothing for a handle without a file).
TEST_F(CMQInterfaceSamples, InsertDataOneIntoAMissingProgramSucceedsStoresNothingAndIsLogged) {
  log::LogCapture log;
  EXPECT_EQ(mq_.InsertDataOne(h_, 3, kPlainTag, 100, 5), S_OK);
  EXPECT_TRUE(log.HasMessage("InsertDataOne: [" + std::to_string(h_) +
                             "] has no program 3; nothing stored"));
  int32_t size = 99;
  EXPECT_EQ(mq_.QueryOneTagSize(h_, 0, kPlainTag, &size), E_FAIL) << "none in program 0";
  log.Clear();
  EXPECT_EQ(mq_.InsertDataOne(5, 0, kPlainTag, 100, 5), S_OK);
  EXPECT_TRUE(log.HasMessage("InsertDataOne: [5] is not an open file; nothing stored"));
}

// A state tag keeps one bit of its value: 2 on tag 17 comes back as 0, and is logged.
TEST_F(CMQInterfaceSamples, AStateTagValueAboveOneIsLoggedAsCut) {
  log::LogCapture log;
  EXPECT_EQ(mq_.InsertDataOne(h_, 0, 17, 100, 1), S_OK);
  EXPECT_FALSE(log.Has("tag 17 is"));
  EXPECT_EQ(mq_.InsertDataOne(h_, 0, 17, 200, 2), S_OK);
  EXPECT_TRUE(log.Has("tag 17 is 1 bits wide; value 2"));
}

// Tag 50 is 8 bits wide: 104999 is stored and answered S_OK, and the log names the tag and
// its width, once per call. Values that fit, and a delta tag's counter, log nothing.
TEST_F(CMQInterfaceSamples, AValueWiderThanItsTagIsKeptAndLogged) {
  log::LogCapture log;
  EXPECT_EQ(mq_.InsertDataOne(h_, 0, 50, 100, 104999), S_OK);
  EXPECT_TRUE(log.Has("tag 50 is 8 bits wide; value 104999"));
  int32_t value = 0;
  EXPECT_EQ(mq_.GetDataOne(h_, 0, 50, 100, &value), S_OK);
  EXPECT_EQ(value, 104999) << "kept whole while the file is open";
  log.Clear();
  const MarquelOneTag tags[] = {{200, 300}, {300, -1}};
  int32_t inserted = 0;
  EXPECT_EQ(mq_.InsertDataPeriod(h_, 0, 50, tags, 2, &inserted), S_OK);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_TRUE(log.Has("tag 50 is 8 bits wide; value 300"));
  log.Clear();
  EXPECT_EQ(mq_.InsertDataOne(h_, 0, 50, 400, 255), S_OK);
  EXPECT_EQ(mq_.InsertDataOne(h_, 0, 254, 100, 700), S_OK);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(CMQInterfaceSamples, SizesFollowR5) {
  int32_t size = 99;
  EXPECT_EQ(mq_.QueryOneTagSize(h_, 0, kPlainTag, &size), E_FAIL);  // empty tag: 0
  EXPECT_EQ(size, 99);
  EXPECT_EQ(mq_.QueryOneTagSize(5, 0, kPlainTag, &size), S_OK);  // closed: -1 written
  EXPECT_EQ(size, -1);
  ASSERT_EQ(mq_.InsertDataOne(h_, 0, kPlainTag, 100, 5), S_OK);
  ASSERT_EQ(mq_.InsertDataOne(h_, 0, kPlainTag, 200, 6), S_OK);
  EXPECT_EQ(mq_.QueryOneTagSize(h_, 0, kPlainTag, &size), S_OK);
  EXPECT_EQ(size, 2);
  EXPECT_EQ(mq_.QueryOneTagPeriodSize(h_, 0, kPlainTag, 150, -1, &size), S_OK);
  EXPECT_EQ(size, 1);
}

TEST_F(CMQInterfaceSamples, InsertDataPeriodAndReadItBack) {
  std::vector<MarquelOneTag> in = {{10, 1}, {20, 2}, {30, 3}};
  EXPECT_EQ(mq_.InsertDataPeriod(h_, 0, kPlainTag, nullptr, 3), E_INVALIDARG);
  EXPECT_EQ(mq_.InsertDataPeriod(h_, 0, kPlainTag, in.data(), 0), E_INVALIDARG);
  EXPECT_EQ(mq_.InsertDataPeriod(h_, 0, kPlainTag, in.data(), -1), E_INVALIDARG);
  int32_t inserted = 0;
  EXPECT_EQ(mq_.InsertDataPeriod(h_, 0, kPlainTag, in.data(), 3, &inserted), S_OK);
  EXPECT_EQ(inserted, 3);
  EXPECT_EQ(mq_.InsertDataPeriod(5, 0, kPlainTag, in.data(), 3), E_FAIL);  // R3: -1 != 3

  std::vector<MarquelOneTag> out;
  EXPECT_EQ(mq_.GetDataAll(h_, 0, kPlainTag, 3, &out), S_OK);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[2].llTimeCode, 30);
  EXPECT_EQ(out[2].value, 3);
  EXPECT_EQ(mq_.GetDataPeriod(h_, 0, kPlainTag, 15, 30, 1, &out), S_OK);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].llTimeCode, 20);
}

// m is the caller's element count: exactly m records are handed out, and a request with
// more samples than m never writes past the temporary array.
TEST_F(CMQInterfaceSamples, ReadsHandOutExactlyM) {
  std::vector<MarquelOneTag> in = {{10, 1}, {20, 2}, {30, 3}};
  ASSERT_EQ(mq_.InsertDataPeriod(h_, 0, kPlainTag, in.data(), 3), S_OK);
  std::vector<MarquelOneTag> out;
  EXPECT_EQ(mq_.GetDataAll(h_, 0, kPlainTag, 2, &out), S_OK);
  EXPECT_EQ(out.size(), 2u);
  EXPECT_EQ(mq_.GetDataAll(h_, 0, kPlainTag, 5, &out), S_OK);
  ASSERT_EQ(out.size(), 5u);
  EXPECT_EQ(out[4].llTimeCode, 0);
}

TEST_F(CMQInterfaceSamples, ReadChecks) {
  std::vector<MarquelOneTag> out;
  EXPECT_EQ(mq_.GetDataAll(h_, 0, kPlainTag, 0, &out), E_INVALIDARG);
  EXPECT_EQ(mq_.GetDataAll(h_, 0, kPlainTag, -1, &out), E_INVALIDARG);
  EXPECT_EQ(mq_.GetDataAll(h_, 0, kPlainTag, 3, nullptr), E_INVALIDARG);
  EXPECT_EQ(mq_.GetDataAll(h_, 0, kPlainTag, 2147483647, &out), E_OUTOFMEMORY);
  EXPECT_EQ(mq_.GetDataAll(h_, 0, kPlainTag, 3, &out), E_FAIL);  // empty tag: 0
  // A closed handle reads -1, which is not 0: S_OK with m records of no meaning.
  EXPECT_EQ(mq_.GetDataAll(5, 0, kPlainTag, 2, &out), S_OK);
  EXPECT_EQ(out.size(), 2u);
}

TEST_F(CMQInterfaceSamples, ARawSampleBeyondTheCeilingIsRefusedAsAnInvalidArgument) {
  std::vector<uint8_t> big(kMaxRawSampleBytes + 1, 5);
  EXPECT_EQ(
      mq_.InsertRawDataOne(h_, 0, kRawTag, 100, kMaxRawSampleBytes + 1, big.data(), big.size()),
      E_INVALIDARG);
  // 1 MiB itself is kept where the tag's count field carries it (tag 32: 30 bits); tag 29's
  // 16-bit field carries 65,535 bytes, the smaller limit, and a longer sample fails.
  constexpr int32_t kWideRawTag = 32;
  EXPECT_EQ(
      mq_.InsertRawDataOne(h_, 0, kWideRawTag, 100, kMaxRawSampleBytes, big.data(), big.size()),
      S_OK);
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 100, kMaxRawSampleBytes, big.data(), big.size()),
            E_FAIL);
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 100, 65535, big.data(), big.size()), S_OK);
}

TEST_F(CMQInterfaceSamples, AReadInPiecesHandsOverOnlyTheSamplesThatExist) {
  for (int i = 0; i < 100; ++i) ASSERT_EQ(mq_.InsertDataOne(h_, 0, kPlainTag, i * 10, i), S_OK);
  int64_t delivered = -1;
  size_t pieces = 0, seen = 0;
  EXPECT_EQ(mq_.ReadPieces(
                h_, 0, kPlainTag, true, 0, -1, CMQInterface::kMaxReadSamples, 0,
                [&](const SampleRecord* records, size_t count) {
                  ++pieces;
                  seen += count;
                  EXPECT_EQ(records[0].llTimeCode, static_cast<int64_t>(seen - count) * 10);
                  return S_OK;
                },
                &delivered),
            S_OK);
  EXPECT_EQ(delivered, 100);
  EXPECT_EQ(seen, 100u);
  EXPECT_EQ(pieces, 1u);
  EXPECT_EQ(mq_.ReadPieces(
                h_, 0, kPlainTag, true, 0, -1, CMQInterface::kMaxReadSamples + 1, 0,
                [](const SampleRecord*, size_t) { return S_OK; }, &delivered),
            E_OUTOFMEMORY);
}

TEST_F(CMQInterfaceSamples, RawReadsPastTheirByteLimitAnswerOutOfMemory) {
  std::vector<uint8_t> bytes(1000, 1);
  for (int i = 0; i < 10; ++i)
    ASSERT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, i, 1000, bytes.data(), bytes.size()), S_OK);
  auto sink = [](const SampleRecord*, size_t) { return S_OK; };
  EXPECT_EQ(mq_.ReadPieces(h_, 0, kRawTag, true, 0, -1, 10, 9999, sink, nullptr), E_OUTOFMEMORY);
  EXPECT_EQ(mq_.ReadPieces(h_, 0, kRawTag, true, 0, -1, 10, 10000, sink, nullptr), S_OK);
}

TEST_F(CMQInterfaceSamples, RawSamples) {
  const uint8_t bytes[4] = {1, 2, 3, 4};
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 100, 4, bytes, 4), S_OK);
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 200, 4, bytes, 3), E_INVALIDARG);
  std::vector<uint8_t> out;
  EXPECT_EQ(mq_.GetRawDataOne(h_, 0, kRawTag, 100, 4, &out), S_OK);
  EXPECT_EQ(out, (std::vector<uint8_t>{1, 2, 3, 4}));
  EXPECT_EQ(mq_.GetRawDataOne(h_, 0, kRawTag, 100, 8, nullptr), S_OK);  // no buffer
  EXPECT_EQ(mq_.GetRawDataOne(h_, 0, kRawTag, 101, 8, &out), E_FAIL);
  int32_t sample_size = 0;
  EXPECT_EQ(mq_.QueryRawDataTagSampleSize(h_, 0, kRawTag, &sample_size), S_OK);
  EXPECT_EQ(sample_size, 4);
  EXPECT_EQ(mq_.QueryRawDataTagSampleSize(h_, 0, kPlainTag, &sample_size), E_INVALIDARG);
  EXPECT_EQ(mq_.QueryRawDataTagSampleSize(h_, 0, kRawTag, nullptr), E_INVALIDARG);
}

// Rule R2 passes -1 as success; a sample an open file does not store is E_FAIL instead.
TEST_F(CMQInterfaceSamples, InsertsThatAnOpenFileDoesNotStoreFail) {
  std::vector<uint8_t> bytes(70000, 5);
  ASSERT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 100, 4, bytes.data(), 4), S_OK);
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 200, 9000, bytes.data(), 9000), S_OK)
      << "longer than the first sample";
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 300, 0, nullptr, 0), S_OK) << "no bytes";
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 400, 65536, bytes.data(), 65536), E_FAIL)
      << "more than the tag's 16-bit count carries";
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, kPlainTag, 100, 2, bytes.data(), 2), E_FAIL);
  EXPECT_EQ(mq_.InsertDataOne(h_, 0, kRawTag, 500, 1), E_FAIL);
  std::vector<uint8_t> out;
  EXPECT_EQ(mq_.GetRawDataOne(h_, 0, kRawTag, 200, 9000, &out), S_OK);
  EXPECT_EQ(out, std::vector<uint8_t>(9000, 5));
  int32_t size = 0;
  EXPECT_EQ(mq_.QueryOneTagSize(h_, 0, kRawTag, &size), S_OK);
  EXPECT_EQ(size, 3);
  EXPECT_EQ(mq_.GetRawDataOne(h_, 0, kRawTag, 300, 0, &out), S_OK);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(mq_.QueryRawDataTagSampleSize(h_, 0, kRawTag, &size), S_OK);
  EXPECT_EQ(size, 4);
  // A record file that cannot be made is -1 inside the store; the client hears E_FAIL.
  setenv("TMPDIR", "/nonexistent-marquel-folder", 1);
  EXPECT_EQ(mq_.InsertRawDataOne(h_, 0, 30, 1, 2, bytes.data(), 2), E_FAIL);
  EXPECT_EQ(mq_.InsertDataOne(h_, 0, kPlainTag, 1, 1), E_FAIL);
}

TEST_F(CMQInterfaceSamples, GetRawDataOneWithAShortBufferIsInvalid) {
  const uint8_t bytes[4] = {1, 2, 3, 4};
  ASSERT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 100, 4, bytes, 4), S_OK);
  std::vector<uint8_t> out = {9};
  EXPECT_EQ(mq_.GetRawDataOne(h_, 0, kRawTag, 100, 3, &out), E_INVALIDARG);
  EXPECT_EQ(out, std::vector<uint8_t>{9});
}

TEST_F(CMQInterfaceSamples, RawCopyRuleOnCallerElements) {
  const uint8_t a[2] = {1, 2};
  const uint8_t b[2] = {3, 4};
  ASSERT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 100, 2, a, 2), S_OK);
  ASSERT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 200, 2, b, 2), S_OK);
  uint8_t big[4] = {0, 0, 0, 0};
  uint8_t small[1] = {9};
  MarquelRawDataTag list[3] = {{0, 4, big}, {0, 1, small}, {0, 7, nullptr}};
  EXPECT_EQ(mq_.GetRawDataAll(h_, 0, kRawTag, 3, list), S_OK);
  EXPECT_EQ(list[0].llTimeCode, 100);
  EXPECT_EQ(list[0].nLength, 2);
  EXPECT_EQ(big[1], 2);
  EXPECT_EQ(list[1].llTimeCode, 200);
  EXPECT_EQ(list[1].nLength, 1);  // too short: left as it was
  EXPECT_EQ(small[0], 9);
  EXPECT_EQ(list[2].nLength, 7);  // no buffer
  EXPECT_EQ(mq_.GetRawDataAll(h_, 0, kRawTag, 0, list), E_INVALIDARG);
  MarquelRawDataTag* none = nullptr;
  EXPECT_EQ(mq_.GetRawDataAll(h_, 0, kRawTag, 3, none), E_INVALIDARG);
  RawSampleColumns columns;
  EXPECT_EQ(mq_.GetRawDataPeriod(h_, 0, kRawTag, 150, -1, 1, &columns), S_OK);
  ASSERT_EQ(columns.size(), 1u);
  EXPECT_EQ(columns.bytes, (std::vector<uint8_t>{3, 4}));
}

TEST_F(CMQInterfaceSamples, TagListsAndCounts) {
  const uint8_t bytes[2] = {1, 2};
  ASSERT_EQ(mq_.InsertDataOne(h_, 0, kPlainTag, 100, 5), S_OK);
  ASSERT_EQ(mq_.InsertDataOne(h_, 0, 41, 100, 5), S_OK);
  ASSERT_EQ(mq_.InsertRawDataOne(h_, 0, kRawTag, 100, 2, bytes, 2), S_OK);
  int32_t count = 0;
  EXPECT_EQ(mq_.QueryOneFileTagCount(h_, 0, nullptr), E_FAIL);
  EXPECT_EQ(mq_.QueryOneFileTagCount(h_, 0, &count), S_OK);  // plain tags
  EXPECT_EQ(count, 2);
  EXPECT_EQ(mq_.QueryOneFileTagCount(9, 0, &count), S_OK);  // R6: -1 written
  EXPECT_EQ(count, -1);
  std::vector<int32_t> ids;
  EXPECT_EQ(mq_.QueryOneFileTagList(h_, 0, 1, &ids), E_FAIL);  // R3, all written
  EXPECT_EQ(ids, (std::vector<int32_t>{kPlainTag, 41}));
  EXPECT_EQ(mq_.QueryOneFileTagList(h_, 0, 2, &ids), S_OK);
  EXPECT_EQ(mq_.QueryOneFileRawDataTagCount(h_, 0, &count), S_OK);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(mq_.QueryOneFileRawDataTagCount(9, 0, &count), S_OK);
  EXPECT_EQ(count, -1);
  std::vector<int32_t> sizes;
  EXPECT_EQ(mq_.QueryOneFileRawDataTagList(h_, 0, 1, &ids, nullptr), E_INVALIDARG);
  EXPECT_EQ(mq_.QueryOneFileRawDataTagList(h_, 0, 1, nullptr, &sizes, true), E_INVALIDARG);
  EXPECT_EQ(mq_.QueryOneFileRawDataTagList(h_, 0, 1, &ids, &sizes), S_OK);
  EXPECT_EQ(ids, std::vector<int32_t>{kRawTag});
  EXPECT_EQ(sizes, std::vector<int32_t>{2});
}

TEST_F(CMQInterfaceSamples, IntervalsAndOffsets) {
  std::vector<MarquelOneTag> in = {{0, 1}, {400000, 2}, {100000000, 3}};
  ASSERT_EQ(mq_.InsertDataPeriod(h_, 0, kPlainTag, in.data(), 3), S_OK);
  int32_t size = 0;
  EXPECT_EQ(mq_.QueryValidIntervalSize(h_, 0, kPlainTag, &size), S_OK);
  EXPECT_GE(size, 1);
  std::vector<int64_t> starts, ends;
  EXPECT_EQ(mq_.QueryValidInterval(h_, 0, kPlainTag, size, &starts, &ends), S_OK);
  EXPECT_EQ(starts.size(), static_cast<size_t>(size));
  EXPECT_EQ(mq_.QueryValidInterval(h_, 0, kPlainTag, 2147483647, &starts, &ends), E_FAIL);
  EXPECT_EQ(mq_.QueryValidIntervalSize(9, 0, kPlainTag, &size), S_OK);  // R4
  EXPECT_EQ(size, -1);
  EXPECT_EQ(mq_.SetTimeIntervalForTag(h_, 0, kPlainTag, 1000), S_OK);
  EXPECT_EQ(mq_.SetTimeIntervalForTag(9, 0, kPlainTag, 1000), E_FAIL);
  EXPECT_EQ(mq_.MinusTimeOffset(h_, 0), S_OK);
  EXPECT_EQ(mq_.MinustTimeOffsetForOneTag(h_, kPlainTag, 0), S_OK);
  EXPECT_EQ(mq_.MinusTimeOffsetForOneCategory(h_, 0, 0), S_OK);
  EXPECT_EQ(mq_.MinusTimeOffset(9, 0), E_FAIL);
}

TEST_F(CMQInterfaceSamples, PeriodsOverTwoHandles) {
  int32_t target = -1;
  ASSERT_EQ(mq_.InitialFile(MediaFile("b.mpg"), 0, 0, &target), S_OK);
  std::vector<MarquelOneTag> in = {{10, 1}, {20, 2}, {30, 3}};
  ASSERT_EQ(mq_.InsertDataPeriod(h_, 0, kPlainTag, in.data(), 3), S_OK);
  EXPECT_EQ(mq_.CopyDataPeriod(target, h_, 1000, 0, -1, 1, 1), S_OK);
  int32_t size = 0;
  EXPECT_EQ(mq_.QueryOneTagSize(target, 0, kPlainTag, &size), S_OK);
  EXPECT_EQ(size, 3);
  EXPECT_EQ(mq_.MoveDataPeriodForOneTag(target, h_, kPlainTag, 0, 0, 25, 1, 1), S_OK);
  EXPECT_EQ(mq_.QueryOneTagSize(h_, 0, kPlainTag, &size), S_OK);
  EXPECT_EQ(size, 1);
  EXPECT_EQ(mq_.CopyDataPeriodForOneCategory(target, h_, 0, 0, 0, -1, 1, 1), S_OK);
  EXPECT_EQ(mq_.MoveDataPeriodForOneCategory(target, h_, 0, 0, 0, -1, 1, 1), S_OK);
  EXPECT_EQ(mq_.CopyDataPeriodForOneTag(target, 9, kPlainTag, 0, 0, -1, 1, 1), E_FAIL);
  EXPECT_EQ(mq_.MoveDataPeriod(9, h_, 0, 0, -1, 1, 1), E_FAIL);
  EXPECT_EQ(mq_.DeleteDataPeriodForOneTag(target, kPlainTag, 0, -1), S_OK);
  EXPECT_EQ(mq_.DeleteDataPeriodForOneCategory(target, 0, 0, -1), S_OK);
  EXPECT_EQ(mq_.DeleteDataPeriod(target, 0, -1), S_OK);
  EXPECT_EQ(mq_.DeleteDataPeriod(9, 0, -1), E_FAIL);
}

}  // namespace
}  // namespace marquel
