// Helpers of the session open and close tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cache_test_util.h"
#include "persist/marquel_one_file.h"
#include "tags/sample.h"

namespace marquel::sessiontest {

// A plain tag (16-bit values) and a raw-data tag of the definition table.
constexpr int32_t kPlainTag = 19;
constexpr int32_t kRawTag = 29;

// A session of `path` with session number `number`, opened with Open(type, 1, 0); the
// open's result goes to *result when given.
inline std::unique_ptr<MarquelOneFile> OpenSession(const std::string& path, int32_t type = 0,
                                                   int32_t number = 3, int* result = nullptr) {
  auto f = std::make_unique<MarquelOneFile>();
  f->SetHandle(number);
  f->SetFileName(path);
  int r = f->Open(type, 1, 0);
  if (result != nullptr) *result = r;
  return f;
}

// The plain samples inserted by InsertSamples(seed, count).
inline std::vector<std::pair<int64_t, int32_t>> Expected(int32_t seed, int32_t count) {
  std::vector<std::pair<int64_t, int32_t>> out;
  for (int32_t i = 0; i < count; ++i) {
    out.emplace_back(int64_t{i} * 400000 + seed, (i * 7 + seed) & 0xFFFF);
  }
  return out;
}

// Inserts `count` plain samples into kPlainTag and one raw sample of 3 bytes into
// kRawTag of program `program`.
inline void InsertSamples(MarquelOneFile& f, int32_t program, int32_t seed, int32_t count) {
  MQOneProgram* p = f.Program(program);
  ASSERT_NE(p, nullptr);
  for (auto [time, value] : Expected(seed, count)) {
    ASSERT_EQ(p->InsertOne(kPlainTag, MakePlainSample(time, value)), 1);
  }
  uint8_t raw[3] = {uint8_t(seed), 0xAB, 0xCD};
  ASSERT_EQ(p->InsertOne(kRawTag, MakeRawSample(seed, 3, raw)), 1);
}

// The plain samples of kPlainTag in program `program`.
inline std::vector<std::pair<int64_t, int32_t>> PlainSamples(MarquelOneFile& f, int32_t program) {
  std::vector<std::pair<int64_t, int32_t>> out;
  MQOneProgram* p = f.Program(program);
  if (p == nullptr) return out;
  int64_t n = p->QueryOneTagSize(kPlainTag);
  std::vector<SampleRecord> records(static_cast<size_t>(n > 0 ? n : 1));
  int64_t got = p->GetDataAll(kPlainTag, records.data(), n);
  for (int64_t i = 0; i < got; ++i) out.emplace_back(records[i].llTimeCode, records[i].nValue);
  FreeSampleBuffers(records.data(), got);
  return out;
}

// Whether program `program` holds the raw sample InsertSamples(seed) made.
inline bool HasRawSample(MarquelOneFile& f, int32_t program, int32_t seed) {
  MQOneProgram* p = f.Program(program);
  if (p == nullptr) return false;
  SampleRecord r;
  if (p->GetOne(kRawTag, seed, &r) != 1) return false;
  bool ok = r.nValue == 3 && r.pBuffer != nullptr && r.pBuffer[0] == uint8_t(seed) &&
            r.pBuffer[1] == 0xAB && r.pBuffer[2] == 0xCD;
  FreeSampleBuffer(r.pBuffer);
  return ok;
}

// No cache kind holds an entry, and the cache folder holds no file.
inline void ExpectNothingCached() {
  for (int32_t k = 0; k < kCacheKindCount; ++k) {
    EXPECT_TRUE(ListCacheEntries(static_cast<CacheKind>(k)).empty()) << k;
  }
  EXPECT_TRUE(cachetest::FolderFiles(cachetest::CacheFolder()).empty());
}

}  // namespace marquel::sessiontest
