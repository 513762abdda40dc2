// Shared by the media benchmarks: a big input made by repeating a test file, timing of
// shell commands (the cat and ffprobe baselines) and the BENCH line.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace marquel::bench {

using Clock = std::chrono::steady_clock;

inline double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

// Writes `source` repeated until `target` bytes (whole copies only) and answers the size
// written, or 0 on failure. Repeats in blocks of about 8 MiB to keep the writes large.
inline int64_t MakeRepeated(const std::string& source, const std::string& path, int64_t target) {
  std::ifstream in(source, std::ios::binary);
  const std::vector<char> data((std::istreambuf_iterator<char>(in)), {});
  if (data.empty()) return 0;
  std::vector<char> block;
  while (block.size() < (size_t{8} << 20)) block.insert(block.end(), data.begin(), data.end());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  int64_t size = 0;
  while (size < target) {
    const int64_t n = std::min<int64_t>(static_cast<int64_t>(block.size()), target - size);
    const int64_t whole = n - n % static_cast<int64_t>(data.size());
    if (whole == 0) break;
    out.write(block.data(), whole);
    size += whole;
  }
  return out ? size : 0;
}

// Makes a new folder for the bench's big files below $TMPDIR (else /tmp), named after
// `name` and the current time; the caller removes it.
inline std::filesystem::path MakeScratchFolder(const std::string& name) {
  const char* tmp = std::getenv("TMPDIR");
  const std::filesystem::path dir =
      std::filesystem::path(tmp && *tmp ? tmp : "/tmp") /
      (name + "." + std::to_string(std::chrono::system_clock::now().time_since_epoch().count()));
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  return dir;
}

// Wall time of a shell command, or a negative value when it fails.
inline double TimeCommand(const std::string& command) {
  const auto start = Clock::now();
  if (std::system(command.c_str()) != 0) return -1;
  return Seconds(start);
}

// Prints one BENCH line; the figure passes when value >= goal.
inline void Report(const char* name, double value, const char* unit, double ratio, double goal) {
  std::printf("BENCH %s %.3f %s ratio=%.3f goal=%g %s\n", name, value, unit, ratio, goal,
              value >= goal ? "pass" : "short");
}

}  // namespace marquel::bench
