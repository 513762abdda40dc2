// Shared by the embedding benchmarks: tagging a big file into its cache, the move of the
// cached tags run in a child process (so that its peak RSS and written bytes are its
// own), and reading the child's figures back.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "media_bench_util.h"
#include "persist/marquel_one_file.h"
#include "platform/files.h"
#include "tags/sample.h"

namespace marquel::bench {

constexpr int32_t kEmbedRawTag = 29;  // 16-bit byte counts
constexpr int32_t kEmbedSampleBytes = 1000;
constexpr int32_t kEmbedSamples = 1000;  // 1 MB of tags
constexpr int64_t kEmbedTagBytes = int64_t{kEmbedSamples} * kEmbedSampleBytes;

// A number after `field` in a /proc file, or -1.
inline int64_t ProcField(const char* file, const char* field) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) == 0) return std::stoll(line.substr(std::strlen(field)));
  }
  return -1;
}

inline int64_t FileSize(const std::string& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  return ec ? -1 : static_cast<int64_t>(size);
}

// Flushes what the bench wrote (the made file, and ffmpeg's deleted copy, whose freed
// blocks the file system's journal still has to commit): the move's syncs must not be
// charged with writing that back.
inline bool FlushMadeFile(const std::string& path) {
  const FileHandle made = OpenRegularFile(path, GENERIC_READ);
  const bool flushed = made != kInvalidFileHandle && SyncFileHandle(made);
  if (made != kInvalidFileHandle) CloseFileHandle(made);
  ::sync();
  return flushed;
}

// Tags program 0 of the file with 1 MB of raw samples and closes it, which leaves the
// tags in the file's cache.
inline bool TagIntoCache(const std::string& path) {
  MarquelOneFile f;
  f.SetHandle(1);
  f.SetFileName(path);
  if (f.Open(0, 1, 0) != 1) return false;
  std::string bytes(kEmbedSampleBytes, 'x');
  for (int32_t i = 0; i < kEmbedSamples; ++i) {
    bytes[0] = static_cast<char>(i);
    auto sample = MakeRawSample(int64_t{i} * 400000, kEmbedSampleBytes,
                                reinterpret_cast<const uint8_t*>(bytes.data()));
    if (f.Program(0)->InsertOne(kEmbedRawTag, sample) != 1) return false;
  }
  return f.CloseFile(0) != -1;
}

// A 1 GiB file made by repeating test medium `source` in a scratch folder of the bench's
// own, which also holds the bench's XDG folders (the caches it writes stay inside), and
// ffmpeg's time to copy the file with `-map 0 -c copy -f <format>`: negative when making
// or copying failed. The caller removes `dir`.
struct BigFile {
  std::filesystem::path dir;
  std::string path;
  int64_t size = 0;
  double ffmpeg = -1;
};

inline BigFile MakeBigFileAndCopyIt(const char* bench, const char* source, const char* name,
                                    const char* format) {
  constexpr int64_t kFileBytes = int64_t{1} << 30;
  BigFile big;
  big.dir = MakeScratchFolder(bench);
  setenv("XDG_DATA_HOME", (big.dir / "data").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (big.dir / "config").c_str(), 1);
  big.path = (big.dir / name).string();
  big.size = MakeRepeated(std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + source, big.path, kFileBytes);
  if (big.size <= 0) return big;
  const std::filesystem::path copy = big.dir / (std::string("copy.") + format);
  big.ffmpeg = TimeCommand("ffmpeg -nostdin -loglevel quiet -y -i '" + big.path +
                           "' -map 0 -c copy -f " + format + " '" + copy.string() + "'");
  std::filesystem::remove(copy);
  return big;
}

// What the child reports about its move.
struct MoveFigures {
  double seconds = 0;
  long long rss_kb = 0;
  long long written = 0;        // wchar of the child
  long long start_address = 0;  // the session's MQ start address after the move
  long long size = 0;           // the file's size after the move
};

// The child (this program run with --move PATH): moves the tags and prints its figures.
// Exit 1 when the move failed or moved nothing.
inline int MoveChild(const std::string& path) {
  MarquelOneFile m;
  m.SetHandle(MarquelOneFile::kDetachedSessionNumber);
  bool moved = false;
  const auto start = Clock::now();
  const int32_t rc = m.MoveCacheDataToOrgFile(path, 1, &moved);
  const double seconds = Seconds(start);
  if (rc != 1 || !moved) {
    std::fprintf(stderr, "the move failed (%d, moved %d)\n", rc, moved ? 1 : 0);
    return 1;
  }
  std::printf("%.6f %lld %lld %lld %lld\n", seconds,
              static_cast<long long>(ProcField("/proc/self/status", "VmHWM:")),
              static_cast<long long>(ProcField("/proc/self/io", "wchar: ")),
              static_cast<long long>(m.MQStartAddress()), static_cast<long long>(FileSize(path)));
  return 0;
}

// Runs this program again as the move's child; false when it failed.
inline bool RunMoveChild(const std::string& path, MoveFigures* figures) {
  FILE* child =
      popen(("'/proc/" + std::to_string(getpid()) + "/exe' --move '" + path + "'").c_str(), "r");
  if (child == nullptr) return false;
  const bool read =
      std::fscanf(child, "%lf %lld %lld %lld %lld", &figures->seconds, &figures->rss_kb,
                  &figures->written, &figures->start_address, &figures->size) == 5;
  return pclose(child) == 0 && read;
}

// One BENCH line whose figure passes when `pass`.
inline void PrintFigure(const char* name, double value, const char* unit, double ratio, double goal,
                        bool pass) {
  std::printf("BENCH %s %.3f %s ratio=%.3f goal=%g %s\n", name, value, unit, ratio, goal,
              pass ? "pass" : "short");
}

// The three BENCH lines of an embedding bench named `bench` (speed against ffmpeg, bytes
// written against tag bytes plus the rewritten tail, peak RSS), written bytes shown in
// `unit` ("bytes" or "MB"), and a line of the raw figures.
inline void ReportMove(const std::string& bench, const BigFile& big, const MoveFigures& m,
                       long long tail, const char* unit) {
  const double speed = big.ffmpeg / m.seconds;
  PrintFigure((bench + "_speed").c_str(), speed, "x", speed, 100, speed >= 100);
  const double written = std::strcmp(unit, "MB") == 0
                             ? static_cast<double>(m.written) / (1024.0 * 1024.0)
                             : static_cast<double>(m.written);
  const double share = static_cast<double>(m.written) / static_cast<double>(kEmbedTagBytes + tail);
  PrintFigure((bench + "_bytes_written").c_str(), written, unit, share, 3, share <= 3);
  const double rss_mb = static_cast<double>(m.rss_kb) / 1024.0;
  PrintFigure((bench + "_peak_rss").c_str(), rss_mb, "MB", rss_mb, 32, rss_mb <= 32);
  std::printf("%s: ffmpeg %.3f s, move %.3f s, tail %lld bytes of %lld\n", bench.c_str(),
              big.ffmpeg, m.seconds, tail, static_cast<long long>(big.size));
}

}  // namespace marquel::bench
