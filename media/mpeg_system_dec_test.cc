// The system decoders on synthesized streams: clocks, resynchronisation, incomplete
// structures, payload hand-out and the analysis text.
#include "media/mpeg_system_dec.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>

#include "mpeg_ps_syntax.h"
#include "ps_test_builder.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using pstest::Bytes;

const Bytes kSystemHeader = {0x00, 0x00, 0x01, 0xBB, 0x00, 0x0C, 0x80, 0x1B, 0x91,
                             0x04, 0xE1, 0xFF, 0xE0, 0xE0, 0xE6, 0xC0, 0xC0, 0x20};

Bytes Mpeg2Stream() {
  Bytes s = pstest::Mpeg2Pack(9000, 7, 25200);
  pstest::Append(&s, kSystemHeader);
  pstest::Append(&s, pstest::Pes2(0xE0, 12000, Bytes(100, 0xAA)));
  pstest::Append(&s, pstest::Mpeg2Pack(18000, 0, 25000, 2));
  pstest::Append(&s, pstest::Pes2(0xC0, 12600, Bytes(50, 0xAA)));
  pstest::Append(&s, pstest::RawPacket(0xBE, Bytes(20, 0xFF)));
  pstest::Append(&s, pstest::Mpeg2Pack(13000, 0, 24000));  // smaller clock
  pstest::Append(&s, pstest::Pes2(0xE0, 15600, Bytes(30, 0xAA)));
  return s;
}

Bytes Mpeg1Stream() {
  Bytes s = pstest::Mpeg1Pack(90000, 1000);
  pstest::Append(&s, kSystemHeader);
  pstest::Append(&s, pstest::Pes1(0xE0, 100000, Bytes(100, 0xAA)));
  pstest::Append(&s, pstest::Mpeg1Pack(93600, 1100));
  pstest::Append(&s, pstest::Pes1(0xC0, 100000, Bytes(50, 0xAA), 2));
  return s;
}

void FeedInChunks(CMpegMuxDec& dec, const Bytes& s, size_t chunk) {
  for (size_t at = 0; at < s.size(); at += chunk) {
    const size_t n = std::min(chunk, s.size() - at);
    ASSERT_EQ(dec.Feed(s.data() + at, static_cast<int32_t>(n)), 1);
  }
}

std::string ReadText(const std::string& path) {
  const Bytes b = pstest::ReadAll(path);
  return std::string(b.begin(), b.end());
}

