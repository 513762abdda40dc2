// The shared program-stream syntax helpers: start-code search and PES headers.
#include "mpeg_ps_syntax.h"

#include <gtest/gtest.h>

#include <random>

#include "ps_test_builder.h"

namespace marquel::ps {
namespace {

using pstest::Bytes;

size_t NaiveFind(const Bytes& b, size_t from, size_t end) {
  for (size_t p = from; p < end; ++p) {
    if (b[p] == 0 && b[p + 1] == 0 && b[p + 2] == 1) return p;
  }
  return end;
}

TEST(FindStartCodePrefix, AgreesWithAByteByByteSearch) {
  std::mt19937 rng(11);
  for (int density : {2, 3, 8, 256}) {  // one value in `density` is 0 or 1
    Bytes b(300);
    for (auto& x : b) {
      const uint32_t r = rng();
      x = r % density == 0 ? static_cast<uint8_t>(r >> 8 & 1) : static_cast<uint8_t>(2 + r % 254);
    }
    for (size_t from = 0; from < 40; ++from) {
      for (size_t end = from; end + 2 <= b.size(); end += 7) {
        ASSERT_EQ(FindStartCodePrefix(b.data(), from, end), NaiveFind(b, from, end))
            << density << " " << from << " " << end;
      }
    }
  }
}

TEST(FindStartCodePrefix, EveryPlaceInABlock) {
  // Blocks of 32 bytes are tested at once; positions 30 and 31 reach into the next one.
  for (size_t at = 0; at < 70; ++at) {
    Bytes b(76, 0xAA);
    b[at] = 0;
    b[at + 1] = 0;
    b[at + 2] = 1;
    EXPECT_EQ(FindStartCodePrefix(b.data(), 0, 74), at);
    EXPECT_EQ(FindStartCodePrefix(b.data(), 0, at), at);        // end excludes it
    EXPECT_EQ(FindStartCodePrefix(b.data(), at + 1, 74), 74u);  // from is past it
    if (at >= 3) {
      EXPECT_EQ(FindStartCodePrefix(b.data(), at - 3, 74), at);
    }
    b[at + 2] = 2;
    EXPECT_EQ(FindStartCodePrefix(b.data(), 0, 74), 74u);
  }
  Bytes zeros(76, 0);
  EXPECT_EQ(FindStartCodePrefix(zeros.data(), 0, 74), 74u);
  zeros[40] = 1;
  EXPECT_EQ(FindStartCodePrefix(zeros.data(), 0, 74), 38u);
  zeros[33] = 1;
  EXPECT_EQ(FindStartCodePrefix(zeros.data(), 0, 74), 31u);
  zeros[32] = 1;
  EXPECT_EQ(FindStartCodePrefix(zeros.data(), 0, 74), 30u);
}

TEST(PesHeader, Mpeg2TimeStampsAndFlags) {
  // PTS and DTS, ESCR and ES rate.
  Bytes p = {0x00, 0x00, 0x01, 0xE0, 0x00, 0x00, 0x85, 0xF0, 19};
  pstest::Append(&p, pstest::TimeStamp(0x3, 90000));
  pstest::Append(&p, pstest::TimeStamp(0x1, 86400));
  pstest::Append(&p, {0x04, 0x00, 0x04, 0x00, 0x04, 0x01});  // ESCR base 0, ext 0
  pstest::Append(&p, {0x80, 0x00, 0x03});                    // ES rate 1
  pstest::Append(&p, {0xAA, 0xBB});
  p[5] = static_cast<uint8_t>(p.size() - 6);
  const PesHeader h = ParseMpeg2PesHeader(p.data(), static_cast<uint32_t>(p.size()));
  ASSERT_TRUE(h.valid);
  EXPECT_EQ(h.pts, 90000u);
  EXPECT_EQ(h.dts, 86400u);
  EXPECT_TRUE(h.has_dts);
  EXPECT_EQ(h.escr_flag, 1);
  EXPECT_EQ(h.es_rate, 1u);
  EXPECT_EQ(h.alignment, 1);
  EXPECT_EQ(h.original, 1);
  EXPECT_EQ(h.payload_offset, p.size() - 2);
  // A header data length past the packet, or flags needing more than it gives.
  Bytes cut = p;
  cut.resize(20);
  EXPECT_FALSE(ParseMpeg2PesHeader(cut.data(), 20).valid);
  Bytes short_pts = {0x00, 0x00, 0x01, 0xE0, 0x00, 0x05, 0x80, 0x80, 0x02, 0x21, 0x00};
  EXPECT_FALSE(ParseMpeg2PesHeader(short_pts.data(), 11).valid);
  EXPECT_FALSE(ParseMpeg2PesHeader(short_pts.data(), 8).valid);
}

TEST(PesHeader, Mpeg1StuffingBufferAndStamps) {
  const Bytes p = pstest::Pes1(0xC0, 4500, {0x01, 0x02}, 5);
  const PesHeader h = ParseMpeg1PesHeader(p.data(), static_cast<uint32_t>(p.size()));
  ASSERT_TRUE(h.valid);
  EXPECT_TRUE(h.has_std_buffer);
  EXPECT_EQ(h.std_scale, 1);
  EXPECT_EQ(h.std_size, 46);
  EXPECT_EQ(h.pts, 4500u);
  EXPECT_EQ(h.payload_offset, p.size() - 2);
  const Bytes none = pstest::Pes1(0xE0, -1, {0x09});
  const PesHeader n = ParseMpeg1PesHeader(none.data(), static_cast<uint32_t>(none.size()));
  ASSERT_TRUE(n.valid);
  EXPECT_FALSE(n.has_pts);
  EXPECT_EQ(none[n.payload_offset], 0x09);
  const Bytes all_stuffing = {0x00, 0x00, 0x01, 0xE0, 0x00, 0x03, 0xFF, 0xFF, 0xFF};
  EXPECT_FALSE(ParseMpeg1PesHeader(all_stuffing.data(), 9).valid);
  const Bytes bad = {0x00, 0x00, 0x01, 0xE0, 0x00, 0x02, 0x80, 0x00};
  EXPECT_FALSE(ParseMpeg1PesHeader(bad.data(), 8).valid);
}

TEST(IntraPicture, CodingTypeOfPictureHeaders) {
  EXPECT_TRUE(HoldsIntraPicture(pstest::PictureHeader(1).data(), 8));
  EXPECT_FALSE(HoldsIntraPicture(pstest::PictureHeader(2).data(), 8));
  EXPECT_FALSE(HoldsIntraPicture(pstest::PictureHeader(1).data(), 5));  // type byte missing
  Bytes two = pstest::PictureHeader(3);
  pstest::Append(&two, pstest::PictureHeader(1));
  EXPECT_TRUE(HoldsIntraPicture(two.data(), static_cast<uint32_t>(two.size())));
  const Bytes gop = {0x00, 0x00, 0x01, 0xB8, 0x00, 0x08, 0x00, 0x40};
  EXPECT_FALSE(HoldsIntraPicture(gop.data(), 8));
}

}  // namespace
}  // namespace marquel::ps
