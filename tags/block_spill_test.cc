// Blocks written past the spill threshold: the same bytes as a block held in memory, read
// back chunk by chunk, and no spill file left behind on any way out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "block_test_util.h"
#include "platform/temp_folders.h"
#include "tags/block_format.h"
#include "tags/block_program.h"
#include "tags/block_tempfile.h"
#include "testsupport/file_size_limit.h"

namespace marquel {
namespace {

using namespace blocktest;

constexpr size_t kLowThreshold = 256;
constexpr int32_t kPlainTag = 16;
constexpr int32_t kDeltaTag = 254;
constexpr int32_t kRawTag = 32;  // a 30-bit count field

// The spill files in the process's own temporary folder.
std::vector<std::string> SpillFiles() {
  std::vector<std::string> out;
  for (const auto& e : std::filesystem::directory_iterator(ProcessTempFolder())) {
    std::string name = e.path().filename().string();
    if (name.rfind("MQS", 0) == 0) out.push_back(name);
  }
  return out;
}

// Samples of one kind into both the program and the lists, enough to pass the threshold
// many times over in every stream.
void Fill(int32_t tag, MQOneProgram& p, BlockContent* c) {
  for (int32_t i = 0; i < 3000; ++i) {
    const int64_t time = int64_t{i} * 40000 + int64_t{i / 7} * 2000000;  // absolute entries too
    if (tag == kRawTag) {
      Bytes bytes(static_cast<size_t>(1 + i % 300));
      for (size_t k = 0; k < bytes.size(); ++k) bytes[k] = static_cast<uint8_t>(i * 31 + k);
      ASSERT_EQ(
          p.InsertOne(tag, MakeRawSample(time, static_cast<int32_t>(bytes.size()), bytes.data())),
          1);
      AddRaw(*c, tag, time, bytes);
    } else {
      const int32_t value = tag == kDeltaTag ? i * 3 : i * 7919;
      ASSERT_EQ(p.InsertOne(tag, MakePlainSample(time, value)), 1);
      c->tags[tag].AddPlain(time, value);
    }
  }
  ASSERT_EQ(p.FlushAllMemoryBlocks(), 1);
}

// The program's block as WriteProgramBlockToFile stores it.
Bytes WrittenToFile(MQOneProgram& p) {
  const std::string path = ProcessTempFolder() + "/spill-test.block";
  FileHandle f = OpenFileHandle(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0,
                                kInvalidFileHandle);
  EXPECT_NE(f, kInvalidFileHandle);
  EXPECT_EQ(WriteProgramBlockToFile(p, f), 1);
  CloseFileHandle(f);
  FILE* in = std::fopen(path.c_str(), "rb");
  EXPECT_NE(in, nullptr);
  if (in == nullptr) return {};
  Bytes out;
  for (int ch; (ch = std::fgetc(in)) != EOF;) out.push_back(static_cast<uint8_t>(ch));
  std::fclose(in);
  std::filesystem::remove(path);
  return out;
}

TEST(BlockSpill, ABlockPastTheThresholdIsByteIdenticalToOneHeldInMemory) {
  for (int32_t tag : {kPlainTag, kDeltaTag, kRawTag}) {
    SCOPED_TRACE(tag);
    MQOneProgram p(0);
    BlockContent c;
    Fill(tag, p, &c);
    const Bytes expected = Encode(c);
    ASSERT_EQ(WriteProgramBlock(p), 1);
    EXPECT_EQ(p.m_ptpData->spill, nullptr) << "the default keeps a small block in memory";
    EXPECT_EQ(WrittenToFile(p), expected);

    ASSERT_EQ(WriteProgramBlock(p, kLowThreshold), 1);
    ASSERT_NE(p.m_ptpTagID->spill, nullptr);
    ASSERT_NE(p.m_ptpData->spill, nullptr);
    // Only the tail stays in memory: at most the threshold, or the room the writer makes
    // for one chunk of 32 steps (here of raw samples up to 300 bytes).
    EXPECT_LE(p.m_ptpData->bytes.size(), kLowThreshold + 32 * 300 + 1024);
    EXPECT_LE(p.m_ptpTagID->bytes.size(), kLowThreshold + 1024);
    EXPECT_GT(p.m_ptpData->Size(), 20 * kLowThreshold);
    EXPECT_EQ(WrittenToFile(p), expected);
    EXPECT_EQ(ProgramBlockBytes(p), expected);
  }
}

TEST(BlockSpill, ChunksOfASpilledStreamKeepToTheirBoundAndAddUpToTheStream) {
  MQOneProgram p(0);
  BlockContent c;
  Fill(kRawTag, p, &c);
  ASSERT_EQ(WriteProgramBlock(p, kLowThreshold), 1);
  Bytes joined;
  size_t largest = 0;
  ASSERT_TRUE(p.m_ptpData->ForEachChunk(100, [&](const uint8_t* bytes, size_t n) {
    largest = std::max(largest, n);
    joined.insert(joined.end(), bytes, bytes + n);
    return true;
  }));
  EXPECT_EQ(largest, 100u);
  EXPECT_EQ(joined.size(), p.m_ptpData->Size());
  EXPECT_TRUE(StreamCrcOk(joined.data(), joined.size()));
  int calls = 0;
  EXPECT_FALSE(p.m_ptpData->ForEachChunk(100, [&](const uint8_t*, size_t) { return ++calls < 3; }));
  EXPECT_EQ(calls, 3) << "the walk stops when asked";
}

TEST(BlockSpill, ASpilledBlockLoadsBackIntoAProgram) {
  MQOneProgram src(0);
  BlockContent c;
  Fill(kRawTag, src, &c);
  ASSERT_EQ(WriteProgramBlock(src, kLowThreshold), 1);
  ASSERT_EQ(LoadProgramBlock(src), 1);
  EXPECT_EQ(src.QueryOneTagSize(kRawTag), 3000);
  SampleRecord r;
  ASSERT_EQ(src.GetOne(kRawTag, c.tags[kRawTag].times[2999], &r), 1);
  EXPECT_EQ(Bytes(r.pBuffer, r.pBuffer + r.nValue), RawOf(c, kRawTag, 2999));
  FreeSampleBuffer(r.pBuffer);
}

TEST(BlockSpill, SpillFilesGoWithTheBuffers) {
  ASSERT_TRUE(SpillFiles().empty());
  MQOneProgram p(0);
  BlockContent c;
  Fill(kPlainTag, p, &c);
  ASSERT_EQ(WriteProgramBlock(p, kLowThreshold), 1);
  EXPECT_EQ(SpillFiles().size(), 3u) << "one per stream";
  ASSERT_EQ(WriteProgramBlock(p, kLowThreshold), 1);
  EXPECT_EQ(SpillFiles().size(), 3u) << "a new write replaces the old files";
  p.ReleaseBuffers();
  EXPECT_TRUE(SpillFiles().empty());
  {
    MQOneProgram q(0);
    Fill(kPlainTag, q, &c);
    ASSERT_EQ(WriteProgramBlock(q, kLowThreshold), 1);
  }
  EXPECT_TRUE(SpillFiles().empty()) << "and with the program";
}

TEST(BlockSpill, AFailedSpillFailsTheWriteAndLeavesNoFile) {
  MQOneProgram p(0);
  BlockContent c;
  Fill(kRawTag, p, &c);
  {
    test::ScopedFileSizeLimit full(kLowThreshold / 2);  // a disk that fills at once
    EXPECT_EQ(WriteProgramBlock(p, kLowThreshold), -1);
  }
  EXPECT_EQ(p.m_ptpData, nullptr) << "no part of the block stays";
  EXPECT_EQ(p.m_ptpHeader, nullptr);
  EXPECT_TRUE(SpillFiles().empty());
  EXPECT_EQ(p.QueryOneTagSize(kRawTag), 3000) << "the samples are still there";
  ASSERT_EQ(WriteProgramBlock(p, kLowThreshold), 1);
  EXPECT_EQ(WrittenToFile(p), Encode(c));
}

}  // namespace
}  // namespace marquel
