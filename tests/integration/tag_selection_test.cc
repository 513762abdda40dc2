// What InitialFile2's tag selection and read-only flag do to stored tags, through the real
// bus and server: a writable open keeps every stored tag whatever it selects, and a
// read-only open refuses every change rather than answer S_OK for one it would not keep.
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using Pairs = std::vector<std::pair<int64_t, int32_t>>;

class TagSelection : public BusTest {
 protected:
  // A copy of the MPEG-2 test media holding tag 16 = {100000: 1} and tag 20 = {100000: 7}.
  std::string TaggedMedia() {
    const std::string path = CopyTestMedia("mpeg2ps.mpg", "clip.mpg");
    int32_t h = -1;
    EXPECT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    EXPECT_EQ(client_->InsertDataOne2(h, 0, 16, 100000, 1), S_OK);
    EXPECT_EQ(client_->InsertDataOne2(h, 0, 20, 100000, 7), S_OK);
    EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
    return path;
  }

  int32_t OpenSelecting(const std::string& path, int32_t tag, int32_t readOnly,
                        int32_t overwrite = 0) {
    int32_t h = -1;
    const int32_t selected[] = {tag};
    EXPECT_EQ(client_->InitialFile2(path.c_str(), 0, overwrite, 1, selected, readOnly, 0, -1, &h),
              S_OK);
    return h;
  }

  Pairs Stored(int32_t h, int32_t tag) { return PlainPairs(*client_, h, tag); }

  // After a server restart, what the file holds under tags 16 and 20.
  std::pair<Pairs, Pairs> AfterRestart(const std::string& path) {
    client_.reset();
    StopServer();
    client_ = Connect();
    int32_t h = -1;
    EXPECT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    std::pair<Pairs, Pairs> got{Stored(h, 16), Stored(h, 20)};
    EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
    return got;
  }
};

TEST_F(TagSelection, AWritableOpenThatSelectsOneTagKeepsTheOthersThroughItsClose) {
  const std::string path = TaggedMedia();
  int32_t h = OpenSelecting(path, 16, 0);
  EXPECT_EQ(client_->InsertDataOne2(h, 0, 16, 200000, 2), S_OK);
  // The tag left out of the selection takes samples too, and keeps them.
  EXPECT_EQ(client_->InsertDataOne2(h, 0, 20, 200000, 8), S_OK);
  EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
  auto [tag16, tag20] = AfterRestart(path);
  EXPECT_EQ(tag16, (Pairs{{100000, 1}, {200000, 2}}));
  EXPECT_EQ(tag20, (Pairs{{100000, 7}, {200000, 8}}));
}

TEST_F(TagSelection, AReadOnlyOpenLoadsItsSelectionAndRefusesEveryChange) {
  const std::string path = TaggedMedia();
  int32_t h = OpenSelecting(path, 16, 1);
  EXPECT_EQ(Stored(h, 16), (Pairs{{100000, 1}}));
  EXPECT_EQ(Stored(h, 20), Pairs{});
  EXPECT_EQ(client_->InsertDataOne2(h, 0, 16, 200000, 2), E_FAIL);
  EXPECT_EQ(client_->DeleteDataPeriod(h, 0, -1), E_FAIL);
  EXPECT_EQ(client_->DeleteDataPeriodForOneTag(h, 16, 0, -1), E_FAIL);
  EXPECT_EQ(client_->MinusTimeOffset(h, 1000), E_FAIL);
  EXPECT_EQ(client_->CleanFile(h), E_FAIL);
  // The intervals and PMT PIDs the block keeps are changes too.
  EXPECT_EQ(client_->SetTimeIntervalForTag2(h, 0, 16, 5000), E_FAIL);
  EXPECT_EQ(client_->SetPMTPID(h, 0, 0x42), E_FAIL);
  EXPECT_EQ(Stored(h, 16), (Pairs{{100000, 1}}));
  EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
  auto [tag16, tag20] = AfterRestart(path);
  EXPECT_EQ(tag16, (Pairs{{100000, 1}}));
  EXPECT_EQ(tag20, (Pairs{{100000, 7}}));
}

