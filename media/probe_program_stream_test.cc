// The MPEG pack probe: start-code search, the MPEG-1 (Video CD) check and the two MPEG-2
// scans (Super Video CD picture sizes; MPEG-4, DVD and sequence-header start codes).
#include <gtest/gtest.h>

#include "detect_test_util.h"
#include "media/file_type.h"
#include "ps_test_builder.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using pstest::Bytes;

uint32_t Detect(const Bytes& data, const std::string& name) {
  MemoryProbeSource source(data.data(), data.size());
  return DetectFileType(nullptr, source, name);
}

uint32_t Probe(const Bytes& data) {
  MemoryProbeSource source(data.data(), data.size());
  return ProbeProgramStream(source);
}

constexpr size_t kSector = 2324;

// One 2324-byte block: a pack header, then either a video packet holding `video` at
// once, or a padding packet.
Bytes SvcdBlock(const Bytes* video) {
  Bytes b = pstest::Mpeg2Pack(1000, 0, 6972);
  const size_t room = kSector - b.size();
  if (video != nullptr) {
    Bytes payload = *video;
    payload.resize(room - 14, 0xAA);  // 14: the PES header with a PTS
    pstest::Append(&b, pstest::Pes2(0xE0, 3600, payload));
  } else {
    pstest::Append(&b, pstest::RawPacket(0xBE, Bytes(room - 6, 0xFF)));
  }
  return b;
}

Bytes SvcdStream(uint32_t width, uint32_t height, uint32_t rate_code) {
  const Bytes seq = pstest::SequenceHeader(width, height, rate_code);
  Bytes s = SvcdBlock(nullptr);
  pstest::Append(&s, SvcdBlock(nullptr));
  pstest::Append(&s, SvcdBlock(&seq));
  pstest::Append(&s, SvcdBlock(nullptr));
  return s;
}

TEST(ProbeSvcd, PictureSizesAndTheAsymmetryAt25Fps) {
  EXPECT_EQ(Probe(SvcdStream(480, 576, 3)), MQ_FORMAT_SVCD);
  EXPECT_EQ(Probe(SvcdStream(480, 480, 4)), MQ_FORMAT_SVCD);
  EXPECT_EQ(Probe(SvcdStream(704, 480, 4)), MQ_FORMAT_SVCD);
  // At frame-rate code 3 only 480x576 passes: 704x576 falls to the second scan, which
  // meets the sequence header and answers MPEG-2.
  EXPECT_EQ(Probe(SvcdStream(704, 576, 3)), MQ_FORMAT_MPEG2);
  EXPECT_EQ(Probe(SvcdStream(480, 576, 4)), MQ_FORMAT_MPEG2);
  EXPECT_EQ(Probe(SvcdStream(352, 288, 3)), MQ_FORMAT_MPEG2);
  EXPECT_EQ(Probe(SvcdStream(480, 576, 5)), MQ_FORMAT_MPEG2);
}

TEST(ProbeSvcd, WholePacksWithoutSequenceHeaderAreSvcd) {
  Bytes s = SvcdBlock(nullptr);
  pstest::Append(&s, SvcdBlock(nullptr));
  EXPECT_EQ(Probe(s), MQ_FORMAT_SVCD);
  // A video-led block without a sequence header leaves the test undecided.
  const Bytes no_header(8, 0xAA);
  pstest::Append(&s, SvcdBlock(&no_header));
  EXPECT_EQ(Probe(s), MQ_FORMAT_SVCD);
  // A short last block makes the answer no; nothing decisive follows: MPEG-2.
  s.pop_back();
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG2);
}

TEST(ProbeSvcd, BlockNotStartingWithAPackIsNotSvcd) {
  Bytes s = SvcdBlock(nullptr);
  Bytes second = SvcdBlock(nullptr);
  second[3] = 0xBB;
  pstest::Append(&s, second);
  pstest::Append(&s, SvcdStream(480, 576, 3));
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG2);
}

TEST(ProbeSvcd, SequenceHeaderAtTheBlockEndReadsNoSize) {
  // The start code at 2318..2321 leaves its size word past the block: no.
  const Bytes filler(8, 0xAA);
  Bytes block = SvcdBlock(&filler);
  const Bytes seq = pstest::SequenceHeader(480, 576, 3);
  std::copy(seq.begin(), seq.begin() + 4, block.begin() + 2318);
  Bytes s = block;
  pstest::Append(&s, SvcdBlock(nullptr));
  // The second scan sees that header (2318 lies inside the second 2048-byte block).
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG2);
  // At 2316 the size word fits, and the picture passes.
  block = SvcdBlock(&filler);
  std::copy(seq.begin(), seq.begin() + 8, block.begin() + 2316);
  EXPECT_EQ(Probe(block), MQ_FORMAT_SVCD);
}

