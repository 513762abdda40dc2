#include "tags/block_tempfile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "block_test_util.h"
#include "log/log.h"
#include "log/log_capture.h"
#include "tags/block_format.h"
#include "tags/block_program.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using namespace blocktest;

using log::LogCapture;

FileHandle Create(const std::string& path) {
  return OpenFileHandle(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0,
                        kInvalidFileHandle);
}
FileHandle OpenRead(const std::string& path) {
  return OpenFileHandle(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                        OPEN_EXISTING, 0, kInvalidFileHandle);
}

void WriteBytes(const std::string& path, const Bytes& bytes) {
  FileHandle f = Create(path);
  ASSERT_NE(f, kInvalidFileHandle);
  uint32_t written = 0;
  if (!bytes.empty()) {
    ASSERT_TRUE(WriteFile(f, bytes.data(), static_cast<uint32_t>(bytes.size()), &written));
  }
  CloseFileHandle(f);
}

// Reads the file into a fresh program; returns the reader's result.
int32_t ReadInto(const std::string& path, MQOneProgram* p) {
  FileHandle f = OpenRead(path);
  EXPECT_NE(f, kInvalidFileHandle);
  int32_t r = ReadProgramBlockFromTempFile(*p, f);
  CloseFileHandle(f);
  return r;
}

Bytes SampleBlock() {
  BlockContent c;
  AddPlain(c, 16, {{100, 0x1234}, {3000000, 7}});
  AddRaw(c, 29, 50, {9, 8, 7});
  return Encode(c);
}

TEST(BlockTempFile, WrittenFileHoldsTheBlockAndReadsBack) {
  MQOneProgram src(0);
  src.InsertOne(16, MakePlainSample(100, 0x1234));
  src.InsertOne(16, MakePlainSample(3000000, 7));
  const uint8_t raw[] = {9, 8, 7};
  src.InsertOne(29, MakeRawSample(50, 3, raw));
  ASSERT_EQ(WriteProgramBlock(src), 1);
  std::string path = test::TestPath("MQ1.tmp");
  FileHandle f = Create(path);
  ASSERT_EQ(WriteProgramBlockToFile(src, f), 1);
  CloseFileHandle(f);

  MQOneProgram dst(2);
  ASSERT_EQ(ReadInto(path, &dst), 1);
  EXPECT_EQ(ProgramBlockBytes(dst), SampleBlock());
  ASSERT_EQ(LoadProgramBlock(dst), 1);
  EXPECT_EQ(dst.QueryOneTagSize(16), 2);
  SampleRecord r;
  ASSERT_EQ(dst.GetOne(29, 50, &r), 1);
  EXPECT_EQ(r.nValue, 3);
  FreeSampleBuffer(r.pBuffer);
}

TEST(BlockTempFile, EmptyProgramFileIs38Bytes) {
  MQOneProgram p(0);
  ASSERT_EQ(WriteProgramBlock(p), 1);
  std::string path = test::TestPath("empty.tmp");
  FileHandle f = Create(path);
  ASSERT_EQ(WriteProgramBlockToFile(p, f), 1);
  EXPECT_EQ(GetFileSize64(f), 26 + 4 + 4 + 4);
  CloseFileHandle(f);
}

TEST(BlockTempFile, WritingWithoutBuffersWritesNothing) {
  LogCapture log;
  MQOneProgram p(0);
  std::string path = test::TestPath("none.tmp");
  FileHandle f = Create(path);
  EXPECT_EQ(WriteProgramBlockToFile(p, f), 0);
  EXPECT_EQ(GetFileSize64(f), 0);
  CloseFileHandle(f);
  ASSERT_FALSE(log.Lines().empty());
  EXPECT_NE(log.Lines().back().find("error! process program but no data!"), std::string::npos);
}

struct Damage {
  size_t offset;
  const char* line;  // expected log line, or null
};

