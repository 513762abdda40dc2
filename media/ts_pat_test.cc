#include "media/ts_pat.h"

#include <gtest/gtest.h>

#include "platform/files.h"
#include "testsupport/fresh_home.h"
#include "ts_test_builder.h"

namespace marquel {
namespace {

using test::Bytes;
using test::PatEntry;

// A raw PAT section buffer of `size` bytes whose section_length field says `length` and
// whose first entry is program 1 on PID 0x123.
Bytes RawPat(int32_t length, size_t size) {
  Bytes s(size, 0);
  s[0] = 0x00;
  s[1] = static_cast<uint8_t>(0xB0 | ((length >> 8) & 0x0F));
  s[2] = static_cast<uint8_t>(length);
  s[8] = 0x00;
  s[9] = 0x01;
  s[10] = 0xE1;
  s[11] = 0x23;
  return s;
}

class FindPmtPidTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (handle_ != kInvalidFileHandle) CloseFileHandle(handle_);
  }
  // Writes `bytes` to a test file and answers FindPmtPid over it.
  int32_t Find(const Bytes& bytes, int32_t packet_size = 188, int64_t offset = 0) {
    const std::string path = test::TestPath("in.ts");
    test::WriteBytes(path, bytes);
    if (handle_ != kInvalidFileHandle) CloseFileHandle(handle_);
    handle_ = OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                             OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
    EXPECT_NE(handle_, kInvalidFileHandle);
    return FindPmtPid(handle_, packet_size, offset);
  }
  FileHandle handle_ = kInvalidFileHandle;
};

std::vector<Bytes> SimplePat(uint32_t pmt_pid) {
  return test::SectionPackets(0, test::PatSection({{0, 0x10}, {3, pmt_pid}}));
}

TEST(ParsePatSectionTest, OnlyProgramZeroGivesMinusOne) {
  const Bytes s = test::PatSection({{0, 0x10}});
  EXPECT_EQ(ParsePatSection(s.data(), s.size()), -1);
}

TEST(ParsePatSectionTest, FirstNonZeroProgramWins) {
  const Bytes s = test::PatSection({{0, 0x10}, {5, 0x1FF0}, {6, 0x200}});
  EXPECT_EQ(ParsePatSection(s.data(), s.size()), 0x1FF0);
}

TEST(ParsePatSectionTest, LengthOf1021IsAcceptedAnd1022IsNot) {
  const Bytes ok = RawPat(1021, 1024);
  EXPECT_EQ(ParsePatSection(ok.data(), ok.size()), 0x123);
  const Bytes bad = RawPat(1022, 1025);
  EXPECT_EQ(ParsePatSection(bad.data(), bad.size()), -1);
  const Bytes worse = RawPat(4095, 4098);
  EXPECT_EQ(ParsePatSection(worse.data(), worse.size()), -1);
}

TEST(ParsePatSectionTest, NeedsAtLeastOneEntry) {
  // 13 = 5 header bytes + one entry + CRC; 12 leaves no whole entry.
  EXPECT_EQ(ParsePatSection(RawPat(13, 16).data(), 16), 0x123);
  EXPECT_EQ(ParsePatSection(RawPat(12, 16).data(), 16), -1);
  EXPECT_EQ(ParsePatSection(RawPat(0, 16).data(), 16), -1);
}

TEST(ParsePatSectionTest, NeverReadsPastTheGivenBytes) {
  const Bytes s = RawPat(13, 16);
  EXPECT_EQ(ParsePatSection(s.data(), 11), -1);  // the entry would end at byte 12
  EXPECT_EQ(ParsePatSection(s.data(), 12), 0x123);
  EXPECT_EQ(ParsePatSection(s.data(), 2), -1);
  EXPECT_EQ(ParsePatSection(nullptr, 100), -1);
  // The length field claims 1021 bytes but only 20 arrived; the program entry lies
  // beyond them.
  Bytes long_pat = RawPat(1021, 1024);
  long_pat[9] = 0;  // first entry becomes program 0
  long_pat[20] = 0x00;
  long_pat[21] = 0x09;
  long_pat[22] = 0xE0;
  long_pat[23] = 0x42;
  EXPECT_EQ(ParsePatSection(long_pat.data(), 20), -1);
  EXPECT_EQ(ParsePatSection(long_pat.data(), 24), 0x42);
}

TEST_F(FindPmtPidTest, FindsThePatBehindOtherPackets) {
  std::vector<Bytes> packets = {test::NullPacket(), test::NullPacket(1)};
  test::Append(packets, SimplePat(0x1000));
  EXPECT_EQ(Find(test::Concat(packets)), 0x1000);
}

TEST_F(FindPmtPidTest, PrefixedUnitsOf192And204) {
  std::vector<Bytes> packets = {test::NullPacket()};
  test::Append(packets, SimplePat(0x0100));
  EXPECT_EQ(Find(test::Units(packets, 192), 192), 0x0100);
  EXPECT_EQ(Find(test::Units(packets, 204), 204), 0x0100);
}

TEST_F(FindPmtPidTest, StartsAtTheOffset) {
  Bytes bytes(100, 0x47);
  const Bytes first = test::Concat(SimplePat(0x0101));
  bytes.insert(bytes.end(), first.begin(), first.end());
  const Bytes second = test::Concat(SimplePat(0x0202));
  bytes.insert(bytes.begin(), second.begin(), second.end());  // before the offset
  EXPECT_EQ(Find(bytes, 188, 188 + 100), 0x0101);
  EXPECT_EQ(Find(bytes, 188, 0), 0x0202);
}

