// File type detection on synthesized bytes: names, extension rules, the AVI and
// transport-stream probes, and the order of the steps.
#include "media/file_type.h"

#include <gtest/gtest.h>

#include <cstring>

#include "ps_test_builder.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using pstest::Bytes;

// Transport-stream units: `count` units of `unit` bytes, the sync byte `prefix` bytes
// into each, everything else 0xFF.
Bytes TsUnits(size_t count, size_t unit, size_t prefix, size_t lead = 0) {
  Bytes b(lead + count * unit, 0xFF);
  for (size_t i = 0; i < count; ++i) b[lead + i * unit + prefix] = 0x47;
  return b;
}

uint32_t Detect(const Bytes& data, const std::string& name, TsLayout* layout = nullptr) {
  MemoryProbeSource source(data.data(), data.size());
  return DetectFileType(layout, source, name);
}

TEST(FormatNames, NamesInCodeOrderWithTheOldSeventeenFirst) {
  const char* expected[] = {
      "MQ_FORMAT_NONE",    "MQ_FORMAT_MPEG1",     "MQ_FORMAT_MPEG2",     "MQ_FORMAT_VCD",
      "MQ_FORMAT_SVCD",    "MQ_FORMAT_MPEG4",     "MQ_FORMAT_VOB",       "MQ_FORMAT_VRO",
      "MQ_FORMAT_AVI",     "MQ_FORMAT_DV",        "MQ_FORMAT_TS",        "MQ_FORMAT_DVRMS",
      "MQ_FORMAT_WMV",     "MQ_FORMAT_ASF",       "MQ_FORMAT_MOV",       "MQ_FORMAT_MTS",
      "MQ_FORMAT_TIVO",    "MQ_FORMAT_MKV",       "MQ_FORMAT_WEBM",      "MQ_FORMAT_FLV",
      "MQ_FORMAT_ISOBMFF", "MQ_FORMAT_3GP",       "MQ_FORMAT_OGG",       "MQ_FORMAT_H264",
      "MQ_FORMAT_HEVC",    "MQ_FORMAT_MPEGVIDEO", "MQ_FORMAT_MPEG4VIDEO"};
  ASSERT_EQ(kFormatCount, 27u);
  for (uint32_t code = 0; code < kFormatCount; ++code) {
    EXPECT_STREQ(GetFormatName(code), expected[code]) << code;
  }
  EXPECT_EQ(MQ_FORMAT_TIVO, 16u);
  EXPECT_EQ(MQ_FORMAT_MKV, 17u);
  EXPECT_STREQ(GetFormatName(27), "MQ_FORMAT_NONE");
}

TEST(FormatNames, OtherFormatsAreTheExtensionOnesMpeg4AndEveryNewCode) {
  for (uint32_t code = 0; code < 40; ++code) {
    const bool magic = code >= 17 && code <= 26;
    const bool other = code == 5 || (code >= 11 && code <= 16) || magic;
    EXPECT_EQ(IsOtherFormat(code), other) << code;
    EXPECT_EQ(IsMagicNumberFormat(code), magic) << code;
  }
}

TEST(FileNameExtension, LastComponentFromItsLastPeriod) {
  EXPECT_EQ(FileNameExtension("/a/b/clip.MPG"), ".MPG");
  EXPECT_EQ(FileNameExtension("/a/b/clip.tar.m2ts"), ".m2ts");
  EXPECT_EQ(FileNameExtension("/a.dir/clip"), "");
  EXPECT_EQ(FileNameExtension("C:\\x.y\\clip"), "");
  EXPECT_EQ(FileNameExtension("clip."), ".");
  EXPECT_EQ(FileNameExtension(""), "");
}