// An MPEG-2 stream that fails the SVCD test at once (its second 2324-byte block does not
// begin with a pack), with `code` placed at `at`.
Bytes ScanStream(size_t at, const Bytes& code, size_t size = 6000) {
  Bytes s = pstest::Mpeg2Pack(0, 0, 25200);
  pstest::PadTo(&s, size);
  std::copy(code.begin(), code.end(), s.begin() + static_cast<ptrdiff_t>(at));
  return s;
}

TEST(ProbeMpeg2Scan, Mpeg4AndDvdStartCodes) {
  EXPECT_EQ(Probe(ScanStream(100, {0, 0, 1, 0xB6})), MQ_FORMAT_MPEG4);
  EXPECT_EQ(Probe(ScanStream(100, {0, 0, 1, 0xB0})), MQ_FORMAT_MPEG4);
  EXPECT_EQ(Probe(ScanStream(100, {0, 0, 1, 0xB3, 1, 2, 3, 0, 0, 1})), MQ_FORMAT_MPEG4);
  EXPECT_EQ(Probe(ScanStream(100, {0, 0, 1, 0xB3, 1, 2, 3, 4, 5, 6})), MQ_FORMAT_MPEG2);
  EXPECT_EQ(Probe(ScanStream(100, {0, 0, 1, 0xBF, 0x07, 0xD4, 0x50})), MQ_FORMAT_VRO);
  EXPECT_EQ(Probe(ScanStream(100, {0, 0, 1, 0xBF, 0x03, 0xD4, 0x00})), MQ_FORMAT_VOB);
  EXPECT_EQ(Probe(ScanStream(100, {0, 0, 1, 0xBF, 0x03, 0xFA, 0x01})), MQ_FORMAT_NONE);
  // Nothing decisive up to the end: MPEG-2.
  EXPECT_EQ(Probe(ScanStream(100, {0, 0, 1, 0xE0})), MQ_FORMAT_MPEG2);
}

TEST(ProbeMpeg2Scan, FirstDecisiveCodeInFileOrder) {
  Bytes s = ScanStream(300, {0, 0, 1, 0xB6});
  const Bytes nav = {0, 0, 1, 0xBF, 0x03, 0xD4, 0x00};
  std::copy(nav.begin(), nav.end(), s.begin() + 200);
  EXPECT_EQ(Probe(s), MQ_FORMAT_VOB);
}

TEST(ProbeMpeg2Scan, BlocksDoNotOverlap) {
  const Bytes later = {0, 0, 1, 0xB3, 1, 2, 3, 4, 5, 6};
  // A start code straddling the 2048-byte boundary is not seen.
  Bytes s = ScanStream(2046, {0, 0, 1, 0xB6});
  std::copy(later.begin(), later.end(), s.begin() + 3000);
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG2);
  // In a block of n bytes position n-4 is not examined, position n-5 is.
  s = ScanStream(2044, {0, 0, 1, 0xB6});
  std::copy(later.begin(), later.end(), s.begin() + 3000);
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG2);
  s = ScanStream(2043, {0, 0, 1, 0xB6});
  std::copy(later.begin(), later.end(), s.begin() + 3000);
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG4);
}

TEST(ProbeMpeg2Scan, CodesTooCloseToTheBlockEndAreSkipped) {
  // A sequence header with 8 bytes left in its block goes unjudged; the scan goes on.
  Bytes s = ScanStream(2040, {0, 0, 1, 0xB3, 1, 2, 3});
  const Bytes mpeg4 = {0, 0, 1, 0xB6};
  std::copy(mpeg4.begin(), mpeg4.end(), s.begin() + 3000);
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG4);
  // With exactly 10 left it decides.
  s = ScanStream(2038, {0, 0, 1, 0xB3, 1, 2, 3, 4, 5, 6});
  std::copy(mpeg4.begin(), mpeg4.end(), s.begin() + 3000);
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG2);
  // A private stream 2 header with 7 left goes unjudged; with 8 left it decides.
  s = ScanStream(2041, {0, 0, 1, 0xBF, 0x03, 0xD4, 0x00});
  std::copy(mpeg4.begin(), mpeg4.end(), s.begin() + 3000);
  EXPECT_EQ(Probe(s), MQ_FORMAT_MPEG4);
  s = ScanStream(2040, {0, 0, 1, 0xBF, 0x03, 0xD4, 0x00});
  EXPECT_EQ(Probe(s), MQ_FORMAT_VOB);
}

