// MPEG-2 program streams: 14-byte pack headers with stuffing, and clock epochs.
#include "media/mpeg_pack_check.h"
#include "mpeg_pack_scan.h"

namespace marquel {

struct Mpeg2PackCheck::ScanTraits {
  static constexpr size_t kMinPackBytes = 14;
  // An audio packet makes the pack an audio pack even after video in the same pack.
  static constexpr bool kAudioClearsVideo = true;

  Mpeg2PackCheck& check;

  int32_t analysis() const { return check.analysis_; }
  int64_t time_base() const { return check.time_base_; }
  int64_t& first_time_stamp() { return check.first_time_stamp_; }
  size_t PackHeaderLength(const uint8_t* pack) const { return 14u + (pack[13] & 7u); }
  ps::PesHeader ParsePes(const uint8_t* packet, uint32_t size) const {
    return ps::ParseMpeg2PesHeader(packet, size);
  }

  // A clock that restarts at 0 or goes back begins a new epoch: the time of the old one
  // is added to the time base, so that video times keep increasing.
  void ReadClock(const uint8_t* pack, uint64_t* base, uint32_t* ext) {
    *base = ps::Mpeg2ScrBase(pack);
    *ext = ps::Mpeg2ScrExt(pack);
    const uint64_t clock = *base * 300u + *ext;
    const uint64_t previous = check.previous_clock_;
    if ((clock == 0 && previous != 0) || clock < previous) {
      check.time_base_ =
          static_cast<int64_t>(static_cast<uint64_t>(check.time_base_) + previous / 300u);
      check.first_time_stamp_ = 0;
    }
    check.previous_clock_ = clock;
  }
};

uint32_t Mpeg2PackCheck::Check(const uint8_t* buffer, uint32_t length, MpegPackList* list,
                               bool final_pack) {
  if (buffer == nullptr || list == nullptr) return 0;
  ScanTraits traits{*this};
  return ps::PackScanner<ScanTraits>(traits, buffer, length, list).Run(final_pack);
}

}  // namespace marquel