size_t CountOf(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(Mpeg2SystemDec, GreatestClockAndLatestMuxRate) {
  for (size_t chunk : {1u, 3u, 7u, 64u, 2048u}) {
    MPEG2SystemDec_c dec;
    dec.Reset();
    FeedInChunks(dec, Mpeg2Stream(), chunk);
    uint64_t base = 0;
    uint32_t ext = 0;
    dec.GetLastClock(&base, &ext);
    EXPECT_EQ(base, 18000u) << chunk;
    EXPECT_EQ(ext, 0u);
    EXPECT_EQ(dec.GetMuxRate(), 24000u);
    EXPECT_EQ(dec.PackCount(), 3);
    EXPECT_EQ(dec.PacketCount(), 4);
    EXPECT_EQ(dec.HasError(), 0);
    EXPECT_EQ(dec.IsEndOfStream(), 0);
    EXPECT_EQ(dec.StreamBytes(0xE0), 130u);
  }
}

TEST(Mpeg2SystemDec, ExtensionCountsInTheFullClock) {
  Bytes s = pstest::Mpeg2Pack(1000, 299, 100);
  pstest::Append(&s, pstest::Mpeg2Pack(1001, 0, 100));
  pstest::Append(&s, pstest::Mpeg2Pack(1000, 298, 100));
  pstest::Append(&s, {0x00, 0x00, 0x01, 0xB9});
  MPEG2SystemDec_c dec;
  FeedInChunks(dec, s, 5);
  uint64_t base = 0;
  uint32_t ext = 0;
  dec.GetLastClock(&base, &ext);
  EXPECT_EQ(base, 1001u);
  EXPECT_EQ(ext, 0u);
  EXPECT_EQ(dec.IsEndOfStream(), 1);
  dec.Reset();
  dec.GetLastClock(&base, &ext);
  EXPECT_EQ(base, 0u);
  EXPECT_EQ(dec.IsEndOfStream(), 0);
  EXPECT_EQ(dec.PackCount(), 0);
}

TEST(Mpeg1SystemDec, ClockAndMuxRate) {
  for (size_t chunk : {1u, 5u, 2324u}) {
    MPEG1SystemDec_c dec;
    FeedInChunks(dec, Mpeg1Stream(), chunk);
    uint64_t base = 0;
    uint32_t ext = 9;
    dec.GetLastClock(&base, &ext);
    EXPECT_EQ(base, 93600u);
    EXPECT_EQ(ext, 0u);
    EXPECT_EQ(dec.GetMuxRate(), 1100u);
    EXPECT_EQ(dec.PacketCount(), 2);
    EXPECT_EQ(dec.HasError(), 0);
    EXPECT_EQ(dec.StreamBytes(0xC0), 50u);
  }
}

TEST(SystemDec, GarbageTruncationAndImpossibleLengths) {
  Bytes s(37, 0x00);  // zeros: prefix-like but never a start code
  pstest::Append(&s, Mpeg2Stream());
  pstest::Append(&s, {0x00, 0x00, 0x01, 0xE0, 0xFF, 0xFF});  // announces 65535 bytes
  MPEG2SystemDec_c dec;
  FeedInChunks(dec, s, 100);
  uint64_t base = 0;
  dec.GetLastClock(&base, nullptr);
  EXPECT_EQ(base, 18000u);
  EXPECT_EQ(dec.PacketCount(), 4);  // the cut-off packet waits for its bytes
  // The rest of it arrives: 65535 bytes of which the header is nonsense.
  Bytes rest(65535, 0x00);
  ASSERT_EQ(dec.Feed(rest.data(), static_cast<int32_t>(rest.size())), 1);
  EXPECT_EQ(dec.PacketCount(), 5);
  EXPECT_EQ(dec.HasError(), 1);
  // Empty and null feeds are harmless.
  EXPECT_EQ(dec.Feed(nullptr, 10), 1);
  EXPECT_EQ(dec.Feed(rest.data(), 0), 1);
}

TEST(SystemDec, OneByteAndEmptyStreams) {
  MPEG2SystemDec_c dec;
  const uint8_t one = 0x00;
  EXPECT_EQ(dec.Feed(&one, 1), 1);
  uint64_t base = 5;
  uint32_t ext = 5;
  dec.GetLastClock(&base, &ext);
  EXPECT_EQ(base, 0u);
  EXPECT_EQ(ext, 0u);
  EXPECT_EQ(dec.GetMuxRate(), 0u);
  EXPECT_EQ(dec.PackCount(), 0);
}

// The server's own data packs as the writer makes them: MPEG-2 (2048-byte packs, 2025
// payload bytes per packet) and MPEG-1 (2324-byte packs, 2294 bytes).
Bytes OwnDataPacks(const Bytes& payload, bool mpeg1) {
  Bytes s;
  const size_t per = mpeg1 ? 2294 : 2025;
  for (size_t at = 0; at < payload.size(); at += per) {
    const Bytes part(payload.begin() + static_cast<ptrdiff_t>(at),
                     payload.begin() + static_cast<ptrdiff_t>(std::min(payload.size(), at + per)));
    if (mpeg1) {
      pstest::Append(&s, pstest::Mpeg1Pack(5000, 0x7FFFF));
      pstest::Append(&s, pstest::Pes1(ps::kOwnDataStream, -1, part, 9));
    } else {
      pstest::Append(&s, pstest::Mpeg2Pack(5000, 0, 0x7FFFF));
      pstest::Append(&s, pstest::Pes2(ps::kOwnDataStream, -1, part, part.size() < per ? 5 : 0));
    }
  }
  return s;
}

Bytes TakeEverything(CMpegMuxDec& dec) {
  Bytes out;
  uint8_t buf[700];
  int32_t n;
  while ((n = dec.TakePayload(buf, sizeof buf)) > 0) out.insert(out.end(), buf, buf + n);
  return out;
}

TEST(SystemDec, HandsOutThePayloadOfTheChosenStream) {
  std::mt19937 rng(7);
  Bytes payload(7000);
  for (auto& b : payload) b = static_cast<uint8_t>(rng());
  for (bool mpeg1 : {false, true}) {
    Bytes media = mpeg1 ? Mpeg1Stream() : Mpeg2Stream();
    const size_t start = media.size();
    pstest::Append(&media, OwnDataPacks(payload, mpeg1));
    std::unique_ptr<CMpegMuxDec> dec;
    if (mpeg1) {
      dec = std::make_unique<MPEG1SystemDec_c>();
    } else {
      dec = std::make_unique<MPEG2SystemDec_c>();
    }
    dec->SelectStream(ps::kOwnDataStream);
    // From the start offset, in chunks of 2324 bytes, taking as it goes.
    Bytes got;
    for (size_t at = start; at < media.size(); at += 2324) {
      const size_t n = std::min<size_t>(2324, media.size() - at);
      ASSERT_EQ(dec->Feed(media.data() + at, static_cast<int32_t>(n)), 1);
      pstest::Append(&got, TakeEverything(*dec));
    }
    EXPECT_EQ(got, payload) << mpeg1;
    EXPECT_EQ(dec->PayloadCount(), 0);
    // From the file's start the media packets are not collected.
    dec->Reset();
    FeedInChunks(*dec, media, 2048);
    EXPECT_EQ(dec->PayloadCount(), 7000);
    EXPECT_EQ(TakeEverything(*dec), payload);
  }
}

TEST(PrivateStreamAudio, SubStreamNumbering) {
  EXPECT_EQ(ps::PrivateStreamAudio(0x80).kind, 1);
  EXPECT_EQ(ps::PrivateStreamAudio(0x80).number, 0);
  EXPECT_EQ(ps::PrivateStreamAudio(0x88).number, 8);
  EXPECT_EQ(ps::PrivateStreamAudio(0x89).kind, 0);
  EXPECT_EQ(ps::PrivateStreamAudio(0x89).number, 0);
  EXPECT_EQ(ps::PrivateStreamAudio(0xA0).kind, 4);
  EXPECT_EQ(ps::PrivateStreamAudio(0xA3).number, 3);
  EXPECT_EQ(ps::PrivateStreamAudio(0xA9).kind, 0);
  EXPECT_EQ(ps::PrivateStreamAudio(0x20).kind, 0);
}

TEST(SystemDec, Ac3SubStreamRate) {
  // Sub-stream 0x81, one frame, pointer 1: the AC-3 frame starts at payload byte 4.
  Bytes payload = {0x81, 0x01, 0x00, 0x01, 0x0B, 0x77, 0x00, 0x00, 0x10, 0x00};
  Bytes s = pstest::Mpeg2Pack(100, 0, 100);
  pstest::Append(&s, pstest::Pes2(0xBD, 3000, payload));
  MPEG2SystemDec_c dec;
  FeedInChunks(dec, s, 4);
  // Frame-size code 16: 128 kbit/s.
  EXPECT_EQ(dec.Ac3ByteRate(1), 16000);
  EXPECT_EQ(dec.Ac3ByteRate(0), 0);
  EXPECT_EQ(dec.Ac3ByteRate(9), 0);
  EXPECT_EQ(dec.PrivateSubStreamBytes(0x81), payload.size());
}

TEST(SystemDecAnalysis, Mpeg2Lines) {
  MPEG2SystemDec_c dec;
  dec.SetAnalysis(1, test::TestDir());
  Bytes s = {0x12, 0x34, 0x00};  // three bytes of garbage first
  pstest::Append(&s, Mpeg2Stream());
  pstest::Append(&s, pstest::Mpeg1Pack(1, 1));  // not an MPEG-2 pack
  Bytes broken = pstest::Pes2(0xE0, 100, Bytes(10, 0xAA));
  broken[6] = 0x40;  // not the '10' marker of an MPEG-2 header
  pstest::Append(&s, broken);
  pstest::Append(&s, {0x00, 0x00, 0x01, 0xB9});
  FeedInChunks(dec, s, 9);
  const std::string text = ReadText(test::TestPath("M2SAna.txt"));
  EXPECT_EQ(text.find("Skipping... Something wrong!\n"
                      "Skipping... Something wrong!\n"
                      "Skipping... Something wrong!\n"
                      "PACK 1, SCR_base 9000, SCR_ext 7, MuxRate 25200, Staff 0\n"),
            0u)
      << text;
  // A bad pack header gives up only its start code: the 8 bytes left of the MPEG-1 pack
  // are then passed over one by one.
  EXPECT_EQ(CountOf(text, "Skipping... Something wrong!\n"), 3u + 8u);
  EXPECT_NE(text.find("SYSTEM 1, RateBound 3528, AudioBound 1, Fixed 0, CSPS 0, ALock 1, "
                      "VLock 1, VideoBound 1,StreamID E0, Scale 1, BufferSize 230; "
                      "StreamID C0, Scale 0, BufferSize 32; \n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("  PACKET: 1, Scramble 0, Priority 0, Alignment 0, Copyright 0, "
                      "ORIGorCOPY 1, PTS_DTS 2, ESCR 0, ESrate 0, DSMtrick 0, CopyInfo 0, "
                      "PES_CRC 0, PESextension 0, PESHeaderDataLength 5\n"
                      "VPTS 12000, 00:00:00, VDIFF: 12000,     Video ID:0, Size: 100, "
                      "ASize: 100\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("PACK 2, SCR_base 18000, SCR_ext 0, MuxRate 25000, Staff 2\n"),
            std::string::npos);
  EXPECT_NE(text.find("\nAPTS 12600, 00:00:00, ADIFF: 12600,     Audio ID:0, Size: 50, "
                      "ASize: 50\n"),
            std::string::npos);
  EXPECT_NE(text.find("  PACKET: 3,     PADDING, Size: 20\n"), std::string::npos);
  EXPECT_NE(text.find("VDIFF: 3600, "), std::string::npos);
  EXPECT_NE(text.find("Error not MPEG2 Pack\n"), std::string::npos);
  EXPECT_NE(text.find("Error Packet Header!!!\n"), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 13), "End of MPEG2\n");
  EXPECT_EQ(dec.HasError(), 1);
}

TEST(SystemDecAnalysis, Mpeg1LinesInTheCurrentFolder) {
  char saved[4096];
  ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
  ASSERT_EQ(chdir(test::TestDir().c_str()), 0);
  MPEG1SystemDec_c dec;
  dec.SetAnalysis(1, "");
  Bytes s = Mpeg1Stream();
  pstest::Append(&s, pstest::Mpeg2Pack(1, 0, 1));  // not an MPEG-1 pack
  pstest::Append(&s, pstest::RawPacket(0xBE, Bytes(8, 0xFF)));
  pstest::Append(&s, {0x00, 0x00, 0x01, 0xB9});
  FeedInChunks(dec, s, 2324);
  ASSERT_EQ(chdir(saved), 0);
  const std::string text = ReadText(test::TestPath("M1SAna.txt"));
  EXPECT_EQ(text.find("PACK 1, SCR 90000, MuxRate 1000\n"), 0u) << text;
  EXPECT_NE(text.find("VideoBound 1,m_nStreamID E0, Scale 1, BufferSize 230; "), std::string::npos);
  EXPECT_NE(text.find("  PACKET: 1, \nVPTS 100000, 00:00:01, VDIFF: 100000,     Video ID:0, "
                      "Size: 100, ASize: 100\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("PACK 2, SCR 93600, MuxRate 1100\n"), std::string::npos);
  EXPECT_NE(text.find("Error not MPEG1 Pack\n"), std::string::npos);
  EXPECT_NE(text.find("PADDING, Size 8\n"), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 15), "End of MPEG1 2\n");
}

TEST(SystemDecAnalysis, NothingWrittenWhenOff) {
  MPEG2SystemDec_c dec;
  dec.SetAnalysis(0, test::TestDir());
  FeedInChunks(dec, Mpeg2Stream(), 100);
  EXPECT_TRUE(pstest::ReadAll(test::TestPath("M2SAna.txt")).empty());
}

}  // namespace
}  // namespace marquel