TEST(DetectByName, ExtensionOnlyFormatsIgnoreCase) {
  const Bytes junk(5000, 0xAA);
  EXPECT_EQ(Detect(junk, "/v/clip.MOV"), MQ_FORMAT_MOV);
  EXPECT_EQ(Detect(junk, "/v/clip.mov"), MQ_FORMAT_MOV);
  EXPECT_EQ(Detect(junk, "/v/clip.Dvr-Ms"), MQ_FORMAT_DVRMS);
  EXPECT_EQ(Detect(junk, "/v/clip.mp4"), MQ_FORMAT_MPEG4);
  EXPECT_EQ(Detect(junk, "/v/clip.WMV"), MQ_FORMAT_WMV);
  EXPECT_EQ(Detect(junk, "/v/clip.asf"), MQ_FORMAT_ASF);
  EXPECT_EQ(Detect(junk, "/v/clip.TiVo"), MQ_FORMAT_TIVO);
  for (const char* name : {"/v/a.mts", "/v/a.M2TS", "/v/a.tod", "/v/a.MOD"}) {
    EXPECT_EQ(Detect(junk, name), MQ_FORMAT_MTS) << name;
  }
  EXPECT_EQ(Detect(junk, "/v/clip.avi"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(junk, "/v/clip.mpg"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(junk, "/v/clip.mov.bak"), MQ_FORMAT_NONE);
}

TEST(ProbeAvi, NeedsRiffAndAvih) {
  Bytes avi(64, 0);
  std::memcpy(avi.data(), "RIFF", 4);
  std::memcpy(avi.data() + 8, "AVI LIST", 8);
  std::memcpy(avi.data() + 24, "avih", 4);
  EXPECT_EQ(Detect(avi, "/v/x.bin"), MQ_FORMAT_AVI);

  // A RIFF file whose bytes 24-27 are not "avih" goes on through the other steps.
  Bytes wave = avi;
  std::memcpy(wave.data() + 24, "fmt ", 4);
  EXPECT_EQ(Detect(wave, "/v/x.avi"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(wave, "/v/x.mov"), MQ_FORMAT_MOV);
  Bytes wave_ts = TsUnits(20, 188, 0, 188);
  std::memcpy(wave_ts.data(), wave.data(), 64);
  TsLayout layout;
  EXPECT_EQ(Detect(wave_ts, "/v/x.avi", &layout), MQ_FORMAT_TS);
  EXPECT_EQ(layout.first_packet_offset, 188u);

  Bytes no_riff = avi;
  no_riff[0] = 'X';
  EXPECT_EQ(Detect(no_riff, "/v/x.avi"), MQ_FORMAT_NONE);
  // Too short for the second read.
  Bytes shorty(26, 0);
  std::memcpy(shorty.data(), "RIFF", 4);
  MemoryProbeSource source(shorty.data(), shorty.size());
  EXPECT_EQ(ProbeAviFile(source), MQ_FORMAT_NONE);
}

TEST(ProbeTs, PacketSizesAndOffsets) {
  uint32_t size = 1, offset = 1;
  Bytes ts = TsUnits(30, 188, 0, 100);
  EXPECT_EQ(ProbeTransportStreamBuffer(ts.data(), ts.size(), &size, &offset), MQ_FORMAT_TS);
  EXPECT_EQ(size, 188u);
  EXPECT_EQ(offset, 100u);

  ts = TsUnits(30, 204, 16);
  EXPECT_EQ(ProbeTransportStreamBuffer(ts.data(), ts.size(), &size, &offset), MQ_FORMAT_TS);
  EXPECT_EQ(size, 204u);
  EXPECT_EQ(offset, 0u);

  // Either out-argument may be absent.
  EXPECT_EQ(ProbeTransportStreamBuffer(ts.data(), ts.size(), nullptr, nullptr), MQ_FORMAT_TS);
}

TEST(ProbeTs, FirstSyncAtFourGivesOffsetZeroAtThreeSkips192) {
  uint32_t size = 0, offset = 0;
  Bytes at4 = TsUnits(30, 192, 4);
  EXPECT_EQ(ProbeTransportStreamBuffer(at4.data(), at4.size(), &size, &offset), MQ_FORMAT_TS);
  EXPECT_EQ(size, 192u);
  EXPECT_EQ(offset, 0u);

  // Sync bytes at 3, 195, 387 ...: position 3 cannot hold a 4-byte prefix, so the 192
  // test is not tried there; position 195 passes and gives offset 191.
  Bytes at3 = TsUnits(30, 192, 3);
  EXPECT_EQ(ProbeTransportStreamBuffer(at3.data(), at3.size(), &size, &offset), MQ_FORMAT_TS);
  EXPECT_EQ(size, 192u);
  EXPECT_EQ(offset, 191u);

  // The same for 204 below position 16.
  Bytes at15 = TsUnits(30, 204, 15);
  EXPECT_EQ(ProbeTransportStreamBuffer(at15.data(), at15.size(), &size, &offset), MQ_FORMAT_TS);
  EXPECT_EQ(size, 204u);
  EXPECT_EQ(offset, 15u + 204u - 16u);
}

TEST(ProbeTs, OneEightyEightWinsAtTheSamePosition) {
  Bytes both = TsUnits(30, 188, 0);
  for (size_t k = 1; k <= 5; ++k) both[192 * k] = 0x47;
  uint32_t size = 0, offset = 9;
  EXPECT_EQ(ProbeTransportStreamBuffer(both.data(), both.size(), &size, &offset), MQ_FORMAT_TS);
  EXPECT_EQ(size, 188u);
  EXPECT_EQ(offset, 0u);
}

TEST(ProbeTs, FiveFollowersAreRequired) {
  Bytes ts = TsUnits(5, 188, 0);  // sync at 0 and four more only
  ts.resize(5000, 0xFF);
  uint32_t size = 7, offset = 7;
  EXPECT_EQ(ProbeTransportStreamBuffer(ts.data(), ts.size(), &size, &offset), MQ_FORMAT_NONE);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(offset, 0u);
  Bytes stray(5000, 0x47 ^ 0xFF);
  stray[10] = 0x47;
  EXPECT_EQ(ProbeTransportStreamBuffer(stray.data(), stray.size(), nullptr, nullptr),
            MQ_FORMAT_NONE);
}

TEST(ProbeTs, FilesShorterThan2041BytesAreNeverTs) {
  Bytes ts = TsUnits(11, 188, 0);  // 2068 bytes
  ts.resize(2040);
  EXPECT_EQ(Detect(ts, "/v/x.ts"), MQ_FORMAT_NONE);
  ts.resize(2041, 0xFF);
  EXPECT_EQ(Detect(ts, "/v/x.ts"), MQ_FORMAT_TS);
}

TEST(DetectTs, M2tsNameDecidedBeforeContent) {
  const Bytes ts = TsUnits(40, 192, 4);
  TsLayout layout{7, 7};
  EXPECT_EQ(Detect(ts, "/v/clip.m2ts", &layout), MQ_FORMAT_MTS);
  EXPECT_EQ(layout.packet_size, 7u);  // the transport probe did not run
  EXPECT_EQ(Detect(ts, "/v/clip.ts", &layout), MQ_FORMAT_TS);
  EXPECT_EQ(layout.packet_size, 192u);
  EXPECT_EQ(layout.first_packet_offset, 0u);
  // A failed transport probe still writes its zeros.
  const Bytes junk(5000, 0xAA);
  EXPECT_EQ(Detect(junk, "/v/clip.mov", &layout), MQ_FORMAT_MOV);
  EXPECT_EQ(layout.packet_size, 0u);
  EXPECT_EQ(layout.first_packet_offset, 0u);
}

TEST(DetectEmpty, EmptyOneByteAndUnreadable) {
  EXPECT_EQ(Detect(Bytes(), "/v/x.mpg"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Bytes{0x00}, "/v/x.ts"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Bytes{0x47}, "/v/x.mov"), MQ_FORMAT_MOV);
  TsLayout layout;
  EXPECT_EQ(DetectFileType(&layout, kInvalidFileHandle, "/v/x.mpg"), MQ_FORMAT_NONE);
  EXPECT_EQ(DetectFileType(&layout, kInvalidFileHandle, "/v/x.tivo"), MQ_FORMAT_TIVO);
  EXPECT_EQ(ProbeProgramStream(kInvalidFileHandle), MQ_FORMAT_NONE);
  EXPECT_EQ(ProbeAviFile(kInvalidFileHandle), MQ_FORMAT_NONE);
  EXPECT_EQ(ProbeTransportStream(kInvalidFileHandle, nullptr, nullptr), MQ_FORMAT_NONE);
}

TEST(DetectFile, ThroughARealFileHandle) {
  const std::string path = test::TestPath("clip.ts");
  pstest::WriteAll(path, TsUnits(40, 188, 0, 5));
  const FileHandle h = OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                      0, kInvalidFileHandle);
  ASSERT_NE(h, kInvalidFileHandle);
  TsLayout layout;
  EXPECT_EQ(DetectFileType(&layout, h, path), MQ_FORMAT_TS);
  EXPECT_EQ(layout.packet_size, 188u);
  EXPECT_EQ(layout.first_packet_offset, 5u);
  CloseFileHandle(h);
}

// A 4 GiB transport stream (sparse past its first packets): detection reads the AVI
// probe's 8 bytes and the transport probe's 512,000 bytes from one read of the head,
// never the rest.
TEST(DetectFile, LargeTransportStreamReadsOnlyItsHead) {
  const std::string path = test::TestPath("big.ts");
  const FileHandle h = OpenFileHandle(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      0, kInvalidFileHandle);
  ASSERT_NE(h, kInvalidFileHandle);
  const Bytes head = TsUnits(4000, 188, 0);
  uint32_t written = 0;
  ASSERT_TRUE(WriteFile(h, head.data(), static_cast<uint32_t>(head.size()), &written));
  ASSERT_EQ(SeekFile(h, (int64_t{4} << 30) - 1, FILE_BEGIN), (int64_t{4} << 30) - 1);
  ASSERT_TRUE(WriteFile(h, "\0", 1, &written));
  ASSERT_EQ(GetFileSize64(h), int64_t{4} << 30);

  FileProbeSource ts_only(h);
  EXPECT_EQ(ProbeTransportStream(ts_only, nullptr, nullptr), MQ_FORMAT_TS);
  EXPECT_LE(ts_only.bytes_read(), 512000u);
  EXPECT_EQ(ts_only.read_extent(), 512000u);

  FileProbeSource source(h);
  TsLayout layout;
  EXPECT_EQ(DetectFileType(&layout, source, path), MQ_FORMAT_TS);
  EXPECT_EQ(layout.packet_size, 188u);
  // Nothing past the first 512,000 bytes is read, and each of them once: the AVI probe's
  // two 4-byte reads and the sync probe's read are all served from one read of the head.
  EXPECT_EQ(source.read_extent(), 512000u);
  EXPECT_EQ(source.bytes_read(), 512000u);
  CloseFileHandle(h);
}

// --- The magic-number probe: codes 17 and up --------------------------------------------

// An EBML header holding the given elements (id bytes, then a one-byte size and the data),
// followed by the start of a segment.
Bytes Ebml(const Bytes& elements) {
  // Appended byte by byte: GCC 12 warns wrongly (-Warray-bounds) on a range insert here.
  Bytes b = {0x1A, 0x45, 0xDF, 0xA3, static_cast<uint8_t>(0x80 | elements.size())};
  for (uint8_t x : elements) b.push_back(x);
  for (uint8_t x : {0x18, 0x53, 0x80, 0x67, 0x01, 0x00, 0x00, 0x00}) b.push_back(x);
  b.resize(600, 0);
  return b;
}

Bytes DocType(const std::string& type) {
  Bytes b = {0x42, 0x86, 0x81, 0x01, 0x42, 0x82, static_cast<uint8_t>(0x80 | type.size())};
  for (char c : type) b.push_back(static_cast<uint8_t>(c));
  return b;
}

Bytes Head(std::initializer_list<uint8_t> first, const char* text = "") {
  Bytes b(first);
  b.insert(b.end(), text, text + std::strlen(text));
  b.resize(600, 0x5A);
  return b;
}

TEST(DetectMagic, EbmlDocTypeTellsMatroskaFromWebM) {
  EXPECT_EQ(Detect(Ebml(DocType("matroska")), "/v/clip.mkv"), MQ_FORMAT_MKV);
  EXPECT_EQ(Detect(Ebml(DocType("webm")), "/v/clip"), MQ_FORMAT_WEBM);
  // Without a DocType the EBML default, Matroska, holds; a padded DocType still reads.
  EXPECT_EQ(Detect(Ebml({0x42, 0x86, 0x81, 0x01}), "/v/clip.mka"), MQ_FORMAT_MKV);
  EXPECT_EQ(Detect(Ebml(DocType(std::string("webm\0\0", 6))), "/v/clip"), MQ_FORMAT_WEBM);
  EXPECT_EQ(Detect(Ebml(DocType("other")), "/v/clip.mkv"), MQ_FORMAT_NONE);
  // An element whose size runs past the header is no header at all.
  Bytes broken = Ebml(DocType("matroska"));
  broken[11] = 0x90;
  EXPECT_EQ(Detect(broken, "/v/clip.mkv"), MQ_FORMAT_NONE);
  // A header larger than what the probe reads is not looked into.
  Bytes huge = Ebml(DocType("webm"));
  huge[4] = 0x41;
  huge[5] = 0x00;
  EXPECT_EQ(Detect(huge, "/v/clip.webm"), MQ_FORMAT_NONE);
  // Older steps keep their answers: the name of an extension format comes first.
  EXPECT_EQ(Detect(Ebml(DocType("matroska")), "/v/clip.wmv"), MQ_FORMAT_WMV);
}

TEST(DetectMagic, FlvNeedsVersionOneAndItsFlags) {
  EXPECT_EQ(Detect(Head({'F', 'L', 'V', 1, 0x05, 0, 0, 0, 9}), "/v/a.flv"), MQ_FORMAT_FLV);
  EXPECT_EQ(Detect(Head({'F', 'L', 'V', 1, 0x01, 0, 0, 0, 9}), "/v/a"), MQ_FORMAT_FLV);
  EXPECT_EQ(Detect(Head({'F', 'L', 'V', 2, 0x05, 0, 0, 0, 9}), "/v/a.flv"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({'F', 'L', 'V', 1, 0x08, 0, 0, 0, 9}), "/v/a.flv"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({'F', 'L', 'V', 1, 0x05, 0, 0, 0, 8}), "/v/a.flv"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Bytes{'F', 'L', 'V', 1, 5}, "/v/a.flv"), MQ_FORMAT_NONE);
}

TEST(DetectMagic, FtypBoxMakesTheMpeg4FamilyAndItsBrandTheThirdGeneration) {
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x20}, "ftypisom"), "/v/a.m4v"), MQ_FORMAT_ISOBMFF);
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x14}, "ftypqt  "), "/v/a.qt"), MQ_FORMAT_ISOBMFF);
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x1C}, "ftyp3gp4"), "/v/a.3gp"), MQ_FORMAT_3GP);
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x1C}, "ftyp3g2a"), "/v/a.3g2"), MQ_FORMAT_3GP);
  // A QuickTime file without "ftyp" starts with one of its top-level atoms.
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x08}, "wide"), "/v/a.qt"), MQ_FORMAT_ISOBMFF);
  EXPECT_EQ(Detect(Head({0, 0, 0x10, 0}, "moov"), "/v/a"), MQ_FORMAT_ISOBMFF);
  // Box sizes too small for the box, and unknown leading boxes, are not taken.
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x0C}, "ftypisom"), "/v/a.m4v"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x04}, "moov"), "/v/a.qt"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x10}, "junk"), "/v/a.qt"), MQ_FORMAT_NONE);
  // The names that had codes keep them.
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x20}, "ftypisom"), "/v/a.mp4"), MQ_FORMAT_MPEG4);
  EXPECT_EQ(Detect(Head({0, 0, 0, 0x14}, "ftypqt  "), "/v/a.MOV"), MQ_FORMAT_MOV);
}

