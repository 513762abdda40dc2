// Thousands of record files under a limit of 1024 descriptors.
#include "descriptor_pool.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>
#include <vector>

#include "tags/tag_object.h"

namespace marquel {
namespace {

// Lowers the soft descriptor limit for one test.
class LowerFileLimit {
 public:
  explicit LowerFileLimit(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    struct rlimit lower = saved_;
    lower.rlim_cur = std::min<rlim_t>(limit, saved_.rlim_max);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lower), 0);
  }
  ~LowerFileLimit() { setrlimit(RLIMIT_NOFILE, &saved_); }

 private:
  struct rlimit saved_;
};

TEST(DescriptorPoolTest, BudgetIsAQuarterOfTheLimit) {
  LowerFileLimit limit(1024);
  EXPECT_EQ(DescriptorPool::Budget(), 256);
  LowerFileLimit tiny(64);
  EXPECT_EQ(DescriptorPool::Budget(), 16);
}

TEST(DescriptorPoolTest, ThreeThousandTagsUnderTheDefaultLimit) {
  LowerFileLimit limit(1024);
  std::vector<std::unique_ptr<TagObject>> tags;
  constexpr int kTags = 3000;
  for (int i = 0; i < kTags; ++i) tags.push_back(std::make_unique<TagObject>(i % 256));
  // Enough samples that every tag has pages on disk as well as its tail.
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < kTags; ++i) {
      std::vector<SampleRecord> run;
      for (int k = 0; k < 1000; ++k) run.push_back(MakePlainSample(round * 1000 + k, i));
      ASSERT_EQ(tags[i]->InsertSorted(run.data(), 1000), 1000) << "tag " << i;
    }
  }
  EXPECT_LE(DescriptorPool::Instance().OpenCount(), DescriptorPool::Budget());
  for (int i = 0; i < kTags; i += 7) {
    SampleRecord r;
    ASSERT_EQ(tags[i]->Get(1500, &r), 1);
    EXPECT_EQ(r.nValue, i);
    EXPECT_EQ(tags[i]->Count(), 3000);
  }
  // A file descriptor is still to be had for anything else.
  FILE* f = fopen("/dev/null", "r");
  ASSERT_NE(f, nullptr);
  fclose(f);
  tags.clear();
  EXPECT_EQ(DescriptorPool::Instance().OpenCount(), 0);
}

}  // namespace
}  // namespace marquel
