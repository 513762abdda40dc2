// CMQInterface: files, table figures, file facts and programs.
#include <gtest/gtest.h>

#include "api/mq_interface.h"
#include "mq_interface_test_util.h"

namespace marquel {
namespace {

using test::MediaFile;

TEST(CMQInterfaceFiles, InitialFileWritesTheHandleAndOpensSharedNames) {
  CMQInterface mq;
  std::string a = MediaFile("a.mpg");
  int32_t h1 = 99, h2 = 99;
  EXPECT_EQ(mq.InitialFile(a, 0, 0, &h1), S_OK);
  EXPECT_EQ(mq.InitialFile(a, 0, 0, &h2), S_OK);
  EXPECT_EQ(h1, 0);
  EXPECT_EQ(h2, 0);
  EXPECT_EQ(mq.Controller().QueryRefCount(0), 2);
}

TEST(CMQInterfaceFiles, InitialFileOfAMissingFileWritesMinusOne) {
  CMQInterface mq;
  int32_t h = 7;
  EXPECT_EQ(mq.InitialFile(test::TestPath("missing.mpg"), 0, 0, &h), E_FAIL);
  EXPECT_EQ(h, -1);
}

TEST(CMQInterfaceFiles, RelativeNamesAreRefused) {
  CMQInterface mq;
  int32_t h = 7;
  EXPECT_EQ(mq.InitialFile("a.mpg", 0, 0, &h), E_INVALIDARG);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(mq.InitialFile2("", 0, 0, 0, nullptr, 0, 0, -1, &h), E_INVALIDARG);
  ASSERT_EQ(mq.InitialFile(MediaFile("b.mpg"), 0, 0, &h), S_OK);
  EXPECT_EQ(mq.FileRename(h, "c.mpg"), E_INVALIDARG);
  int32_t done = 5;
  EXPECT_EQ(mq.IsWriteToFileDone("b.mpg", &done), E_INVALIDARG);
  EXPECT_EQ(done, 5);
  uint64_t size = 0;
  EXPECT_EQ(mq.QueryOrgFileSizeAndMTime("b.mpg", &size, nullptr), E_INVALIDARG);
  EXPECT_EQ(mq.CacheRename("b.mpg", "/x/c.mpg", 0), E_INVALIDARG);
  EXPECT_EQ(mq.MoveCacheDataToOrgFile("b.mpg"), E_INVALIDARG);
}

TEST(CMQInterfaceFiles, CloseFileRules) {
  CMQInterface mq;
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(MediaFile("a.mpg"), 0, 0, &h), S_OK);
  int32_t result = 0;
  EXPECT_EQ(mq.CloseFile(h, 0, &result), S_OK);
  EXPECT_EQ(result, MQ_SUCCESS);
  EXPECT_EQ(mq.CloseFile(h, 0, &result), E_FAIL);  // closed: MQ_ERR
  EXPECT_EQ(result, MQ_ERR);
  EXPECT_EQ(mq.CloseFile(-1, 0), E_FAIL);
  EXPECT_EQ(mq.CloseFile(2048, 0), E_FAIL);
}

// A close that leaves the move into the media file for later puts the name on the
// controller's list; IsWriteToFileDone then reports 0 until the controller is done.
TEST(CMQInterfaceFiles, CloseFileLeavingWorkMakesIsWriteToFileDoneZero) {
  auto ctrl = std::make_unique<test::ScriptedCtrl>();
  ctrl->close_result = MQ_AUTOPROCESSFAIL;
  CMQInterface mq(std::move(ctrl));
  std::string name = MediaFile("pending.ts");
  int32_t h = -1, done = -1;
  ASSERT_EQ(mq.InitialFile(name, 0, 0, &h), S_OK);
  EXPECT_EQ(mq.IsWriteToFileDone(name, &done), S_OK);
  EXPECT_EQ(done, 1);
  EXPECT_EQ(mq.CloseFile(h, 0), S_OK);
  EXPECT_EQ(mq.IsWriteToFileDone(name, &done), S_OK);
  EXPECT_EQ(done, 0);
  EXPECT_EQ(mq.Controller().PendingFiles(), std::vector<std::string>{name});
}

TEST(CMQInterfaceFiles, CloseVOBFileKeepsTheFileWhenTheSessionFails) {
  auto ctrl = std::make_unique<test::ScriptedCtrl>();
  ctrl->vob_result = -1;
  CMQInterface mq(std::move(ctrl));
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(MediaFile("a.vob"), 0, 0, &h), S_OK);
  EXPECT_EQ(mq.CloseVOBFile(h), E_FAIL);
  EXPECT_EQ(mq.CloseVCDORSVCDFile(h), E_FAIL);
  EXPECT_EQ(mq.Controller().QueryRefCount(h), 1);
  EXPECT_EQ(mq.CloseVOBFile(-1), E_FAIL);
}

