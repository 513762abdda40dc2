// A cache file counts as written only once its bytes and its name are on the disk: a
// failed write, file sync or folder sync removes it and fails.
#include <gtest/gtest.h>

#include "cache_test_util.h"
#include "persist/cache_writer.h"
#include "platform/fault_points.h"
#include "platform/files.h"

namespace marquel {
namespace {

using cachetest::Bytes;
using cachetest::BytesWriter;
using cachetest::ReadAll;

class CacheBlockFile : public testing::Test {
 protected:
  void TearDown() override { ConfigureFaultPoints("", ""); }
};

TEST_F(CacheBlockFile, AWrittenBlockIsSyncedWithItsFolderBeforeTheAnswer) {
  std::string path;
  ASSERT_TRUE(MakeCacheFile(&path));
  ConfigureFaultPoints("1000000:fail", "");  // armed, so that points are counted
  const uint64_t before = FaultPointsPassed();
  ASSERT_EQ(WriteBlockFile(path, 0, BytesWriter({Bytes{1, 2, 3}})), 1);
  // The write, the file's sync and the folder's sync.
  EXPECT_EQ(FaultPointsPassed() - before, 3u);
  EXPECT_EQ(ReadAll(path), (Bytes{1, 2, 3}));
}

TEST_F(CacheBlockFile, AFailedWriteOrSyncOfTheFileOrFolderRemovesItAndFails) {
  for (int point = 1; point <= 3; ++point) {
    std::string path;
    ASSERT_TRUE(MakeCacheFile(&path));
    ConfigureFaultPoints(std::to_string(point) + ":fail", "");
    EXPECT_EQ(WriteBlockFile(path, 0, BytesWriter({Bytes{1, 2, 3}})), -1) << "point " << point;
    ConfigureFaultPoints("", "");
    EXPECT_FALSE(FileExists(path)) << "point " << point;
  }
}

}  // namespace
}  // namespace marquel
