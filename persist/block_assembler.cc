#include "block_assembler.h"

#include <algorithm>

#include "tags/block_format.h"

namespace marquel {

void BlockAssembler::StartStream(int index) {
  part_ = index;
  // A stream buffer is made with its size plus one byte, as far as that is reasonable
  // before the bytes have arrived.
  streams_[index].reserve(std::min<size_t>(size_t{sizes_[index]} + 1, kMaxReserve));
}

BlockAssembler::State BlockAssembler::Add(const uint8_t* bytes, size_t n, size_t* used) {
  size_t taken = 0;
  while (state_ == State::kNeedMore) {
    if (part_ < 0) {
      size_t k = std::min(n - taken, kHeaderSize - header_have_);
      std::copy(bytes + taken, bytes + taken + k, header_ + header_have_);
      header_have_ += k;
      taken += k;
      if (header_have_ < kHeaderSize) break;
      if (!BlockHeaderCrcOk(header_)) {
        state_ = State::kHeaderCrcBad;
        break;
      }
      BlockHeader h = ParseBlockHeader(header_);
      // Stored order: tag-id stream, length stream, data stream.
      sizes_[0] = h.tag_id_size;
      sizes_[1] = h.length_size;
      sizes_[2] = h.data_size;
      StartStream(0);
      continue;
    }
    std::vector<uint8_t>& s = streams_[part_];
    if (s.size() < sizes_[part_]) {
      size_t k = std::min(n - taken, size_t{sizes_[part_]} - s.size());
      s.insert(s.end(), bytes + taken, bytes + taken + k);
      taken += k;
      if (s.size() < sizes_[part_]) break;
    }
    // The part is complete: check it and move on.
    if (!StreamCrcOk(s.data(), s.size())) {
      static constexpr State kBad[] = {State::kTagIdCrcBad, State::kLengthCrcBad,
                                       State::kDataCrcBad};
      state_ = kBad[part_];
    } else if (part_ == 2) {
      state_ = State::kComplete;
    } else {
      StartStream(part_ + 1);
    }
  }
  if (used) *used = taken;
  return state_;
}

}  // namespace marquel
