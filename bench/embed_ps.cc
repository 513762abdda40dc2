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

namespace bench = marquel::bench;

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--move") == 0) return bench::MoveChild(argv[2]);
  const bench::BigFile big =
      bench::MakeBigFileAndCopyIt("embed_ps", "mpeg2ps_long.mpg", "big.mpg", "vob");
  const std::string& path = big.path;
  int status = 1;
  bench::MoveFigures m;
  if (big.ffmpeg > 0 && bench::FlushMadeFile(path) && bench::TagIntoCache(path) &&
      bench::RunMoveChild(path, &m)) {
    bench::ReportMove("embed_ps", big, m, m.size - m.start_address, "bytes");
    status = 0;
  }
  std::error_code ec;
  std::filesystem::remove_all(big.dir, ec);
  return status;
}
