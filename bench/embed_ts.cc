// Embedding 1 MB of tags into a 1 GiB transport stream in place (the move of cached tags
// into the file: backup, fsyncs and the interleave with the file's last packets
// included), against ffmpeg copying the same file into a new transport stream.
//
// The move runs in a child process of its own (this program with --move), so that its
// peak RSS and the bytes it writes are its own. Prints BENCH lines:
//   embed_ts_speed         ffmpeg's time / the move's time       goal >= 100
//   embed_ts_bytes_written MB written / (tag bytes + rewritten tail)   goal <= 3
//   embed_ts_peak_rss      the move's peak RSS in MB              goal <= 32
// The rewritten tail runs from the file's first MQ packet (where the interleave starts)
// to its new end. A move that fails prints so and the bench exits 1.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "embed_bench_util.h"
#include "media/mq_ts_info.h"

namespace {

namespace bench = marquel::bench;

constexpr int32_t kUnit = 188;  // ts188.ts

// The offset of the file's first packet on the MQ PID named by its information packet,
// or -1. The interleave never starts below half of the file it rewrote, so the search
// starts there.
int64_t FirstMQPacket(const std::string& path, int64_t original_size) {
  std::ifstream in(path, std::ios::binary);
  const int64_t size = bench::FileSize(path);
  std::vector<uint8_t> unit(kUnit);
  in.seekg(size - kUnit);
  in.read(reinterpret_cast<char*>(unit.data()), kUnit);
  const std::optional<marquel::MQTsInfo> info =
      in ? marquel::ParseMQTsInfo(unit.data(), kUnit, size - kUnit, size) : std::nullopt;
  if (!info) return -1;
  constexpr int64_t kChunk = int64_t{kUnit} << 15;  // whole units, about 6 MB
  std::vector<uint8_t> buf(kChunk);
  for (int64_t at = original_size / 2 / kUnit * kUnit; at < size; at += kChunk) {
    in.seekg(at);
    in.read(reinterpret_cast<char*>(buf.data()), kChunk);
    const int64_t got = in.gcount();
    in.clear();
    for (int64_t i = 0; i + kUnit <= got; i += kUnit) {
      const int pid = ((buf[i + 1] & 0x1F) << 8) | buf[i + 2];
      if (buf[i] == 0x47 && pid == info->mq_pid) return at + i;
    }
    if (got < kChunk) break;
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--move") == 0) return bench::MoveChild(argv[2]);
  const bench::BigFile big =
      bench::MakeBigFileAndCopyIt("embed_ts", "ts188.ts", "big.ts", "mpegts");
  const std::string& path = big.path;
  int status = 1;
  bench::MoveFigures m;
  if (big.ffmpeg <= 0 || !bench::FlushMadeFile(path) || !bench::TagIntoCache(path)) {
    std::printf("embed_ts: could not make, copy or tag the file\n");
  } else if (!bench::RunMoveChild(path, &m)) {
    std::printf("embed_ts: the move failed; the tags stayed in the cache\n");
  } else if (const int64_t first = FirstMQPacket(path, big.size); first < 0) {
    std::printf("embed_ts: the move answered success but the file has no sound MQ packets\n");
  } else {
    bench::ReportMove("embed_ts", big, m, m.size - first, "MB");
    status = 0;
  }
  std::error_code ec;
  std::filesystem::remove_all(big.dir, ec);
  return status;
}
