#include "media/ts_decoder.h"

#include <gtest/gtest.h>

#include "ts_test_builder.h"

namespace marquel {
namespace {

using test::Bytes;
using test::PmtStream;

constexpr uint32_t kPmtPid = 0x100;
constexpr uint32_t kDataPid = 0x1FE0;

// Feeds `bytes` in pieces of `chunk` bytes; answers the total of units taken.
int32_t FeedAll(CTSSysDec& dec, const Bytes& bytes, size_t chunk) {
  int32_t units = 0;
  for (size_t at = 0; at < bytes.size(); at += chunk) {
    const size_t n = std::min(chunk, bytes.size() - at);
    const int32_t r = dec.Feed(bytes.data() + at, static_cast<int32_t>(n));
    EXPECT_GE(r, 0);
    units += r;
  }
  return units;
}

Bytes TakeAllCollected(CTSSysDec& dec) {
  Bytes out;
  uint8_t buf[1000];
  for (int32_t n; (n = dec.TakeCollected(0, buf, sizeof(buf))) > 0;)
    out.insert(out.end(), buf, buf + n);
  return out;
}

// A PAT announcing kPmtPid, its PMT (MPEG-2 video 0x101, MPEG-1 audio 0x102) and
// `data_packets` packets on kDataPid whose payloads count up from 0.
std::vector<Bytes> Program(int data_packets = 0) {
  std::vector<Bytes> packets = test::SectionPackets(0, test::PatSection({{0, 0x10}, {1, kPmtPid}}));
  test::Append(packets,
               test::SectionPackets(
                   kPmtPid, test::PmtSection(1, 0x101, {{0x02, 0x101, {}}, {0x03, 0x102, {}}})));
  for (int i = 0; i < data_packets; ++i) {
    test::PacketSpec spec;
    spec.pid = kDataPid;
    spec.unit_start = true;
    spec.cc = static_cast<uint8_t>(i);
    for (int b = 0; b < 184; ++b) spec.payload.push_back(static_cast<uint8_t>(i * 184 + b));
    packets.push_back(test::Packet(spec));
  }
  return packets;
}

TEST(TsStreamKindTest, Table) {
  EXPECT_EQ(TsStreamKind(0x02), 1);
  EXPECT_EQ(TsStreamKind(0x1B), 2);
  EXPECT_EQ(TsStreamKind(0x81), 3);
  EXPECT_EQ(TsStreamKind(0x0F), 5);
  EXPECT_EQ(TsStreamKind(0x03), 6);
  EXPECT_EQ(TsStreamKind(0x04), 7);
  EXPECT_EQ(TsStreamKind(0x01), 0);
  EXPECT_EQ(TsStreamKind(0x00), 0);
  EXPECT_EQ(TsStreamKind(0x06), 0);
  EXPECT_EQ(TsStreamKind(130), 0);
  EXPECT_EQ(TsStreamKind(0xFF), 0);
  EXPECT_EQ(TsStreamKind(-1), 0);
}

TEST(CTSSysDecTest, InitSetsTheUnitSize) {
  CTSSysDec dec;
  EXPECT_EQ(dec.GetUnitSize(), -1);
  EXPECT_EQ(dec.Init(187), 0);
  EXPECT_EQ(dec.GetUnitSize(), -1);
  EXPECT_EQ(dec.Init(188), 1);
  EXPECT_EQ(dec.GetUnitSize(), 188);
  EXPECT_EQ(dec.prefix(), 0);
  EXPECT_EQ(dec.Init(192), 1);
  EXPECT_EQ(dec.prefix(), 4);
  EXPECT_EQ(dec.Init(204), 1);
  EXPECT_EQ(dec.prefix(), 16);
  EXPECT_EQ(dec.GetUnitSize(), 204);
  EXPECT_EQ(dec.Init(kTsMaxUnitSize + 1), 0);
}

TEST(CTSSysDecTest, FeedBeforeInitOrAfterReleaseFails) {
  CTSSysDec dec;
  const Bytes bytes = test::Concat(Program());
  EXPECT_EQ(dec.Feed(bytes.data(), static_cast<int32_t>(bytes.size())), -1);
  ASSERT_EQ(dec.Init(188), 1);
  EXPECT_EQ(dec.Feed(bytes.data(), 0), 0);
  EXPECT_EQ(dec.Feed(nullptr, 10), 0);
  dec.Release();
  EXPECT_EQ(dec.Feed(bytes.data(), static_cast<int32_t>(bytes.size())), -1);
  EXPECT_EQ(dec.programs().count(), 0);
}

TEST(CTSSysDecTest, PointerFieldIsTakenAsZero) {
  // A PAT behind a pointer field of 2: the section is read from the byte after the
  // pointer field all the same, where its length reads as 0xB00 and is refused.
  Bytes pat = test::SectionPackets(0, test::PatSection({{1, 0x100}}))[0];
  pat[4] = 0x02;
  pat.insert(pat.begin() + 5, {0xAA, 0xBB});
  pat.resize(188);
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  FeedAll(dec, pat, 188);
  EXPECT_EQ(dec.programs().count(), 0);
}

TEST(CTSSysDecTest, TransportErrorIndicatorIsNotTested) {
  Bytes pat = test::SectionPackets(0, test::PatSection({{1, 0x100}}))[0];
  pat[1] |= 0x80;
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  FeedAll(dec, pat, 188);
  EXPECT_EQ(dec.programs().count(), 1);
}

TEST(CTSSysDecTest, ReadsProgramsAndStreams) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  EXPECT_EQ(FeedAll(dec, test::Concat(Program()), 188), 2);
  ASSERT_EQ(dec.programs().count(), 1);
  EXPECT_TRUE(dec.programs().seen());
  const TsProgram& p = dec.programs().program(0);
  EXPECT_EQ(p.pmt_pid, kPmtPid);
  ASSERT_EQ(p.stream_count, 2);
  EXPECT_EQ(p.streams[0].kind, kTsKindMpeg2Video);
  EXPECT_EQ(p.streams[0].pid, 0x101u);
  EXPECT_EQ(p.streams[1].kind, kTsKindMpeg1Audio);
  EXPECT_EQ(p.streams[1].pid, 0x102u);
  EXPECT_EQ(dec.packet_count(), 2u);
}

TEST(CTSSysDecTest, StreamTypesOneAndAbove129GiveKindZero) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  std::vector<Bytes> packets = test::SectionPackets(0, test::PatSection({{1, kPmtPid}}));
  test::Append(packets, test::SectionPackets(kPmtPid, test::PmtSection(1, 0x101,
                                                                       {{0x01, 0x101, {}},
                                                                        {0x82, 0x102, {}},
                                                                        {0x81, 0x103, {}},
                                                                        {0x1B, 0x104, {}}})));
  FeedAll(dec, test::Concat(packets), 1000);
  const TsProgram& p = dec.programs().program(0);
  ASSERT_EQ(p.stream_count, 4);
  EXPECT_EQ(p.streams[0].kind, 0);
  EXPECT_EQ(p.streams[1].kind, 0);
  EXPECT_EQ(p.streams[2].kind, 3);
  EXPECT_EQ(p.streams[3].kind, 2);
}

