// Pack-header clocks: read back what was written, in both layouts, with every marker bit
// kept, and stepped evenly between two neighbours.
#include "media/pack_clock.h"

#include <gtest/gtest.h>

#include <vector>

namespace marquel {
namespace {

std::vector<uint8_t> Mpeg2Pack() {
  // 00 00 01 BA, clock 0 with markers, mux rate 25200 with markers, no stuffing.
  return {0x00, 0x00, 0x01, 0xBA, 0x44, 0x00, 0x04, 0x00, 0x04, 0x01,
          0x01, 0x89, 0xC3, 0xF8};
}
std::vector<uint8_t> Mpeg1Pack() {
  return {0x00, 0x00, 0x01, 0xBA, 0x21, 0x00, 0x01, 0x00, 0x01, 0x80, 0x1B, 0x91};
}

TEST(PackClock, AnMpeg2ClockReadsBackWithItsExtensionAndTheRestOfTheHeaderUnchanged) {
  std::vector<uint8_t> pack = Mpeg2Pack();
  const PackClock clock{(uint64_t{1} << 33) - 12345, 299};
  ASSERT_TRUE(WritePackClock(pack.data(), pack.size(), clock));
  PackClock got;
  ASSERT_TRUE(ReadPackClock(pack.data(), pack.size(), &got));
  EXPECT_EQ(got.base, clock.base);
  EXPECT_EQ(got.ext, 299u);
  EXPECT_EQ(pack[4] & 0xC4, 0x44) << "'01' and the first marker";
  EXPECT_EQ(pack[6] & 0x04, 0x04);
  EXPECT_EQ(pack[8] & 0x04, 0x04);
  EXPECT_EQ(pack[9] & 0x01, 0x01);
  const std::vector<uint8_t> original = Mpeg2Pack();
  EXPECT_EQ(std::vector<uint8_t>(pack.begin() + 10, pack.end()),
            std::vector<uint8_t>(original.begin() + 10, original.end()))
      << "the mux rate stays";
}

TEST(PackClock, AnMpeg1ClockReadsBackAndKeepsItsMarkers) {
  std::vector<uint8_t> pack = Mpeg1Pack();
  const PackClock clock{0x1ABCDEF01, 0};
  ASSERT_TRUE(WritePackClock(pack.data(), pack.size(), clock));
  PackClock got;
  ASSERT_TRUE(ReadPackClock(pack.data(), pack.size(), &got));
  EXPECT_EQ(got.base, clock.base);
  EXPECT_EQ(got.ext, 0u);
  EXPECT_EQ(pack[4] & 0xF1, 0x21);
  EXPECT_EQ(pack[6] & 0x01, 0x01);
  EXPECT_EQ(pack[8] & 0x01, 0x01);
  EXPECT_EQ(pack[9], 0x80) << "the mux rate stays";
}

TEST(PackClock, BytesThatAreNoPackHeaderAreNeitherReadNorWritten) {
  std::vector<uint8_t> packet = {0x00, 0x00, 0x01, 0xE0, 0x44, 0, 4, 0, 4, 1, 1, 0x89, 0xC3, 0xF8};
  const std::vector<uint8_t> before = packet;
  PackClock got;
  EXPECT_FALSE(ReadPackClock(packet.data(), packet.size(), &got));
  EXPECT_FALSE(WritePackClock(packet.data(), packet.size(), PackClock{5, 5}));
  EXPECT_EQ(packet, before);
  std::vector<uint8_t> shortPack = Mpeg2Pack();
  EXPECT_FALSE(ReadPackClock(shortPack.data(), 11, &got)) << "cut before the clock ends";
}

TEST(PackClock, StepsLieEvenlyBetweenTheNeighboursAndStopAtAClockRestart) {
  const PackClock previous = PackClock::FromFull(3000);
  const PackClock next = PackClock::FromFull(6000);
  EXPECT_EQ(SteppedClock(previous, next, 1, 2).Full(), 4000u);
  EXPECT_EQ(SteppedClock(previous, next, 2, 2).Full(), 5000u);
  EXPECT_EQ(SteppedClock(previous, next, 1, 1).Full(), 4500u);
  EXPECT_EQ(SteppedClock(next, previous, 1, 2).Full(), 6000u) << "a restart repeats the clock";
  EXPECT_EQ(SteppedClock(previous, previous, 1, 3).Full(), 3000u);
}

}  // namespace
}  // namespace marquel
