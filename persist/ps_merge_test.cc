// The in-place merge over real program streams: every stream pack kept in order, the bytes
// before the merge start untouched, groups and clocks as designed, one copy after two
// merges, and a failed rewrite undone byte for byte.
#include "ps_merge.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "cache_test_util.h"
#include "media/mqinfo_temp.h"
#include "media/ps_pack_walker.h"
#include "persist/cache_keys.h"
#include "persist/merge_rollback.h"
#include "platform/access_reg.h"
#include "platform/text.h"

namespace marquel {
namespace {

using Bytes = std::vector<uint8_t>;

// An MPEG-2 pack of `size` bytes: header, one 0xFA packet holding `tag` and padding.
Bytes DataPack(uint32_t tag, uint32_t size = 2048) {
  Bytes p = {0, 0, 1, 0xBA, 0x44, 0, 4, 0, 4, 1, 1, 0x89, 0xC3, 0xF8};
  const uint32_t payload = size - 14 - 6;
  Bytes packet = {0, 0, 1, 0xFA, static_cast<uint8_t>(payload >> 8), static_cast<uint8_t>(payload)};
  p.insert(p.end(), packet.begin(), packet.end());
  p.resize(size, 0xFF);
  std::memcpy(p.data() + 20, &tag, sizeof(tag));
  return p;
}

std::string DataPackFile(uint32_t count, uint32_t first_tag = 0) {
  const std::string path = test::TestPath("packs-" + std::to_string(first_tag) + ".bin");
  Bytes all;
  for (uint32_t i = 0; i < count; ++i) {
    Bytes p = DataPack(first_tag + i);
    all.insert(all.end(), p.begin(), p.end());
  }
  cachetest::WriteAll(path, all);
  return path;
}

constexpr uint32_t kEndTag = 0xE0D0E0D0;

struct Walk {
  Bytes stream;                 // the stream packs, back to back
  std::vector<uint32_t> tags;   // of the own packs, in order
  std::vector<size_t> between;  // stream packs before each own pack since the previous one
  std::vector<uint64_t> clocks;
};

Walk WalkFile(const std::string& path) {
  Walk w;
  Bytes bytes = cachetest::ReadAll(path);
  FileHandle f = OpenRegularFile(path, GENERIC_READ);
  PsPackWalker walker(f, 0, static_cast<int64_t>(bytes.size()), false);
  PackSpan s;
  size_t run = 0;
  while (walker.Next(&s)) {
    w.clocks.push_back(s.clock.Full());
    if (!s.own_data) {
      w.stream.insert(w.stream.end(), bytes.begin() + s.offset,
                      bytes.begin() + s.offset + s.length);
      ++run;
      continue;
    }
    uint32_t tag;
    std::memcpy(&tag, bytes.data() + s.offset + 20, sizeof(tag));
    w.tags.push_back(tag);
    w.between.push_back(run);
    run = 0;
  }
  CloseFileHandle(f);
  return w;
}

class PsMerge : public testing::Test {
 protected:
  int32_t Merge(const std::string& media, uint32_t count, int64_t keep_before,
                PsMergeResult* result, uint32_t first_tag = 0) {
    FileHandle m = OpenRegularFile(media, GENERIC_READ | GENERIC_WRITE);
    FileHandle d = OpenRegularFile(DataPackFile(count, first_tag), GENERIC_READ);
    PsMergeRequest r;
    r.media_path = media;
    r.media = m;
    r.keep_before = keep_before < 0 ? GetFileSize64(m) : keep_before;
    r.data_packs = d;
    r.data_pack_count = count;
    r.verify = verify_;
    r.end_pack = [this](int64_t start, int64_t end, const PackClock&, Bytes* out) {
      end_calls_.push_back({start, end});
      if (on_end_) on_end_();
      Bytes p = DataPack(kEndTag);
      out->insert(out->end(), p.begin(), p.end());
      return true;
    };
    int32_t rc = MergeIntoProgramStream(r, result);
    CloseFileHandle(m);
    CloseFileHandle(d);
    return rc;
  }
  static std::string Folder() {
    std::string folder;
    GetMQInfoFolder(&folder);
    return folder;
  }
  std::vector<std::pair<int64_t, int64_t>> end_calls_;
  std::function<void()> on_end_;
  std::function<bool(int64_t)> verify_;
};

TEST_F(PsMerge, KeepsEveryStreamPackInOrderAndTheBytesBeforeTheMergeStart) {
  const std::string media = cachetest::CopyMedia("mpeg2ps_long.mpg", "long.mpg");
  const Bytes before = cachetest::ReadAll(media);
  PsMergeResult result;
  ASSERT_EQ(Merge(media, 20, -1, &result), 1);
  const Bytes after = cachetest::ReadAll(media);
  ASSERT_GT(result.merge_start, 0) << "a long file is merged near its end";
  EXPECT_TRUE(std::equal(before.begin(), before.begin() + result.merge_start, after.begin()));
  EXPECT_EQ(static_cast<int64_t>(after.size()), result.new_size);
  EXPECT_EQ(after.size(), before.size() + 21 * 2048u);
  cachetest::WriteAll(test::TestPath("unchanged.mpg"), before);
  const Walk old_walk = WalkFile(test::TestPath("unchanged.mpg"));
  Walk w = WalkFile(media);
  EXPECT_EQ(w.stream, old_walk.stream);
  ASSERT_EQ(w.tags.size(), 21u);
  for (uint32_t i = 0; i < 20; ++i) EXPECT_EQ(w.tags[i], i);
  EXPECT_EQ(w.tags.back(), kEndTag);
  ASSERT_GE(result.group_stream_packs, 1u);
  for (size_t i = 1; i < 20; ++i) EXPECT_EQ(w.between[i], result.group_stream_packs) << i;
  ASSERT_EQ(end_calls_.size(), 1u);
  EXPECT_EQ(end_calls_[0].first, result.merge_start);
  EXPECT_EQ(end_calls_[0].second, result.merged_end);
  for (size_t i = 1; i + 1 < w.clocks.size(); ++i)
    EXPECT_LE(w.clocks[i - 1], w.clocks[i]) << "clocks step forward at pack " << i;
  AccessReg reg;
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, RollBackKey(media).c_str()));
  EXPECT_TRUE(cachetest::FolderFiles(Folder()).empty()) << "the backups are gone";
}