TEST(DetectDvd, MpgNameTurnsDvdIntoMpeg2) {
  const Bytes nav = ScanStream(100, {0, 0, 1, 0xBF, 0x03, 0xD4, 0x00});
  EXPECT_EQ(Detect(nav, "/v/movie.mpg"), MQ_FORMAT_MPEG2);
  EXPECT_EQ(Detect(nav, "/v/movie.MPEG"), MQ_FORMAT_MPEG2);
  EXPECT_EQ(Detect(nav, "/v/movie.vob"), MQ_FORMAT_VOB);
  EXPECT_EQ(Detect(nav, "/v/movie.dat"), MQ_FORMAT_VOB);
  EXPECT_EQ(Detect(nav, "/v/movie"), MQ_FORMAT_VOB);
  const Bytes rdi = ScanStream(100, {0, 0, 1, 0xBF, 0x07, 0xD4, 0x50});
  EXPECT_EQ(Detect(rdi, "/v/rec.vro"), MQ_FORMAT_VRO);
  EXPECT_EQ(Detect(rdi, "/v/rec.mpg"), MQ_FORMAT_MPEG2);
  // An undecided private stream 2 answers 0: the name decides.
  const Bytes other = ScanStream(100, {0, 0, 1, 0xBF, 0x01, 0x00, 0x00});
  EXPECT_EQ(Detect(other, "/v/x.mpg"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(other, "/v/x.mov"), MQ_FORMAT_MOV);
}

TEST(ProbeMpeg1, VcdOnlyWhenASecondPackFollowsFiveBytesIn) {
  // A genuine Video CD pack header at 0: the check reads from offset 5 and sees the
  // rest of that header, so the answer is MPEG-1.
  Bytes vcd = pstest::Mpeg1Pack(0, 3528);
  ASSERT_EQ(vcd[4], 0x21);
  ASSERT_EQ(vcd[9], 0x80);
  ASSERT_EQ(vcd[10], 0x1B);
  ASSERT_EQ(vcd[11], 0x91);
  pstest::PadTo(&vcd, 4000);
  EXPECT_EQ(Probe(vcd), MQ_FORMAT_MPEG1);
  // A second VCD pack header five bytes after the first start code matches.
  Bytes quirk = {0x00, 0x00, 0x01, 0xBA, 0x21};
  pstest::Append(&quirk, pstest::Mpeg1Pack(0, 3528));
  pstest::PadTo(&quirk, 4000);
  EXPECT_EQ(Probe(quirk), MQ_FORMAT_VCD);
  // Bytes 6-8 of what is read are not compared.
  Bytes loose = quirk;
  loose[5 + 6] ^= 0x5A;
  loose[5 + 8] ^= 0x33;
  EXPECT_EQ(Probe(loose), MQ_FORMAT_VCD);
  // Another mux rate is plain MPEG-1.
  Bytes other = {0x00, 0x00, 0x01, 0xBA, 0x21};
  pstest::Append(&other, pstest::Mpeg1Pack(0, 3000));
  pstest::PadTo(&other, 4000);
  EXPECT_EQ(Probe(other), MQ_FORMAT_MPEG1);
  // The count read is not examined: a file that ends early compares against nothing.
  Bytes tiny = {0x00, 0x00, 0x01, 0xBA, 0x21, 0x00};
  EXPECT_EQ(Probe(tiny), MQ_FORMAT_MPEG1);
}

TEST(ProbePack, StartCodeSearchLimits) {
  Bytes late(100, 0xAA);
  pstest::Append(&late, pstest::Mpeg1Pack(0, 1000));
  pstest::PadTo(&late, 4000);
  EXPECT_EQ(Probe(late), MQ_FORMAT_MPEG1);
  // No prefix among offsets 0..2047: the pack test reads at 2048.
  Bytes at2048(2048, 0xAA);
  pstest::Append(&at2048, pstest::Mpeg1Pack(0, 1000));
  pstest::PadTo(&at2048, 5000);
  EXPECT_EQ(Probe(at2048), MQ_FORMAT_MPEG1);
  Bytes at2049(2049, 0xAA);
  pstest::Append(&at2049, pstest::Mpeg1Pack(0, 1000));
  pstest::PadTo(&at2049, 5000);
  EXPECT_EQ(Probe(at2049), MQ_FORMAT_NONE);
  // The first prefix decides: a sequence header first is not a pack stream.
  Bytes seq_first = pstest::SequenceHeader(352, 288, 3);
  pstest::Append(&seq_first, pstest::Mpeg1Pack(0, 1000));
  pstest::PadTo(&seq_first, 4000);
  EXPECT_EQ(Probe(seq_first), MQ_FORMAT_NONE);
  // A fifth byte of neither MPEG kind.
  Bytes odd = {0x00, 0x00, 0x01, 0xBA, 0x00};
  pstest::PadTo(&odd, 4000);
  EXPECT_EQ(Probe(odd), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(odd, "/v/x.mp4"), MQ_FORMAT_MPEG4);
  // The data ends before any prefix, or inside the 5-byte read.
  EXPECT_EQ(Probe(Bytes(1000, 0xAA)), MQ_FORMAT_NONE);
  EXPECT_EQ(Probe(Bytes{0x00, 0x00, 0x01, 0xBA}), MQ_FORMAT_NONE);
  EXPECT_EQ(Probe(Bytes{0x00, 0x00}), MQ_FORMAT_NONE);
}

// The MPEG-1 check reads from five bytes after the first start code wherever that code
// lies, not from offset 5 of the file.
TEST(ProbeMpeg1, CheckReadsFiveBytesAfterALateStartCode) {
  Bytes late(100, 0xAA);
  pstest::Append(&late, {0x00, 0x00, 0x01, 0xBA, 0x21});
  pstest::Append(&late, pstest::Mpeg1Pack(0, 3528));
  pstest::PadTo(&late, 4000);
  EXPECT_EQ(Probe(late), MQ_FORMAT_VCD);
  // The same pack header one byte further on is not where the check reads.
  Bytes off_by_one(100, 0xAA);
  pstest::Append(&off_by_one, {0x00, 0x00, 0x01, 0xBA, 0x21, 0xAA});
  pstest::Append(&off_by_one, pstest::Mpeg1Pack(0, 3528));
  pstest::PadTo(&off_by_one, 4000);
  EXPECT_EQ(Probe(off_by_one), MQ_FORMAT_MPEG1);
}

// Detection through an open file, the way a session runs it, for a file written to
// the test folder.
uint32_t DetectFile(const Bytes& data, const std::string& name) {
  const std::string path = test::TestPath(name);
  pstest::WriteAll(path, data);
  return pstest::DetectPath(path);
}

TEST(ProbeThroughAFile, KeptQuirksHoldOnTheFilePath) {
  // Video CD only when a second pack header follows five bytes after the first code.
  Bytes vcd = pstest::Mpeg1Pack(0, 3528);
  pstest::PadTo(&vcd, 4000);
  EXPECT_EQ(DetectFile(vcd, "vcd.mpg"), MQ_FORMAT_MPEG1);
  Bytes quirk(100, 0xAA);
  pstest::Append(&quirk, {0x00, 0x00, 0x01, 0xBA, 0x21});
  pstest::Append(&quirk, pstest::Mpeg1Pack(0, 3528));
  pstest::PadTo(&quirk, 4000);
  EXPECT_EQ(DetectFile(quirk, "quirk.mpg"), MQ_FORMAT_VCD);
  // 480x576 at code 3 is SVCD; 704x576 is not.
  EXPECT_EQ(DetectFile(SvcdStream(480, 576, 3), "svcd.mpg"), MQ_FORMAT_SVCD);
  EXPECT_EQ(DetectFile(SvcdStream(704, 576, 3), "pal.mpg"), MQ_FORMAT_MPEG2);
  // A start code straddling the first 2048-byte block is not seen; one inside it is.
  const Bytes later = {0, 0, 1, 0xB3, 1, 2, 3, 4, 5, 6};
  Bytes straddle = ScanStream(2046, {0, 0, 1, 0xB6});
  std::copy(later.begin(), later.end(), straddle.begin() + 3000);
  EXPECT_EQ(DetectFile(straddle, "straddle.dat"), MQ_FORMAT_MPEG2);
  Bytes inside = ScanStream(2043, {0, 0, 1, 0xB6});
  std::copy(later.begin(), later.end(), inside.begin() + 3000);
  EXPECT_EQ(DetectFile(inside, "inside.dat"), MQ_FORMAT_MPEG4);
  // Navigation data: DVD-Video, but MPEG-2 under an MPEG name.
  const Bytes nav = ScanStream(100, {0, 0, 1, 0xBF, 0x03, 0xD4, 0x00});
  EXPECT_EQ(DetectFile(nav, "movie.vob"), MQ_FORMAT_VOB);
  EXPECT_EQ(DetectFile(nav, "movie.mpg"), MQ_FORMAT_MPEG2);
}

}  // namespace
}  // namespace marquel