TEST(CTSSysDecTest, PmtPidAnnouncedTwiceIsKeptOnce) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  std::vector<Bytes> packets =
      test::SectionPackets(0, test::PatSection({{1, 0x100}, {2, 0x200}, {3, 0x100}}));
  packets.push_back(packets[0]);
  test::Append(packets, test::SectionPackets(0, test::PatSection({{4, 0x300}, {2, 0x200}})));
  FeedAll(dec, test::Concat(packets), 188);
  ASSERT_EQ(dec.programs().count(), 3);
  EXPECT_EQ(dec.programs().program(0).pmt_pid, 0x100u);
  EXPECT_EQ(dec.programs().program(1).pmt_pid, 0x200u);
  EXPECT_EQ(dec.programs().program(2).pmt_pid, 0x300u);
}

TEST(CTSSysDecTest, PmtBeforeAnyProgramIsIgnoredAndLaterOnesReplaceTheList) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  const auto pmt_a = test::SectionPackets(
      kPmtPid, test::PmtSection(1, 0x101, {{0x02, 0x101, {}}, {0x04, 0x102, {}}}));
  const auto pmt_b = test::SectionPackets(kPmtPid, test::PmtSection(1, 0x101, {{0x0F, 0x105, {}}}));
  const auto pat = test::SectionPackets(0, test::PatSection({{1, kPmtPid}}));
  FeedAll(dec, test::Concat(pmt_a), 188);
  EXPECT_EQ(dec.programs().count(), 0);
  FeedAll(dec, test::Concat(pat), 188);
  ASSERT_EQ(dec.programs().count(), 1);
  EXPECT_EQ(dec.programs().program(0).stream_count, 0);
  FeedAll(dec, test::Concat(pmt_a), 188);
  EXPECT_EQ(dec.programs().program(0).stream_count, 2);
  FeedAll(dec, test::Concat(pmt_b), 188);
  ASSERT_EQ(dec.programs().program(0).stream_count, 1);
  EXPECT_EQ(dec.programs().program(0).streams[0].kind, kTsKindAacAudio);
  EXPECT_EQ(dec.programs().program(0).streams[0].pid, 0x105u);
  // Another table id on the PMT PID is not a PMT.
  FeedAll(dec,
          test::Concat(
              test::SectionPackets(kPmtPid, test::PmtSection(1, 0x101, {}, {}, /*table_id=*/0x03))),
          188);
  EXPECT_EQ(dec.programs().program(0).stream_count, 1);
}

