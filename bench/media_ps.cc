// Speed of the program-stream pack checker: Mpeg2PackCheck::Check over about 200 MB of
// MPEG-2 program stream read from the page cache in 1 MiB pieces, against
// `cat FILE > /dev/null` (the cost of the reads alone) and `ffprobe -v error
// -show_packets` (a full demuxer, timed on a 32 MiB slice). Also times the MPEG-2 system
// decoder on the same file, for information.
//
// Usage: media_ps [SOURCE.mpg]   (default: mpeg2ps_long.mpg of the test media)
// The big file is made by repeating SOURCE in a temporary folder removed at the end.
// Prints BENCH lines; the goals are 1 GB/s and ten times ffprobe's rate.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "media/mpeg_pack_check.h"
#include "media/mpeg_system_dec.h"
#include "media_bench_util.h"
#include "platform/files.h"

namespace {

namespace fs = std::filesystem;
using marquel::bench::Clock;
using marquel::bench::MakeRepeated;
using marquel::bench::Report;
using marquel::bench::Seconds;
using marquel::bench::TimeCommand;

constexpr int64_t kTarget = int64_t{200} << 20;
constexpr int64_t kProbeSlice = int64_t{32} << 20;
constexpr uint32_t kReadSize = 1 << 20;
constexpr double kGoalGbPerS = 1.0;
constexpr double kGoalVsFfprobe = 10.0;

// Reads the file in 1 MiB pieces and cuts it into packs as a streaming caller does: the
// records of each piece are used and freed, and the bytes from the start of the pack
// still open are carried into the next piece. Answers the seconds taken.
double TimeCheck(const std::string& path, int32_t analysis, uint64_t* packs, uint64_t* intra) {
  marquel::FileHandle h =
      marquel::OpenFileHandle(path, marquel::GENERIC_READ, marquel::FILE_SHARE_READ, nullptr,
                              marquel::OPEN_EXISTING, 0, marquel::kInvalidFileHandle);
  if (h == marquel::kInvalidFileHandle) return -1;
  std::vector<uint8_t> buf(size_t{kReadSize} * 2);
  const auto start = Clock::now();
  marquel::Mpeg2PackCheck checker(analysis);
  marquel::MpegPackList list;
  size_t held = 0;
  *packs = *intra = 0;
  for (;;) {
    uint32_t got = 0;
    if (!marquel::ReadFile(h, buf.data() + held, kReadSize, &got)) break;
    const bool last = got == 0;
    held += got;
    checker.Check(buf.data(), static_cast<uint32_t>(held), &list, last);
    size_t carry_from = 0;
    if (list.head() != nullptr) carry_from = list.head()->pack_offset + list.head()->pack_length;
    *packs += list.count();
    for (const marquel::MpegPackRecord* r = list.head(); r != nullptr; r = r->next) {
      *intra += r->has_i_picture;
    }
    list.Clear();
    if (last) break;
    if (carry_from == 0 && held >= kReadSize) carry_from = held;  // no pack end in sight
    std::memmove(buf.data(), buf.data() + carry_from, held - carry_from);
    held -= carry_from;
  }
  const double seconds = Seconds(start);
  marquel::CloseFileHandle(h);
  return seconds;
}

double TimeDecoder(const std::string& path, int64_t* packs) {
  marquel::FileHandle h =
      marquel::OpenFileHandle(path, marquel::GENERIC_READ, marquel::FILE_SHARE_READ, nullptr,
                              marquel::OPEN_EXISTING, 0, marquel::kInvalidFileHandle);
  if (h == marquel::kInvalidFileHandle) return -1;
  std::vector<uint8_t> buf(kReadSize);
  const auto start = Clock::now();
  marquel::MPEG2SystemDec_c dec;
  dec.Reset();
  dec.SelectStream(0xFA);  // the stored-data reader's stream; absent here
  uint32_t got = 0;
  while (marquel::ReadFile(h, buf.data(), kReadSize, &got) && got > 0) {
    dec.Feed(buf.data(), static_cast<int32_t>(got));
  }
  const double seconds = Seconds(start);
  marquel::CloseFileHandle(h);
  *packs = dec.PackCount();
  return seconds;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string source =
      argc > 1 ? argv[1] : std::string(MARQUEL_TEST_MEDIA_DIR) + "/mpeg2ps_long.mpg";
  std::error_code ec;
  const fs::path dir = marquel::bench::MakeScratchFolder("media_ps_bench");
  const std::string big = (dir / "big.mpg").string();
  const std::string slice = (dir / "slice.mpg").string();
  int rc = 1;
  do {
    const int64_t size = MakeRepeated(source, big, kTarget);
    const int64_t slice_size = MakeRepeated(source, slice, kProbeSlice);
    if (size == 0 || slice_size == 0) {
      std::fprintf(stderr, "media_ps: cannot make the test files from %s\n", source.c_str());
      break;
    }
    const std::string quoted_big = "'" + big + "'";
    TimeCommand("cat " + quoted_big + " > /dev/null");  // into the page cache
    double cat = 1e9, check = 1e9, check_headers = 1e9, decode = 1e9;
    uint64_t packs = 0, intra = 0, header_packs = 0, header_intra = 0;
    int64_t decoded_packs = 0;
    for (int run = 0; run < 3; ++run) {
      cat = std::min(cat, TimeCommand("cat " + quoted_big + " > /dev/null"));
      check = std::min(check, TimeCheck(big, 1, &packs, &intra));
      check_headers = std::min(check_headers, TimeCheck(big, 0, &header_packs, &header_intra));
      decode = std::min(decode, TimeDecoder(big, &decoded_packs));
    }
    const double probe = TimeCommand("ffprobe -v error -show_packets '" + slice + "' > /dev/null");
    if (cat <= 0 || check <= 0 || check_headers <= 0 || decode <= 0 || probe <= 0 || packs == 0 ||
        packs != header_packs || intra == 0) {
      std::fprintf(stderr, "media_ps: a measurement failed\n");
      break;
    }
    const double gb = static_cast<double>(size) / 1e9;
    const double check_rate = gb / check;
    const double headers_rate = gb / check_headers;
    const double decode_rate = gb / decode;
    const double cat_rate = gb / cat;
    const double probe_rate = static_cast<double>(slice_size) / 1e9 / probe;
    std::fprintf(stderr,
                 "media_ps: %.2f GB, %llu packs (%llu with an I-picture); Check %.3f s "
                 "(%.2f GB/s), Check without analysis %.3f s (%.2f GB/s), system decoder "
                 "%.3f s (%.2f GB/s, %lld packs), cat %.3f s (%.2f GB/s), ffprobe %.3f s over "
                 "%.0f MB (%.3f GB/s)\n",
                 gb, static_cast<unsigned long long>(packs), static_cast<unsigned long long>(intra),
                 check, check_rate, check_headers, headers_rate, decode, decode_rate,
                 static_cast<long long>(decoded_packs), cat, cat_rate, probe, slice_size / 1e6,
                 probe_rate);
    Report("media_ps_check", check_rate, "GB/s", check_rate / cat_rate, kGoalGbPerS);
    Report("media_ps_check_vs_ffprobe", check_rate / probe_rate, "x", check_rate / probe_rate,
           kGoalVsFfprobe);
    Report("media_ps_check_headers", headers_rate, "GB/s", headers_rate / cat_rate, kGoalGbPerS);
    Report("media_ps_system_decoder", decode_rate, "GB/s", decode_rate / cat_rate, kGoalGbPerS);
    rc = 0;
  } while (false);
  fs::remove_all(dir, ec);
  return rc;
}
