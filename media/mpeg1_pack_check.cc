// MPEG-1 system streams: fixed 12-byte pack headers and a single clock epoch.
#include "media/mpeg_pack_check.h"
#include "mpeg_pack_scan.h"

namespace marquel {

struct Mpeg1PackCheck::ScanTraits {
  // No minimum of remaining bytes is tested before a pack header; the loop's own bound
  // (more than 16 bytes left) already covers the 12 bytes read.
  static constexpr size_t kMinPackBytes = 0;
  static constexpr bool kAudioClearsVideo = false;

  Mpeg1PackCheck& check;

  int32_t analysis() const { return check.analysis_; }
  int64_t time_base() const { return 0; }
  int64_t& first_time_stamp() { return check.first_time_stamp_; }
  size_t PackHeaderLength(const uint8_t*) const { return 12; }
  ps::PesHeader ParsePes(const uint8_t* packet, uint32_t size) const {
    return ps::ParseMpeg1PesHeader(packet, size);
  }
  void ReadClock(const uint8_t* pack, uint64_t* base, uint32_t* ext) {
    *base = ps::Mpeg1ScrBase(pack);
    *ext = 0;
    check.previous_clock_ = *base * 300u;
  }
};

uint32_t Mpeg1PackCheck::Check(const uint8_t* buffer, uint32_t length, MpegPackList* list,
                               bool final_pack) {
  if (buffer == nullptr || list == nullptr) return 0;
  ScanTraits traits{*this};
  return ps::PackScanner<ScanTraits>(traits, buffer, length, list).Run(final_pack);
}

}  // namespace marquel
