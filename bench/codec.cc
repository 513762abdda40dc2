// Speed of the data block codec: writing and reading a block of 1,000,000 samples spread
// over 20 tags of mixed types (values of several widths, a delta tag, state tags, raw
// tags), in bytes of block per second, against zlib's crc32 over the same bytes in the
// same run. The goal for both directions is a quarter of crc32's throughput.
//
// Usage: codec [ROUNDS]   (default 25; the best round counts)
// Times are the thread's CPU time, so that other processes on a shared machine count as
// little as possible; all three measures are taken the same way in the same run.
#include <zlib.h>

#include <time.h>
#include <algorithm>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "tags/block_content.h"
#include "tags/block_reader.h"
#include "tags/block_writer.h"

namespace {

using namespace marquel;

constexpr int kTags = 20;
constexpr int kSamplesPerTag = 50000;  // 20 x 50,000 = 1,000,000 samples
constexpr int64_t kFrame = 333333;     // one sample per tag per frame time
constexpr double kGoal = 0.25;

// The 20 tags: plain values of 1 to 16 bits, type 2, the delta tag, the three state
// tags and raw tags with 4-, 16- and 30-bit counts.
const int32_t kIds[kTags] = {2,   3,   4,   5,  16,  19,  20, 25, 26, 114,
                             122, 253, 254, 17, 251, 252, 29, 31, 32, 123};

BlockContent MakeContent() {
  BlockContent c;
  uint32_t seed = 12345;
  auto next = [&seed] {
    seed = seed * 1664525u + 1013904223u;
    return seed >> 8;
  };
  uint8_t raw[16];
  for (int id : kIds) {
    BlockTagSamples& tag = c.tags[id];
    int type = kTagDefinitions[id].nType;
    int width = kTagDefinitions[id].nBits;
    int32_t state = 0;
    for (int i = 0; i < kSamplesPerTag; ++i) {
      int64_t t = 1000000 + i * kFrame;
      if (type == 5) {
        int n = width == 4 ? 4 : 12;
        for (int k = 0; k < n; ++k) raw[k] = static_cast<uint8_t>(next());
        tag.AddRaw(t, raw, n);
      } else if (type == 3 || type == 4) {
        if (next() % 100 == 0) state ^= 1;
        tag.AddPlain(t, state);
      } else {
        tag.AddPlain(t, static_cast<int32_t>(next() % (1u << std::min(width, 16))));
      }
    }
    tag.interval = kFrame;
  }
  return c;
}

double CpuNow() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void Report(const char* name, double rate, double crc_rate) {
  double ratio = rate / crc_rate;
  std::printf("BENCH %s %.1f MB/s ratio=%.3f goal=%.2f %s\n", name, rate / 1e6, ratio, kGoal,
              ratio >= kGoal ? "pass" : "short");
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 25;
  BlockContent content = MakeContent();
  BlockContentSource source(content);
  std::vector<uint8_t> bytes = EncodeBlockBytes(content);
  if (bytes.empty()) return 1;
  std::printf("block: %zu bytes for %llu samples\n", bytes.size(),
              static_cast<unsigned long long>(content.SampleCount()));

  double best_write = 1e30, best_read = 1e30, best_crc = 1e30;
  double first_write = 0, first_read = 0;
  uint64_t check = 0;
  // Each direction runs its rounds on its own, as a benchmark of one operation does: the
  // other direction's 16 MB of lists would otherwise push its input out of the caches
  // between rounds. The buffers live across rounds, as a program's four buffers and a
  // reader's content do: a round writes into the capacity the last one left. The first
  // round pays for fresh memory and is reported apart. A crc32 round follows every
  // codec round, so that the baseline is measured through the same stretch of time, on a
  // machine whose speed comes and goes, as what it is held against.
  auto crc_round = [&] {
    double start = CpuNow();
    uLong crc = crc32(0L, Z_NULL, 0);
    crc = crc32(crc, bytes.data(), static_cast<uInt>(bytes.size()));
    best_crc = std::min(best_crc, CpuNow() - start);
    check += crc;
  };
  EncodedBlock block;
  for (int r = 0; r < rounds; ++r) {
    double start = CpuNow();
    if (EncodeBlock(source, &block) != 1) return 1;
    double took = CpuNow() - start;
    if (r == 0) first_write = took;
    best_write = std::min(best_write, took);
    check += block.data.size();
    crc_round();
  }
  BlockContent back;
  for (int r = 0; r < rounds; ++r) {
    back.Clear();
    double start = CpuNow();
    if (DecodeBlockBytes(bytes.data(), bytes.size(), {}, &back) != 1) return 1;
    double took = CpuNow() - start;
    if (r == 0) first_read = took;
    best_read = std::min(best_read, took);
    check += back.SampleCount();
    crc_round();
  }
  double size = static_cast<double>(bytes.size());
  double crc_rate = size / best_crc;
  std::printf("BENCH codec_zlib_crc32 %.1f MB/s ratio=1.000 goal=1.00 pass\n", crc_rate / 1e6);
  Report("codec_write", size / best_write, crc_rate);
  Report("codec_read", size / best_read, crc_rate);
  std::printf("first round, into fresh memory: write %.1f MB/s, read %.1f MB/s\n",
              size / first_write / 1e6, size / first_read / 1e6);
  std::printf("(check %llu)\n", static_cast<unsigned long long>(check));
  return 0;
}
