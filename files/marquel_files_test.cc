// The open-file table: open, close, handles, names, counts and memory figures.
#include "files/marquel_files.h"

#include <gtest/gtest.h>

#include <thread>

#include "files_test_util.h"
#include "platform/env.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using testing_files::CountingFiles;
using testing_files::kSomeType;
using testing_files::LogCapture;

int32_t Open(MarquelFiles& t, const std::string& name, int32_t overwrite = 0) {
  return t.OpenFile(name, kSomeType, overwrite, 0, nullptr, 0, 0, -1);
}

// A volume that reports FAT32, so names compare without regard to case.
class Fat32Env : public Env {
 public:
  std::string FileSystemName(const std::string&) override { return "FAT32"; }
};

class InstalledEnv {
 public:
  explicit InstalledEnv(Env* env) { SetEnvForTesting(env); }
  ~InstalledEnv() { SetEnvForTesting(nullptr); }
};

TEST(MarquelFilesTest, OtherLetterCaseIsTheSameFileOnACaseInsensitiveVolume) {
  Fat32Env fat;
  InstalledEnv installed(&fat);
  CountingFiles table;
  int32_t a = Open(table, test::TestPath("A.MPG"));
  int32_t b = Open(table, test::TestPath("a.mpg"));
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, a);
  EXPECT_EQ(table.QueryRefCount(a), 2);
  EXPECT_EQ(table.CloseFile(a, 0), MQ_SUCCESS);
  EXPECT_EQ(table.stats.closes, 0) << "one close is not enough";
  EXPECT_EQ(table.CloseFile(a, 0), MQ_SUCCESS);
  EXPECT_EQ(table.stats.closes, 1);
  EXPECT_EQ(table.QueryFileCount(), 0);
}

TEST(MarquelFilesTest, OtherLetterCaseIsAnotherFileOnACaseSensitiveVolume) {
  CountingFiles table;
  int32_t a = Open(table, test::TestPath("A.MPG"));
  int32_t b = Open(table, test::TestPath("a.mpg"));
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 1);
  EXPECT_EQ(table.QueryRefCount(a), 1);
}

TEST(MarquelFilesTest, TheSameCanonicalPathIsTheSameFile) {
  CountingFiles table;
  int32_t a = Open(table, test::TestPath("clip.ts"));
  EXPECT_EQ(Open(table, test::TestDir() + "/./data/../clip.ts"), a);
  EXPECT_EQ(table.FindFile(test::TestPath("clip.ts")), a);
  EXPECT_EQ(table.FindFile(test::TestPath("other.ts")), -1);
  std::string name;
  EXPECT_EQ(table.QueryFilename(a, &name), 1);
  EXPECT_EQ(name, test::TestPath("clip.ts")) << "the name as first given";
}

TEST(MarquelFilesTest, AFullyClosedHandleIsReusedFirst) {
  CountingFiles table;
  EXPECT_EQ(Open(table, test::TestPath("0.mpg")), 0);
  EXPECT_EQ(Open(table, test::TestPath("1.mpg")), 1);
  EXPECT_EQ(Open(table, test::TestPath("2.mpg")), 2);
  EXPECT_EQ(table.CloseFile(1, 0), MQ_SUCCESS);
  EXPECT_EQ(Open(table, test::TestPath("3.mpg")), 1);
  int32_t handles[4] = {-1, -1, -1, -1};
  EXPECT_EQ(table.QueryAllFileHandles(handles, 4), 3);
  EXPECT_EQ(handles[0], 0);
  EXPECT_EQ(handles[1], 1);
  EXPECT_EQ(handles[2], 2);
  EXPECT_EQ(handles[3], -1);
}

TEST(MarquelFilesTest, CountsAndMemoryOfAnEmptyTable) {
  CountingFiles table;
  EXPECT_EQ(table.QueryFileCount(), 0);
  EXPECT_EQ(table.QueryAllMemory(), 16424);
  int32_t h = Open(table, test::TestPath("m.mpg"));
  int64_t file = 11000 + 112;  // one program, no tags
  EXPECT_EQ(table.QueryOneFileMemory(h), file);
  EXPECT_EQ(table.QueryAllMemory(), 16424 + file);
  table.InsertOne(h, 0, 16, MakePlainSample(1, 1));
  EXPECT_EQ(table.QueryOneFileMemory(h), file + 32 * 1024 + 128);
  EXPECT_EQ(table.QueryOneFileMemory(h + 1), -1);
}

TEST(MarquelFilesTest, AllFileHandlesNeverWritesPastTheCapacity) {
  CountingFiles table;
  for (int i = 0; i < 3; ++i) Open(table, test::TestPath(std::to_string(i)));
  int32_t handles[3] = {-1, -1, -1};
  EXPECT_EQ(table.QueryAllFileHandles(handles, 2), 3) << "the count, for the caller to compare";
  EXPECT_EQ(handles[2], -1);
  EXPECT_EQ(table.QueryAllFileHandles(nullptr, 5), 3);
  EXPECT_EQ(table.QueryAllFileHandles(handles, -1), 3);
}

