// The record file against a std::map model: random inserts, replacements, deletes, shifts,
// counts and scans must agree at every step, through tail splits, overlay merges and
// balanced middle pages.
#include "record_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <random>

#include "platform/temp_folders.h"
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

TEST(RecordFileTest, CreatedInTheProcesssOwnTemporaryFolder) {
  auto f = RecordFile::Create();
  ASSERT_TRUE(f);
  const std::string own = std::string(getenv("TMPDIR")) + "/marquel-" + std::to_string(getuid()) +
                          "/" + std::to_string(getpid());
  EXPECT_EQ(ProcessTempFolder(), own);
  EXPECT_EQ(f->path().rfind(own + "/MQT", 0), 0u) << f->path();
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
  EXPECT_EQ(f->Insert(MakeRawSample(30, 6, six)), 1) << "longer with bytes is kept";
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
  ASSERT_EQ(f->Find(30, &r, &storage), 1);
  EXPECT_EQ(r.nValue, 6);
  EXPECT_EQ(f->Count(), 4);
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

// Raw samples of any length against a model of their bytes.
using RawModel = std::map<int64_t, std::vector<uint8_t>>;

std::vector<uint8_t> Pattern(int64_t t, size_t n) {
  std::vector<uint8_t> b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(t * 31 + static_cast<int64_t>(i));
  return b;
}

void PutRaw(RecordFile& f, RawModel& model, int64_t t, size_t n) {
  auto bytes = Pattern(t, n);
  static const uint8_t kNone = 0;  // a sample of no bytes still has a buffer
  const uint8_t* at = bytes.empty() ? &kNone : bytes.data();
  ASSERT_EQ(f.Insert(MakeRawSample(t, static_cast<int32_t>(n), at)), 1);
  model[t] = bytes;
}

void ExpectSameBytes(RecordFile& f, const RawModel& model) {
  ASSERT_EQ(f.Count(), static_cast<int64_t>(model.size()));
  auto want = model.begin();
  ASSERT_EQ(f.Scan(INT64_MIN, true, false, 0,
                   [&](const SampleRecord& r) {
                     EXPECT_EQ(r.llTimeCode, want->first);
                     EXPECT_EQ(r.nValue, static_cast<int32_t>(want->second.size()));
                     bool same = r.nValue == 0 || (r.pBuffer != nullptr &&
                                                   std::memcmp(r.pBuffer, want->second.data(),
                                                               want->second.size()) == 0);
                     EXPECT_TRUE(same) << "bytes of " << r.llTimeCode;
                     ++want;
                     return true;
                   }),
            1);
  for (const auto& [t, bytes] : model) {
    SampleRecord r;
    std::vector<uint8_t> storage;
    ASSERT_EQ(f.Find(t, &r, &storage), 1);
    ASSERT_EQ(r.nValue, static_cast<int32_t>(bytes.size()));
    if (!bytes.empty()) {
      EXPECT_EQ(std::memcmp(r.pBuffer, bytes.data(), bytes.size()), 0) << t;
    }
  }
}

TEST(RecordFileTest, RawSamplesOfAnyLengthComeBackWhole) {
  auto f = RecordFile::Create();
  f->SetFormat(kRawSample, 4);
  RawModel model;
  for (size_t n : {4, 0, 1, 5, 100, 4000, 70000}) PutRaw(*f, model, static_cast<int64_t>(n), n);
  EXPECT_GT(f->apart_size(), 0u) << "longer samples lie apart";
  ExpectSameBytes(*f, model);
  // Replacing swaps lengths both ways.
  PutRaw(*f, model, 100, 2);
  PutRaw(*f, model, 1, 3000);
  ExpectSameBytes(*f, model);
}

TEST(RecordFileTest, BytesApartFollowMergesDeletesAndShifts) {
  auto f = RecordFile::Create();
  f->SetFormat(kRawSample, 8);
  RawModel model;
  std::mt19937 rng(7);
  for (int64_t i = 0; i < 3000; ++i) PutRaw(*f, model, i * 10, rng() % 40);
  // Inserts before the tail go through the overlay and merge into the middle pages.
  for (int i = 0; i < 2000; ++i) PutRaw(*f, model, (rng() % 3000) * 10 + rng() % 3, rng() % 300);
  ExpectSameBytes(*f, model);
  std::vector<SampleRecord> run;
  std::vector<std::vector<uint8_t>> keep;
  for (int64_t t = 5; t < 20000; t += 10) {
    keep.push_back(Pattern(t, static_cast<size_t>(t % 50)));
    run.push_back(MakeRawSample(t, static_cast<int32_t>(keep.back().size()), keep.back().data()));
    model[t] = keep.back();
  }
  ASSERT_EQ(f->InsertSortedRun(run.data(), static_cast<int64_t>(run.size())), 1);
  ExpectSameBytes(*f, model);
  ASSERT_EQ(f->DeleteRange(1000, true, 9000), 1);
  model.erase(model.lower_bound(1000), model.lower_bound(9000));
  ASSERT_EQ(f->MinusOffset(-100), 1);
  RawModel shifted;
  for (auto& [t, b] : model) shifted[t + 100] = b;
  ExpectSameBytes(*f, shifted);
}

TEST(RecordFileTest, DeadBytesApartAreCompactedAndTheDataStays) {
  auto f = RecordFile::Create();
  f->SetFormat(kRawSample, 1);
  f->set_compact_floor(64 * 1024);
  RawModel model;
  for (int64_t t = 0; t < 50; ++t) PutRaw(*f, model, t, 1000);
  // Replacing the same samples again and again leaves only dead bytes behind.
  for (int round = 0; round < 40; ++round) {
    for (int64_t t = 0; t < 50; ++t) PutRaw(*f, model, t, 1000 + round);
  }
  EXPECT_LT(f->apart_size(), 200u * 1000) << "the companion file does not grow without end";
  ExpectSameBytes(*f, model);
  ASSERT_EQ(f->DeleteRange(0, true, 40), 1);
  model.erase(model.begin(), model.lower_bound(40));
  ExpectSameBytes(*f, model);
}

TEST(RecordFileTest, AHugeFirstSampleKeepsPagesSmall) {
  auto f = RecordFile::Create();
  f->SetFormat(kRawSample, kMaxRawSampleBytes);
  EXPECT_EQ(f->sample_size(), kMaxRawSampleBytes);
  EXPECT_EQ(f->inline_room(), RecordFile::kMaxInlineRawBytes);
  EXPECT_LE(static_cast<size_t>(f->page_records()) * (32 + RecordFile::kMaxInlineRawBytes),
            32u * 1024);
}

TEST(RecordFileTest, TruncateDropsTheBytesApart) {
  auto f = RecordFile::Create();
  f->SetFormat(kRawSample, 2);
  RawModel model;
  PutRaw(*f, model, 1, 500);
  std::string apart = f->path().substr(0, f->path().size() - 4) + "R.tmp";
  EXPECT_EQ(access(apart.c_str(), F_OK), 0) << apart;
  f->Truncate();
  EXPECT_EQ(f->apart_size(), 0u);
  EXPECT_EQ(f->Count(), 0);
  f.reset();
  EXPECT_NE(access(apart.c_str(), F_OK), 0) << "the companion file goes with the record file";
}

TEST(RecordFileTest, LargeRawRecordsKeepPagesAndTheOverlayWithinTheirBytes) {
  auto f = RecordFile::Create();
  const int32_t size = kMaxRawSampleBytes;
  f->SetFormat(kRawSample, size);
  // The bytes lie apart: a page and the overlay hold only records of the inline room.
  const size_t recordBytes = 32 + static_cast<size_t>(f->inline_room());
  EXPECT_LE(static_cast<size_t>(f->page_records()) * recordBytes, 16384u);
  EXPECT_LE(f->overlay_limit() * recordBytes, static_cast<size_t>(kOverlayBytes));
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
  const int32_t size = RecordFile::kMaxInlineRawBytes;  // held inline, in the overlay
  std::vector<uint8_t> bytes(size, 3);
  for (int i = 0; i < 64; ++i) {
    auto f = RecordFile::Create();
    ASSERT_NE(f, nullptr);
    f->SetFormat(kRawSample, size);
    ASSERT_EQ(f->Insert(MakeRawSample(1000000, size, bytes.data())), 1);
    for (int64_t t = 0; t < 300; ++t) ASSERT_EQ(f->Insert(MakeRawSample(t, size, bytes.data())), 1);
    files.push_back(std::move(f));
    EXPECT_LE(RecordFile::AllOverlayBytes(), kAllOverlaysBytes + size + 32);
  }
  for (auto& f : files) EXPECT_EQ(f->Count(), 301);
  files.clear();
  EXPECT_EQ(RecordFile::AllOverlayBytes(), 0) << "a file gives back its overlay's bytes";
}

TEST(RecordFileTest, TailsPastTheirSharedBudgetGoToDiskAndComeBackOnTheNextInsert) {
  std::vector<std::unique_ptr<RecordFile>> files;
  const int32_t size = RecordFile::kMaxInlineRawBytes;
  std::vector<uint8_t> bytes(size, 4);
  int64_t perTail = 0;
  int n = 1;
  // Each file's tail is one full page of records held inline.
  for (int i = 0; i < n; ++i) {
    auto f = RecordFile::Create();
    ASSERT_NE(f, nullptr);
    f->SetFormat(kRawSample, size);
    if (perTail == 0) {
      perTail = int64_t{f->page_records()} * (32 + size);
      n = static_cast<int>(kAllTailsBytes / perTail) + 8;
    }
    for (int64_t t = 0; t < f->page_records(); ++t)
      ASSERT_EQ(f->Insert(MakeRawSample(10 + t, size, bytes.data())), 1);
    files.push_back(std::move(f));
    ASSERT_LE(RecordFile::AllTailBytes(), kAllTailsBytes + 2 * perTail);
  }
  EXPECT_FALSE(files.back()->tail_in_memory());
  // The evicted tail is read back for the next insert and reads see every record.
  RecordFile& f = *files.back();
  Model model;
  for (int64_t t = 0; t < f.page_records(); ++t) model[10 + t] = size;
  ASSERT_EQ(f.Insert(MakeRawSample(5000, size, bytes.data())), 1);
  ASSERT_EQ(f.Insert(MakeRawSample(5, size, bytes.data())), 1);
  model[5000] = size;
  model[5] = size;
  ExpectSame(f, model);
  SampleRecord r;
  std::vector<uint8_t> storage;
  ASSERT_EQ(f.Find(10, &r, &storage), 1);
  EXPECT_EQ(r.pBuffer[size - 1], 4);
  files.clear();
  EXPECT_EQ(RecordFile::AllTailBytes(), 0);
}

}  // namespace
}  // namespace marquel
