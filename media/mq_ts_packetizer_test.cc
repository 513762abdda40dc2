// The MQ packetizer: packet headers, the counter, the padding and the unit sizes.
#include "media/mq_ts_packetizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace marquel {
namespace {

using Bytes = std::vector<uint8_t>;

struct Output {
  Bytes bytes;
  int blocks = 0;
};

Bytes Packetize(int32_t unit, uint16_t pid, const Bytes& payload, Output* out = nullptr) {
  Output local;
  Output* o = out ? out : &local;
  MQTsPacketizer p(unit, pid, [o](const uint8_t* b, size_t n) {
    o->bytes.insert(o->bytes.end(), b, b + n);
    ++o->blocks;
    return true;
  });
  EXPECT_TRUE(p.Feed(payload.data(), payload.size()));
  EXPECT_TRUE(p.Finish());
  return o->bytes;
}

Bytes Counting(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 7 + 3);
  return b;
}

TEST(MQTsPacketizer, EveryHeaderBitIsAsReadersExpect) {
  const Bytes out = Packetize(188, 8160, Counting(183));
  ASSERT_EQ(out.size(), 188u);
  EXPECT_EQ(out[0], 0x47);
  // Transport error 0, payload unit start 1, priority 0, then PID 8160 = 0x1FE0.
  EXPECT_EQ(out[1], 0x40 | 0x1F);
  EXPECT_EQ(out[2], 0xE0);
  // Not scrambled, payload only, counter 0; then the pointer field.
  EXPECT_EQ(out[3], 0x10);
  EXPECT_EQ(out[4], 0x00);
  EXPECT_EQ(Bytes(out.begin() + 5, out.end()), Counting(183));
}

TEST(MQTsPacketizer, TheCounterStartsAtZeroAndWrapsAfterFifteen) {
  const Bytes out = Packetize(188, 8128, Counting(183 * 20));
  ASSERT_EQ(out.size(), 188u * 20);
  for (size_t i = 0; i < 20; ++i) {
    EXPECT_EQ(out[i * 188 + 3], 0x10 | (i % 16)) << "packet " << i;
    EXPECT_EQ(out[i * 188 + 1] & 0x40, 0x40) << "payload unit start in packet " << i;
  }
}

TEST(MQTsPacketizer, StreamsFedApartFormOneContinuousPayload) {
  Output o;
  MQTsPacketizer p(188, 8160, [&o](const uint8_t* b, size_t n) {
    o.bytes.insert(o.bytes.end(), b, b + n);
    return true;
  });
  const Bytes all = Counting(400);
  ASSERT_TRUE(p.Feed(all.data(), 26));
  ASSERT_TRUE(p.Feed(all.data() + 26, 300));
  ASSERT_TRUE(p.Feed(all.data() + 326, 74));
  ASSERT_TRUE(p.Finish());
  ASSERT_EQ(o.bytes.size(), 3u * 188);
  Bytes payload;
  for (size_t i = 0; i < 3; ++i) {
    payload.insert(payload.end(), o.bytes.begin() + i * 188 + 5, o.bytes.begin() + i * 188 + 188);
  }
  EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 400), all);
}

TEST(MQTsPacketizer, TheLastPacketIsPaddedWithFF) {
  const Bytes out = Packetize(188, 8160, Counting(190));
  ASSERT_EQ(out.size(), 2u * 188);
  const size_t last = 188 + 5;
  EXPECT_EQ(out[last], Counting(190)[183]);
  EXPECT_EQ(out[last + 6], Counting(190)[189]);
  for (size_t i = last + 7; i < out.size(); ++i) EXPECT_EQ(out[i], 0xFF) << i;
  // A payload of whole packets gets no extra packet.
  EXPECT_EQ(Packetize(188, 8160, Counting(366)).size(), 2u * 188);
  EXPECT_TRUE(Packetize(188, 8160, Bytes()).empty());
}

TEST(MQTsPacketizer, UnitsOf192And204CarryTheirPrefixOfFF) {
  for (const int32_t unit : {192, 204}) {
    const size_t prefix = unit == 192 ? 4 : 16;
    const Bytes out = Packetize(unit, 8160, Counting(183 * 2));
    ASSERT_EQ(out.size(), 2u * static_cast<size_t>(unit));
    for (size_t k = 0; k < 2; ++k) {
      const size_t at = k * static_cast<size_t>(unit);
      for (size_t i = 0; i < prefix; ++i) EXPECT_EQ(out[at + i], 0xFF);
      EXPECT_EQ(out[at + prefix], 0x47);
      EXPECT_EQ(out[at + prefix + 3], 0x10 | k);
      EXPECT_EQ(out[at + prefix + 5], Counting(366)[k * 183]);
    }
  }
  EXPECT_EQ(TsUnitPrefixBytes(188), 0);
  EXPECT_EQ(TsUnitPrefixBytes(190), -1);
}

TEST(MQTsPacketizer, AnUnknownUnitSizeMakesNothing) {
  int calls = 0;
  MQTsPacketizer p(200, 8160, [&calls](const uint8_t*, size_t) { return ++calls > 0; });
  const Bytes b = Counting(10);
  EXPECT_FALSE(p.Valid());
  EXPECT_FALSE(p.Feed(b.data(), b.size()));
  EXPECT_FALSE(p.Finish());
  EXPECT_EQ(calls, 0);
}

TEST(MQTsPacketizer, LargePayloadsGoOutInBoundedBlocksOfWholePackets) {
  Output o;
  size_t largest = 0;
  MQTsPacketizer p(192, 8160, [&](const uint8_t* b, size_t n) {
    largest = std::max(largest, n);
    EXPECT_EQ(n % 192, 0u);
    o.bytes.insert(o.bytes.end(), b, b + n);
    ++o.blocks;
    return true;
  });
  const Bytes big = Counting(2000000);
  ASSERT_TRUE(p.Feed(big.data(), big.size()));
  ASSERT_TRUE(p.Finish());
  EXPECT_LE(largest, MQTsPacketizer::kBlockBytes);
  EXPECT_GT(o.blocks, 1);
  EXPECT_EQ(o.bytes.size(), p.PacketCount() * 192);
  EXPECT_EQ(p.PacketCount(), (2000000 + 182) / 183);
}

TEST(MQTsPacketizer, AFailedSinkStopsThePacketizer) {
  MQTsPacketizer p(188, 8160, [](const uint8_t*, size_t) { return false; });
  const Bytes b = Counting(100);
  ASSERT_TRUE(p.Feed(b.data(), b.size()));
  EXPECT_FALSE(p.Finish());
  EXPECT_FALSE(p.Feed(b.data(), b.size()));
}

}  // namespace
}  // namespace marquel
