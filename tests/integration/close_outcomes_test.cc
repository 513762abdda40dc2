// What a close tells its client, through the real bus and server: a close whose cache
// write fails answers a failure and puts nothing on the pending list (even for MPEG-2
// and transport streams, whose closes otherwise answer "pending"); a path whose key name
// was once too long is cached and comes back; a copy made with "cp -p" keeps its own tags.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

constexpr int32_t kPlainTag = 19;

std::vector<std::pair<int64_t, int32_t>> Samples(int32_t seed) {
  std::vector<std::pair<int64_t, int32_t>> out;
  for (int32_t i = 0; i < 20; ++i) out.emplace_back(int64_t{i} * 400000 + seed, i * 3 + seed);
  return out;
}

void Insert(IMarquelClient& c, int32_t h, int32_t seed) {
  for (auto [t, v] : Samples(seed)) ASSERT_EQ(c.InsertDataOne2(h, 0, kPlainTag, t, v), S_OK);
}

std::vector<std::pair<int64_t, int32_t>> Stored(IMarquelClient& c, int32_t h) {
  return PlainPairs(c, h, kPlainTag);
}


std::string CacheFolder() {
  return std::string(getenv("XDG_DATA_HOME")) + "/Halvern/MQInfo";
}

// The number of cache entries marquelctl lists.
size_t CacheEntries() {
  std::string listing;
  if (RunProgram({MarquelctlPath(), "cache", "list", "--json"}, &listing) != 0) return 9999;
  return nlohmann::json::parse(listing)["entries"].size();
}

bool Pending(IMarquelClient& c, const std::string& path) {
  int32_t done = -1;
  EXPECT_EQ(c.IsWriteToFileDone(path.c_str(), &done), S_OK);
  return done == 0;
}

// A tmpfs over the cache folder for the life of the object (root only).
class CacheFolderMount {
 public:
  CacheFolderMount(unsigned long flags, const char* options) {
    std::filesystem::create_directories(CacheFolder());
    mounted_ = mount("tmpfs", CacheFolder().c_str(), "tmpfs", flags, options) == 0;
  }
  ~CacheFolderMount() {
    if (mounted_) umount2(CacheFolder().c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }

 private:
  bool mounted_ = false;
};

class CloseOutcomes : public BusTest {
 protected:
  // Opens `path`, inserts samples and closes with bWriteToCache 0: the close must fail,
  // and nothing may be pending or cached.
  void ExpectCloseFails(const std::string& path) {
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK) << path;
    Insert(*client_, h, 5);
    EXPECT_EQ(client_->CloseFile(h, 0), E_FAIL) << path;
    EXPECT_FALSE(Pending(*client_, path)) << path;
  }
};

TEST_F(CloseOutcomes, AnUnwritableCacheFolderFailsTheCloseAndLeavesNothingPending) {
  std::filesystem::create_directories(CacheFolder());
  std::unique_ptr<CacheFolderMount> read_only;
  if (geteuid() == 0) {
    // The owner's permission bits do not stop root: a read-only volume does.
    read_only = std::make_unique<CacheFolderMount>(MS_RDONLY, "size=64k");
    ASSERT_TRUE(read_only->mounted());
  } else {
    ASSERT_EQ(chmod(CacheFolder().c_str(), 0500), 0);
  }
  ExpectCloseFails(CopyTestMedia("mpeg2ps.mpg", "a.mpg"));
  ExpectCloseFails(CopyTestMedia("svcd.mpg", "b.mpg"));
  ExpectCloseFails(CopyTestMedia("ts2prog.ts", "c.ts"));
  EXPECT_EQ(CacheEntries(), 0u);
  if (!read_only) chmod(CacheFolder().c_str(), 0700);
}

TEST_F(CloseOutcomes, AFullDiskFailsTheCloseAndLeavesNothingPending) {
  if (geteuid() != 0) GTEST_SKIP() << "a small tmpfs needs root; persist's tests fill a disk";
  CacheFolderMount small(0, "size=16k");
  ASSERT_TRUE(small.mounted());
  {
    std::ofstream filler(CacheFolder() + "/filler", std::ios::binary);
    std::string block(4096, 'x');
    for (int i = 0; i < 64 && filler; ++i) filler.write(block.data(), 4096).flush();
  }
  ExpectCloseFails(CopyTestMedia("mpeg2ps.mpg", "a.mpg"));
  ExpectCloseFails(CopyTestMedia("ts2prog.ts", "c.ts"));
  EXPECT_EQ(CacheEntries(), 0u);
  std::vector<std::string> left;
  for (const auto& f : std::filesystem::directory_iterator(CacheFolder()))
    left.push_back(f.path().filename());
  EXPECT_EQ(left, std::vector<std::string>{"filler"}) << "no half-written cache file stays";
}