TEST(PsMergeGroups, TheStreamPacksPerDataPackFollowTheRoomBelowTheMuxRate) {
  EXPECT_EQ(StreamPacksPerGroup(500000, 1260000), 1u) << "more than twice the room";
  EXPECT_EQ(StreamPacksPerGroup(1000000, 1260000), 4u) << "26 % room takes one in four";
  EXPECT_EQ(StreamPacksPerGroup(1200000, 1260000), 15u) << "5 % room: the most";
  EXPECT_EQ(StreamPacksPerGroup(1300000, 1260000), 15u) << "over its rate";
  EXPECT_EQ(StreamPacksPerGroup(0, 1260000), 15u) << "rate unknown";
  EXPECT_EQ(StreamPacksPerGroup(1000000, 0), 15u) << "mux rate unknown";
}

TEST_F(PsMerge, MergingAgainFromTheOldStartLeavesOneCopy) {
  const std::string media = cachetest::CopyMedia("mpeg2ps_long.mpg", "twice.mpg");
  const Walk original = WalkFile(media);
  PsMergeResult first, second;
  ASSERT_EQ(Merge(media, 20, -1, &first), 1);
  ASSERT_EQ(Merge(media, 7, first.merge_start, &second, 100), 1);
  EXPECT_LE(second.merge_start, first.merge_start);
  Walk w = WalkFile(media);
  EXPECT_EQ(w.stream, original.stream);
  ASSERT_EQ(w.tags.size(), 8u);
  for (uint32_t i = 0; i < 7; ++i) EXPECT_EQ(w.tags[i], 100 + i);
  EXPECT_EQ(w.tags.back(), kEndTag);
}

TEST_F(PsMerge, AShortFileIsMergedFromItsFirstPack) {
  const std::string media = cachetest::CopyMedia("mpeg2ps.mpg", "short.mpg");
  const Walk original = WalkFile(media);
  PsMergeResult result;
  ASSERT_EQ(Merge(media, 200, -1, &result), 1);
  EXPECT_EQ(result.merge_start, 0);
  Walk w = WalkFile(media);
  EXPECT_EQ(w.stream, original.stream);
  ASSERT_EQ(w.tags.size(), 201u);
  EXPECT_EQ(w.between.back(), 0u) << "the data packs left over follow one another";
}