// A PAT packet whose section_length field says `length`, with program 9 on PID 0x909 as
// its first entry (inside the packet whatever the length says).
Bytes PatWithLength(int32_t length) {
  Bytes section = test::PatSection({{9, 0x909}});
  section[1] = static_cast<uint8_t>(0xB0 | ((length >> 8) & 0x0F));
  section[2] = static_cast<uint8_t>(length);
  return test::SectionPackets(0, section)[0];
}

TEST(CTSSysDecTest, ReaderAcceptsPatLength1021AndRefuses1022) {
  CTSSysDec accepts;
  ASSERT_EQ(accepts.Init(188), 1);
  FeedAll(accepts, PatWithLength(1021), 188);
  ASSERT_GE(accepts.programs().count(), 1);
  EXPECT_EQ(accepts.programs().program(0).pmt_pid, 0x909u);
  // The entries run on through the CRC and the stuffing up to the packet's end (but no
  // further): the 0xFF stuffing reads as program 0xFFFF on PID 0x1FFF.
  EXPECT_GE(accepts.programs().FindPmt(0x1FFF), 1);
  CTSSysDec refuses;
  ASSERT_EQ(refuses.Init(188), 1);
  FeedAll(refuses, PatWithLength(1022), 188);
  EXPECT_EQ(refuses.programs().count(), 0);
  FeedAll(refuses, PatWithLength(4095), 188);
  EXPECT_EQ(refuses.programs().count(), 0);
}

