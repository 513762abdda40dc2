// MQOneProgram: tag lists, bad input, the memory figure and the serialisation buffers.
#include "tags/mq_one_program.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log/log.h"
#include "log/log_capture.h"

namespace marquel {
namespace {

using log::LogCapture;

TEST(MQOneProgramTest, RawSamplesOnlyIntoTypeFiveTags) {
  MQOneProgram p;
  uint8_t bytes[2] = {1, 2};
  EXPECT_EQ(p.InsertOne(16, MakeRawSample(1, 2, bytes)), 0);
  EXPECT_EQ(p.Tag(16), nullptr) << "a refused raw sample makes no tag";
  EXPECT_EQ(p.InsertOne(29, MakeRawSample(1, 2, bytes)), 1);
  EXPECT_EQ(p.InsertOne(29, MakeRawSample(2, -1, bytes)), 0) << "negative length";
  EXPECT_EQ(p.InsertOne(16, MakePlainSample(1, 5)), 1);
  EXPECT_EQ(p.HighestTagId(), 29);
}

TEST(MQOneProgramTest, PlainSamplesAreRefusedByRawTags) {
  MQOneProgram p;
  EXPECT_EQ(p.InsertOne(30, MakePlainSample(1, 5)), 0) << "it would come back as raw";
  EXPECT_EQ(p.QueryOneTagSize(30), 0);
}

TEST(MQOneProgramTest, TagsTheDataBlockCannotCarryRefuseSamples) {
  MQOneProgram p;
  for (int32_t tag : {0, 1, 255}) {
    EXPECT_EQ(p.InsertOne(tag, MakePlainSample(1, 5)), 0) << tag;
    EXPECT_EQ(p.Tag(tag), nullptr) << tag;
  }
  EXPECT_EQ(p.InsertOne(2, MakePlainSample(1, 5)), 1);
  EXPECT_EQ(p.InsertOne(254, MakePlainSample(1, 5)), 1);
}

TEST(MQOneProgramTest, RawSamplesLongerThanTheirCountFieldAreRefused) {
  MQOneProgram p;
  std::vector<uint8_t> bytes(70000, 1);
  EXPECT_EQ(p.InsertOne(31, MakeRawSample(1, 15, bytes.data())), 1) << "4 bits hold 15";
  EXPECT_EQ(p.InsertOne(31, MakeRawSample(2, 16, bytes.data())), 0);
  EXPECT_EQ(p.InsertOne(29, MakeRawSample(1, 65535, bytes.data())), 1) << "16 bits";
  EXPECT_EQ(p.InsertOne(29, MakeRawSample(2, 65536, bytes.data())), 0);
  EXPECT_EQ(p.QueryOneTagSize(31), 1);
  EXPECT_EQ(p.QueryOneTagSize(29), 1);
}

TEST(MQOneProgramTest, ASampleTheTagDoesNotStoreIsZeroNeverMinusOne) {
  MQOneProgram p;
  uint8_t bytes[4] = {};
  ASSERT_EQ(p.InsertOne(29, MakeRawSample(1, 4, bytes)), 1);
  EXPECT_EQ(p.InsertOne(29, MakeRawSample(2, 3, nullptr)), 0) << "no bytes, another length";
  setenv("TMPDIR", "/nonexistent-marquel-folder", 1);
  EXPECT_EQ(p.InsertOne(30, MakeRawSample(1, 4, bytes)), 0) << "no record file";
}

TEST(MQOneProgramTest, BadTagIdsAnswerAsMissingTags) {
  MQOneProgram p;
  SampleRecord r;
  for (int32_t id : {-1, 256, 100000, INT32_MIN}) {
    EXPECT_EQ(p.InsertOne(id, MakePlainSample(1, 1)), 0);
    EXPECT_EQ(p.GetOne(id, 1, &r), -1);
    EXPECT_EQ(p.QueryOneTagSize(id), 0);
    EXPECT_EQ(p.QueryOneTagPeriodSize(id, 0, -1), 0);
    EXPECT_EQ(p.GetDataAll(id, &r, 1), 0);
    EXPECT_EQ(p.SetTimeIntervalForTag(id, 5), -1);
    EXPECT_EQ(p.QueryValidIntervalSize(id), 0);
    EXPECT_EQ(p.DeleteDataPeriodForOneTag(id, 0, -1), 1);
    EXPECT_EQ(p.MinustTimeOffsetForOneTag(id, 1), 1);
    int32_t size = 0;
    EXPECT_EQ(p.QueryRawDataTagSampleSize(id, &size), -1);
    EXPECT_EQ(p.Tag(id), nullptr);
  }
  EXPECT_EQ(p.QueryTagCount(), 0);
}

TEST(MQOneProgramTest, NullArraysAndNegativeCountsNeverWrite) {
  MQOneProgram p;
  p.InsertOne(5, MakePlainSample(1, 1));
  p.InsertOne(6, MakePlainSample(1, 1));
  EXPECT_EQ(p.InsertMany(5, nullptr, 3), 0);
  SampleRecord one = MakePlainSample(9, 9);
  EXPECT_EQ(p.InsertMany(5, &one, -2), 0);
  EXPECT_EQ(p.InsertMany(5, &one, 0), 0);
  EXPECT_EQ(p.GetOne(5, 1, nullptr), -1);
  EXPECT_EQ(p.GetDataAll(5, nullptr, 10), 0);
  SampleRecord out[1];
  EXPECT_EQ(p.GetDataAll(5, out, -1), 0);
  EXPECT_EQ(p.QueryTagList(nullptr, 5), 2) << "the count, nothing written";
  int32_t ids[1] = {-7};
  EXPECT_EQ(p.QueryTagList(ids, -3), 2);
  EXPECT_EQ(ids[0], -7);
  EXPECT_EQ(p.QueryValidInterval(5, 4, nullptr, nullptr), 1);
  EXPECT_EQ(p.QueryRawDataTagSampleSize(5, nullptr), -1);
}

TEST(MQOneProgramTest, ListsWriteAtMostTheCapacity) {
  MQOneProgram p;
  uint8_t bytes[3] = {};
  for (int id : {2, 4, 8}) p.InsertOne(id, MakePlainSample(1, 1));
  p.InsertOne(29, MakeRawSample(1, 3, bytes));
  p.InsertOne(67, MakeRawSample(1, 1, bytes));
  int32_t ids[4] = {-1, -1, -1, -1};
  EXPECT_EQ(p.QueryTagList(ids, 2), 3);
  EXPECT_EQ(ids[0], 2);
  EXPECT_EQ(ids[1], 4);
  EXPECT_EQ(ids[2], -1) << "nothing past the capacity";
  EXPECT_EQ(p.QueryTagCount(), 3);
  EXPECT_EQ(p.QueryRawDataTagCount(), 2);
  int32_t raw[2] = {};
  int32_t sizes[2] = {};
  EXPECT_EQ(p.QueryRawDataTagList(raw, sizes, 2), 2);
  EXPECT_EQ(raw[0], 29);
  EXPECT_EQ(sizes[0], 3);
  EXPECT_EQ(raw[1], 67);
  EXPECT_EQ(sizes[1], 1);
  int32_t size = 0;
  EXPECT_EQ(p.QueryRawDataTagSampleSize(29, &size), 1);
  EXPECT_EQ(size, 3);
  EXPECT_EQ(p.QueryRawDataTagSampleSize(2, &size), -1) << "a plain tag";
}

TEST(MQOneProgramTest, SampleReadsHonourTheCapacity) {
  MQOneProgram p;
  for (int i = 0; i < 10; ++i) p.InsertOne(3, MakePlainSample(i, i));
  SampleRecord out[4];
  out[3].nValue = -99;
  EXPECT_EQ(p.GetDataAll(3, out, 3), 3);
  EXPECT_EQ(out[2].nValue, 2);
  EXPECT_EQ(out[3].nValue, -99);
  EXPECT_EQ(p.GetDataPeriod(3, 5, 7, out, 4), 2);
  EXPECT_EQ(out[0].llTimeCode, 5);
  EXPECT_EQ(out[1].llTimeCode, 6);
}

TEST(MQOneProgramTest, MemoryFigure) {
  MQOneProgram p;
  EXPECT_EQ(p.QueryMemory(), 112);
  p.InsertOne(3, MakePlainSample(1, 1));
  EXPECT_EQ(p.QueryMemory(), 112 + 32 * 1024 + 16 * 8);
  // A tag object without a record file counts 32 x capacity + 128.
  p.GetOrCreateTag(9);
  EXPECT_EQ(p.QueryMemory(), 112 + 2 * (32 * 1024 + 128));
}

TEST(MQOneProgramTest, BuffersLogWhenMissing) {
  LogCapture log;
  MQOneProgram p;
  EXPECT_EQ(p.TagIdBuffer(), nullptr);
  EXPECT_EQ(p.DataBuffer(), nullptr);
  EXPECT_EQ(p.DataLengthBuffer(), nullptr);
  EXPECT_EQ(p.HeaderBuffer(), nullptr);
  EXPECT_TRUE(log.Has("m_ptpTagID = NULL"));
  EXPECT_TRUE(log.Has("m_ptpData = NULL"));
  EXPECT_TRUE(log.Has("m_ptpDataLength = NULL"));
  EXPECT_TRUE(log.Has("m_ptpHeader = NULL"));
  EXPECT_EQ(p.CheckBuffersForSerialise(), -1);
  EXPECT_TRUE(log.Has("error! process program but no data!"));
  p.MakeTagIdBuffer(10);
  p.MakeDataBuffer(10);
  p.MakeDataLengthBuffer(10);
  EXPECT_EQ(p.MakeHeaderBuffer()->bytes.size(), 52u);
  EXPECT_EQ(p.CheckBuffersForSerialise(), 1);
  p.ReleaseBuffers();
  EXPECT_EQ(p.m_ptpHeader, nullptr);
}

TEST(MQOneProgramTest, AcceptanceCallback) {
  MQOneProgram p;
  EXPECT_TRUE(p.AcceptsTag(7));
  p.SetAcceptTagCallback([](int32_t id) { return id == 3; });
  EXPECT_TRUE(p.AcceptsTag(3));
  EXPECT_FALSE(p.AcceptsTag(7));
}

TEST(MQOneProgramTest, ClearAndFlushKeepTheTagObjects) {
  MQOneProgram p;
  p.InsertOne(3, MakePlainSample(1, 1));
  p.GetOrCreateTag(4)->BulkAppend(MakePlainSample(5, 5));
  EXPECT_EQ(p.FlushAllMemoryBlocks(), 1);
  EXPECT_EQ(p.QueryOneTagSize(4), 1);
  p.ClearAllTags();
  EXPECT_NE(p.Tag(3), nullptr);
  EXPECT_EQ(p.QueryOneTagSize(3), 0);
  EXPECT_EQ(p.QueryOneTagSize(4), 0);
}

}  // namespace
}  // namespace marquel
