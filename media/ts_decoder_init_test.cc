// CTSSysDec::InitFromData: the unit size found from the sync bytes of a buffer, and the
// buffers too small or too irregular to tell.
#include <gtest/gtest.h>

#include "media/ts_decoder.h"
#include "ts_test_builder.h"

namespace marquel {
namespace {

using test::Bytes;

TEST(CTSSysDecTest, InitFromDataFindsEachUnitSize) {
  std::vector<Bytes> packets(12, test::NullPacket());
  for (int size : {188, 192, 204}) {
    CTSSysDec dec;
    Bytes bytes = test::Units(packets, size);
    EXPECT_EQ(dec.InitFromData(bytes.data(), static_cast<int32_t>(bytes.size())), 1) << size;
    EXPECT_EQ(dec.GetUnitSize(), size);
  }
}

TEST(CTSSysDecTest, InitFromDataNeedsSixSyncsAndMoreThan2040Bytes) {
  CTSSysDec dec;
  Bytes bytes = test::Units(std::vector<Bytes>(12, test::NullPacket()), 188);
  EXPECT_EQ(dec.InitFromData(bytes.data(), 2040), 0);
  EXPECT_EQ(dec.GetUnitSize(), -1);
  EXPECT_EQ(dec.InitFromData(nullptr, 5000), 0);
  Bytes garbage(5000, 0x47);
  for (size_t i = 1; i < garbage.size(); i += 2) garbage[i] = 0x12;  // 0x47 only at even places
  EXPECT_EQ(dec.InitFromData(garbage.data(), static_cast<int32_t>(garbage.size())), 1);
  EXPECT_EQ(dec.GetUnitSize(), 188);  // a run at even steps: 188 is tried first
  Bytes none(5000, 0x00);
  none[100] = 0x47;
  CTSSysDec dec2;
  EXPECT_EQ(dec2.InitFromData(none.data(), static_cast<int32_t>(none.size())), 0);
  EXPECT_EQ(dec2.Feed(none.data(), 100), -1);
}

TEST(CTSSysDecTest, InitFromDataNeedsRoomForThe192Prefix) {
  // Sync bytes at 3, 195, 387, ...: a 192-byte run whose prefix would start before the
  // data, so that size is not tried at position 3.
  Bytes bytes(4000, 0x00);
  for (size_t p = 3; p < bytes.size(); p += 192) bytes[p] = 0x47;
  CTSSysDec dec;
  EXPECT_EQ(dec.InitFromData(bytes.data(), static_cast<int32_t>(bytes.size())), 1);
  EXPECT_EQ(dec.GetUnitSize(), 192);  // found again at position 195
  Bytes short_run(2300, 0x00);
  for (size_t p = 3; p < short_run.size(); p += 192) short_run[p] = 0x47;
  short_run[195 + 192 * 5] = 0;  // only the run from position 3 remains
  CTSSysDec dec2;
  EXPECT_EQ(dec2.InitFromData(short_run.data(), static_cast<int32_t>(short_run.size())), 0);
}

TEST(CTSSysDecTest, InitFromDataOnEmptyAndTinyBuffers) {
  CTSSysDec dec;
  const uint8_t one[1] = {0x47};
  EXPECT_EQ(dec.InitFromData(one, 0), 0);
  EXPECT_EQ(dec.InitFromData(one, 1), 0);
  EXPECT_EQ(dec.InitFromData(one, -5), 0);
  EXPECT_EQ(dec.GetUnitSize(), -1);
}

}  // namespace
}  // namespace marquel
