// The end record's bytes, its checks, and the finder working from the end of a file.
#include "media/mq_end_record.h"

#include <gtest/gtest.h>

#include <cstdio>

#include <string>
#include <vector>

#include "media/mq_pack_muxer.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using Bytes = std::vector<uint8_t>;

MQEndRecord Record(int64_t start) {
  MQEndRecord r;
  r.start_address = start;
  r.original_mtime = 0x0102030405060708;
  r.original_size = static_cast<uint64_t>(start);
  return r;
}

// `prefix` bytes of stand-in media, then the MQ packs of `payload` bytes with the record.
Bytes FileWithData(int32_t type, size_t prefix, size_t payload, MQEndRecord* used = nullptr,
                   int64_t start = -1) {
  Bytes file(prefix, 0x00);
  for (size_t i = 0; i < prefix; ++i) file[i] = static_cast<uint8_t>(i * 7);
  MQPackMuxer m;
  m.SetType(type);
  EXPECT_EQ(m.Initialise(0), 1);
  Bytes data(payload, 0x5A);
  size_t at = 0;
  Bytes out(MQPackMuxer::kDefaultOutputBytes);
  while (at < payload) at += m.Feed(data.data() + at, payload - at);
  MQEndRecord r = Record(start >= 0 ? start : static_cast<int64_t>(prefix));
  if (used) *used = r;
  EXPECT_EQ(m.Flush(&r), 1);
  size_t n = m.TakeOutput(out.data(), out.size());
  file.insert(file.end(), out.begin(), out.begin() + static_cast<long>(n));
  return file;
}

std::optional<FoundMQEndRecord> Find(const Bytes& file) {
  size_t n = std::min(file.size(), kMQEndRecordSearchBytes);
  size_t off = file.size() - n;
  return FindMQEndRecordInTail(file.data() + off, n, static_cast<int64_t>(off),
                               static_cast<int64_t>(file.size()));
}

