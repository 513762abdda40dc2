// Two threads on one tag: one inserts while the other queries and lists intervals. Run
// under ThreadSanitizer with -DMARQUEL_TSAN=ON.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tags/mq_one_program.h"

namespace marquel {
namespace {

TEST(TagThreadsTest, InsertWhileQueryingAndListingIntervals) {
  MQOneProgram program;
  constexpr int kSamples = 20000;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    // In order, with a gap every 1000 samples, plus some early ones through the overlay.
    for (int i = 0; i < kSamples; ++i) {
      int64_t t = static_cast<int64_t>(i) * 1000 + (i / 1000) * 20000000LL;
      program.InsertOne(16, MakePlainSample(t, i));
      if (i % 10 == 0) program.InsertOne(16, MakePlainSample(-1 - i, i));
    }
    done = true;
  });
  int64_t lastCount = 0;
  int rounds = 0;
  while (!done || rounds < 3) {
    ++rounds;
    int64_t count = program.QueryOneTagSize(16);
    EXPECT_GE(count, lastCount) << "the count never goes back";
    lastCount = count;
    program.QueryValidIntervalSize(16);
    std::vector<SampleRecord> recs(64);
    int64_t got = program.GetDataPeriod(16, 0, -1, recs.data(), 64);
    for (int64_t i = 1; i < got; ++i) EXPECT_LT(recs[i - 1].llTimeCode, recs[i].llTimeCode);
    SampleRecord r;
    if (program.GetOne(16, 0, &r) == 1) {
      EXPECT_EQ(r.nValue, 0);
    }
    program.QueryMemory();
    if (done && rounds > 3) break;
  }
  writer.join();
  EXPECT_EQ(program.QueryOneTagSize(16), kSamples + kSamples / 10);
  // Twenty runs of 1000 samples, 20000000 apart; the early samples join the first run.
  EXPECT_EQ(program.QueryValidIntervalSize(16), kSamples / 1000);
}

TEST(TagThreadsTest, TwoTagsFromTwoThreadsAndTagCreation) {
  MQOneProgram program;
  auto work = [&](int32_t firstTag) {
    for (int i = 0; i < 5000; ++i) {
      program.InsertOne(firstTag + i % 8, MakePlainSample(i, i));
      program.QueryTagCount();
    }
  };
  std::thread a(work, 2);
  std::thread b(work, 100);
  a.join();
  b.join();
  EXPECT_EQ(program.QueryTagCount(), 16);
  EXPECT_EQ(program.HighestTagId(), 107);
  EXPECT_EQ(program.QueryOneTagSize(3), 5000 / 8);
}

}  // namespace
}  // namespace marquel