TEST(BlockTempFile, CrcFailuresReleaseTheBuffersAndSayWhich) {
  const Bytes good = SampleBlock();
  BlockHeader h = ParseBlockHeader(good.data());
  const size_t tag_ids = 26, lengths = tag_ids + h.tag_id_size;
  const Damage cases[] = {
      {4, "MQOneProgram: [3] Read from temp file check crc header failed"},
      {tag_ids, "MQOneProgram: [3] Read from temp file check crc tagid failed"},
      {lengths, "MQOneProgram: [3] Read from temp file check crc length failed"},
  };
  for (const Damage& d : cases) {
    Bytes bytes = good;
    bytes[d.offset] ^= 0x80;
    std::string path = test::TestPath("damaged.tmp");
    WriteBytes(path, bytes);
    LogCapture log;
    MQOneProgram p(3);
    p.MakeHeaderBuffer();  // buffers from before are released too
    EXPECT_EQ(ReadInto(path, &p), 0) << d.line;
    EXPECT_EQ(p.m_ptpHeader, nullptr);
    EXPECT_EQ(p.m_ptpTagID, nullptr);
    ASSERT_EQ(log.Lines().size(), 1u) << d.line;
    EXPECT_EQ(log.Lines()[0], std::string("[Marquel2.0] ") + d.line + "\n");
  }
}

TEST(BlockTempFile, CrcFailureIsSilentWhileLoggingIsOff) {
  Bytes bytes = SampleBlock();
  bytes[4] ^= 1;
  std::string path = test::TestPath("damaged.tmp");
  WriteBytes(path, bytes);
  LogCapture log;
  log::ApplySettings(log::Settings());  // logging off; the capture restores the settings
  MQOneProgram p(0);
  EXPECT_EQ(ReadInto(path, &p), 0);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(BlockTempFile, DataCrcIsLeftToTheBlockReader) {
  Bytes bytes = SampleBlock();
  bytes[bytes.size() - 1] ^= 1;
  std::string path = test::TestPath("data.tmp");
  WriteBytes(path, bytes);
  LogCapture log;
  MQOneProgram p(0);
  EXPECT_EQ(ReadInto(path, &p), 1);
  EXPECT_TRUE(log.Lines().empty());
  BlockRejection why;
  EXPECT_EQ(LoadProgramBlock(p, &why), 0);
  EXPECT_EQ(why, BlockRejection::kDataCrc);
}

TEST(BlockTempFile, ShortReadsFailWithoutAMessage) {
  const Bytes good = SampleBlock();
  for (size_t keep : {size_t{0}, size_t{10}, size_t{26}, size_t{30}, good.size() - 1}) {
    std::string path = test::TestPath("short.tmp");
    WriteBytes(path, Bytes(good.begin(), good.begin() + static_cast<ptrdiff_t>(keep)));
    LogCapture log;
    MQOneProgram p(0);
    EXPECT_EQ(ReadInto(path, &p), 0) << keep;
    EXPECT_TRUE(log.Lines().empty()) << keep;
    EXPECT_EQ(p.m_ptpTagID, nullptr);
  }
}

TEST(BlockTempFile, HugeAnnouncedSizesAreAShortRead) {
  // A header with a good CRC announcing streams of 4 GiB - 1 bytes each.
  Bytes h = {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00};
  for (int i = 0; i < 3; ++i) h.insert(h.end(), {0xFF, 0xFF, 0xFF, 0xFF});
  h.insert(h.end(), {0x00, 0x00, 0x01, 0x00});
  Bytes header = WithCrc(h);
  std::string path = test::TestPath("huge.tmp");
  WriteBytes(path, Cat({header, Bytes(100, 0)}));
  MQOneProgram p(0);
  EXPECT_EQ(ReadInto(path, &p), 0);
}

TEST(BlockTempFile, ReadsFromTheFilePosition) {
  BlockContent a, b;
  AddPlain(a, 2, {{1, 1}});
  AddPlain(b, 3, {{2, 2}});
  std::string path = test::TestPath("two.tmp");
  WriteBytes(path, Cat({Encode(a), Encode(b)}));
  FileHandle f = OpenRead(path);
  MQOneProgram pa(0), pb(1);
  ASSERT_EQ(ReadProgramBlockFromTempFile(pa, f), 1);
  ASSERT_EQ(ReadProgramBlockFromTempFile(pb, f), 1);
  CloseFileHandle(f);
  EXPECT_EQ(ProgramBlockBytes(pa), Encode(a));
  EXPECT_EQ(ProgramBlockBytes(pb), Encode(b));
}

}  // namespace
}  // namespace marquel
