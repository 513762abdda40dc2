// A FIFO, a device or a folder given as a media file: the session refuses it at once,
// whatever type the client names, and a cache file named by the store must be regular.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "cache_test_util.h"
#include "persist/result_codes.h"
#include "session_test_util.h"

namespace marquel {
namespace {

using cachetest::CopyMedia;
using sessiontest::InsertSamples;
using sessiontest::OpenSession;
using sessiontest::PlainSamples;

std::vector<std::string> NonRegularFiles() {
  const std::string fifo = test::TestPath("pipe.ts");
  EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  return {fifo, "/dev/zero", "/dev/null", test::TestDir()};
}

TEST(SessionNonRegularFiles, OpenRefusesWhatIsNotARegularFile) {
  for (const std::string& path : NonRegularFiles()) {
    for (int32_t type : {0, 1, 10}) {
      int result = 0;
      OpenSession(path, type, 3, &result);
      EXPECT_EQ(result, -1) << path << " as type " << type;
    }
    MarquelOneFile probe;  // the open of QueryOrgFileSizeAndMTime
    probe.SetHandle(MarquelOneFile::kDetachedSessionNumber);
    probe.SetFileName(path);
    EXPECT_EQ(probe.Open(0, 0, 0), -1) << path;
  }
}

TEST(SessionNonRegularFiles, ACacheFileReplacedByAFifoIsNotWaitedOn) {
  std::string media = CopyMedia("avi.avi", "a.avi");
  auto f = OpenSession(media);
  InsertSamples(*f, 0, 1, 5);
  ASSERT_EQ(f->CloseFile(1), MQ_SUCCESS);
  std::vector<CacheEntry> entries = ListCacheEntries(CacheKind::kAVI);
  ASSERT_EQ(entries.size(), 1u);
  const std::string cache = entries[0].file.cache_path;
  ASSERT_TRUE(RemoveFile(cache));
  ASSERT_EQ(mkfifo(cache.c_str(), 0600), 0);
  int result = 0;
  auto again = OpenSession(media, 0, 4, &result);
  EXPECT_TRUE(PlainSamples(*again, 0).empty()) << "opens without the data it cannot read";
}

}  // namespace
}  // namespace marquel
