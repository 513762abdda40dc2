// A server's load: 100 open files of 30 tags each under the default limit of 1024
// descriptors.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdio>

#include "files/marquel_files.h"
#include "files_test_util.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using testing_files::CountingFiles;

TEST(ServerLoadTest, HundredFilesOfThirtyTagsUnderTheDefaultDescriptorLimit) {
  struct rlimit saved;
  getrlimit(RLIMIT_NOFILE, &saved);
  struct rlimit lower = saved;
  lower.rlim_cur = std::min<rlim_t>(1024, saved.rlim_max);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lower), 0);

  CountingFiles table;
  constexpr int kFiles = 100;
  constexpr int kTags = 30;
  constexpr int kSamples = 2500;  // more than a page, so every tag has disk pages
  constexpr int kFirstTag = 35;   // 35 to 64 are plain tags
  std::vector<SampleRecord> run;
  for (int i = 0; i < kSamples; ++i) run.push_back(MakePlainSample(i * 100, i));
  for (int f = 0; f < kFiles; ++f) {
    int32_t h = table.OpenFile(test::TestPath("f" + std::to_string(f) + ".mpg"),
                               testing_files::kSomeType, 0, 0, nullptr, 0, 0, -1);
    ASSERT_EQ(h, f);
    for (int t = 0; t < kTags; ++t) {
      ASSERT_EQ(table.InsertMany(h, 0, kFirstTag + t, run.data(), kSamples), kSamples)
          << f << "/" << t;
    }
  }
  for (int f = 0; f < kFiles; f += 3) {
    for (int t = 0; t < kTags; t += 4) {
      SampleRecord r;
      ASSERT_EQ(table.GetOne(f, 0, kFirstTag + t, 1234 * 100, &r), 1);
      EXPECT_EQ(r.nValue, 1234);
      EXPECT_EQ(table.QueryOneTagSize(f, 0, kFirstTag + t), kSamples);
    }
  }
  FILE* probe = fopen("/dev/null", "r");
  EXPECT_NE(probe, nullptr) << "descriptors are left for the rest of the server";
  if (probe) fclose(probe);
  for (int f = 0; f < kFiles; ++f) EXPECT_EQ(table.CloseFile(f, 0), MQ_SUCCESS);
  setrlimit(RLIMIT_NOFILE, &saved);
}

}  // namespace
}  // namespace marquel
