// Detection, pack checkers and system decoders on the ffmpeg-made test media.
#include <gtest/gtest.h>

#include "detect_test_util.h"
#include "media/file_type.h"
#include "media/mpeg_pack_check.h"
#include "media/mpeg_system_dec.h"
#include "ps_test_builder.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using pstest::Bytes;
using pstest::DetectPath;
using pstest::MediaPath;

struct Expected {
  const char* name;
  uint32_t code;
  uint32_t packet_size;
};

TEST(MediaFiles, DetectionOfEveryFile) {
  const Expected all[] = {
      {"mpeg1.mpg", MQ_FORMAT_MPEG1, 0},
      // A real Video CD file is MPEG-1: the check reads past the first five bytes.
      {"vcd.mpg", MQ_FORMAT_MPEG1, 0},
      // 480x576 at 25 fps in whole 2324-byte packs.
      {"svcd.mpg", MQ_FORMAT_SVCD, 0},
      {"dvd.vob", MQ_FORMAT_VOB, 0},
      {"dvd_as.mpg", MQ_FORMAT_MPEG2, 0},
      {"mpeg2ps.mpg", MQ_FORMAT_MPEG2, 0},
      {"mpeg2ps_long.mpg", MQ_FORMAT_MPEG2, 0},
      {"ts188.ts", MQ_FORMAT_TS, 188},
      {"m2ts192.ts", MQ_FORMAT_TS, 192},
      {"m2ts192.m2ts", MQ_FORMAT_MTS, 0},
      {"ts204.ts", MQ_FORMAT_TS, 204},
      {"ts2prog.ts", MQ_FORMAT_TS, 188},
      {"avi.avi", MQ_FORMAT_AVI, 0},
      {"mp4.mp4", MQ_FORMAT_MPEG4, 0},
      {"mov.mov", MQ_FORMAT_MOV, 0},
      {"wmv.wmv", MQ_FORMAT_WMV, 0},
      {"asf.asf", MQ_FORMAT_ASF, 0},
  };
  for (const Expected& e : all) {
    TsLayout layout{99, 99};
    EXPECT_EQ(DetectPath(MediaPath(e.name), &layout), e.code) << e.name;
    if (e.code == MQ_FORMAT_TS) {
      EXPECT_EQ(layout.packet_size, e.packet_size) << e.name;
      EXPECT_EQ(layout.first_packet_offset, 0u) << e.name;
    }
  }
}

// The last pack header of a file, decoded here on its own: base, extension, mux rate.
struct PackClock {
  uint64_t base = 0;
  uint32_t ext = 0;
  uint32_t mux_rate = 0;
};

PackClock LastPackHeader(const Bytes& b) {
  PackClock c;
  for (size_t i = b.size() - 14; i-- > 0;) {
    if (b[i] != 0 || b[i + 1] != 0 || b[i + 2] != 1 || b[i + 3] != 0xBA) continue;
    const uint8_t* p = b.data() + i + 4;
    if ((p[0] & 0xC0) == 0x40) {
      c.base = uint64_t(p[0] >> 3 & 7) << 30 | uint64_t(p[0] & 3) << 28 | uint64_t(p[1]) << 20 |
               uint64_t(p[2] >> 3) << 15 | uint64_t(p[2] & 3) << 13 | uint64_t(p[3]) << 5 |
               p[4] >> 3;
      c.ext = uint32_t(p[4] & 3) << 7 | p[5] >> 1;
      c.mux_rate = uint32_t(p[6]) << 14 | uint32_t(p[7]) << 6 | p[8] >> 2;
    } else {
      c.base = uint64_t(p[0] >> 1 & 7) << 30 | uint64_t(p[1]) << 22 | uint64_t(p[2] >> 1) << 15 |
               uint64_t(p[3]) << 7 | p[4] >> 1;
      c.mux_rate = uint32_t(p[5] & 0x7F) << 15 | uint32_t(p[6]) << 7 | p[7] >> 1;
    }
    return c;
  }
  ADD_FAILURE() << "no pack header";
  return c;
}

void ExpectDecoderAgrees(const char* name, bool mpeg1) {
  const Bytes file = pstest::ReadAll(MediaPath(name));
  ASSERT_GT(file.size(), 65536u) << name;
  const PackClock want = LastPackHeader(file);
  std::unique_ptr<CMpegMuxDec> dec;
  if (mpeg1) {
    dec = std::make_unique<MPEG1SystemDec_c>();
  } else {
    dec = std::make_unique<MPEG2SystemDec_c>();
  }
  // Whole file, then the way the writer does it: the last 65,536 bytes in 2048-byte reads.
  for (size_t from : {size_t{0}, file.size() - 65536}) {
    dec->Reset();
    for (size_t at = from; at < file.size(); at += 2048) {
      dec->Feed(file.data() + at, static_cast<int32_t>(std::min<size_t>(2048, file.size() - at)));
    }
    uint64_t base = 0;
    uint32_t ext = 0;
    dec->GetLastClock(&base, &ext);
    EXPECT_EQ(base, want.base) << name << " from " << from;
    EXPECT_EQ(ext, want.ext) << name;
    EXPECT_EQ(dec->GetMuxRate(), want.mux_rate) << name;
    EXPECT_EQ(dec->HasError(), 0) << name;
    EXPECT_GT(dec->PackCount(), 10) << name;
  }
}

