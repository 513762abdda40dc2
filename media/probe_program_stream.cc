// The MPEG pack probe with its MPEG-1 (Video CD) and MPEG-2 (SVCD, MPEG-4, DVD) checks.
#include <cstring>
#include <vector>

#include "media/file_type.h"
#include "mpeg_ps_syntax.h"

namespace marquel {
namespace {

constexpr int64_t kStartCodeSearch = 2048;  // offsets tried for the first prefix
constexpr uint32_t kSvcdBlock = 2324;
constexpr uint32_t kScanBlock = 2048;

const uint8_t kPackStart[4] = {0x00, 0x00, 0x01, 0xBA};

// Offset of the first 00 00 01 among offsets 0..2047, 2048 when there is none, -1 when
// the data ends before a prefix is found. One read of 2050 bytes answers the same as a
// 3-byte read at each offset: a short read at offset k means the file ends before k + 3.
int64_t FirstStartCodeOffset(ProbeSource& source) {
  uint8_t head[kStartCodeSearch + 2];
  if (source.Seek(0) != 0) return -1;
  const int64_t n = source.Read(head, sizeof head);
  for (int64_t k = 0; k < kStartCodeSearch; ++k) {
    if (k + 3 > n) return -1;
    if (head[k] == 0 && head[k + 1] == 0 && head[k + 2] == 1) return k;
  }
  return kStartCodeSearch;
}

// Reads 34 bytes from where the 5-byte pack read left the position, without seeking
// back: the comparison therefore only matches when a second pack header starts five
// bytes after the first start code. A real Video CD file is thus MPEG-1. Kept as built.
uint32_t Mpeg1Check(ProbeSource& source) {
  uint8_t bytes[34] = {};  // a short read compares against zeros
  source.Read(bytes, sizeof bytes);
  static const uint8_t kVcdPack[6] = {0x00, 0x00, 0x01, 0xBA, 0x21, 0x00};
  static const uint8_t kVcdMuxRate[3] = {0x80, 0x1B, 0x91};  // 3528 * 50 bytes/s
  if (std::memcmp(bytes, kVcdPack, 6) == 0 && std::memcmp(bytes + 9, kVcdMuxRate, 3) == 0) {
    return MQ_FORMAT_VCD;
  }
  return MQ_FORMAT_MPEG1;
}

enum class SvcdAnswer { kYes, kNo, kUndecided };

// The SVCD test on a block led by a video packet: the first sequence header at
// positions 18..2323 gives the picture size and frame-rate code. A header too close to
// the block's end for its size word reads as size 0, rate 0, which answers no. A block
// without a sequence header leaves the test undecided.
SvcdAnswer SvcdPictureFits(const uint8_t* block) {
  for (uint32_t q = 18; q + 4 <= kSvcdBlock; ++q) {
    if (block[q] != 0 || block[q + 1] != 0 || block[q + 2] != 1 || block[q + 3] != 0xB3) {
      continue;
    }
    const uint32_t word = q + 8 <= kSvcdBlock ? ps::Be32(block + q + 4) : 0;
    const uint32_t width = word >> 20;
    const uint32_t height = word >> 8 & 0xFFF;
    const uint32_t rate_code = word & 0xF;
    bool fits = false;
    if (rate_code == 4) fits = (width == 480 || width == 704) && height == 480;
    // At 25 frames per second only 480x576 passes (704x576 does not): this asymmetry
    // with the 29.97 case is intended and kept.
    if (rate_code == 3) fits = (width == 480 || height == 704) && height == 576;
    return fits ? SvcdAnswer::kYes : SvcdAnswer::kNo;
  }
  return SvcdAnswer::kUndecided;
}

// Super Video CD: whole 2324-byte blocks, each beginning with a pack start code, up to
// the first block with a sequence header right behind its pack header. Reaching the end
// of the file keeps the answer yes.
bool LooksLikeSvcd(ProbeSource& source) {
  std::vector<uint8_t> block(kSvcdBlock);
  if (source.Seek(0) != 0) return false;
  for (;;) {
    const int64_t n = source.Read(block.data(), kSvcdBlock);
    if (n <= 0) return n == 0;
    if (n < kSvcdBlock || std::memcmp(block.data(), kPackStart, 4) != 0) return false;
    static const uint8_t kVideoPacket[4] = {0x00, 0x00, 0x01, 0xE0};
    if (std::memcmp(block.data() + 14, kVideoPacket, 4) != 0) continue;
    const SvcdAnswer answer = SvcdPictureFits(block.data());
    if (answer != SvcdAnswer::kUndecided) return answer == SvcdAnswer::kYes;
  }
}

// The start code at `j` of a block of n bytes: a format code when it decides, else -1.
int32_t DecideAt(const uint8_t* b, size_t j, size_t n) {
  const uint8_t code = b[j + 3];
  if (code == 0xB6 || code == 0xB0) return MQ_FORMAT_MPEG4;
  if (code == 0xB3 && n - j >= 10) {
    const bool next_code = b[j + 7] == 0 && b[j + 8] == 0 && b[j + 9] == 1;
    return next_code ? MQ_FORMAT_MPEG4 : MQ_FORMAT_MPEG2;
  }
  if (code == ps::kPrivateStream2 && n - j >= 8) {
    if (b[j + 4] == 0x07 && b[j + 5] == 0xD4 && b[j + 6] == 0x50) return MQ_FORMAT_VRO;
    if (b[j + 4] == 0x03 && b[j + 5] == 0xD4 && b[j + 6] == 0x00) return MQ_FORMAT_VOB;
    return MQ_FORMAT_NONE;
  }
  return -1;
}

// The second MPEG-2 scan: the first decisive start code in file order. Blocks are
// examined one by one without overlap, so a start code that straddles two blocks is not
// seen, and in a block of n bytes only positions 0..n-5 are tried. Kept as built.
uint32_t ScanStartCodes(ProbeSource& source) {
  if (!source.IsValid()) return MQ_FORMAT_MPEG2;
  source.Seek(0);
  uint8_t block[kScanBlock];
  for (;;) {
    const int64_t got = source.Read(block, kScanBlock);
    if (got <= 0) return MQ_FORMAT_MPEG2;
    const size_t n = static_cast<size_t>(got);
    if (n < 5) continue;
    const size_t end = n - 4;  // positions 0 .. n-5
    for (size_t j = 0; (j = ps::FindStartCodePrefix(block, j, end)) < end; ++j) {
      const int32_t answer = DecideAt(block, j, n);
      if (answer >= 0) return static_cast<uint32_t>(answer);
    }
  }
}

uint32_t Mpeg2Check(ProbeSource& source) {
  if (LooksLikeSvcd(source)) return MQ_FORMAT_SVCD;
  return ScanStartCodes(source);
}

}  // namespace

uint32_t ProbeProgramStream(ProbeSource& source) {
  const int64_t k = FirstStartCodeOffset(source);
  if (k < 0) return MQ_FORMAT_NONE;
  uint8_t pack[5];
  if (source.Seek(k) != k || source.Read(pack, 5) != 5) return MQ_FORMAT_NONE;
  if (std::memcmp(pack, kPackStart, 4) != 0) return MQ_FORMAT_NONE;
  if ((pack[4] & 0xC0) == 0x40) return Mpeg2Check(source);
  if ((pack[4] & 0xF0) == 0x20) return Mpeg1Check(source);
  return MQ_FORMAT_NONE;
}

uint32_t ProbeProgramStream(FileHandle handle) {
  FileProbeSource source(handle);
  return ProbeProgramStream(source);
}

}  // namespace marquel
