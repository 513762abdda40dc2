#include "media/ac3_probe.h"

#include <gtest/gtest.h>

namespace marquel {
namespace {

TEST(Ac3Probe, NeedsSixBytes) {
  const uint8_t header[6] = {0x0B, 0x77, 0x12, 0x34, 0x0E, 0x40};
  EXPECT_EQ(ProbeAc3BitRate(header, 5), kAc3NeedMoreData);
  EXPECT_EQ(ProbeAc3BitRate(nullptr, 6), kAc3NeedMoreData);
  EXPECT_EQ(ProbeAc3BitRate(header, 6), 112);
}

TEST(Ac3Probe, SyncWordPasses) {
  uint8_t header[6] = {0x0B, 0x77, 0, 0, 0x00, 0};
  EXPECT_EQ(ProbeAc3BitRate(header, 6), 32);
  header[4] = 0x25;  // code 37, the last one
  EXPECT_EQ(ProbeAc3BitRate(header, 6), 640);
  header[4] = 0xC0 | 0x12;  // the sample-rate bits above the code are ignored
  EXPECT_EQ(ProbeAc3BitRate(header, 6), 160);
}

// The sync test is a mask: a first word with more bits than 0x770B set passes too.
TEST(Ac3Probe, MaskedSyncAcceptsAnUnequalWord) {
  const uint8_t ff[6] = {0xFF, 0xFF, 0, 0, 0x08, 0};
  EXPECT_EQ(ProbeAc3BitRate(ff, 6), 64);
  const uint8_t other[6] = {0x0F, 0x7F, 0, 0, 0x1C, 0};  // word 0x7F0F
  EXPECT_EQ(ProbeAc3BitRate(other, 6), 384);
}

TEST(Ac3Probe, MissingSyncBitsFail) {
  const uint8_t swapped[6] = {0x77, 0x0B, 0, 0, 0x00, 0};  // big-endian order
  EXPECT_EQ(ProbeAc3BitRate(swapped, 6), 0);
  const uint8_t one_bit_short[6] = {0x0A, 0x77, 0, 0, 0x00, 0};
  EXPECT_EQ(ProbeAc3BitRate(one_bit_short, 6), 0);
}

TEST(Ac3Probe, FrameSizeCodeMustBeBelow38) {
  uint8_t header[6] = {0x0B, 0x77, 0, 0, 38, 0};
  EXPECT_EQ(ProbeAc3BitRate(header, 6), 0);
  header[4] = 0x3F;
  EXPECT_EQ(ProbeAc3BitRate(header, 6), 0);
}

TEST(Ac3Probe, WholeTableTwoCodesPerRate) {
  const int32_t rates[19] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                             192, 224, 256, 320, 384, 448, 512, 576, 640};
  uint8_t header[6] = {0x0B, 0x77, 0, 0, 0, 0};
  for (int code = 0; code < 38; ++code) {
    header[4] = static_cast<uint8_t>(code);
    EXPECT_EQ(ProbeAc3BitRate(header, 6), rates[code / 2]) << "code " << code;
  }
  EXPECT_EQ(Ac3BytesPerSecond(448), 56000);
  EXPECT_EQ(Ac3BytesPerSecond(0), 0);
}

}  // namespace
}  // namespace marquel