TEST_F(FindPmtPidTest, PayloadStartsBehindAnAdaptationField) {
  test::PacketSpec spec;
  spec.pid = 0;
  spec.unit_start = true;
  spec.adaptation = test::PcrField(12345, 6);
  spec.payload = {0x00};
  const Bytes section = test::PatSection({{4, 0x0777}});
  spec.payload.insert(spec.payload.end(), section.begin(), section.end());
  EXPECT_EQ(Find(test::Packet(spec)), 0x0777);
}

TEST_F(FindPmtPidTest, SkipsErrorsAdaptationOnlyAndMissingSync) {
  const Bytes section = test::PatSection({{1, 0x0666}});
  auto pat = [&](bool error, int control) {
    test::PacketSpec spec;
    spec.unit_start = true;
    spec.error = error;
    spec.control = control;
    spec.adaptation_length = control == 2 ? 183 : -1;
    spec.payload = {0x00};
    spec.payload.insert(spec.payload.end(), section.begin(), section.end());
    return test::Packet(spec);
  };
  Bytes no_sync = pat(false, 1);
  no_sync[0] = 0x46;
  std::vector<Bytes> packets = {pat(true, 1), pat(false, 2), pat(false, 0), no_sync};
  EXPECT_EQ(Find(test::Concat(packets)), -1);
  packets.push_back(test::SectionPackets(0, test::PatSection({{1, 0x0555}}))[0]);
  EXPECT_EQ(Find(test::Concat(packets)), 0x0555);
}

TEST_F(FindPmtPidTest, ContinuationPacketsLoseTheirFirstPayloadByte) {
  // 44 network entries push the program entries into the second packet, whose first
  // payload byte (section byte 183) the reader drops: the entry of program 7 on PID
  // 0x123 is read one byte late, as program 0x07E1 on PID 0x300.
  std::vector<PatEntry> entries(44, PatEntry{0, 0x10});
  entries.push_back({7, 0x123});
  entries.push_back({8, 0x200});
  const Bytes section = test::PatSection(entries);
  ASSERT_EQ(ParsePatSection(section.data(), section.size()), 0x123);
  std::vector<Bytes> packets = test::SectionPackets(0, section);
  ASSERT_EQ(packets.size(), 2u);
  packets.push_back(packets[0]);  // the next PAT's start completes the collected one
  EXPECT_EQ(Find(test::Concat(packets)), 0x300);

  // Written with a spare byte at the start of the continuation, the entries line up.
  Bytes shifted = packets[1];
  shifted.insert(shifted.begin() + 4, 0xAA);
  shifted.resize(188);
  packets[1] = shifted;
  EXPECT_EQ(Find(test::Concat(packets)), 0x123);
}

TEST_F(FindPmtPidTest, PointerFieldIsTakenAsZero) {
  // Behind a pointer field of 2 the section is still read from the next byte, whose
  // length field then reads 0xB00: collected, never decided.
  Bytes pat = test::SectionPackets(0, test::PatSection({{1, 0x100}}))[0];
  pat[4] = 0x02;
  pat.insert(pat.begin() + 5, {0xAA, 0xBB});
  pat.resize(188);
  EXPECT_EQ(Find(test::Concat({pat, pat, pat})), -1);
}

TEST_F(FindPmtPidTest, CollectedSectionWaitsForTheNextUnitStart) {
  std::vector<PatEntry> entries(44, PatEntry{0, 0x10});
  entries.push_back({7, 0x123});
  std::vector<Bytes> packets = test::SectionPackets(0, test::PatSection(entries));
  EXPECT_EQ(Find(test::Concat(packets)), -1);  // end of file before a decision
}

TEST_F(FindPmtPidTest, GivesUpAfterTwoMebibytes) {
  // 11155 units of 188 bytes are 2097140 bytes, within the limit. The unit that carries
  // the count past 2 MiB is still examined; none after it is read.
  auto stream = [](int nulls) {
    std::vector<Bytes> packets(static_cast<size_t>(nulls), test::NullPacket());
    test::Append(packets, SimplePat(0x0321));
    return test::Concat(packets);
  };
  EXPECT_EQ(Find(stream(11155)), 0x0321);
  EXPECT_EQ(Find(stream(11156)), -1);
}

TEST_F(FindPmtPidTest, EmptyTinyAndUnreadableFiles) {
  EXPECT_EQ(Find({}), -1);
  EXPECT_EQ(Find({0x47}), -1);
  EXPECT_EQ(FindPmtPid(kInvalidFileHandle, 188, 0), -1);
  // A folder opens on Linux but every read of it fails.
  const FileHandle folder =
      OpenFileHandle(test::TestDir(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                     FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  if (folder != kInvalidFileHandle) {
    EXPECT_EQ(FindPmtPid(folder, 188, 0), -1);
    CloseFileHandle(folder);
  }
  EXPECT_EQ(Find(test::Concat(SimplePat(0x0100)), 187), -1);
  EXPECT_EQ(Find(test::Concat(SimplePat(0x0100)), 188, -5), -1);
  Bytes garbage(5000);
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<uint8_t>(i * 7 + 3);
  EXPECT_EQ(Find(garbage), -1);
}

TEST_F(FindPmtPidTest, ShortLastUnitIsReadOnlyAsFarAsItGoes) {
  const Bytes pat = test::Concat(SimplePat(0x0100));
  // Header, pointer field and 13 section bytes: the program entry is cut off.
  EXPECT_EQ(Find(Bytes(pat.begin(), pat.begin() + 18)), -1);
  // 4 + 1 + 16 bytes: network entry and program entry are both in.
  EXPECT_EQ(Find(Bytes(pat.begin(), pat.begin() + 21)), 0x0100);
}

}  // namespace
}  // namespace marquel
