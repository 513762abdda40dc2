// Embedding 1 MB of tags into a 1 GiB MPEG-2 program stream in place (the move of cached
// tags into the file: backups, fsyncs, merge and read-back included), against ffmpeg
// copying the same file into a new program stream.
//
// The move runs in a child process of its own (this program with --move), so that its
// peak RSS and the bytes it writes are its own. Prints BENCH lines:
//   embed_ps_speed         ffmpeg's time / the move's time       goal >= 100
//   embed_ps_bytes_written bytes written / (tag bytes + rewritten tail)   goal <= 3
//   embed_ps_peak_rss      the move's peak RSS in MB              goal <= 32
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "media_bench_util.h"
#include "persist/marquel_one_file.h"
#include "tags/sample.h"

namespace {

using marquel::bench::Clock;
using marquel::bench::Seconds;

constexpr int64_t kFileBytes = int64_t{1} << 30;
constexpr int32_t kRawTag = 29;      // 16-bit byte counts
constexpr int32_t kSampleBytes = 1000;
constexpr int32_t kSamples = 1000;   // 1 MB of tags

int64_t ProcField(const char* file, const char* field) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) == 0) return std::stoll(line.substr(std::strlen(field)));
  }
  return -1;
}

int64_t FileSize(const std::string& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  return ec ? -1 : static_cast<int64_t>(size);
}

// Tags the file and closes it, which leaves the tags in the temp cache.
bool TagIntoCache(const std::string& path) {
  marquel::MarquelOneFile f;
  f.SetHandle(1);
  f.SetFileName(path);
  if (f.Open(0, 1, 0) != 1) return false;
  std::string bytes(kSampleBytes, 'x');
  for (int32_t i = 0; i < kSamples; ++i) {
    bytes[0] = static_cast<char>(i);
    auto sample = marquel::MakeRawSample(int64_t{i} * 400000, kSampleBytes,
                                         reinterpret_cast<const uint8_t*>(bytes.data()));
    if (f.Program(0)->InsertOne(kRawTag, sample) != 1) return false;
  }
  return f.CloseFile(0) != -1;
}

// The child: moves the tags and prints its figures.
int Move(const std::string& path) {
  const int64_t before = FileSize(path);
  marquel::MarquelOneFile m;
  m.SetHandle(marquel::MarquelOneFile::kDetachedSessionNumber);
  bool moved = false;
  const auto start = Clock::now();
  const int32_t rc = m.MoveCacheDataToOrgFile(path, 1, &moved);
  const double seconds = Seconds(start);
  if (rc != 1 || !moved) return 1;
  const int64_t tail = FileSize(path) - m.MQStartAddress();
  std::printf("%.6f %lld %lld %lld %lld\n", seconds,
              static_cast<long long>(ProcField("/proc/self/status", "VmHWM:")),
              static_cast<long long>(ProcField("/proc/self/io", "wchar: ")),
              static_cast<long long>(tail), static_cast<long long>(before));
  return 0;
}

void Print(const char* name, double value, const char* unit, double ratio, double goal,
           bool pass) {
  std::printf("BENCH %s %.3f %s ratio=%.3f goal=%g %s\n", name, value, unit, ratio, goal,
              pass ? "pass" : "short");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--move") == 0) return Move(argv[2]);
  const auto dir = marquel::bench::MakeScratchFolder("embed_ps");
  setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
  const std::string path = (dir / "big.mpg").string();
  int status = 1;
  if (marquel::bench::MakeRepeated(std::string(MARQUEL_TEST_MEDIA_DIR) + "/mpeg2ps_long.mpg",
                                   path, kFileBytes) > 0) {
    const double ffmpeg = marquel::bench::TimeCommand(
        "ffmpeg -nostdin -loglevel quiet -y -i '" + path + "' -map 0 -c copy -f vob '" +
        (dir / "copy.vob").string() + "'");
    std::filesystem::remove(dir / "copy.vob");
    FILE* child = nullptr;
    // The made file's pages are flushed first: the move syncs the file, and must not be
    // charged with writing back what this program wrote.
    const marquel::FileHandle made = marquel::OpenRegularFile(path, marquel::GENERIC_READ);
    const bool flushed = made != marquel::kInvalidFileHandle && marquel::SyncFileHandle(made);
    if (made != marquel::kInvalidFileHandle) marquel::CloseFileHandle(made);
    if (ffmpeg > 0 && flushed && TagIntoCache(path) &&
        (child = popen(("'/proc/" + std::to_string(getpid()) + "/exe' --move '" + path + "'")
                           .c_str(),
                       "r")) != nullptr) {
      double seconds = 0;
      long long rss_kb = 0, written = 0, tail = 0, size = 0;
      const bool read = std::fscanf(child, "%lf %lld %lld %lld %lld", &seconds, &rss_kb,
                                    &written, &tail, &size) == 5;
      if (pclose(child) == 0 && read) {
        const double speed = ffmpeg / seconds;
        Print("embed_ps_speed", speed, "x", speed, 100, speed >= 100);
        const double share = static_cast<double>(written) /
                             static_cast<double>(int64_t{kSamples} * kSampleBytes + tail);
        Print("embed_ps_bytes_written", static_cast<double>(written), "bytes", share, 3,
              share <= 3);
        Print("embed_ps_peak_rss", rss_kb / 1024.0, "MB", rss_kb / 1024.0, 32,
              rss_kb / 1024.0 <= 32);
        std::printf("embed_ps: ffmpeg %.3f s, move %.3f s, tail %lld bytes of %lld\n", ffmpeg,
                    seconds, tail, size);
        status = 0;
      }
    }
  }
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return status;
}
