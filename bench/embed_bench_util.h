// Shared by the embedding benchmarks: tagging a big file into its cache, the move of the
// cached tags run in a child process (so that its peak RSS and written bytes are its
// own), and reading the child's figures back.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
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

// Flushes the made file's pages: the move syncs the file, and must not be charged with
// writing back what the bench wrote.
inline bool FlushMadeFile(const std::string& path) {
  const FileHandle made = OpenRegularFile(path, GENERIC_READ);
  const bool flushed = made != kInvalidFileHandle && SyncFileHandle(made);
  if (made != kInvalidFileHandle) CloseFileHandle(made);
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

}  // namespace marquel::bench
