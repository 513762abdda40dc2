#include "tags/block_program.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "block_test_util.h"
#include "platform/temp_folders.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

using namespace blocktest;

constexpr int64_t I = kDefaultStateInterval;

// Every sample of a tag as (time, value) pairs, read through the program.
Pairs Stored(MQOneProgram& p, int32_t id) {
  int64_t n = p.QueryOneTagSize(id);
  std::vector<SampleRecord> recs(static_cast<size_t>(std::max<int64_t>(n, 1)));
  int64_t got = p.GetDataAll(id, recs.data(), n);
  Pairs out;
  for (int64_t i = 0; i < got; ++i) out.emplace_back(recs[i].llTimeCode, recs[i].nValue);
  FreeSampleBuffers(recs.data(), got);
  return out;
}

Bytes StoredRaw(MQOneProgram& p, int32_t id, int64_t time) {
  SampleRecord r;
  if (p.GetOne(id, time, &r) != 1) return {};
  Bytes out(r.pBuffer, r.pBuffer + r.nValue);
  FreeSampleBuffer(r.pBuffer);
  return out;
}

// A program holding samples of every type, and the same samples as lists.
void Fill(MQOneProgram& p, BlockContent* c) {
  const uint8_t raw1[] = {1, 2, 3}, raw2[] = {4, 5, 6};
  for (auto [t, v] : Pairs{{10, 7}, {2000000, 8}}) {
    p.InsertOne(16, MakePlainSample(t, v));
    c->tags[16].AddPlain(t, v);
  }
  for (auto [t, v] : Pairs{{10, 100}, {20, 190}}) {
    p.InsertOne(254, MakePlainSample(t, v));
    c->tags[254].AddPlain(t, v);
  }
  p.InsertOne(29, MakeRawSample(15, 3, raw1));
  p.InsertOne(29, MakeRawSample(25, 3, raw2));
  c->tags[29].AddRaw(15, raw1, 3);
  c->tags[29].AddRaw(25, raw2, 3);
  for (int i = 0; i < 6; ++i) {
    int32_t v = i < 3 ? 1 : 0;
    p.InsertOne(17, MakePlainSample(i * I, v));
    c->tags[17].AddPlain(i * I, v);
  }
  c->tags[17].interval = I;  // the store measures it from the first two samples
}

TEST(BlockProgram, WritesTheSameBytesAsTheListWriterIntoTheFourBuffers) {
  MQOneProgram p(0);
  BlockContent c;
  Fill(p, &c);
  ASSERT_EQ(WriteProgramBlock(p), 1);
  Bytes expected = Encode(c);
  EXPECT_EQ(ProgramBlockBytes(p), expected);
  BlockHeader h = ParseBlockHeader(expected.data());
  ASSERT_NE(p.m_ptpHeader, nullptr);
  EXPECT_EQ(p.m_ptpHeader->bytes.size(), 52u);
  EXPECT_EQ(p.m_ptpHeader->bitPosition, 26u * 8);
  EXPECT_EQ(p.m_ptpTagID->bytes.size(), h.tag_id_size);
  EXPECT_EQ(p.m_ptpDataLength->bytes.size(), h.length_size);
  EXPECT_EQ(p.m_ptpData->bytes.size(), h.data_size);
  EXPECT_EQ(p.m_ptpData->bitPosition, h.data_size * 8u);
  EXPECT_EQ(p.CheckBuffersForSerialise(), 1);
}