TEST(MediaFiles, SystemDecodersAgreeWithTheLastPackHeader) {
  ExpectDecoderAgrees("mpeg1.mpg", true);
  ExpectDecoderAgrees("vcd.mpg", true);
  ExpectDecoderAgrees("mpeg2ps.mpg", false);
  ExpectDecoderAgrees("mpeg2ps_long.mpg", false);
  ExpectDecoderAgrees("svcd.mpg", false);
  ExpectDecoderAgrees("dvd.vob", false);
}

TEST(MediaFiles, AnalysisOfARealStreamHasNoErrors) {
  const Bytes file = pstest::ReadAll(MediaPath("mpeg2ps.mpg"));
  MPEG2SystemDec_c dec;
  dec.SetAnalysis(1, test::TestDir());
  for (size_t at = 0; at < file.size(); at += 2048) {
    dec.Feed(file.data() + at, static_cast<int32_t>(std::min<size_t>(2048, file.size() - at)));
  }
  const Bytes text_bytes = pstest::ReadAll(test::TestPath("M2SAna.txt"));
  const std::string text(text_bytes.begin(), text_bytes.end());
  EXPECT_EQ(text.find("Skipping"), std::string::npos);
  EXPECT_EQ(text.find("Error"), std::string::npos);
  EXPECT_NE(text.find("Video ID:0, "), std::string::npos);
  EXPECT_NE(text.find("Audio ID:0, "), std::string::npos);  // AC-3 sub-stream 0x80
  EXPECT_EQ(dec.Ac3ByteRate(0), 16000);                     // 128 kbit/s
  EXPECT_GT(dec.PrivateSubStreamBytes(0x80), 10000u);
}

// The muxer writes packets in units of `unit` bytes; a pack header leads some or all of
// them (ffmpeg's plain MPEG-1 output repeats it only every few packets).
void ExpectPacksAt(const char* name, MpegPackCheck& checker, size_t unit) {
  const Bytes file = pstest::ReadAll(MediaPath(name));
  ASSERT_EQ(file.size() % unit, 0u) << name;
  std::vector<size_t> starts;
  for (size_t i = 0; i < file.size(); i += unit) {
    if (file[i] == 0 && file[i + 1] == 0 && file[i + 2] == 1 && file[i + 3] == 0xBA) {
      starts.push_back(i);
    }
  }
  MpegPackList list;
  const uint32_t consumed =
      checker.Check(file.data(), static_cast<uint32_t>(file.size()), &list, true);
  EXPECT_GE(consumed, file.size() - 16);
  const auto packs = list.InStreamOrder();
  ASSERT_EQ(packs.size(), starts.size()) << name;
  size_t video = 0, intra = 0;
  for (size_t i = 0; i < packs.size(); ++i) {
    const size_t next = i + 1 < starts.size() ? starts[i + 1] : file.size();
    EXPECT_EQ(packs[i]->pack_offset, starts[i]) << name << " " << i;
    EXPECT_EQ(packs[i]->pack_length, next - starts[i]) << name << " " << i;
    video += packs[i]->has_video;
    intra += packs[i]->has_i_picture;
  }
  EXPECT_GT(video, packs.size() / 4) << name;
  EXPECT_GT(intra, 0u) << name;
  const PackClock last = LastPackHeader(file);
  EXPECT_EQ(packs.back()->scr_base, last.base) << name;
}

TEST(MediaFiles, PackCheckersCutRealStreams) {
  Mpeg2PackCheck ps2;
  ExpectPacksAt("mpeg2ps.mpg", ps2, 2048);
  Mpeg2PackCheck dvd;
  ExpectPacksAt("dvd.vob", dvd, 2048);
  Mpeg2PackCheck svcd;
  ExpectPacksAt("svcd.mpg", svcd, 2324);
  Mpeg1PackCheck ps1;
  ExpectPacksAt("mpeg1.mpg", ps1, 2048);
  Mpeg1PackCheck vcd;
  ExpectPacksAt("vcd.mpg", vcd, 2324);
}

}  // namespace
}  // namespace marquel