TEST(MarquelFilesTest, CloseOfABadHandleLogsAndFails) {
  LogCapture log;
  CountingFiles table;
  EXPECT_EQ(table.CloseFile(-1, 0), MQ_ERR);
  EXPECT_TRUE(log.HasMessage("MarquelFiles::CloseFile(-1, 0)"));
  EXPECT_TRUE(log.HasMessage("[-1] handle does not exist or invalid"));
  int32_t h = Open(table, test::TestPath("c.mpg"));
  EXPECT_EQ(table.CloseFile(h, 1), MQ_SUCCESS);
  EXPECT_TRUE(log.HasMessage("[0] write file & clean up handle"));
  EXPECT_TRUE(log.HasMessage("MarquelFiles::CloseFile(0) MQ_SUCCESS, ref count = -1"));
  EXPECT_EQ(table.CloseFile(h, 0), MQ_ERR);
  EXPECT_TRUE(log.HasMessage("[0] handle does not exist or invalid"));
  EXPECT_EQ(table.CloseFile(2048, 0), MQ_ERR);
  EXPECT_EQ(table.CloseFile(INT32_MAX, 0), MQ_ERR);
}

TEST(MarquelFilesTest, OpenLogsItsSteps) {
  LogCapture log;
  CountingFiles table;
  std::string name = test::TestPath("log.mpg");
  Open(table, name);
  Open(table, name);
  EXPECT_TRUE(log.HasMessage("[0] MarquelFiles::OpenFile(" + name + "), new slot"));
  EXPECT_TRUE(log.HasMessage("[0] MarquelFiles::OpenFile(" + name + ") ok, ref count = 1"));
  EXPECT_TRUE(log.HasMessage("[0] MarquelFiles::OpenFile(" + name + "), file already opened"));
  EXPECT_TRUE(log.HasMessage("[0] MarquelFiles::OpenFile(" + name + ") ok, ref count = 2"));
  EXPECT_EQ(table.CloseFile(0, 0), MQ_SUCCESS);
  EXPECT_TRUE(log.HasMessage("MarquelFiles::CloseFile(0) MQ_SUCCESS, ref count = 1"));
}

TEST(MarquelFilesTest, CloseVOBFileFailureKeepsTheCount) {
  LogCapture log;
  CountingFiles table;
  int32_t h = Open(table, test::TestPath("dvd.vob"));
  Open(table, test::TestPath("dvd.vob"));
  table.stats.failVob = true;
  EXPECT_EQ(table.CloseVOBFile(h), -1);
  EXPECT_EQ(table.QueryRefCount(h), 2);
  EXPECT_EQ(table.QueryFileCount(), 1);
  EXPECT_TRUE(log.HasMessage("MarquelFiles::CloseVOBFile(0)"));
  EXPECT_FALSE(log.HasMessage("MarquelFiles::CloseVOBFile(0), success"));
  table.stats.failVob = false;
  EXPECT_EQ(table.CloseVOBFile(h), MQ_SUCCESS);
  EXPECT_EQ(table.QueryRefCount(h), 1);
  EXPECT_TRUE(log.HasMessage("MarquelFiles::CloseVOBFile(0), success"));
  EXPECT_EQ(table.CloseVOBFile(h), MQ_SUCCESS);
  EXPECT_EQ(table.QueryFileCount(), 0);
  EXPECT_EQ(table.CloseVOBFile(h), -1);
  EXPECT_EQ(table.CloseVOBFile(-3), -1);
}

TEST(MarquelFilesTest, TheLastCloseReturnsTheSessionsResult) {
  LogCapture log;
  CountingFiles table;
  table.stats.closeResult = MQ_AUTOPROCESSFAIL;
  int32_t h = Open(table, test::TestPath("later.mpg"));
  EXPECT_EQ(table.CloseFile(h, 0), MQ_AUTOPROCESSFAIL);
  EXPECT_TRUE(log.HasMessage("MarquelFiles::CloseFile(0) MQ_AUTOPROCESSFAIL, ref count = -1"));
  table.stats.closeResult = 0;
  h = Open(table, test::TestPath("odd.mpg"));
  EXPECT_EQ(table.CloseFile(h, 0), 0);
  EXPECT_TRUE(log.HasMessage("MarquelFiles::CloseFile(0) 0, ref count = -1"))
      << "other results log 0";
  EXPECT_EQ(table.QueryFileCount(), 0);
}

TEST(MarquelFilesTest, CloseVCDOrSVCDFile) {
  CountingFiles table;
  int32_t h = Open(table, test::TestPath("vcd.dat"));
  EXPECT_EQ(table.CloseVCDORSVCDFile(h), MQ_SUCCESS);
  EXPECT_EQ(table.stats.vcdCloses, 1);
  EXPECT_EQ(table.QueryFileCount(), 0);
  EXPECT_EQ(table.CloseVCDORSVCDFile(h), -1);
  EXPECT_EQ(table.CloseVCDORSVCDFile(5000), -1);
}