TEST(BlockProgram, LoadGivesBackEveryTagAndItsInterval) {
  MQOneProgram src(0);
  BlockContent c;
  Fill(src, &c);
  ASSERT_EQ(WriteProgramBlock(src), 1);
  Bytes block = ProgramBlockBytes(src);
  MQOneProgram dst(1);
  dst.InsertOne(5, MakePlainSample(1, 1));  // cleared by the load
  SetProgramBlockBuffers(dst, block.data(), Bytes(src.m_ptpTagID->bytes),
                         Bytes(src.m_ptpDataLength->bytes), Bytes(src.m_ptpData->bytes));
  ASSERT_EQ(LoadProgramBlock(dst), 1);
  EXPECT_EQ(Stored(dst, 16), (Pairs{{10, 7}, {2000000, 8}}));
  EXPECT_EQ(Stored(dst, 254), (Pairs{{10, 100}, {20, 190}}));
  EXPECT_EQ(Stored(dst, 17), SamplesOf(c, 17));
  EXPECT_EQ(StoredRaw(dst, 29, 25), (Bytes{4, 5, 6}));
  EXPECT_EQ(dst.QueryOneTagSize(5), 0);
  EXPECT_EQ(dst.HighestTagId(), 254);
  ASSERT_NE(dst.Tag(17), nullptr);
  EXPECT_EQ(dst.Tag(17)->Interval(), I);
  EXPECT_TRUE(dst.Tag(17)->IntervalSet());
  EXPECT_EQ(dst.Tag(29)->Kind(), kRawSample);
  // Writing the loaded program again gives the same block.
  ASSERT_EQ(WriteProgramBlock(dst), 1);
  EXPECT_EQ(ProgramBlockBytes(dst), block);
}

TEST(BlockProgram, RejectedBlockLeavesTheProgramAlone) {
  MQOneProgram src(0);
  BlockContent c;
  Fill(src, &c);
  ASSERT_EQ(WriteProgramBlock(src), 1);
  src.m_ptpData->bytes[0] ^= 0x10;
  MQOneProgram dst(0);
  dst.InsertOne(5, MakePlainSample(1, 1));
  dst.m_ptpTagID = std::make_unique<ProgramBuffer>(*src.m_ptpTagID);
  dst.m_ptpDataLength = std::make_unique<ProgramBuffer>(*src.m_ptpDataLength);
  dst.m_ptpData = std::make_unique<ProgramBuffer>(*src.m_ptpData);
  BlockRejection why;
  EXPECT_EQ(LoadProgramBlock(dst, &why), 0);
  EXPECT_EQ(why, BlockRejection::kDataCrc);
  EXPECT_EQ(Stored(dst, 5), (Pairs{{1, 1}}));
  EXPECT_EQ(dst.Tag(16), nullptr);
}

// A block written without the records a failed read left out would be a close that
// answers success for samples it did not keep.
TEST(BlockProgram, ARecordFileThatCannotBeReadFailsTheWrite) {
  MQOneProgram p(0);
  for (int32_t i = 0; i < 5000; ++i) ASSERT_EQ(p.InsertOne(16, MakePlainSample(i * 10, i)), 1);
  ASSERT_EQ(p.FlushAllMemoryBlocks(), 1);
  ASSERT_EQ(WriteProgramBlock(p), 1);
  int cut = 0;
  for (const auto& e : std::filesystem::directory_iterator(ProcessTempFolder())) {
    if (e.path().filename().string().rfind("MQT", 0) != 0) continue;
    std::filesystem::resize_file(e.path(), 0);
    ++cut;
  }
  ASSERT_GT(cut, 0);
  EXPECT_EQ(WriteProgramBlock(p), -1);
  EXPECT_EQ(p.m_ptpData, nullptr) << "no partial block stays";
}

TEST(BlockProgram, MissingBuffersLoadNothing) {
  MQOneProgram p(0);
  EXPECT_EQ(LoadProgramBlock(p), 0);
  EXPECT_TRUE(ProgramBlockBytes(p).empty());
}

