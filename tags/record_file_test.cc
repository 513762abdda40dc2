// The record file against a std::map model: random inserts, replacements, deletes, shifts,
// counts and scans must agree at every step, through tail splits, overlay merges and
// balanced middle pages.
#include "record_file.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "record_layout.h"

namespace marquel {
namespace {

using Model = std::map<int64_t, int32_t>;

std::vector<std::pair<int64_t, int32_t>> ScanAll(RecordFile& f) {
  std::vector<std::pair<int64_t, int32_t>> out;
  EXPECT_EQ(f.Scan(INT64_MIN, true, false, 0,
                   [&](const SampleRecord& r) {
                     out.emplace_back(r.llTimeCode, r.nValue);
                     return true;
                   }),
            1);
  return out;
}

void ExpectSame(RecordFile& f, const Model& model) {
  ASSERT_EQ(f.Count(), static_cast<int64_t>(model.size()));
  auto got = ScanAll(f);
  std::vector<std::pair<int64_t, int32_t>> want(model.begin(), model.end());
  ASSERT_EQ(got, want);
}

int64_t ModelCount(const Model& m, int64_t start, bool hasEnd, int64_t end) {
  int64_t n = 0;
  for (auto& [t, v] : m) n += t >= start && (!hasEnd || t < end);
  return n;
}

TEST(RecordFileTest, CreatedInTheTemporaryFolder) {
  auto f = RecordFile::Create();
  ASSERT_TRUE(f);
  EXPECT_EQ(f->path().rfind(std::string(getenv("TMPDIR")) + "/MQT", 0), 0u) << f->path();
  std::string path = f->path();
  f.reset();
  EXPECT_NE(access(path.c_str(), F_OK), 0) << "the temporary file is deleted";
}

TEST(RecordFileTest, CreateFailsWithoutTemporaryFolder) {
  setenv("TMPDIR", "/nonexistent-marquel-folder", 1);
  EXPECT_FALSE(RecordFile::Create());
}

TEST(RecordFileTest, AppendsInOrderAcrossManyPages) {
  auto f = RecordFile::Create();
  Model model;
  for (int64_t i = 0; i < 10000; ++i) {
    ASSERT_EQ(f->Insert(MakePlainSample(i * 3, static_cast<int32_t>(i))), 1);
    model[i * 3] = static_cast<int32_t>(i);
  }
  EXPECT_EQ(f->overlay_size(), 0u) << "appends never use the overlay";
  EXPECT_GE(f->page_count(), 10000u / f->page_records());
  ExpectSame(*f, model);
  SampleRecord r;
  std::vector<uint8_t> storage;
  EXPECT_EQ(f->Find(2999 * 3, &r, &storage), 1);
  EXPECT_EQ(r.nValue, 2999);
  EXPECT_EQ(f->Find(2999 * 3 + 1, &r, &storage), 0);
  EXPECT_EQ(f->Find(-5, &r, &storage), 0);
  EXPECT_EQ(f->Find(1 << 30, &r, &storage), 0);
}

TEST(RecordFileTest, RandomOperationsMatchTheModel) {
  for (int seed = 1; seed <= 4; ++seed) {
    auto f = RecordFile::Create();
    Model model;
    std::mt19937_64 rng(seed);
    const int64_t span = seed % 2 ? 20000 : 400000;
    for (int step = 0; step < 60000; ++step) {
      int op = static_cast<int>(rng() % 1000);
      if (op < 960) {
        int64_t t = static_cast<int64_t>(rng() % span) - 100;
        int32_t v = static_cast<int32_t>(rng());
        ASSERT_EQ(f->Insert(MakePlainSample(t, v)), 1);
        model[t] = v;
      } else if (op < 970) {
        int64_t s = static_cast<int64_t>(rng() % span);
        int64_t e = s + static_cast<int64_t>(rng() % 3000);
        bool hasEnd = rng() % 8 != 0;
        ASSERT_EQ(f->DeleteRange(s, hasEnd, e), 1);
        for (auto it = model.begin(); it != model.end();) {
          bool in = it->first >= s && (!hasEnd || it->first < e);
          it = in ? model.erase(it) : std::next(it);
        }
      } else if (op < 975) {
        int64_t off = static_cast<int64_t>(rng() % 50) - 25;
        ASSERT_EQ(f->MinusOffset(off), 1);
        Model shifted;
        for (auto& [t, v] : model) shifted[t - off] = v;
        model.swap(shifted);
      } else if (op < 990) {
        int64_t s = static_cast<int64_t>(rng() % span);
        int64_t e = s + static_cast<int64_t>(rng() % 5000);
        bool hasEnd = rng() % 4 != 0;
        ASSERT_EQ(f->CountRange(s, hasEnd, e), ModelCount(model, s, hasEnd, e));
      } else {
        int64_t t = static_cast<int64_t>(rng() % span);
        SampleRecord r;
        std::vector<uint8_t> storage;
        auto it = model.find(t);
        ASSERT_EQ(f->Find(t, &r, &storage), it == model.end() ? 0 : 1);
        if (it != model.end()) {
          ASSERT_EQ(r.nValue, it->second);
        }
      }
    }
    ExpectSame(*f, model);
  }
}

TEST(RecordFileTest, SortedRunsMergeIntoTheMiddle) {
  auto f = RecordFile::Create();
  Model model;
  for (int64_t i = 0; i < 50000; ++i) {
    ASSERT_EQ(f->Insert(MakePlainSample(i * 10, 1)), 1);
    model[i * 10] = 1;
  }
  std::vector<SampleRecord> run;
  for (int64_t i = 0; i < 30000; ++i) {
    int64_t t = 100000 + i * 5;  // interleaves, and every other one replaces
    run.push_back(MakePlainSample(t, 2));
    model[t] = 2;
  }
  ASSERT_EQ(f->InsertSortedRun(run.data(), static_cast<int64_t>(run.size())), 1);
  ExpectSame(*f, model);
}

TEST(RecordFileTest, RawRecordsKeepTheirLengthRules) {
  auto f = RecordFile::Create();
  f->SetFormat(kRawSample, 4);
  uint8_t four[4] = {1, 2, 3, 4};
  uint8_t two[2] = {9, 8};
  uint8_t six[6] = {};
  EXPECT_EQ(f->Insert(MakeRawSample(10, 4, four)), 1);
  EXPECT_EQ(f->Insert(MakeRawSample(20, 2, two)), 1) << "shorter with bytes is kept";
  EXPECT_EQ(f->Insert(MakeRawSample(30, 6, six)), -1) << "longer than the sample size";
  EXPECT_EQ(f->Insert(MakeRawSample(40, 3, nullptr)), -1) << "no bytes, other length";
  EXPECT_EQ(f->Insert(MakeRawSample(20, 4, nullptr)), -1) << "no bytes, other than stored";
  EXPECT_EQ(f->Insert(MakeRawSample(20, 2, nullptr)), 1) << "no bytes, same length: emptied";
  EXPECT_EQ(f->Insert(MakeRawSample(50, 4, nullptr)), 1) << "no bytes, sample size";
  SampleRecord r;
  std::vector<uint8_t> storage;
  ASSERT_EQ(f->Find(10, &r, &storage), 1);
  ASSERT_NE(r.pBuffer, nullptr);
  EXPECT_EQ(r.nValue, 4);
  EXPECT_EQ(r.pBuffer[3], 4);
  ASSERT_EQ(f->Find(20, &r, &storage), 1);
  EXPECT_EQ(r.nValue, 2);
  EXPECT_EQ(r.pBuffer, nullptr);
  EXPECT_EQ(f->Count(), 3);
}

TEST(RecordFileTest, ReplacingInsideTheOverlayAndAfterMerges) {
  auto f = RecordFile::Create();
  Model model;
  for (int64_t i = 0; i < 5000; ++i) {
    f->Insert(MakePlainSample(i * 2, 0));
    model[i * 2] = 0;
  }
  // Early time codes go to the overlay; insert each twice.
  for (int round = 0; round < 2; ++round) {
    for (int64_t i = 0; i < 3000; ++i) {
      f->Insert(MakePlainSample(i * 2 + 1, round));
      model[i * 2 + 1] = round;
    }
  }
  ExpectSame(*f, model);
}

TEST(RecordFileTest, TruncateEmptiesAndFormatCanChange) {
  auto f = RecordFile::Create();
  for (int i = 0; i < 5000; ++i) f->Insert(MakePlainSample(i, i));
  f->Truncate();
  EXPECT_TRUE(f->Empty());
  EXPECT_EQ(f->Count(), 0);
  f->SetFormat(kRawSample, 100);
  uint8_t bytes[100] = {7};
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(f->Insert(MakeRawSample(i, 100, bytes)), 1);
  EXPECT_EQ(f->Count(), 2000);
  EXPECT_EQ(f->page_records(), 16384 / 132);
}

TEST(RecordFileTest, LargeRawRecordsHaveOneRecordPagesAndAnOverlayCountedInBytes) {
  auto f = RecordFile::Create();
  const int32_t size = kMaxRawSampleBytes;
  f->SetFormat(kRawSample, size);
  EXPECT_EQ(f->page_records(), 1);
  EXPECT_LE(f->overlay_limit() * static_cast<size_t>(size), static_cast<size_t>(kOverlayBytes));
  std::vector<uint8_t> bytes(size, 9);
  Model model;
  // Each insert before the tail goes to the overlay, which merges before it passes its bytes.
  for (int64_t t : {100, 200, 300, 50, 40, 30, 20, 10, 150, 250}) {
    ASSERT_EQ(f->Insert(MakeRawSample(t, size, bytes.data())), 1);
    model[t] = size;
    EXPECT_LE(f->overlay_size(), f->overlay_limit());
  }
  ExpectSame(*f, model);
}

TEST(RecordFileTest, TheOverlaysOfAllFilesStayWithinTheirSharedBudget) {
  // Many files, each with an overlay below its own bound: together they merge once the
  // shared budget is passed.
  std::vector<std::unique_ptr<RecordFile>> files;
  const int32_t size = 16 << 10;
  std::vector<uint8_t> bytes(size, 3);
  for (int i = 0; i < 64; ++i) {
    auto f = RecordFile::Create();
    ASSERT_NE(f, nullptr);
    f->SetFormat(kRawSample, size);
    ASSERT_EQ(f->Insert(MakeRawSample(1000000, size, bytes.data())), 1);
    for (int64_t t = 0; t < 100; ++t) ASSERT_EQ(f->Insert(MakeRawSample(t, size, bytes.data())), 1);
    files.push_back(std::move(f));
    EXPECT_LE(RecordFile::AllOverlayBytes(), kAllOverlaysBytes + size + 32);
  }
  for (auto& f : files) EXPECT_EQ(f->Count(), 101);
  files.clear();
  EXPECT_EQ(RecordFile::AllOverlayBytes(), 0) << "a file gives back its overlay's bytes";
}

TEST(RecordFileTest, TailsPastTheirSharedBudgetGoToDiskAndComeBackOnTheNextInsert) {
  std::vector<std::unique_ptr<RecordFile>> files;
  const int32_t size = kMaxRawSampleBytes;
  std::vector<uint8_t> bytes(size, 4);
  const int n = static_cast<int>(kAllTailsBytes / size) + 8;
  for (int i = 0; i < n; ++i) {
    auto f = RecordFile::Create();
    ASSERT_NE(f, nullptr);
    f->SetFormat(kRawSample, size);
    ASSERT_EQ(f->Insert(MakeRawSample(10, size, bytes.data())), 1);
    files.push_back(std::move(f));
    EXPECT_LE(RecordFile::AllTailBytes(), kAllTailsBytes + size + 4096);
  }
  EXPECT_FALSE(files.back()->tail_in_memory());
  // The evicted tail is read back for the next append and reads see every record.
  RecordFile& f = *files.back();
  ASSERT_EQ(f.Insert(MakeRawSample(20, size, bytes.data())), 1);
  ASSERT_EQ(f.Insert(MakeRawSample(5, size, bytes.data())), 1);
  ExpectSame(f, Model{{5, size}, {10, size}, {20, size}});
  SampleRecord r;
  std::vector<uint8_t> storage;
  ASSERT_EQ(f.Find(10, &r, &storage), 1);
  EXPECT_EQ(r.pBuffer[size - 1], 4);
  files.clear();
  EXPECT_EQ(RecordFile::AllTailBytes(), 0);
}

}  // namespace
}  // namespace marquel
