#include "persist/block_from_media.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "block_assembler.h"
#include "block_media_test_util.h"
#include "log/log.h"
#include "log/log_capture.h"
#include "platform/crc32.h"
#include "tags/block_format.h"
#include "tags/block_program.h"
#include "tags/block_writer.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using mediatest::Bytes;

using log::LogCapture;

// A block big enough to span several packs, in its stored form.
Bytes SampleBlock() {
  BlockContent c;
  for (int i = 0; i < 3000; ++i) c.tags[16].AddPlain(i * 40000, i);
  const uint8_t raw[] = {1, 2, 3, 4, 5};
  c.tags[29].AddRaw(7, raw, 5);
  return EncodeBlockBytes(c);
}

struct Offsets {
  size_t tag_ids, lengths, data;
};
Offsets OffsetsOf(const Bytes& block) {
  BlockHeader h = ParseBlockHeader(block.data());
  return {26, 26 + h.tag_id_size, 26 + size_t{h.tag_id_size} + h.length_size};
}

// The 36-byte end record the writers append after the block.
Bytes WithEndRecord(const Bytes& block) {
  Bytes out = block;
  out.insert(out.end(), {0x00, 0x00, 0x01, 0xFF});
  out.insert(out.end(), 32, 0x11);
  return out;
}

std::string WriteMedia(const Bytes& bytes) {
  std::string path = test::TestPath("media.bin");
  FileHandle f = OpenFileHandle(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0,
                                kInvalidFileHandle);
  uint32_t written = 0;
  EXPECT_TRUE(WriteFile(f, bytes.data(), static_cast<uint32_t>(bytes.size()), &written));
  CloseFileHandle(f);
  return path;
}

int32_t ReadPs(const Bytes& file_bytes, int32_t format, int64_t start, MQOneProgram* p) {
  std::string path = WriteMedia(file_bytes);
  FileHandle f = OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                                kInvalidFileHandle);
  int32_t r = ReadBlockFromProgramStream(*p, f, format, start, 7);
  CloseFileHandle(f);
  return r;
}

int32_t ReadTs(const Bytes& file_bytes, int packet_size, int64_t start, uint32_t pid,
               MQOneProgram* p) {
  std::string path = WriteMedia(file_bytes);
  FileHandle f = OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                                kInvalidFileHandle);
  int32_t r = ReadBlockFromTransportStream(*p, f, packet_size, start, pid, 9);
  CloseFileHandle(f);
  return r;
}

TEST(BlockFromMedia, Mpeg2ProgramStreamGivesTheBlockBack) {
  const Bytes block = SampleBlock();
  size_t start = 0;
  Bytes ps = mediatest::ProgramStream(WithEndRecord(block), false, 3, &start);
  LogCapture log;
  MQOneProgram p(0);
  ASSERT_EQ(ReadPs(ps, 2, static_cast<int64_t>(start), &p), 1);
  EXPECT_EQ(ProgramBlockBytes(p), block);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"[7] load from file success"}));
  ASSERT_EQ(LoadProgramBlock(p), 1);
  EXPECT_EQ(p.QueryOneTagSize(16), 3000);
  EXPECT_EQ(p.QueryOneTagSize(29), 1);
}

TEST(BlockFromMedia, Mpeg1ProgramStreamUsesTheMpeg1Decoder) {
  const Bytes block = SampleBlock();
  size_t start = 0;
  Bytes ps = mediatest::ProgramStream(WithEndRecord(block), true, 2, &start);
  for (int32_t format : {1, 3}) {
    MQOneProgram p(0);
    ASSERT_EQ(ReadPs(ps, format, static_cast<int64_t>(start), &p), 1) << format;
    EXPECT_EQ(ProgramBlockBytes(p), block);
  }
}

TEST(BlockFromMedia, ProgramStreamCrcFailuresAreLoggedByStream) {
  const Bytes good = SampleBlock();
  Offsets o = OffsetsOf(good);
  struct Case {
    size_t offset;
    std::vector<std::string> lines;
  } cases[] = {
      {3,
       {"MarquelOneFile: [7]Check header crc failed while read from mpeg file",
        "[7] load file failed"}},
      {o.tag_ids + 1, {"MarquelOneFile: [7]Check tag id crc failed", "[7] load file failed"}},
      {o.lengths + 1, {"MarquelOneFile: [7]Check length crc failed", "[7] load file failed"}},
      {o.data + 1, {"[7] load file failed"}},
  };
  for (const Case& k : cases) {
    Bytes block = good;
    block[k.offset] ^= 0x04;
    size_t start = 0;
    Bytes ps = mediatest::ProgramStream(block, false, 1, &start);
    LogCapture log;
    MQOneProgram p(0);
    EXPECT_EQ(ReadPs(ps, 2, static_cast<int64_t>(start), &p), 0) << k.offset;
    EXPECT_EQ(log.Messages(), k.lines) << k.offset;
    EXPECT_EQ(p.m_ptpTagID, nullptr);
  }
}

TEST(BlockFromMedia, ProgramStreamEndingEarlyFails) {
  const Bytes block = SampleBlock();
  size_t start = 0;
  Bytes ps = mediatest::ProgramStream(block, false, 1, &start);
  ps.erase(ps.end() - 100, ps.end());
  LogCapture log;
  MQOneProgram p(0);
  EXPECT_EQ(ReadPs(ps, 2, static_cast<int64_t>(start), &p), 0);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"[7] load file failed"}));
  // A start offset past the end of the file.
  MQOneProgram q(0);
  EXPECT_EQ(ReadPs(ps, 2, static_cast<int64_t>(ps.size() + 10), &q), 0);
}