TEST(CMQInterfaceFiles, QueryFileCountWithNoFileIsAFailure) {
  CMQInterface mq;
  int32_t count = 42;
  EXPECT_EQ(mq.QueryFileCount(&count), E_FAIL);
  EXPECT_EQ(count, 42);
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(MediaFile("a.mpg"), 0, 0, &h), S_OK);
  EXPECT_EQ(mq.QueryFileCount(&count), S_OK);
  EXPECT_EQ(count, 1);
}

// The table lists every open handle; the method compares the count with m.
TEST(CMQInterfaceFiles, QueryAllFileHandlesWithTooSmallMListsAllAndFails) {
  CMQInterface mq;
  int32_t h = -1;
  for (const char* name : {"a.mpg", "b.mpg", "c.mpg"})
    ASSERT_EQ(mq.InitialFile(MediaFile(name), 0, 0, &h), S_OK);
  std::vector<int32_t> handles;
  EXPECT_EQ(mq.QueryAllFileHandles(2, &handles), E_FAIL);
  EXPECT_EQ(handles, (std::vector<int32_t>{0, 1, 2}));
  EXPECT_EQ(mq.QueryAllFileHandles(3, &handles), S_OK);
}

TEST(CMQInterfaceFiles, MemoryFigures) {
  CMQInterface mq;
  int32_t memory = 0;
  EXPECT_EQ(mq.QueryAllMemory(&memory), S_OK);
  EXPECT_EQ(memory, 16424);
  EXPECT_EQ(mq.QueryOneFileMemory(5, &memory), S_OK);  // R5: -1 is written
  EXPECT_EQ(memory, -1);
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(MediaFile("a.mpg"), 0, 0, &h), S_OK);
  EXPECT_EQ(mq.QueryOneFileMemory(h, &memory), S_OK);
  EXPECT_GE(memory, 11000);
}

TEST(CMQInterfaceFiles, QueryFilenameAnswersOkAndCopiesNothing) {
  CMQInterface mq;
  std::string name = "untouched";
  EXPECT_EQ(mq.QueryFilename(0, &name), S_OK);
  EXPECT_EQ(mq.QueryFilename(-1, &name), S_OK);
  EXPECT_EQ(mq.QueryFilename(2147483647, &name), S_OK);
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(MediaFile("a.mpg"), 0, 0, &h), S_OK);
  EXPECT_EQ(mq.QueryFilename(h, &name), S_OK);
  EXPECT_EQ(name, "untouched");
}

TEST(CMQInterfaceFiles, InfoMethodsDoNothing) {
  CMQInterface mq;
  int variant = 1234;
  EXPECT_EQ(mq.GetMQInfo(0, &variant), S_OK);
  EXPECT_EQ(mq.SetMQInfo(77, &variant), S_OK);
  EXPECT_EQ(mq.GetMQInfo(-1, nullptr), S_OK);
  EXPECT_EQ(variant, 1234);
  EXPECT_EQ(mq.SetMinTimeInterval(0, 5), S_OK);
  EXPECT_EQ(mq.SetMinTimeInterval(-1, -5), S_OK);
}

// The facts of a file with stored MQ data (existence, start address, original size and
// time from the block, status 1 or 2) need the loading of stored data, which the session
// does not do yet; today every file reads as one without data.
TEST(CMQInterfaceFiles, FileFacts_PendingStoredData) {
  CMQInterface mq;
  std::string name = MediaFile("a.mpg");
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(name, 0, 0, &h), S_OK);
  int32_t existed = 9;
  EXPECT_EQ(mq.QueryMQExisted(h, &existed), S_OK);
  EXPECT_EQ(existed, 0);
  EXPECT_EQ(mq.QueryMQExisted(7, &existed), S_OK);  // R4: -1 for a closed handle
  EXPECT_EQ(existed, -1);
  int64_t address = 55;
  EXPECT_EQ(mq.GetMQDataStartAddress(h, &address), S_OK);  // no address: nothing written
  EXPECT_EQ(address, 55);
  EXPECT_EQ(mq.GetMQDataStartAddress(h, nullptr), E_FAIL);
  EXPECT_EQ(mq.GetMQDataStartAddress(9, &address), E_FAIL);
  uint64_t size = 0, mtime = 0;
  EXPECT_EQ(mq.QueryOriginalFileSizeAndMTime(h, &size, &mtime), S_OK);
  EXPECT_EQ(size, 1u);
  EXPECT_GT(mtime, 0u);
  EXPECT_EQ(mq.QueryOriginalFileSizeAndMTime(9, &size, nullptr), E_FAIL);
  int32_t status = 5;
  EXPECT_EQ(mq.QueryMQDataStatus(h, &status), S_OK);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(mq.QueryMQDataStatus(9, &status), E_FAIL);
  EXPECT_EQ(mq.FileRename(h, test::TestPath("renamed.mpg")), S_OK);
  EXPECT_EQ(mq.FileRename(9, test::TestPath("renamed.mpg")), E_FAIL);
  EXPECT_EQ(mq.CleanFile(h), S_OK);
  EXPECT_EQ(mq.CleanFile(9), E_FAIL);
}

