// The close of a file with a large data block: the block goes to its cache file in bounded
// pieces, so the server's peak memory during the close grows by far less than the data,
// and every sample comes back after a restart; another client's call made meanwhile waits
// for the close and is answered (the wait is printed). When the pieces cannot be set
// aside (a full disk), the close fails.
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

constexpr int32_t kWideRawTag = 32;        // raw, byte counts in 30 bits
constexpr int32_t kSampleBytes = 1 << 20;  // the bus ceiling of one raw sample
constexpr int32_t kSamples = 96;
// What the close may add to the server's resident memory: its stream buffers are bounded
// by their spill threshold (8 MiB each, the data stream's by one sample more), plus a
// batch of samples and a read chunk. Writing the block in memory needed about four times
// the 96 MiB of data.
constexpr int64_t kCloseGrowthLimitKiB = 40 * 1024;

#if defined(__SANITIZE_ADDRESS__)
// A sanitised server's resident figure is several times the real one.
constexpr bool kMeasure = false;
#else
constexpr bool kMeasure = true;
#endif

std::vector<uint8_t> SampleBytes(int64_t seed) {
  std::vector<uint8_t> b(kSampleBytes);
  for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<uint8_t>(seed * 13 + (i >> 10) + i);
  return b;
}

// Starts the peak (VmHWM) again from the present resident size.
bool ResetPeak(pid_t pid) {
  std::ofstream out("/proc/" + std::to_string(pid) + "/clear_refs");
  out << "5";
  out.flush();
  return static_cast<bool>(out);
}

// A small file system in place of the per-user temporary folder of every process
// (record files and the pieces of a block written at a close), while alive.
class SmallTempFolders {
 public:
  explicit SmallTempFolders(const char* size) {
    std::filesystem::create_directories(path_);
    const std::string options = std::string("mode=0700,size=") + size;
    mounted_ = mount("tmpfs", path_.c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  ~SmallTempFolders() {
    if (mounted_) umount2(path_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }

 private:
  std::string path_ = std::string(getenv("TMPDIR")) + "/marquel-" + std::to_string(getuid());
  bool mounted_ = false;
};

using CloseMemory = BusTest;

TEST_F(CloseMemory, A96MiBBlockClosesInBoundedMemoryAndComesBackAfterARestart) {
  const std::string path = MediaFile("big-raw.mpg");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  for (int64_t i = 0; i < kSamples; ++i) {
    const auto bytes = SampleBytes(i);
    ASSERT_EQ(client_->InsertRawDataOne(h, kWideRawTag, i * 40000, kSampleBytes, bytes.data()),
              S_OK)
        << i;
  }
  const pid_t server = ServerPid();
  ASSERT_GT(server, 0);
  ASSERT_TRUE(ResetPeak(server));
  const int64_t before = StatusKiB(server, "VmRSS");
  // Another client asks for the file count all through the close: it waits for the close
  // (which runs on the bus thread under the table lock), and must still be answered.
  std::atomic<bool> closing{true};
  std::atomic<int> wrong{0};
  std::atomic<int64_t> longest_ms{0};
  // It holds a file of its own open, so the count never falls to 0 (which answers E_FAIL).
  const std::string sentinel = MediaFile("sentinel.mpg");
  auto c = Connect();
  int32_t own = -1;
  ASSERT_EQ(c->InitialFile(sentinel.c_str(), 0, 0, &own), S_OK);
  std::thread other([&] {
    while (closing.load()) {
      const auto start = std::chrono::steady_clock::now();
      int32_t files = -1;
      if (c->QueryFileCount(&files) != S_OK || files < 1) ++wrong;
      const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - start)
                          .count();
      if (ms > longest_ms.load()) longest_ms.store(ms);
    }
  });
  const auto close_start = std::chrono::steady_clock::now();
  EXPECT_EQ(client_->CloseFile(h, 1), S_OK);
  const auto close_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - close_start)
                            .count();
  closing.store(false);
  other.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(c->CloseFile(own, 1), S_OK);
  c.reset();
  const int64_t peak = StatusKiB(server, "VmHWM");
  std::printf("close of %d MiB of raw samples: VmRSS %lld KiB before, VmHWM %lld KiB during\n",
              kSamples, static_cast<long long>(before), static_cast<long long>(peak));
  std::printf("the close took %lld ms; another client's QueryFileCount waited up to %lld ms\n",
              static_cast<long long>(close_ms), static_cast<long long>(longest_ms.load()));
  if (kMeasure) {
    ASSERT_GT(before, 0);
    EXPECT_LT(peak - before, kCloseGrowthLimitKiB);
  }

  client_.reset();
  StopServer();
  client_ = Connect();
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  int32_t count = 0;
  ASSERT_EQ(client_->QueryOneTagSize(h, kWideRawTag, &count), S_OK);
  EXPECT_EQ(count, kSamples);
  std::vector<uint8_t> got(kSampleBytes);
  for (int64_t i = 0; i < kSamples; ++i) {
    ASSERT_EQ(client_->GetRawDataOne(h, kWideRawTag, i * 40000, kSampleBytes, got.data()), S_OK)
        << i;
    ASSERT_EQ(got, SampleBytes(i)) << "sample " << i;
  }
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
}

// The samples fit the disk and the block's first piece does not: a close that answered
// success here would have left the program out of its cache.
TEST_F(CloseMemory, ABlockThatCannotBeSetAsideFailsTheClose) {
  if (geteuid() != 0) GTEST_SKIP() << "a small tmpfs needs root; persist's tests cover it";
  SmallTempFolders small("16m");
  ASSERT_TRUE(small.mounted());
  const std::string path = TestPath("large.avi");
  std::filesystem::copy_file(std::string(MARQUEL_TEST_MEDIA_DIR) + "/avi.avi", path);
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  for (int64_t i = 0; i < 12; ++i) {
    const auto bytes = SampleBytes(i);
    ASSERT_EQ(client_->InsertRawDataOne(h, kWideRawTag, i * 40000, kSampleBytes, bytes.data()),
              S_OK)
        << i;
  }
  EXPECT_EQ(client_->CloseFile(h, 1), E_FAIL);

  client_.reset();
  StopServer();
  client_ = Connect();
  ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
  int32_t count = 0;
  EXPECT_EQ(client_->QueryOneTagSize(h, kWideRawTag, &count), E_FAIL) << "nothing was kept";
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
}

}  // namespace
}  // namespace marquel::test