TEST(MarquelFilesTest, OverwriteLeavesNoSampleInAnyProgram) {
  CountingFiles table;
  std::string name = test::TestPath("over.ts");
  int32_t h = Open(table, name);
  int32_t second = -1;
  ASSERT_EQ(table.InsertNewProgram(h, 256, &second), 1);
  uint8_t bytes[2] = {1, 2};
  for (int32_t p : {0, second}) {
    table.InsertOne(h, p, 16, MakePlainSample(5, 1));
    table.InsertOne(h, p, 29, MakeRawSample(5, 2, bytes));
    table.InsertOne(h, p, 200, MakePlainSample(-7, 1));
  }
  EXPECT_EQ(Open(table, name, 1), h);
  for (int32_t p : {0, second}) {
    EXPECT_EQ(table.QueryOneTagSize(h, p, 16), 0);
    EXPECT_EQ(table.QueryOneTagSize(h, p, 29), 0);
    EXPECT_EQ(table.QueryOneTagSize(h, p, 200), 0) << "a sample before 0 goes too";
  }
}

TEST(MarquelFilesTest, CleanFile) {
  LogCapture log;
  CountingFiles table;
  int32_t h = Open(table, test::TestPath("clean.mpg"));
  table.InsertOne(h, 0, 16, MakePlainSample(5, 1));
  table.InsertOne(h, 0, 16, MakePlainSample(-5, 1));
  table.InsertOne(h, 0, 17, MakePlainSample(INT64_MIN, 1));
  EXPECT_EQ(table.CleanFile(h), 1);
  EXPECT_EQ(table.QueryOneTagSize(h, 0, 16), 0);
  EXPECT_EQ(table.QueryOneTagSize(h, 0, 17), 0) << "the lowest time code goes too";
  EXPECT_TRUE(log.HasMessage("MarquelFiles::CleanFile(0)"));
  EXPECT_TRUE(log.HasMessage("[0] clean file success"));
  EXPECT_EQ(table.CleanFile(7), -1);
  EXPECT_TRUE(log.HasMessage("[7] handle does not exist"));
  EXPECT_EQ(table.CleanFile(-1), -1);
  EXPECT_EQ(table.CleanFile(2048), -1);
}

TEST(MarquelFilesTest, MissingFileNeedsAType) {
  CountingFiles table;
  EXPECT_EQ(table.OpenFile(test::TestPath("none.mpg"), 0, 0, 0, nullptr, 0, 0, -1), -1);
  EXPECT_EQ(table.QueryFileCount(), 0) << "the slot is freed";
  EXPECT_EQ(table.OpenFile(test::TestPath("none.mpg"), 2, 0, 0, nullptr, 0, 0, -1), 0);
}

TEST(MarquelFilesTest, AFullTableAnswersMinusOneAndReleasesTheLock) {
  CountingFiles table;
  for (int i = 0; i < MarquelFiles::kSlotCount; ++i) {
    ASSERT_EQ(Open(table, test::TestPath("f" + std::to_string(i))), i);
  }
  EXPECT_EQ(Open(table, test::TestPath("one-too-many")), -1);
  // The table lock is free again: another thread can close, and a new open then succeeds.
  int32_t closed = 0;
  std::thread other([&] { closed = table.CloseFile(77, 0); });
  other.join();
  EXPECT_EQ(closed, MQ_SUCCESS);
  EXPECT_EQ(Open(table, test::TestPath("one-too-many")), 77);
}

TEST(MarquelFilesTest, ASelectionChangeReopensAReadOnlySession) {
  CountingFiles table;
  std::string name = test::TestPath("sel.mpg");
  int32_t tags[1] = {16};
  int32_t h = table.OpenFile(name, kSomeType, 0, 1, tags, 1, 0, -1);
  ASSERT_GE(h, 0);
  EXPECT_FALSE(table.Session(h)->AcceptsTag(17));
  int32_t other[1] = {17};
  EXPECT_EQ(table.OpenFile(name, kSomeType, 0, 1, other, 1, 0, -1), h);
  EXPECT_TRUE(table.Session(h)->AcceptsTag(17));
  EXPECT_FALSE(table.Session(h)->AcceptsTag(16));
  EXPECT_EQ(table.QueryRefCount(h), 2);
}

TEST(MarquelFilesTest, AWritableSessionKeepsEveryTagWhateverALaterOpenSelects) {
  CountingFiles table;
  std::string name = test::TestPath("sel.mpg");
  int32_t h = Open(table, name);
  int32_t tags[1] = {16};
  EXPECT_EQ(table.OpenFile(name, kSomeType, 0, 1, tags, 1, 0, -1), h);
  EXPECT_FALSE(table.Session(h)->ReadOnly());
  EXPECT_TRUE(table.Session(h)->AcceptsTag(17));
  EXPECT_EQ(table.QueryRefCount(h), 2);
}

}  // namespace
}  // namespace marquel
