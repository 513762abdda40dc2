#include <gtest/gtest.h>

#include <cstdio>

#include "media/ts_decoder.h"
#include "platform/crc32.h"
#include "testsupport/fresh_home.h"
#include "ts_test_builder.h"

namespace marquel {
namespace {

using test::Bytes;

std::string Hex(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof(buf), "%x", v);
  return buf;
}

uint32_t StoredCrc(const Bytes& section) {
  const size_t n = section.size();
  return (uint32_t{section[n - 4]} << 24) | (uint32_t{section[n - 3]} << 16) |
         (uint32_t{section[n - 2]} << 8) | section[n - 1];
}

// Runs `bytes` through a reader with the analysis on and answers the analysis text.
class AnalysisTest : public ::testing::Test {
 protected:
  std::string Analyse(const Bytes& bytes, int unit = 188) {
    EXPECT_EQ(dec_.Init(unit), 1);
    EXPECT_EQ(dec_.SetAnalysis(1, path_.c_str()), 1);
    dec_.Feed(bytes.data(), static_cast<int32_t>(bytes.size()));
    dec_.SetAnalysis(0, nullptr);  // closes the file
    return test::ReadText(path_);
  }
  const std::string path_ = test::TestPath("TSAna.txt");
  CTSSysDec dec_;
};

TEST_F(AnalysisTest, PatPacketText) {
  const Bytes section = test::PatSection({{0, 0x10}, {1, 0x100}});
  const std::string text = Analyse(test::Concat(test::SectionPackets(0, section)));
  const uint32_t crc = StoredCrc(section);
  EXPECT_EQ(text,
            "Packet #0, e=0, si=1, p=0, PID=0x0, scramble=0, adaption=1, cc=0\r\n"
            "PAT :TI=0, SI=1, SL=17, TI=0x1, V=0, NI=1, SN=0, LSN=0\r\n"
            "PN=0, NetPID=0x10\r\n"
            "PN=1, PMAPPID=0x100\r\n"
            "CRC Code 0x" +
                Hex(crc) + ", cal one " + Hex(crc) +
                "\r\n"
                "\r\n");
}

TEST_F(AnalysisTest, CrcMismatchIsOnlyShown) {
  Bytes section = test::PatSection({{1, 0x100}});
  const uint32_t good = StoredCrc(section);
  section.back() ^= 0x01;
  const std::string text = Analyse(test::Concat(test::SectionPackets(0, section)));
  EXPECT_NE(text.find("CRC Code 0x" + Hex(good ^ 1) + ", cal one " + Hex(good) + "\r\n"),
            std::string::npos)
      << text;
  ASSERT_EQ(dec_.programs().count(), 1);
  EXPECT_EQ(dec_.programs().program(0).pmt_pid, 0x100u);
}

TEST_F(AnalysisTest, PatLength1022IsReportedAndIgnored) {
  Bytes section = test::PatSection({{9, 0x909}});
  section[1] = 0xB3;  // 0x3FE = 1022
  section[2] = 0xFE;
  const std::string text = Analyse(test::Concat(test::SectionPackets(0, section)));
  EXPECT_NE(text.find("SL=1022,"), std::string::npos);
  EXPECT_NE(text.find("Invalid sec length\r\n"), std::string::npos);
  EXPECT_EQ(text.find("PMAPPID"), std::string::npos);
  EXPECT_EQ(text.find("CRC Code"), std::string::npos);
  EXPECT_EQ(dec_.programs().count(), 0);
}

TEST_F(AnalysisTest, PidLabelsAndPacketCounter) {
  auto packet = [](uint32_t pid, uint8_t cc) {
    test::PacketSpec spec;
    spec.pid = pid;
    spec.cc = cc;
    spec.payload = Bytes(184, 0xFF);
    return test::Packet(spec);
  };
  const std::string text = Analyse(test::Concat(
      {packet(1, 3), packet(0x1F, 4), packet(0x1FFF, 5), packet(8190, 6), packet(0x55, 7)}));
  EXPECT_NE(
      text.find("Packet #0, e=0, si=0, p=0, PID=0x1, scramble=0, adaption=1, cc=3\r\nCAT\t:\r\n"),
      std::string::npos);
  EXPECT_NE(text.find("Packet #1, e=0, si=0, p=0, PID=0x1f, scramble=0, adaption=1, cc=4\r\nSIT :"),
            std::string::npos);
  EXPECT_NE(text.find("PID=0x1fff, scramble=0, adaption=1, cc=5\r\nNULL Packet :\r\n"),
            std::string::npos);
  EXPECT_NE(
      text.find("Packet #3, e=0, si=0, p=0, PID=0x1ffe, scramble=0, adaption=1, cc=6\r\n\r\n"),
      std::string::npos);
  EXPECT_NE(text.find("Packet #4, e=0, si=0, p=0, PID=0x55,"), std::string::npos);
}

TEST_F(AnalysisTest, HeaderBitsArePrinted) {
  Bytes p = test::NullPacket();
  p[1] = 0xE0 | 0x01;  // error, unit start, priority, PID 0x100
  p[2] = 0x00;
  p[3] = 0xC0 | 0x10 | 0x09;  // scrambling 3, payload only, cc 9
  const std::string text = Analyse(p);
  EXPECT_EQ(text, "Packet #0, e=1, si=1, p=1, PID=0x100, scramble=3, adaption=1, cc=9\r\n\r\n");
}

TEST_F(AnalysisTest, AdaptationField) {
  Bytes field = {0x1F};
  const Bytes pcr = test::PcrField(90000, 0);  // 1000 ms
  const Bytes opcr = test::PcrField(45, 150);  // (45 * 300 + 150) / 27000 ms
  field.insert(field.end(), pcr.begin() + 1, pcr.end());
  field.insert(field.end(), opcr.begin() + 1, opcr.end());
  field.push_back(0xFD);                          // splice countdown -3
  field.insert(field.end(), {0x02, 0xAB, 0xCD});  // private data
  field.insert(field.end(), {0x01, 0x00});        // extension
  test::PacketSpec spec;
  spec.pid = 0x44;
  spec.adaptation = field;
  spec.control = 2;
  const std::string text = Analyse(test::Packet(spec));
  EXPECT_NE(text.find("afl = 183,PCR = 1000.00000 msec,OPCR =    0.50556 msec,"
                      "splice_countdown = -3,private data length = 2,"
                      "adaption field extension length 1,\r\n"),
            std::string::npos)
      << text;
}

TEST_F(AnalysisTest, AdaptationFieldPartsBeyondItsLengthAreNotRead) {
  test::PacketSpec spec;
  spec.pid = 0x44;
  spec.control = 3;
  spec.adaptation = test::PcrField(90000, 0);
  spec.adaptation_length = 4;  // the PCR flag is set but the field ends before the PCR
  spec.payload = {0x00, 0x01};
  const std::string text = Analyse(test::Packet(spec));
  EXPECT_NE(text.find("afl = 4,\r\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("PCR"), std::string::npos);
}

TEST_F(AnalysisTest, PmtWithDescriptors) {
  const Bytes video_desc = {0x02, 0x03, 0x9A, 0x48, 0x5F};  // MF 1, FR 3, not MPEG-1 only
  const Bytes audio_desc = {0x03, 0x01, 0x48};              // ID 1, layer 0, VB 1
  const Bytes component = {0x52, 0x01, 0x30};
  const Bytes dtcp = {0x88, 0x04, 0x0F, 0xFF, 0xFE, 0x00};  // CCI 2
  const Bytes other = {0x0A, 0x04, 'e', 'n', 'g', 0x00};
  const Bytes section = test::PmtSection(
      7, 0x111, {{0x02, 0x111, video_desc}, {0x03, 0x112, audio_desc}, {0x81, 0x113, dtcp}}, [&] {
        Bytes info = component;
        info.insert(info.end(), other.begin(), other.end());
        return info;
      }());
  std::vector<Bytes> packets = test::SectionPackets(0, test::PatSection({{7, 0x100}}));
  test::Append(packets, test::SectionPackets(0x100, section));
  const std::string text = Analyse(test::Concat(packets));
  const uint32_t crc = StoredCrc(section);
  const std::string expected = "TI=2, SI=1, SL=" + std::to_string(section.size() - 3) +
                               ", PN=7, V=0, NI=1, SN=0, LSN=0, PCRPID=0x111, PIL=9\r\n"
                               "DI=82\r\nComponentTag 0x30\r\n"
                               "DI=10\r\n"
                               "StreamType=0x2, EPID=0x111, ESIL=5\r\n"
                               "DI=2, DL=3, MF=1, FR=0x3, M1O=0, Cons=1, SP=0\r\n"
                               "PL=72, CF=1, FRE=0\r\n"
                               "StreamType=0x3, EPID=0x112, ESIL=3\r\n"
                               "DI=3, DL=1, Free=0, ID=1, Layer=0, VB=1\r\n"
                               "StreamType=0x81, EPID=0x113, ESIL=6\r\n"
                               "DI=136\r\nDTCPDescriptor 4095, CCI 2\r\n"
                               "CRC Code 0x" +
                               Hex(crc) + ", cal one " + Hex(crc) + "\r\n";
  EXPECT_NE(text.find(expected), std::string::npos) << text;
  ASSERT_EQ(dec_.programs().program(0).stream_count, 3);
  EXPECT_EQ(dec_.programs().program(0).streams[2].kind, kTsKindAc3Audio);
}

TEST_F(AnalysisTest, SelectionInformationTable) {
  Bytes s = {0x7F, 0xF0, 0x00, 0xFF, 0xFF, 0xC1, 0x00, 0x00, 0xF0, 0x05};
  s.insert(s.end(), {0x63, 0x03, 0x01, 0x02, 0x03});  // transmission-info descriptor
  s.insert(s.end(), {0x00, 0x65, 0xC0, 0x06});        // service 0x65, running 4, 6 bytes
  s.insert(s.end(), {0x48, 0x01, 0x00, 0x4D, 0x01, 0x00});
  const Bytes section = test::FinishSection(s);
  const std::string text = Analyse(test::Concat(test::SectionPackets(0x1F, section)));
  EXPECT_NE(text.find("SIT :First loop : tag 0x63, deslength 3\r\n"
                      "SID=0x65, RS=4, SLL=6\r\n"
                      "DTag=0x48, DL=1\r\n"
                      "DTag=0x4d, DL=1\r\n"
                      "CRC Code 0x"),
            std::string::npos)
      << text;
}

TEST_F(AnalysisTest, VideoPesAndStartCodes) {
  const Bytes es = {0x00, 0x00, 0x01, 0xB3, 0x0B, 0x00, 0x90, 0x13,  // 176x144, 4:3, 25 fps
                    0xFF, 0xFF, 0x00, 0x00, 0x01, 0xB5, 0x14, 0x8A, 0x00, 0x00, 0x01, 0xB8,
                    0x00, 0x08, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x0F, 0xFF, 0xF8};
  Bytes pes = test::VideoPes(es);
  // Add an ES_rate field: flags PTS + ES rate, header length 8, rate 1000 (x 50 bytes/s).
  pes[7] = 0x90;
  pes[8] = 0x08;
  pes.insert(pes.begin() + 14, {0x80, 0x07, 0xD1});
  std::vector<Bytes> packets = test::SectionPackets(0, test::PatSection({{1, 0x100}}));
  test::Append(packets,
               test::SectionPackets(0x100, test::PmtSection(1, 0x101, {{0x02, 0x101, {}}})));
  test::PacketSpec spec;
  spec.pid = 0x101;
  spec.unit_start = true;
  spec.payload = pes;
  spec.adaptation = {0x00};  // stuffing puts the PES at the end of the packet
  const Bytes packet = test::Packet(spec);
  packets.push_back(packet);
  const std::string text = Analyse(test::Concat(packets));
  const int start = 188 - static_cast<int>(pes.size());
  const int data = start + 17;
  EXPECT_NE(text.find("StreamID=0xe0, PL=0, nIndex " + std::to_string(data) + "\r\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("PTS=90000\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("es rate 50000 bytes /sec\r\n"), std::string::npos) << text;
  EXPECT_NE(
      text.find(std::to_string(data) + " - sequence_header\r\nwidth 176, height 144, aspect 1, "
                                       "frame rate code 3\r\n"),
      std::string::npos)
      << text;
  EXPECT_NE(text.find(std::to_string(data + 10) + " - extension_start_code\r\n"),
            std::string::npos);
  EXPECT_NE(text.find(std::to_string(data + 16) + " - group_start_code\r\n"), std::string::npos);
  EXPECT_NE(text.find(std::to_string(data + 24) + " - picture_start_code\r\n"), std::string::npos);
}

TEST_F(AnalysisTest, TablesLongerThanThePacketPrintNoCrc) {
  std::vector<test::PatEntry> entries(50, test::PatEntry{0, 0x10});
  entries.push_back({1, 0x100});
  const auto packets = test::SectionPackets(0, test::PatSection(entries));
  ASSERT_EQ(packets.size(), 2u);
  const std::string text = Analyse(packets[0]);
  EXPECT_NE(text.find("PN=0, NetPID=0x10\r\n"), std::string::npos);
  EXPECT_EQ(text.find("CRC Code"), std::string::npos);
  EXPECT_EQ(text.find("PMAPPID"), std::string::npos);  // that entry is in the next packet
}

TEST_F(AnalysisTest, EveryPatPidPacketIsReadAsASection) {
  // Sections are not reassembled: the continuation of a long PAT is read as a section of
  // its own, from its second payload byte on, and its bytes give whatever they give.
  std::vector<test::PatEntry> entries(50, test::PatEntry{0, 0x10});
  entries.push_back({1, 0x100});
  const auto packets = test::SectionPackets(0, test::PatSection(entries));
  const std::string text = Analyse(packets[1]);
  EXPECT_NE(text.find("PAT :TI=0, SI=0, SL=224, TI=0x1000, "), std::string::npos) << text;
}

TEST(AnalysisFileTest, CreatedAnewAndOnlyWhileSwitchedOn) {
  const std::string path = test::TestPath("ana.txt");
  test::WriteBytes(path, Bytes(5000, 'x'));
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  EXPECT_EQ(dec.SetAnalysis(1, path.c_str()), 1);
  EXPECT_EQ(test::ReadText(path), "");
  EXPECT_EQ(dec.Print("%s %d", "abc", 7), 5);
  EXPECT_EQ(dec.SetAnalysis(0, path.c_str()), 1);  // switch off: closed, not created again
  EXPECT_EQ(dec.Print("more"), 0);
  const Bytes bytes = test::Concat(test::SectionPackets(0, test::PatSection({{1, 0x100}})));
  dec.Feed(bytes.data(), static_cast<int32_t>(bytes.size()));
  EXPECT_EQ(test::ReadText(path), "abc 7");
  // On without a name: no file, nothing written.
  EXPECT_EQ(dec.SetAnalysis(1, nullptr), 1);
  EXPECT_EQ(dec.Print("x"), 0);
  dec.Feed(bytes.data(), static_cast<int32_t>(bytes.size()));
  EXPECT_EQ(test::ReadText(path), "abc 7");
  // A file that cannot be created.
  EXPECT_EQ(dec.SetAnalysis(1, test::TestPath("no/such/folder/a.txt").c_str()), -1);
  EXPECT_EQ(dec.Print("x"), 0);
}

TEST(AnalysisFileTest, PrintCutsAt2047Characters) {
  const std::string path = test::TestPath("long.txt");
  CTSSysDec dec;
  ASSERT_EQ(dec.SetAnalysis(1, path.c_str()), 1);
  const std::string big(3000, 'q');
  EXPECT_EQ(dec.Print("%s", big.c_str()), kTsPrintBufferSize - 1);
  dec.SetAnalysis(0, nullptr);
  EXPECT_EQ(test::ReadText(path), std::string(kTsPrintBufferSize - 1, 'q'));
}

TEST(AnalysisFileTest, AnalysisDoesNotChangeWhatIsRead) {
  std::vector<Bytes> packets = test::SectionPackets(0, test::PatSection({{1, 0x100}, {2, 0x200}}));
  test::Append(packets,
               test::SectionPackets(0x100, test::PmtSection(1, 0x101, {{0x02, 0x101, {}}})));
  test::Append(packets,
               test::SectionPackets(0x200, test::PmtSection(2, 0x201, {{0x1B, 0x201, {}}})));
  for (int i = 0; i < 5; ++i) {
    test::PacketSpec spec;
    spec.pid = i % 2 ? 0x101 : 0x300;
    spec.unit_start = i == 0;
    spec.adaptation = test::PcrField(1000 * i, 0);
    spec.payload = test::VideoPes({0x00, 0x00, 0x01, 0x00, 0x01, 0x02, 0x03});
    packets.push_back(test::Packet(spec));
  }
  const Bytes bytes = test::Concat(packets);
  CTSSysDec plain, analysed;
  for (CTSSysDec* dec : {&plain, &analysed}) {
    ASSERT_EQ(dec->Init(188), 1);
    dec->SelectPid(0x300);
  }
  ASSERT_EQ(analysed.SetAnalysis(1, test::TestPath("a.txt").c_str()), 1);
  plain.Feed(bytes.data(), static_cast<int32_t>(bytes.size()));
  analysed.Feed(bytes.data(), static_cast<int32_t>(bytes.size()));
  EXPECT_EQ(plain.packet_count(), analysed.packet_count());
  ASSERT_EQ(plain.programs().count(), 2);
  ASSERT_EQ(analysed.programs().count(), 2);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(plain.programs().program(i).stream_count,
              analysed.programs().program(i).stream_count);
    EXPECT_EQ(plain.programs().program(i).streams[0].pid,
              analysed.programs().program(i).streams[0].pid);
  }
  EXPECT_EQ(plain.CollectedCount(), analysed.CollectedCount());
  EXPECT_GT(plain.CollectedCount(), 0);
}

}  // namespace
}  // namespace marquel
