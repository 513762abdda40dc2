// Speed of the transport-stream reader: CTSSysDec::Feed over 1 GiB of transport stream
// read from the page cache, against `cat FILE > /dev/null` (the cost of the reads alone)
// and `ffprobe -v error -show_packets` (a full demuxer, timed on a 64 MiB slice).
//
// Usage: media_ts [SOURCE.ts]   (default: ts188.ts of the test media)
// The 1 GiB file is made by repeating SOURCE in a temporary folder that is removed at
// the end. Prints BENCH lines; the goals are 1 GB/s and ten times ffprobe's rate.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "media/ts_decoder.h"
#include "media_bench_util.h"
#include "platform/files.h"

namespace {

namespace fs = std::filesystem;
using marquel::bench::Clock;
using marquel::bench::MakeRepeated;
using marquel::bench::Report;
using marquel::bench::Seconds;
using marquel::bench::TimeCommand;

constexpr int64_t kTarget = int64_t{1} << 30;
constexpr int64_t kProbeSlice = int64_t{64} << 20;
constexpr uint32_t kReadSize = 1 << 20;
constexpr double kGoalGbPerS = 1.0;
constexpr double kGoalVsFfprobe = 10.0;

// Feeds the whole file through a reader; answers the seconds taken (reads included).
double TimeFeed(const std::string& path, int32_t unit, uint32_t* packets) {
  marquel::FileHandle h =
      marquel::OpenFileHandle(path, marquel::GENERIC_READ, marquel::FILE_SHARE_READ, nullptr,
                              marquel::OPEN_EXISTING, 0, marquel::kInvalidFileHandle);
  if (h == marquel::kInvalidFileHandle) return -1;
  std::vector<uint8_t> buf(kReadSize);
  const auto start = Clock::now();
  marquel::CTSSysDec dec;
  dec.Init(unit);
  dec.SelectPid(8160);  // the data PID a stored-tag reader looks for; absent here
  uint32_t got = 0;
  while (marquel::ReadFile(h, buf.data(), kReadSize, &got) && got > 0) {
    dec.Feed(buf.data(), static_cast<int32_t>(got));
  }
  const double seconds = Seconds(start);
  marquel::CloseFileHandle(h);
  *packets = dec.packet_count();
  return dec.programs().count() > 0 ? seconds : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string source = argc > 1 ? argv[1] : std::string(MARQUEL_TEST_MEDIA_DIR) + "/ts188.ts";
  std::error_code ec;
  const fs::path dir = marquel::bench::MakeScratchFolder("media_ts_bench");
  const std::string big = (dir / "big.ts").string();
  const std::string slice = (dir / "slice.ts").string();
  int rc = 1;
  do {
    const int64_t size = MakeRepeated(source, big, kTarget);
    const int64_t slice_size = MakeRepeated(source, slice, kProbeSlice);
    if (size == 0 || slice_size == 0) {
      std::fprintf(stderr, "media_ts: cannot make the test files from %s\n", source.c_str());
      break;
    }
    const std::string quoted_big = "'" + big + "'";
    TimeCommand("cat " + quoted_big + " > /dev/null");  // into the page cache
    double cat = 1e9, feed = 1e9;
    uint32_t packets = 0;
    for (int run = 0; run < 3; ++run) {
      cat = std::min(cat, TimeCommand("cat " + quoted_big + " > /dev/null"));
      const double t = TimeFeed(big, 188, &packets);
      if (t < 0) break;
      feed = std::min(feed, t);
    }
    const double probe = TimeCommand("ffprobe -v error -show_packets '" + slice + "' > /dev/null");
    if (cat <= 0 || feed <= 0 || feed >= 1e9 || probe <= 0) {
      std::fprintf(stderr, "media_ts: a measurement failed\n");
      break;
    }
    const double gb = static_cast<double>(size) / 1e9;
    const double feed_rate = gb / feed;
    const double cat_rate = gb / cat;
    const double probe_rate = static_cast<double>(slice_size) / 1e9 / probe;
    std::fprintf(stderr,
                 "media_ts: %.2f GB, %u packets; Feed %.3f s (%.2f GB/s), cat %.3f s (%.2f GB/s), "
                 "ffprobe %.3f s over %.0f MB (%.3f GB/s)\n",
                 gb, packets, feed, feed_rate, cat, cat_rate, probe, slice_size / 1e6, probe_rate);
    Report("media_ts_feed", feed_rate, "GB/s", feed_rate / cat_rate, kGoalGbPerS);
    Report("media_ts_feed_vs_ffprobe", feed_rate / probe_rate, "x", feed_rate / probe_rate,
           kGoalVsFfprobe);
    rc = 0;
  } while (false);
  fs::remove_all(dir, ec);
  return rc;
}