TEST(MQEndRecord, SerialisesBigEndianWithTheMarkerAndMinusOne) {
  Bytes b(36);
  SerialiseMQEndRecord(Record(0x1122334455), b.data());
  const Bytes want = {0,    0,    1,    0xFF, 0,    0,    0,    0x11, 0x22, 0x33, 0x44, 0x55,
                      1,    2,    3,    4,    5,    6,    7,    8,    0,    0,    0,    0x11,
                      0x22, 0x33, 0x44, 0x55, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(b, want);
  MQEndRecord back;
  ASSERT_TRUE(ParseMQEndRecord(b.data(), 0x1122334455 + 10, 0x1122334455 + 100, &back));
  EXPECT_EQ(back.start_address, 0x1122334455);
  EXPECT_EQ(back.original_mtime, 0x0102030405060708);
  EXPECT_EQ(back.original_size, 0x1122334455u);
  EXPECT_EQ(back.last, -1);
}

TEST(MQEndRecord, ParseRefusesEveryBrokenField) {
  Bytes good(36);
  SerialiseMQEndRecord(Record(1000), good.data());
  MQEndRecord out;
  ASSERT_TRUE(ParseMQEndRecord(good.data(), 3000, 4000, &out));
  Bytes b = good;
  b[3] = 0xFE;  // marker
  EXPECT_FALSE(ParseMQEndRecord(b.data(), 3000, 4000, &out));
  b = good;
  b[35] = 0xFE;  // last field not -1
  EXPECT_FALSE(ParseMQEndRecord(b.data(), 3000, 4000, &out));
  b = good;
  b[4] = 0x80;  // negative start
  EXPECT_FALSE(ParseMQEndRecord(b.data(), 3000, 4000, &out));
  EXPECT_FALSE(ParseMQEndRecord(good.data(), 3000, 1000, &out));  // start at the file size
  EXPECT_FALSE(ParseMQEndRecord(good.data(), 1000, 4000, &out));  // start not before record
  MQEndRecord small = Record(1000);
  small.original_size = 999;  // size below the start
  SerialiseMQEndRecord(small, b.data());
  EXPECT_FALSE(ParseMQEndRecord(b.data(), 3000, 4000, &out));
}

TEST(MQEndRecord, AMergedRecordKeepsTheRegionsEndInItsLastField) {
  MQEndRecord merged = Record(1000);
  merged.last = 2500;
  Bytes b(36);
  SerialiseMQEndRecord(merged, b.data());
  MQEndRecord out;
  ASSERT_TRUE(ParseMQEndRecord(b.data(), 3000, 4000, &out));
  EXPECT_EQ(out.last, 2500);
  EXPECT_TRUE(ParseMQEndRecord(b.data(), 2500, 4000, &out)) << "the region may end at the record";
  EXPECT_FALSE(ParseMQEndRecord(b.data(), 2400, 4000, &out)) << "an end after the record";
  merged.last = 1000;
  SerialiseMQEndRecord(merged, b.data());
  EXPECT_FALSE(ParseMQEndRecord(b.data(), 3000, 4000, &out)) << "an end not past the start";
}

TEST(MQEndRecord, FinderFindsTheRecordOfEveryMuxerType) {
  for (int32_t type : {1, 2, 3, 4, 5, 6}) {
    for (size_t payload : {0u, 1u, 2025u, 2244u, 2288u, 2290u, 20000u}) {
      MQEndRecord r;
      Bytes file = FileWithData(type, 70001, payload, &r);
      auto found = Find(file);
      ASSERT_TRUE(found.has_value()) << type << " " << payload;
      EXPECT_EQ(found->record.start_address, r.start_address);
      EXPECT_EQ(found->record.original_size, r.original_size);
      EXPECT_EQ(found->record.original_mtime, r.original_mtime);
      EXPECT_EQ(Bytes(file.begin() + found->offset, file.begin() + found->offset + 4),
                (Bytes{0, 0, 1, 0xFF}));
    }
  }
}

TEST(MQEndRecord, FinderFindsNothingWithoutData) {
  Bytes plain(10000, 0x47);
  EXPECT_FALSE(Find(plain).has_value());
  EXPECT_FALSE(Find(Bytes{}).has_value());
  Bytes tiny = {0, 0, 1, 0xBA};
  EXPECT_FALSE(Find(tiny).has_value());
}

TEST(MQEndRecord, ADamagedLastPackYieldsNothing) {
  Bytes file = FileWithData(2, 5000, 9000);
  Bytes b = file;
  b[b.size() - 2048 + 18] ^= 0x01;  // the last data packet's length
  EXPECT_FALSE(Find(b).has_value());
  b = file;
  b.pop_back();  // cut short
  EXPECT_FALSE(Find(b).has_value());
  b = file;
  b.push_back(0);  // something after the packs
  EXPECT_FALSE(Find(b).has_value());
}

TEST(MQEndRecord, ADamagedRecordYieldsNothing) {
  MQEndRecord r;
  Bytes file = FileWithData(1, 5000, 100, &r);
  auto found = Find(file);
  ASSERT_TRUE(found.has_value());
  Bytes b = file;
  b[static_cast<size_t>(found->offset) + 30] = 0;  // the -1
  EXPECT_FALSE(Find(b).has_value());
  bool damaged = false;
  EXPECT_FALSE(
      FindMQEndRecordInTail(b.data(), b.size(), 0, static_cast<int64_t>(b.size()), &damaged));
  EXPECT_TRUE(damaged);
  EXPECT_TRUE(FindMQEndRecordInTail(file.data(), file.size(), 0, static_cast<int64_t>(file.size()),
                                    &damaged));
  EXPECT_FALSE(damaged);
}

TEST(MQEndRecord, FinderReadsOnlyTheEndOfTheFile) {
  // 64 MiB of hole, then the packs: the finder reads only their end.
  const int64_t start = int64_t{64} << 20;
  Bytes packs = FileWithData(2, 0, 3000, nullptr, start);
  std::string path = test::TestPath("big.mpg");
  FILE* f = fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(fseeko(f, start, SEEK_SET), 0);
  ASSERT_EQ(fwrite(packs.data(), 1, packs.size(), f), packs.size());
  fclose(f);
  FileHandle h = OpenRegularFile(path, GENERIC_READ);
  ASSERT_NE(h, kInvalidFileHandle);
  auto found = FindMQEndRecord(h);
  CloseFileHandle(h);
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(found->record.start_address, start);
  EXPECT_EQ(found->offset, start + 2048 + 14 + 9 + (3000 - 2025));
}

}  // namespace
}  // namespace marquel
