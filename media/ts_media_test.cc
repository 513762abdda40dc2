// The transport-stream readers against ffmpeg-made files, checked with ffprobe.
#include <gtest/gtest.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "media/ts_decoder.h"
#include "media/ts_pat.h"
#include "platform/files.h"
#include "testsupport/fresh_home.h"
#include "ts_test_builder.h"

namespace marquel {
namespace {

struct MediaCase {
  const char* name;
  int32_t unit;
};

const MediaCase kCases[] = {
    {"ts188.ts", 188}, {"m2ts192.ts", 192}, {"m2ts192.m2ts", 192},
    {"ts204.ts", 204}, {"ts2prog.ts", 188},
};

std::string MediaPath(const std::string& name) {
  return std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + name;
}

struct ProbedProgram {
  uint32_t pmt_pid = 0;
  std::vector<std::pair<uint32_t, std::string>> streams;  // PID, codec name
};

// The programs as ffprobe reports them, in its order.
std::vector<ProbedProgram> Ffprobe(const std::string& path) {
  const std::string command = "ffprobe -v error -show_programs -of json '" + path + "'";
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), pipe)) > 0) out.append(buf, n);
    pclose(pipe);
  }
  std::vector<ProbedProgram> programs;
  const auto json = nlohmann::json::parse(out, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return programs;
  for (const auto& p : json.value("programs", nlohmann::json::array())) {
    ProbedProgram program;
    program.pmt_pid = p.value("pmt_pid", 0u);
    for (const auto& s : p.value("streams", nlohmann::json::array())) {
      program.streams.emplace_back(std::stoul(s.value("id", "0x0"), nullptr, 16),
                                   s.value("codec_name", ""));
    }
    programs.push_back(program);
  }
  return programs;
}

class TsMediaTest : public ::testing::TestWithParam<MediaCase> {};

TEST_P(TsMediaTest, FindPmtPidAgreesWithFfprobe) {
  const std::string path = MediaPath(GetParam().name);
  const auto probed = Ffprobe(path);
  ASSERT_FALSE(probed.empty()) << path;
  const FileHandle h =
      OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                     FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  ASSERT_NE(h, kInvalidFileHandle);
  EXPECT_EQ(FindPmtPid(h, GetParam().unit, 0), static_cast<int32_t>(probed[0].pmt_pid));
  CloseFileHandle(h);
}

TEST_P(TsMediaTest, ReaderProgramsAgreeWithFfprobe) {
  const std::string path = MediaPath(GetParam().name);
  const auto probed = Ffprobe(path);
  ASSERT_FALSE(probed.empty()) << path;
  const std::string data = test::ReadText(path);
  ASSERT_GT(data.size(), 2041u);
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  CTSSysDec dec;
  ASSERT_EQ(dec.InitFromData(bytes, static_cast<int32_t>(std::min<size_t>(data.size(), 512000))),
            1);
  EXPECT_EQ(dec.GetUnitSize(), GetParam().unit);
  for (size_t at = 0; at < data.size(); at += 2324) {
    const size_t n = std::min<size_t>(2324, data.size() - at);
    ASSERT_GE(dec.Feed(bytes + at, static_cast<int32_t>(n)), 0);
  }
  EXPECT_EQ(dec.packet_count(), data.size() / GetParam().unit);
  ASSERT_EQ(dec.programs().count(), static_cast<int32_t>(probed.size()));
  for (size_t i = 0; i < probed.size(); ++i) {
    const TsProgram& program = dec.programs().program(static_cast<int32_t>(i));
    EXPECT_EQ(program.pmt_pid, probed[i].pmt_pid);
    ASSERT_EQ(program.stream_count, static_cast<int32_t>(probed[i].streams.size()));
    for (size_t s = 0; s < probed[i].streams.size(); ++s) {
      EXPECT_EQ(program.streams[s].pid, probed[i].streams[s].first);
      // The audio's stream type depends on the muxer's mode (0x03, or 0x06 in M2TS
      // mode), so only the video kind is compared.
      if (probed[i].streams[s].second == "mpeg2video") {
        EXPECT_EQ(program.streams[s].kind, kTsKindMpeg2Video);
      }
    }
  }
}

TEST_P(TsMediaTest, AnalysisCrcsMatchTheStoredOnes) {
  const std::string path = MediaPath(GetParam().name);
  const std::string data = test::ReadText(path);
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(GetParam().unit), 1);
  const std::string ana = test::TestPath("TSAna.txt");
  ASSERT_EQ(dec.SetAnalysis(1, ana.c_str()), 1);
  const size_t part = std::min<size_t>(data.size(), 200 * static_cast<size_t>(GetParam().unit));
  dec.Feed(reinterpret_cast<const uint8_t*>(data.data()), static_cast<int32_t>(part));
  dec.SetAnalysis(0, nullptr);
  const std::string text = test::ReadText(ana);
  int lines = 0;
  for (size_t at = 0; (at = text.find("CRC Code 0x", at)) != std::string::npos; ++at) {
    unsigned stored = 0, computed = 0;
    ASSERT_EQ(std::sscanf(text.c_str() + at, "CRC Code 0x%x, cal one %x", &stored, &computed), 2);
    EXPECT_EQ(stored, computed);
    ++lines;
  }
  EXPECT_GE(lines, 2);  // at least one PAT and one PMT
  EXPECT_NE(text.find("sequence_header"), std::string::npos);
  EXPECT_NE(text.find("PCR = "), std::string::npos);
  if (GetParam().unit == 192) {
    // ffmpeg's M2TS mode puts a DTCP descriptor (CA system 0x0FFF) into the PMT.
    EXPECT_NE(text.find("DTCPDescriptor 4095, CCI"), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(Files, TsMediaTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<MediaCase>& info) {
                           std::string name = info.param.name;
                           for (char& c : name) {
                             if (c == '.') c = '_';
                           }
                           return name;
                         });

}  // namespace
}  // namespace marquel
