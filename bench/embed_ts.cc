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

constexpr int64_t kFileBytes = int64_t{1} << 30;
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
  const auto dir = bench::MakeScratchFolder("embed_ts");
  setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
  const std::string path = (dir / "big.ts").string();
  int status = 1;
  const int64_t size =
      bench::MakeRepeated(std::string(MARQUEL_TEST_MEDIA_DIR) + "/ts188.ts", path, kFileBytes);
  const double ffmpeg = size <= 0 ? -1
                                  : bench::TimeCommand("ffmpeg -nostdin -loglevel quiet -y -i '" +
                                                       path + "' -map 0 -c copy -f mpegts '" +
                                                       (dir / "copy.ts").string() + "'");
  std::filesystem::remove(dir / "copy.ts");
  bench::MoveFigures m;
  if (ffmpeg <= 0 || !bench::FlushMadeFile(path) || !bench::TagIntoCache(path)) {
    std::printf("embed_ts: could not make, copy or tag the file\n");
  } else if (!bench::RunMoveChild(path, &m)) {
    std::printf("embed_ts: the move failed; the tags stayed in the cache\n");
  } else if (const int64_t first = FirstMQPacket(path, size); first < 0) {
    std::printf("embed_ts: the move answered success but the file has no sound MQ packets\n");
  } else {
    const long long tail = m.size - first;
    const double speed = ffmpeg / m.seconds;
    bench::PrintFigure("embed_ts_speed", speed, "x", speed, 100, speed >= 100);
    const double written_mb = static_cast<double>(m.written) / (1024.0 * 1024.0);
    const double share =
        static_cast<double>(m.written) / static_cast<double>(bench::kEmbedTagBytes + tail);
    bench::PrintFigure("embed_ts_bytes_written", written_mb, "MB", share, 3, share <= 3);
    bench::PrintFigure("embed_ts_peak_rss", m.rss_kb / 1024.0, "MB", m.rss_kb / 1024.0, 32,
                       m.rss_kb / 1024.0 <= 32);
    std::printf("embed_ts: ffmpeg %.3f s, move %.3f s, tail %lld bytes of %lld\n", ffmpeg,
                m.seconds, tail, static_cast<long long>(size));
    status = 0;
  }
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return status;
}