TEST_F(PsMerge, TheRollBackRecordNamesBothBackupsAndTheStartWhileTheFileIsRewritten) {
  const std::string media = cachetest::CopyMedia("mpeg2ps_long.mpg", "record.mpg");
  const Bytes before = cachetest::ReadAll(media);
  Bytes backups_joined;
  int64_t offset = -1;
  uint32_t type = 0;
  on_end_ = [&] {
    AccessReg reg;
    ASSERT_TRUE(reg.Open(HKEY_CURRENT_USER, RollBackKey(media).c_str()));
    ASSERT_TRUE(reg.QueryDword("TYPE", &type));
    uint32_t kind = 0;
    Bytes buf;
    ASSERT_TRUE(reg.QueryValue("BUF", &kind, &buf));
    ASSERT_EQ(buf.size(), 1056u);
    std::memcpy(&offset, buf.data() + 1040, sizeof(offset));
    auto path_at = [&](size_t at) {
      return WideRecordToUtf8(reinterpret_cast<const char16_t*>(buf.data() + at), 260);
    };
    backups_joined = cachetest::ReadAll(path_at(520));
    Bytes tail = cachetest::ReadAll(path_at(0));
    backups_joined.insert(backups_joined.end(), tail.begin(), tail.end());
  };
  PsMergeResult result;
  ASSERT_EQ(Merge(media, 5, -1, &result), 1);
  EXPECT_EQ(type, 1u);
  EXPECT_EQ(offset, result.merge_start);
  EXPECT_EQ(backups_joined, Bytes(before.begin() + offset, before.end()))
      << "first backup then second rebuild the old bytes from the offset";
}

TEST_F(PsMerge, DataThatDoesNotReadBackIsUndoneByteForByte) {
  const std::string media = cachetest::CopyMedia("mpeg2ps_long.mpg", "check.mpg");
  const Bytes before = cachetest::ReadAll(media);
  int64_t checked_at = -1;
  verify_ = [&](int64_t start) {
    checked_at = start;
    return false;
  };
  PsMergeResult result;
  EXPECT_EQ(Merge(media, 20, -1, &result), -1);
  EXPECT_GT(checked_at, 0) << "the check ran on the rewritten file";
  EXPECT_EQ(cachetest::ReadAll(media), before);
  EXPECT_TRUE(cachetest::FolderFiles(Folder()).empty());
}

TEST_F(PsMerge, AMergeAKilledServerLeftHalfDoneIsUndoneAtTheNextStart) {
  const std::string media = cachetest::CopyMedia("mpeg2ps_long.mpg", "killed.mpg");
  const Bytes before = cachetest::ReadAll(media);
  pid_t child = fork();
  if (child == 0) {
    // Killed in the middle of the rewrite: the file already holds other bytes.
    on_end_ = [&] {
      FileHandle m = OpenRegularFile(media, GENERIC_READ | GENERIC_WRITE);
      const Bytes junk(50000, 0x47);
      WriteAllAt(m, before.size() - 30000, junk.data(), junk.size());
      _exit(0);
    };
    PsMergeResult result;
    Merge(media, 20, -1, &result);
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_NE(cachetest::ReadAll(media), before);
  EXPECT_EQ(cachetest::RollBackAsAtStart(), 1);
  EXPECT_EQ(cachetest::ReadAll(media), before);
  AccessReg reg;
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, RollBackKey(media).c_str()));
  EXPECT_TRUE(cachetest::FolderFiles(Folder()).empty()) << "the backups are gone";
  EXPECT_EQ(cachetest::RollBackAsAtStart(), 0) << "nothing is left to undo";
}

TEST_F(PsMerge, AFailedRewriteLeavesTheFileByteForByteAsItWas) {
  const std::string media = cachetest::CopyMedia("mpeg2ps_long.mpg", "full.mpg");
  const Bytes before = cachetest::ReadAll(media);
  PsMergeResult result;
  int32_t rc = 0;
  {
    // A file-size limit just above the file: the backups fit, the grown file does not.
    cachetest::ScopedFileSizeLimit limit(before.size() + 4096);
    ASSERT_TRUE(limit.ok());
    rc = Merge(media, 20, -1, &result);
  }
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(cachetest::ReadAll(media), before);
  AccessReg reg;
  EXPECT_FALSE(reg.Open(HKEY_CURRENT_USER, RollBackKey(media).c_str()));
  EXPECT_TRUE(cachetest::FolderFiles(Folder()).empty());
}

}  // namespace
}  // namespace marquel