TEST(CMQInterfaceFiles, Programs) {
  CMQInterface mq;
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(MediaFile("a.ts"), 0, 0, &h), S_OK);
  int32_t count = 0;
  EXPECT_EQ(mq.GetMQProgramCounts(h, nullptr), E_INVALIDARG);
  EXPECT_EQ(mq.GetMQProgramCounts(h, &count), S_OK);
  EXPECT_EQ(count, 1);
  int32_t index = -1;
  EXPECT_EQ(mq.InsertNewProgram(h, 0x100, nullptr), E_INVALIDARG);
  EXPECT_EQ(mq.InsertNewProgram(h, 0x100, &index), S_OK);
  EXPECT_EQ(index, 1);
  std::vector<int32_t> pids;
  EXPECT_EQ(mq.GetMQPMTPIDS(h, 2, nullptr), E_INVALIDARG);
  EXPECT_EQ(mq.GetMQPMTPIDS(h, 1, &pids), E_FAIL);  // nTotal must be the program count
  EXPECT_EQ(mq.GetMQPMTPIDS(h, 2147483647, &pids), E_FAIL);
  EXPECT_EQ(mq.GetMQPMTPIDS(h, 2, &pids), S_OK);
  EXPECT_EQ(pids, (std::vector<int32_t>{0, 0x100}));
  EXPECT_EQ(mq.SetPMTPID(h, 0, 0x42), S_OK);
  EXPECT_EQ(mq.SetPMTPID(h, 2, 0x42), E_FAIL);
  EXPECT_EQ(mq.GetMQProgramCounts(9, &count), E_FAIL);
}

// The MQ data size of an open file with no samples is that of one empty block per
// program: the 26-byte header and three streams holding only their 4-byte CRCs.
TEST(CMQInterfaceFiles, MQDataSizeOfAnEmptyFile) {
  CMQInterface mq;
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(MediaFile("a.mpg"), 0, 0, &h), S_OK);
  int32_t size = -7;
  EXPECT_EQ(mq.QueryNowMQDataFileSize(h, &size), S_OK);
  EXPECT_EQ(size, 38);
  size = -7;
  EXPECT_EQ(mq.QueryNowMQDataFileSize(5, &size), S_OK);  // closed: nothing written
  EXPECT_EQ(size, -7);
  EXPECT_EQ(mq.QueryNowMQDataFileSize(h, nullptr), S_OK);
  EXPECT_EQ(mq.QueryNowMQDataPeriodSize(h, 0, -1, &size), S_OK);
  EXPECT_EQ(size, 38);
  EXPECT_EQ(mq.QueryNowMQDataPeriodSize(5, 0, -1, &size), E_FAIL);
}

TEST(CMQInterfaceFiles, MQDataSizeGrowsWithSamples) {
  CMQInterface mq;
  int32_t h = -1;
  ASSERT_EQ(mq.InitialFile(MediaFile("a.mpg"), 0, 0, &h), S_OK);
  int32_t empty = 0, one = 0, period = 0;
  ASSERT_EQ(mq.QueryNowMQDataFileSize(h, &empty), S_OK);
  ASSERT_EQ(mq.InsertDataOne(h, 0, 40, 1000, 7), S_OK);
  ASSERT_EQ(mq.InsertDataOne(h, 0, 40, 5000000, 8), S_OK);
  ASSERT_EQ(mq.QueryNowMQDataFileSize(h, &one), S_OK);
  EXPECT_GT(one, empty);
  ASSERT_EQ(mq.QueryNowMQDataPeriodSize(h, 0, 2000, &period), S_OK);
  EXPECT_GT(period, empty);
  EXPECT_LT(period, one);
}

}  // namespace
}  // namespace marquel