TEST(BlockFromMedia, ProgramStreamWithoutDataPacksFails) {
  // Only video packs: the decoder never holds payload of the selected stream, and the
  // reader must not ask it for any (found by fuzzing: taking from an empty payload
  // buffer copied from a null pointer).
  size_t start = 0;
  Bytes ps = mediatest::ProgramStream({}, false, 4, &start);
  LogCapture log;
  MQOneProgram p(0);
  EXPECT_EQ(ReadPs(ps, 2, 0, &p), 0);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"[7] load file failed"}));
}

TEST(BlockFromMedia, TransportStreamOfEveryPacketSize) {
  const Bytes block = SampleBlock();
  for (int size : {188, 192, 204}) {
    Bytes ts;
    Bytes other(184, 0x33);
    for (uint8_t cc = 0; cc < 5; ++cc) mediatest::TsPacket(ts, size, 0x100, cc, other.data(), 184);
    size_t start = ts.size();
    mediatest::TsBlock(ts, size, 8160, block);
    LogCapture log;
    MQOneProgram p(0);
    ASSERT_EQ(ReadTs(ts, size, static_cast<int64_t>(start), 8160, &p), 1) << size;
    EXPECT_EQ(ProgramBlockBytes(p), block) << size;
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"[9] read from file success"}));
  }
}

TEST(BlockFromMedia, TransportStreamTwoProgramsOneAfterTheOther) {
  BlockContent a, b;
  a.tags[2].AddPlain(5, 1);
  b.tags[3].AddPlain(6, 2);
  const Bytes block_a = EncodeBlockBytes(a), block_b = EncodeBlockBytes(b);
  Bytes ts;
  mediatest::TsBlock(ts, 188, 8128, block_a);
  size_t start_b = ts.size();
  mediatest::TsBlock(ts, 188, 8128, block_b);
  MQOneProgram pa(0), pb(1);
  ASSERT_EQ(ReadTs(ts, 188, 0, 8128, &pa), 1);
  ASSERT_EQ(ReadTs(ts, 188, static_cast<int64_t>(start_b), 8128, &pb), 1);
  EXPECT_EQ(ProgramBlockBytes(pa), block_a);
  EXPECT_EQ(ProgramBlockBytes(pb), block_b);
}

TEST(BlockFromMedia, TransportStreamFailuresUseTheirOwnLines) {
  Bytes block = SampleBlock();
  block[5] ^= 1;
  Bytes ts;
  mediatest::TsBlock(ts, 188, 8160, block);
  LogCapture log;
  MQOneProgram p(0);
  EXPECT_EQ(ReadTs(ts, 188, 0, 8160, &p), 0);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"MarquelOneFile: [9]Check header crc failed",
                                                      "[9] read from file failed"}));
  // The wrong PID collects nothing.
  LogCapture log2;
  Bytes good_ts;
  mediatest::TsBlock(good_ts, 188, 8160, SampleBlock());
  EXPECT_EQ(ReadTs(good_ts, 188, 0, 8161, &p), 0);
  EXPECT_EQ(log2.Messages(), (std::vector<std::string>{"[9] read from file failed"}));
  // A packet size the reader cannot take.
  EXPECT_EQ(ReadTs(good_ts, 100, 0, 8160, &p), 0);
}

TEST(BlockAssembler, TakesBytesInAnyPiecesAndStopsAfterTheDataStream) {
  const Bytes block = SampleBlock();
  Bytes payload = WithEndRecord(block);
  for (size_t piece : {size_t{1}, size_t{7}, size_t{26}, size_t{183}, payload.size()}) {
    BlockAssembler a;
    size_t total_used = 0;
    for (size_t at = 0; at < payload.size(); at += piece) {
      size_t used = 0;
      a.Add(payload.data() + at, std::min(piece, payload.size() - at), &used);
      total_used += used;
    }
    ASSERT_EQ(a.state(), BlockAssembler::State::kComplete) << piece;
    EXPECT_EQ(total_used, block.size()) << piece;
    Bytes joined(a.header(), a.header() + 26);
    for (auto* s : {&a.tag_ids(), &a.lengths(), &a.data()})
      joined.insert(joined.end(), s->begin(), s->end());
    EXPECT_EQ(joined, block);
  }
}

TEST(BlockAssembler, HugeAnnouncedStreamReservesLittleAndWaits) {
  // A good header announcing a tag-id stream of 4 GiB - 1 bytes.
  Bytes h = {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0,    0,    0,    4,    0,
             0,    0,    4,    0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x01, 0x00};
  uint32_t crc = Crc32Ieee(h.data(), h.size());
  for (int s = 24; s >= 0; s -= 8) h.push_back(static_cast<uint8_t>(crc >> s));
  BlockAssembler a;
  EXPECT_EQ(a.Add(h.data(), h.size()), BlockAssembler::State::kNeedMore);
  EXPECT_LE(a.tag_ids().capacity(), size_t{1} << 20);
  Bytes more(1000, 0);
  EXPECT_EQ(a.Add(more.data(), more.size()), BlockAssembler::State::kNeedMore);
}

TEST(BlockAssembler, StreamTooShortForACrcFails) {
  // A good header announcing a tag-id stream of 2 bytes.
  Bytes h = {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00, 0, 0,    0,    4,    0,
             0,    0,    4,    0,    0,    0,    2, 0x00, 0x00, 0x01, 0x00};
  uint32_t crc = Crc32Ieee(h.data(), h.size());
  for (int s = 24; s >= 0; s -= 8) h.push_back(static_cast<uint8_t>(crc >> s));
  h.insert(h.end(), {0, 0});
  BlockAssembler a;
  EXPECT_EQ(a.Add(h.data(), h.size()), BlockAssembler::State::kTagIdCrcBad);
}

}  // namespace
}  // namespace marquel