TEST_F(TagSelection, AReadOnlyFileIsNeitherTheTargetOfACopyNorTheSourceOfAMove) {
  const std::string path = TaggedMedia();
  std::string other = TestPath("other.mpg");
  std::filesystem::copy_file(path, other);
  int32_t writable = -1;
  ASSERT_EQ(client_->InitialFile(other.c_str(), 0, 0, &writable), S_OK);
  ASSERT_EQ(client_->InsertDataOne2(writable, 0, 16, 300000, 3), S_OK);
  int32_t readOnly = OpenSelecting(path, 16, 1);
  EXPECT_EQ(client_->CopyDataPeriod(readOnly, writable, 0, 0, -1, 1, 1), E_FAIL);
  EXPECT_EQ(client_->MoveDataPeriod(writable, readOnly, 0, 0, -1, 1, 1), E_FAIL);
  // Copying out of a read-only file changes only the writable one.
  EXPECT_EQ(client_->CopyDataPeriodForOneTag(writable, readOnly, 16, 500000, 0, 200000, 1, 1),
            S_OK);
  EXPECT_EQ(Stored(writable, 16), (Pairs{{300000, 3}, {600000, 1}}));
  EXPECT_EQ(client_->CloseFile(readOnly, 1), S_OK);
  EXPECT_EQ(client_->CloseFile(writable, 1), S_OK);
  EXPECT_EQ(AfterRestart(path).first, (Pairs{{100000, 1}}));
}

TEST_F(TagSelection, OverwriteOnAReadOnlyOpenFailsAndDeletesNothing) {
  const std::string path = TaggedMedia();
  int32_t h = -1;
  const int32_t selected[] = {16};
  EXPECT_EQ(client_->InitialFile2(path.c_str(), 0, 1, 1, selected, 1, 0, -1, &h), E_FAIL);
  EXPECT_EQ(h, -1);
  auto [tag16, tag20] = AfterRestart(path);
  EXPECT_EQ(tag16, (Pairs{{100000, 1}}));
  EXPECT_EQ(tag20, (Pairs{{100000, 7}}));
}

TEST_F(TagSelection, AReadOnlyOpenJoiningAWritableSessionDropsNoneOfItsChanges) {
  const std::string path = TaggedMedia();
  int32_t writer = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &writer), S_OK);
  ASSERT_EQ(client_->InsertDataOne2(writer, 0, 16, 400000, 4), S_OK);
  int32_t reader = OpenSelecting(path, 20, 1);
  EXPECT_EQ(reader, writer);
  // The shared session stays writable with every tag loaded.
  EXPECT_EQ(Stored(reader, 16), (Pairs{{100000, 1}, {400000, 4}}));
  EXPECT_EQ(client_->InsertDataOne2(writer, 0, 20, 400000, 9), S_OK);
  EXPECT_EQ(client_->CloseFile(reader, 1), S_OK);
  EXPECT_EQ(client_->CloseFile(writer, 1), S_OK);
  auto [tag16, tag20] = AfterRestart(path);
  EXPECT_EQ(tag16, (Pairs{{100000, 1}, {400000, 4}}));
  EXPECT_EQ(tag20, (Pairs{{100000, 7}, {400000, 9}}));
}

TEST_F(TagSelection, AWritableOpenJoiningAReadOnlySessionMakesItWritableWithEveryTag) {
  const std::string path = TaggedMedia();
  int32_t reader = OpenSelecting(path, 16, 1);
  int32_t writer = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &writer), S_OK);
  EXPECT_EQ(writer, reader);
  EXPECT_EQ(Stored(writer, 20), (Pairs{{100000, 7}}));
  EXPECT_EQ(client_->InsertDataOne2(writer, 0, 20, 500000, 5), S_OK);
  EXPECT_EQ(client_->CloseFile(writer, 1), S_OK);
  EXPECT_EQ(client_->CloseFile(reader, 1), S_OK);
  EXPECT_EQ(AfterRestart(path).second, (Pairs{{100000, 7}, {500000, 5}}));
}

}  // namespace
}  // namespace marquel::test