TEST(DetectMagic, OggNeedsItsFirstPage) {
  EXPECT_EQ(Detect(Head({'O', 'g', 'g', 'S', 0, 0x02}), "/v/a.ogv"), MQ_FORMAT_OGG);
  EXPECT_EQ(Detect(Head({'O', 'g', 'g', 'S', 0, 0x00}), "/v/a.ogv"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({'O', 'g', 'g', 'S', 1, 0x02}), "/v/a.ogv"), MQ_FORMAT_NONE);
}

TEST(DetectMagic, RawVideoStreamsByTheirFirstUnit) {
  EXPECT_EQ(Detect(Head({0, 0, 0, 1, 0x67, 0x64}), "/v/a.h264"), MQ_FORMAT_H264);
  EXPECT_EQ(Detect(Head({0, 0, 1, 0x09, 0x10}), "/v/a.264"), MQ_FORMAT_H264);
  EXPECT_EQ(Detect(Head({0, 0, 0, 1, 0x06, 0x05}), "/v/a.264"), MQ_FORMAT_H264);
  EXPECT_EQ(Detect(Head({0, 0, 0, 1, 0x40, 0x01}), "/v/a.hevc"), MQ_FORMAT_HEVC);
  EXPECT_EQ(Detect(Head({0, 0, 0, 1, 0x46, 0x01}), "/v/a.265"), MQ_FORMAT_HEVC);
  EXPECT_EQ(Detect(Head({0, 0, 1, 0xB3, 0x04, 0x00}), "/v/a.m2v"), MQ_FORMAT_MPEGVIDEO);
  EXPECT_EQ(Detect(Head({0, 0, 1, 0xB0, 0x01}), "/v/a.m4v"), MQ_FORMAT_MPEG4VIDEO);
  EXPECT_EQ(Detect(Head({0, 0, 1, 0x00, 0, 0, 1, 0x20}), "/v/a.m4v"), MQ_FORMAT_MPEG4VIDEO);
  // A slice first, a layer other than 0, a temporal id of 0, or no start code at byte 0.
  EXPECT_EQ(Detect(Head({0, 0, 0, 1, 0x41, 0x9A}), "/v/a.h264"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({0, 0, 0, 1, 0x40, 0x09}), "/v/a.hevc"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({0, 0, 0, 1, 0x40, 0x00}), "/v/a.hevc"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({0, 0, 1, 0x00, 0, 0, 1, 0x40}), "/v/a.m4v"), MQ_FORMAT_NONE);
  EXPECT_EQ(Detect(Head({0xFF, 0, 0, 1, 0xB3}), "/v/a.m2v"), MQ_FORMAT_NONE);
  // A pack start code is still the program-stream probe's to answer.
  EXPECT_EQ(Detect(Head({0, 0, 1, 0xBA, 0x00}), "/v/a.m2v"), MQ_FORMAT_NONE);
}

}  // namespace
}  // namespace marquel
