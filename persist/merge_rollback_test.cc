// The roll-back record as the controller carries it, and the check that a file is still
// the one a cut-short merge was writing before old bytes are copied into it.
#include "persist/merge_rollback.h"

#include <gtest/gtest.h>

#include <ctime>

#include "cache_test_util.h"
#include "merge_record.h"
#include "platform/access_reg.h"

namespace marquel {
namespace {

RollBackRecord Sample() {
  RollBackRecord r;
  r.key_name = "/v/rec.ts";
  r.media = "/v/rec.ts";
  r.type = 2;
  r.buf.assign(536, 7);
  r.guard.assign(12, 1);
  r.state.assign(32, 2);
  return r;
}

TEST(RollBackRecordPacking, ARecordComesBackWholeFromItsPackedBytes) {
  const RollBackRecord r = Sample();
  RollBackRecord back;
  ASSERT_TRUE(UnpackRollBackRecord(PackRollBackRecord(r), &back));
  EXPECT_EQ(back.key_name, r.key_name);
  EXPECT_EQ(back.media, r.media);
  EXPECT_EQ(back.type, r.type);
  EXPECT_EQ(back.buf, r.buf);
  EXPECT_EQ(back.guard, r.guard);
  EXPECT_EQ(back.state, r.state);
}

TEST(RollBackRecordPacking, EveryShortenedOrLengthenedFormIsRefused) {
  const std::vector<uint8_t> packed = PackRollBackRecord(Sample());
  for (size_t n = 0; n < packed.size(); ++n) {
    RollBackRecord back;
    EXPECT_FALSE(UnpackRollBackRecord({packed.begin(), packed.begin() + n}, &back)) << n;
  }
  std::vector<uint8_t> longer = packed;
  longer.push_back(0);
  RollBackRecord back;
  EXPECT_FALSE(UnpackRollBackRecord(longer, &back));
  std::vector<uint8_t> huge = packed;
  huge[4] = huge[5] = huge[6] = huge[7] = 0xFF;  // the first field claims 4 GiB
  EXPECT_FALSE(UnpackRollBackRecord(huge, &back));
}

class StillTheMergesFile : public testing::Test {
 protected:
  void SetUp() override {
    path_ = cachetest::MakeFile("merged.ts", 300000, 3);
    ASSERT_TRUE(WriteRollBackValues(path_, 2, std::vector<uint8_t>(536, 0), kOffset, 50000));
    AccessReg reg;
    uint32_t kind = 0;
    ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, RollBackKey(path_).c_str()));
    ASSERT_TRUE(reg.QueryValue("GUARD", &kind, &guard_));
    ASSERT_TRUE(reg.QueryValue("STATE", &kind, &state_));
  }
  bool Holds() {
    FileHandle media = OpenRegularFile(path_, GENERIC_READ);
    const bool holds = RollBackStillTheMergesFile(guard_, state_, media, kOffset);
    CloseFileHandle(media);
    return holds;
  }
  void Resize(int64_t size) {
    FileHandle media = OpenRegularFile(path_, GENERIC_READ | GENERIC_WRITE);
    ASSERT_EQ(SeekFile(media, size, FILE_BEGIN), size);
    ASSERT_TRUE(SetEndOfFile(media));
    CloseFileHandle(media);
  }
  static constexpr int64_t kOffset = 200000;
  std::string path_;
  std::vector<uint8_t> guard_, state_;
};

TEST_F(StillTheMergesFile, AFileTheMergeNeverTouchedPasses) {
  EXPECT_TRUE(Holds());
}

TEST_F(StillTheMergesFile, AFileTheMergeLengthenedWithinItsDataPasses) {
  Resize(300000 + 50000);
  EXPECT_TRUE(Holds());
}

TEST_F(StillTheMergesFile, AFileLongerThanTheMergeCanMakeItFails) {
  Resize(300000 + 50000 + (2 << 20));  // a recorder went on writing it
  EXPECT_FALSE(Holds());
}

TEST_F(StillTheMergesFile, AFileCutBeforeTheMergesOffsetFails) {
  Resize(kOffset - 1);
  EXPECT_FALSE(Holds());
}

TEST_F(StillTheMergesFile, AFileWhoseBytesBeforeTheOffsetChangedFails) {
  FileHandle media = OpenRegularFile(path_, GENERIC_READ | GENERIC_WRITE);
  const uint8_t other = 0xEE;
  ASSERT_TRUE(WriteAllAt(media, kOffset - 10, &other, 1));
  CloseFileHandle(media);
  EXPECT_FALSE(Holds());
}

TEST_F(StillTheMergesFile, AFileWithATimeFromBeforeTheWritingFails) {
  FileHandle media = OpenRegularFile(path_, GENERIC_READ | GENERIC_WRITE);
  const uint8_t same = 0;
  ASSERT_TRUE(WriteAllAt(media, kOffset + 10, &same, 1));
  ASSERT_TRUE(SetFileModifiedTime(media, static_cast<int64_t>(time(nullptr)) - 3600));
  CloseFileHandle(media);
  EXPECT_FALSE(Holds()) << "changed, and its time set back: not the merge's writing";
}

}  // namespace
}  // namespace marquel