TEST(CTSSysDecTest, A192UnitWithoutSyncIsDroppedWhole) {
  // The first unit's fifth byte is not 0x47; a valid packet header hides 4 bytes later
  // (where byte-wise resynchronisation would find it), yet the reader looks only at the
  // next 192-byte boundary.
  Bytes bad = test::SectionPackets(0, test::PatSection({{1, 0x0111}}))[0];
  Bytes first(4, 0xEE);
  first.push_back(0x00);
  first.insert(first.end(), bad.begin(), bad.begin() + 187);
  ASSERT_EQ(first.size(), 192u);
  const Bytes second = test::Units(test::SectionPackets(0, test::PatSection({{2, 0x0222}})), 192);
  Bytes stream = first;
  stream.insert(stream.end(), second.begin(), second.end());
  for (size_t chunk : {size_t{1}, size_t{5}, size_t{191}, size_t{192}, size_t{10000}}) {
    CTSSysDec dec;
    ASSERT_EQ(dec.Init(192), 1);
    EXPECT_EQ(FeedAll(dec, stream, chunk), 2);
    ASSERT_EQ(dec.programs().count(), 1) << chunk;
    EXPECT_EQ(dec.programs().program(0).pmt_pid, 0x0222u);
    EXPECT_EQ(dec.packet_count(), 1u);
  }
}

TEST(CTSSysDecTest, Units204CarryTheirPacketBehindA16BytePrefix) {
  const std::vector<Bytes> packets = Program();
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(204), 1);
  FeedAll(dec, test::Units(packets, 204), 204);
  ASSERT_EQ(dec.programs().count(), 1);
  EXPECT_EQ(dec.programs().program(0).stream_count, 2);

  // Packets followed by 16 parity bytes (the broadcast layout) have their sync byte at
  // offset 0 of the unit: every unit is dropped ...
  Bytes parity_layout;
  for (int i = 0; i < 3; ++i) {
    for (const Bytes& p : packets) {
      parity_layout.insert(parity_layout.end(), p.begin(), p.end());
      parity_layout.insert(parity_layout.end(), 16, 0x5A);
    }
  }
  CTSSysDec from_zero;
  ASSERT_EQ(from_zero.Init(204), 1);
  EXPECT_EQ(FeedAll(from_zero, parity_layout, 4096), 6);
  EXPECT_EQ(from_zero.packet_count(), 0u);
  EXPECT_EQ(from_zero.programs().count(), 0);
  // ... while read from the end of the first packet, each unit is parity + packet.
  CTSSysDec shifted;
  ASSERT_EQ(shifted.Init(204), 1);
  Bytes tail(parity_layout.begin() + 188, parity_layout.end());
  FeedAll(shifted, tail, 4096);
  EXPECT_EQ(shifted.packet_count(), 5u);
  ASSERT_EQ(shifted.programs().count(), 1);
  EXPECT_EQ(shifted.programs().program(0).stream_count, 2);
}

TEST(CTSSysDecTest, CollectsTheSelectedPayloadLessItsFirstByte) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  dec.SelectPid(kDataPid);
  FeedAll(dec, test::Concat(Program(3)), 100);
  Bytes expected;
  for (int i = 0; i < 3; ++i) {
    for (int b = 1; b < 184; ++b) expected.push_back(static_cast<uint8_t>(i * 184 + b));
  }
  EXPECT_EQ(dec.CollectedCount(), 3 * 183);
  EXPECT_EQ(TakeAllCollected(dec), expected);
  uint8_t buf[10];
  EXPECT_EQ(dec.TakeCollected(0, buf, sizeof(buf)), 0);  // empty now
}

TEST(CTSSysDecTest, TakeCollectedIndexAndSizes) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  uint8_t buf[400];
  EXPECT_EQ(dec.TakeCollected(0, buf, sizeof(buf)), 0);  // no collect ring yet
  dec.SelectPid(kDataPid);
  FeedAll(dec, test::Concat(Program(2)), 188);
  EXPECT_EQ(dec.TakeCollected(1, buf, sizeof(buf)), 0);
  EXPECT_EQ(dec.TakeCollected(0, nullptr, 10), 0);
  EXPECT_EQ(dec.TakeCollected(0, buf, 0), 0);
  EXPECT_EQ(dec.TakeCollected(0, buf, 100), 100);
  EXPECT_EQ(buf[0], 1);
  EXPECT_EQ(dec.TakeCollected(0, buf, sizeof(buf)), 2 * 183 - 100);
  EXPECT_EQ(buf[0], 101);
}

