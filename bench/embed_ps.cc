// Embedding 1 MB of tags into a 1 GiB MPEG-2 program stream in place (the move of cached
// tags into the file: backups, fsyncs, merge and read-back included), against ffmpeg
// copying the same file into a new program stream.
//
// The move runs in a child process of its own (this program with --move), so that its
// peak RSS and the bytes it writes are its own. Prints BENCH lines:
//   embed_ps_speed         ffmpeg's time / the move's time       goal >= 100
//   embed_ps_bytes_written bytes written / (tag bytes + rewritten tail)   goal <= 3
//   embed_ps_peak_rss      the move's peak RSS in MB              goal <= 32
#include <cstdio>
#include <cstring>
#include <string>

#include "embed_bench_util.h"

namespace {

namespace bench = marquel::bench;

constexpr int64_t kFileBytes = int64_t{1} << 30;

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--move") == 0) return bench::MoveChild(argv[2]);
  const auto dir = bench::MakeScratchFolder("embed_ps");
  setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
  const std::string path = (dir / "big.mpg").string();
  int status = 1;
  const int64_t size = bench::MakeRepeated(
      std::string(MARQUEL_TEST_MEDIA_DIR) + "/mpeg2ps_long.mpg", path, kFileBytes);
  if (size > 0) {
    const double ffmpeg =
        bench::TimeCommand("ffmpeg -nostdin -loglevel quiet -y -i '" + path +
                           "' -map 0 -c copy -f vob '" + (dir / "copy.vob").string() + "'");
    std::filesystem::remove(dir / "copy.vob");
    bench::MoveFigures m;
    if (ffmpeg > 0 && bench::FlushMadeFile(path) && bench::TagIntoCache(path) &&
        bench::RunMoveChild(path, &m)) {
      const long long tail = m.size - m.start_address;
      const double speed = ffmpeg / m.seconds;
      bench::PrintFigure("embed_ps_speed", speed, "x", speed, 100, speed >= 100);
      const double share =
          static_cast<double>(m.written) / static_cast<double>(bench::kEmbedTagBytes + tail);
      bench::PrintFigure("embed_ps_bytes_written", static_cast<double>(m.written), "bytes", share,
                         3, share <= 3);
      bench::PrintFigure("embed_ps_peak_rss", m.rss_kb / 1024.0, "MB", m.rss_kb / 1024.0, 32,
                         m.rss_kb / 1024.0 <= 32);
      std::printf("embed_ps: ffmpeg %.3f s, move %.3f s, tail %lld bytes of %lld\n", ffmpeg,
                  m.seconds, tail, static_cast<long long>(size));
      status = 0;
    }
  }
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return status;
}
