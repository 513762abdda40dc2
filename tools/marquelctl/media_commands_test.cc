// marquelctl detect and analyse, run as a user would on small synthesized media files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using ctltest::Bytes;
using ctltest::Ctl;
using Result = ctltest::CtlRun;

// 40 transport-stream units of `unit` bytes with the sync byte after a 0xFF prefix.
Bytes TsFile(size_t unit) {
  Bytes b(40 * unit, 0xFF);
  for (size_t i = 0; i < 40; ++i) b[i * unit + (unit - 188)] = 0x47;
  return b;
}

// MPEG-2 pack header with clock `base` (extension 0) and mux rate 25200.
Bytes Pack(uint64_t base) {
  return {0x00,
          0x00,
          0x01,
          0xBA,
          static_cast<uint8_t>(0x44 | (base >> 27 & 0x38) | (base >> 28 & 0x03)),
          static_cast<uint8_t>(base >> 20),
          static_cast<uint8_t>((base >> 12 & 0xF8) | 0x04 | (base >> 13 & 0x03)),
          static_cast<uint8_t>(base >> 5),
          static_cast<uint8_t>((base << 3 & 0xF8) | 0x04),
          0x01,
          0x01,
          0x89,
          0xC3,
          0xF8};
}

// Two MPEG-2 packs (clock 9000 then 18000), each with a small padding packet, then the
// end code.
Bytes ProgramStream() {
  Bytes b;
  for (uint64_t base : {9000u, 18000u}) {
    const Bytes pack = Pack(base);
    b.insert(b.end(), pack.begin(), pack.end());
    const Bytes padding = {0x00, 0x00, 0x01, 0xBE, 0x00, 0x04, 0xFF, 0xFF, 0xFF, 0xFF};
    b.insert(b.end(), padding.begin(), padding.end());
  }
  const Bytes end = {0x00, 0x00, 0x01, 0xB9};
  b.insert(b.end(), end.begin(), end.end());
  b.resize(4096, 0xAA);
  return b;
}

TEST(DetectCommand, PrintsCodeNameAndTransportLayout) {
  const std::string ts = test::TestPath("clip.ts");
  ctltest::WriteBytes(ts, TsFile(192));
  Result r = Ctl({"detect", ts});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "10 MQ_FORMAT_TS packet_size=192 first_packet_offset=0\n");
  r = Ctl({"detect", ts, "--json"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "{\"code\":10,\"name\":\"MQ_FORMAT_TS\",\"packet_size\":192,"
            "\"first_packet_offset\":0}\n");
  const std::string m2ts = test::TestPath("clip.M2TS");
  ctltest::WriteBytes(m2ts, TsFile(192));
  r = Ctl({"detect", "--json", m2ts});
  EXPECT_EQ(nlohmann::json::parse(r.out),
            nlohmann::json::parse(R"({"code":15,"name":"MQ_FORMAT_MTS"})"));
}

TEST(DetectCommand, ProgramStreamsAndNames) {
  const std::string mpg = test::TestPath("clip.mpg");
  ctltest::WriteBytes(mpg, ProgramStream());
  Result r = Ctl({"detect", mpg});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "2 MQ_FORMAT_MPEG2\n");
  const std::string empty = test::TestPath("empty.mov");
  ctltest::WriteBytes(empty, {});
  r = Ctl({"detect", "--json", empty});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "{\"code\":14,\"name\":\"MQ_FORMAT_MOV\"}\n");
  const std::string one = test::TestPath("one.bin");
  ctltest::WriteBytes(one, {0x47});
  r = Ctl({"detect", one});
  EXPECT_EQ(r.out, "0 MQ_FORMAT_NONE\n");
  // A folder exists but cannot be read as a file.
  r = Ctl({"detect", test::TestDir()});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "0 MQ_FORMAT_NONE\n");
}

TEST(DetectCommand, NamesTheFormatsKnownByTheirFirstBytes) {
  struct Case {
    Bytes head;
    const char* name;
    const char* expected;
  };
  const Case cases[] = {
      {{0x1A, 0x45, 0xDF, 0xA3, 0x87, 0x42, 0x82, 0x84, 'w', 'e', 'b', 'm'},
       "a.webm",
       "18 MQ_FORMAT_WEBM\n"},
      {{0x1A, 0x45, 0xDF, 0xA3, 0x80}, "a.mkv", "17 MQ_FORMAT_MKV\n"},
      {{'F', 'L', 'V', 1, 5, 0, 0, 0, 9}, "a.flv", "19 MQ_FORMAT_FLV\n"},
      {{0, 0, 0, 16, 'f', 't', 'y', 'p', '3', 'g', 'p', '5'}, "a.3gp", "21 MQ_FORMAT_3GP\n"},
      {{0, 0, 0, 1, 0x67, 0x42}, "a.264", "23 MQ_FORMAT_H264\n"},
  };
  for (const Case& c : cases) {
    Bytes bytes = c.head;
    bytes.resize(1000, 0x11);
    const std::string path = test::TestPath(c.name);
    ctltest::WriteBytes(path, bytes);
    Result r = Ctl({"detect", path});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, c.expected);
  }
}

TEST(DetectCommand, MissingFileAndUsage) {
  Result r = Ctl({"detect", test::TestPath("missing.ts")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("no such file"), std::string::npos);
  EXPECT_EQ(Ctl({"detect"}).status, 2);
  EXPECT_EQ(Ctl({"detect", "a", "b"}).status, 2);
  EXPECT_EQ(Ctl({"detect", "--bogus", "a"}).status, 2);
}

TEST(AnalyseCommand, WritesTheProgramStreamAnalysis) {
  const std::string mpg = test::TestPath("clip.mpg");
  ctltest::WriteBytes(mpg, ProgramStream());
  const std::string out = test::TestPath("out");
  ASSERT_EQ(mkdir(out.c_str(), 0700), 0);
  ctltest::WriteBytes(out + "/M2SAna.txt", {'o', 'l', 'd', '\n'});
  Result r = Ctl({"analyse", mpg, "--out", out});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("2 packs"), std::string::npos) << r.out;
  const std::string text = ctltest::ReadText(out + "/M2SAna.txt");
  EXPECT_EQ(text.find("PACK 1, SCR_base 9000, SCR_ext 0, MuxRate 25200, Staff 0\n"), 0u) << text;
  EXPECT_NE(text.find("PACK 2, SCR_base 18000, "), std::string::npos);
  EXPECT_NE(text.find("End of MPEG2\n"), std::string::npos);
  // Without --out the file goes to the current folder.
  r = Ctl({"analyse", mpg}, test::TestDir());
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(ctltest::ReadText(test::TestPath("M2SAna.txt")).find("PACK 2"), std::string::npos);
}

TEST(AnalyseCommand, TransportStreamsAndOtherFormats) {
  const std::string ts = test::TestPath("clip.ts");
  ctltest::WriteBytes(ts, TsFile(188));
  Result r = Ctl({"analyse", ts, "--out", test::TestDir()});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(ctltest::ReadText(test::TestPath("TSAna.txt")).find("Packet #"), std::string::npos);
  const std::string mov = test::TestPath("clip.mov");
  ctltest::WriteBytes(mov, Bytes(100, 0));
  r = Ctl({"analyse", mov});
  EXPECT_EQ(r.status, 1);  // a refusal
  EXPECT_NE(r.err.find("MQ_FORMAT_MOV"), std::string::npos);
  EXPECT_EQ(Ctl({"analyse", test::TestPath("missing.mpg")}).status, 1);
  EXPECT_EQ(Ctl({"analyse"}).status, 2);
}

}  // namespace
}  // namespace marquel