TEST(CTSSysDecTest, NoSelectionCollectsNothing) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  FeedAll(dec, test::Concat(Program(3)), 188);
  EXPECT_EQ(dec.CollectedCount(), 0);
  dec.SelectPid(kDataPid);
  dec.SelectPid(kTsNoPid);
  FeedAll(dec, test::Concat(Program(3)), 188);
  EXPECT_EQ(dec.CollectedCount(), 0);
}

TEST(CTSSysDecTest, SelectingThePatPidStillReadsThePat) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  dec.SelectPid(0);
  FeedAll(dec, test::Concat(Program()), 188);
  EXPECT_EQ(dec.CollectedCount(), 0);
  EXPECT_EQ(dec.programs().count(), 1);
  // A selected PMT PID is collected instead of read as a PMT.
  CTSSysDec other;
  ASSERT_EQ(other.Init(188), 1);
  other.SelectPid(kPmtPid);
  FeedAll(other, test::Concat(Program()), 188);
  EXPECT_EQ(other.CollectedCount(), 183);
  EXPECT_EQ(other.programs().program(0).stream_count, 0);
}

TEST(CTSSysDecTest, AdaptationFieldsMoveOrRemoveThePayload) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  dec.SelectPid(kDataPid);
  test::PacketSpec spec;
  spec.pid = kDataPid;
  spec.adaptation = test::PcrField(1000, 5);
  spec.payload = {0x00, 'a', 'b', 'c'};
  Bytes bytes = test::Packet(spec);  // control 3
  spec.control = 2;
  const Bytes adaptation_only = test::Packet(spec);
  bytes.insert(bytes.end(), adaptation_only.begin(), adaptation_only.end());
  spec.control = 0;
  const Bytes reserved = test::Packet(spec);
  bytes.insert(bytes.end(), reserved.begin(), reserved.end());
  // Control 3 with a field length of 183 (no payload) and of 255 (past the packet).
  for (int length : {183, 184, 255}) {
    test::PacketSpec odd;
    odd.pid = kDataPid;
    odd.control = 3;
    odd.adaptation_length = length;
    odd.adaptation = {0x00};
    const Bytes p = test::Packet(odd);
    bytes.insert(bytes.end(), p.begin(), p.end());
  }
  FeedAll(dec, bytes, 188);
  EXPECT_EQ(TakeAllCollected(dec), Bytes({'a', 'b', 'c'}));
  EXPECT_EQ(dec.packet_count(), 6u);
}

TEST(CTSSysDecTest, CollectRingKeepsWhatFitsAndDropsTheRest) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  dec.SelectPid(kDataPid);
  const int packets = kTsCollectRingSize / 183 + 10;
  const Bytes bytes = test::Concat(Program(packets));
  FeedAll(dec, bytes, bytes.size());
  EXPECT_EQ(dec.CollectedCount(), kTsCollectRingSize - 1);
  EXPECT_EQ(dec.collect_dropped(), int64_t{packets} * 183 - (kTsCollectRingSize - 1));
  const Bytes got = TakeAllCollected(dec);
  ASSERT_EQ(got.size(), size_t{kTsCollectRingSize - 1});
  EXPECT_EQ(got[0], 1);
  EXPECT_EQ(got[183], static_cast<uint8_t>(184 + 1));  // held bytes were not overwritten
  // After taking, collecting goes on.
  FeedAll(dec, test::Concat(Program(1)), 188);
  EXPECT_EQ(dec.CollectedCount(), 183);
}