TEST_F(CloseOutcomes, AMediaFileRemovedBeforeTheCloseFailsIt) {
  for (auto [source, as] : {std::pair{"mpeg2ps.mpg", "a.mpg"}, std::pair{"ts2prog.ts", "c.ts"},
                            std::pair{"avi.avi", "e.avi"}}) {
    std::string path = CopyTestMedia(source, as);
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    Insert(*client_, h, 5);
    ASSERT_TRUE(std::filesystem::remove(path));
    EXPECT_EQ(client_->CloseFile(h, 0), E_FAIL) << as;
    EXPECT_FALSE(Pending(*client_, path)) << as;
  }
  EXPECT_EQ(CacheEntries(), 0u);
}

// A record holds 259 UTF-16 units of path: a longer one is refused, never cut.
TEST_F(CloseOutcomes, APathTooLongForACacheRecordFailsTheClose) {
  std::string name(300 - TestDir().size(), 'x');
  ExpectCloseFails(CopyTestMedia("ts2prog.ts", name + ".ts"));
  ExpectCloseFails(CopyTestMedia("mpeg2ps.mpg", name + ".mpg"));
  EXPECT_EQ(CacheEntries(), 0u);
}

// Each capital is marked in a readable key name, so this path's would be far too long:
// it gets a hashed one, and the close keeps its tags for real.
TEST_F(CloseOutcomes, APathOfManyCapitalsIsCachedAndComesBackAfterARestart) {
  std::string name = "Recording_";
  while (TestDir().size() + name.size() + 5 < 230) name.push_back('A' + name.size() % 26);
  std::string ts = CopyTestMedia("ts2prog.ts", name + ".ts");
  std::string mpg = CopyTestMedia("mpeg2ps.mpg", name + ".mpg");
  for (const std::string& path : {ts, mpg}) {
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    Insert(*client_, h, 7);
    EXPECT_EQ(client_->CloseFile(h, 0), S_OK);
    EXPECT_TRUE(Pending(*client_, path)) << "cached, and the move into the file is pending";
  }
  client_.reset();
  StopServer();
  EXPECT_EQ(CacheEntries(), 2u);
  client_ = Connect();
  for (const std::string& path : {ts, mpg}) {
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    EXPECT_EQ(Stored(*client_, h), Samples(7)) << path;
    ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
  }
}

TEST_F(CloseOutcomes, ACopyMadeWithCpKeepsTagsOfItsOwnAndTheOriginalKeepsItsTags) {
  std::string d2 = CopyTestMedia("ts2prog.ts", "d2.ts");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(d2.c_str(), 0, 0, &h), S_OK);
  Insert(*client_, h, 2);
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);

  std::string d0 = TestPath("d0.ts");
  ASSERT_EQ(RunProgram({"/bin/cp", "-p", d2, d0}), 0);
  ASSERT_EQ(client_->InitialFile(d0.c_str(), 0, 0, &h), S_OK);
  EXPECT_TRUE(Stored(*client_, h).empty()) << "the copy does not open with d2's tags";
  Insert(*client_, h, 9);
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);

  client_.reset();
  StopServer();
  EXPECT_EQ(CacheEntries(), 2u) << "both files exist: two entries";
  client_ = Connect();
  ASSERT_EQ(client_->InitialFile(d2.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(Stored(*client_, h), Samples(2));
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
  ASSERT_EQ(client_->InitialFile(d0.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(Stored(*client_, h), Samples(9));
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);

  // A rename is still a rename: the entry follows the file.
  std::string d3 = TestPath("d3.ts");
  ASSERT_EQ(RunProgram({"/bin/mv", d2, d3}), 0);
  ASSERT_EQ(client_->InitialFile(d3.c_str(), 0, 0, &h), S_OK);
  EXPECT_EQ(Stored(*client_, h), Samples(2));
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
  EXPECT_EQ(CacheEntries(), 2u);
}

}  // namespace
}  // namespace marquel::test