TEST(BlockProgram, AcceptanceCallbackSetsTheValidFlag) {
  MQOneProgram src(0);
  BlockContent c;
  Fill(src, &c);
  ASSERT_EQ(WriteProgramBlock(src), 1);
  MQOneProgram dst(0);
  std::map<int32_t, int> asked;
  dst.SetAcceptTagCallback([&](int32_t id) {
    ++asked[id];
    return id != 254;
  });
  dst.m_ptpTagID = std::make_unique<ProgramBuffer>(*src.m_ptpTagID);
  dst.m_ptpDataLength = std::make_unique<ProgramBuffer>(*src.m_ptpDataLength);
  dst.m_ptpData = std::make_unique<ProgramBuffer>(*src.m_ptpData);
  ASSERT_EQ(LoadProgramBlock(dst), 1);
  EXPECT_EQ(asked, (std::map<int32_t, int>{{16, 1}, {17, 1}, {29, 1}, {254, 1}}));
  ASSERT_NE(dst.Tag(254), nullptr);
  EXPECT_FALSE(dst.Tag(254)->Valid());
  EXPECT_EQ(dst.QueryOneTagSize(254), 0);
  EXPECT_TRUE(dst.Tag(16)->Valid());
  EXPECT_EQ(dst.QueryOneTagSize(16), 2);
}

TEST(BlockProgram, SizeQueriesPredictTheBlock) {
  MQOneProgram empty(0);
  EXPECT_EQ(QueryProgramBlockSize(empty), 38);
  MQOneProgram p(0);
  BlockContent c;
  Fill(p, &c);
  EXPECT_EQ(QueryProgramBlockSize(p), static_cast<int64_t>(Predict(c).Total()));
  BlockContent period;
  period.tags[16].AddPlain(10, 7);
  const uint8_t raw1[] = {1, 2, 3};
  period.tags[29].AddRaw(15, raw1, 3);
  period.tags[254].AddPlain(10, 100);
  period.tags[17].AddPlain(0, 1);
  period.tags[17].interval = I;
  EXPECT_EQ(QueryProgramBlockPeriodSize(p, 0, 16), static_cast<int64_t>(Predict(period).Total()));
}

TEST(BlockProgram, RawSamplesLongerThanTheFirstAreKept) {
  BlockContent c;
  const Bytes small = {1, 2}, big = {1, 2, 3, 4};
  AddRaw(c, 29, 1, small);
  AddRaw(c, 29, 2, big);
  AddRaw(c, 29, 3, small);
  MQOneProgram p(0);
  uint64_t dropped = 0;
  EXPECT_EQ(StoreBlockContent(p, c, &dropped), 1);
  EXPECT_EQ(dropped, 0u);
  EXPECT_EQ(Stored(p, 29), (Pairs{{1, 2}, {2, 4}, {3, 2}}));
}

TEST(BlockProgram, StoreLeavesOutRawSamplesTheTagsCountFieldCannotCarry) {
  BlockContent c;
  const Bytes fits(15, 7), tooLong(16, 7);  // tag 31 counts its bytes in 4 bits
  AddRaw(c, 31, 1, fits);
  AddRaw(c, 31, 2, tooLong);
  MQOneProgram p(0);
  uint64_t dropped = 0;
  EXPECT_EQ(StoreBlockContent(p, c, &dropped), 1);
  EXPECT_EQ(dropped, 1u);
  EXPECT_EQ(Stored(p, 31), (Pairs{{1, 15}}));
}

TEST(BlockProgram, ManySamplesPassThroughTheMemoryBlocks) {
  MQOneProgram src(0);
  BlockContent c;
  for (int i = 0; i < 5000; ++i) {
    src.InsertOne(18, MakePlainSample(i * 1000, i & 0xFF));
    c.tags[18].AddPlain(i * 1000, i & 0xFF);
  }
  ASSERT_EQ(WriteProgramBlock(src), 1);
  EXPECT_EQ(ProgramBlockBytes(src), Encode(c));
  MQOneProgram dst(0);
  dst.m_ptpTagID = std::make_unique<ProgramBuffer>(*src.m_ptpTagID);
  dst.m_ptpDataLength = std::make_unique<ProgramBuffer>(*src.m_ptpDataLength);
  dst.m_ptpData = std::make_unique<ProgramBuffer>(*src.m_ptpData);
  ASSERT_EQ(LoadProgramBlock(dst), 1);
  EXPECT_EQ(Stored(dst, 18), SamplesOf(c, 18));
  EXPECT_EQ(dst.Tag(18)->BlockCount(), 0);  // flushed to the record file
}

}  // namespace
}  // namespace marquel