TEST(CTSSysDecTest, LargeFeedsEqualSmallOnes) {
  // More than the input ring's 512,000 bytes in one call.
  std::vector<Bytes> packets = Program(0);
  for (int i = 0; i < 3000; ++i) packets.push_back(test::NullPacket(static_cast<uint8_t>(i)));
  test::Append(packets, Program(40));
  const Bytes bytes = test::Units(packets, 192);
  ASSERT_GT(bytes.size(), size_t{kTsInputRingSize});
  Bytes collected[3];
  int i = 0;
  for (size_t chunk : {bytes.size(), size_t{2324}, size_t{7}}) {
    CTSSysDec dec;
    ASSERT_EQ(dec.Init(192), 1);
    dec.SelectPid(kDataPid);
    size_t at = 0;
    int32_t units = 0;
    for (; at < bytes.size(); at += chunk) {
      const size_t n = std::min(chunk, bytes.size() - at);
      units += dec.Feed(bytes.data() + at, static_cast<int32_t>(n));
      Bytes got = TakeAllCollected(dec);
      collected[i].insert(collected[i].end(), got.begin(), got.end());
    }
    EXPECT_EQ(units, static_cast<int32_t>(packets.size()));
    EXPECT_EQ(dec.packet_count(), packets.size());
    EXPECT_EQ(dec.programs().count(), 1);
    ++i;
  }
  EXPECT_EQ(collected[0].size(), 40u * 183);
  EXPECT_EQ(collected[0], collected[1]);
  EXPECT_EQ(collected[0], collected[2]);
}

TEST(CTSSysDecTest, ProgramTableIsBounded) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  // Two single-packet PATs of 40 programs each: 80 programs offered, 64 kept.
  for (int half = 0; half < 2; ++half) {
    std::vector<test::PatEntry> entries;
    for (int i = 0; i < 40; ++i) {
      entries.push_back(
          {static_cast<uint32_t>(half * 40 + i + 1), static_cast<uint32_t>(0x400 + half * 40 + i)});
    }
    FeedAll(dec, test::Concat(test::SectionPackets(0, test::PatSection(entries))), 188);
  }
  ASSERT_EQ(dec.programs().count(), kTsMaxPrograms);
  EXPECT_EQ(dec.programs().program(kTsMaxPrograms - 1).pmt_pid, 0x400u + kTsMaxPrograms - 1);
  // A PMT of 33 streams (as many as one packet holds) keeps 32.
  std::vector<PmtStream> streams;
  for (int i = 0; i < 33; ++i) streams.push_back({0x02, static_cast<uint32_t>(0x800 + i), {}});
  const Bytes pmt = test::PmtSection(1, 0x800, streams);
  ASSERT_LE(pmt.size(), 183u);
  FeedAll(dec, test::Concat(test::SectionPackets(0x400, pmt)), 188);
  ASSERT_EQ(dec.programs().program(0).stream_count, kTsMaxStreams);
  EXPECT_EQ(dec.programs().program(0).streams[kTsMaxStreams - 1].pid, 0x800u + kTsMaxStreams - 1);
}

TEST(CTSSysDecTest, GarbageNeverStopsTheReader) {
  CTSSysDec dec;
  ASSERT_EQ(dec.Init(188), 1);
  dec.SelectPid(0x1234 & 0x1FFF);
  Bytes garbage(188 * 500);
  uint32_t x = 12345;
  for (auto& b : garbage) {
    x = x * 1103515245u + 12345u;
    b = static_cast<uint8_t>(x >> 16);
  }
  for (size_t i = 0; i < garbage.size(); i += 188) garbage[i] = 0x47;  // every unit "synced"
  EXPECT_EQ(FeedAll(dec, garbage, 333), 500);
  EXPECT_EQ(dec.packet_count(), 500u);
  // Afterwards a clean stream is read as usual.
  FeedAll(dec, test::Concat(Program()), 188);
  EXPECT_GE(dec.programs().count(), 1);
  EXPECT_GE(dec.programs().FindPmt(kPmtPid), 0);
}

}  // namespace
}  // namespace marquel
