// Splits a data block that arrives as a byte stream (the payload of the server's own
// packs or packets in a media file) into its header and three streams, checking each
// CRC as soon as its part is complete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace marquel {

class BlockAssembler {
 public:
  enum class State {
    kNeedMore,      // more payload is needed
    kComplete,      // header and the three streams are in, all CRCs good
    kHeaderCrcBad,  // the 26 header bytes do not match their CRC
    kTagIdCrcBad,   // the tag-id stream does not match its CRC
    kLengthCrcBad,  // the length stream does not match its CRC
    kDataCrcBad,    // the data stream does not match its CRC
  };

  // Takes the next n payload bytes and returns the state reached. Bytes after the data
  // stream (the end record, padding) are not taken: *used (when given) tells how many of
  // the n were. Once the state is not kNeedMore, further calls change nothing.
  State Add(const uint8_t* bytes, size_t n, size_t* used = nullptr);
  State state() const { return state_; }

  // The parts once complete (the header's 26 bytes; each stream with its CRC).
  const uint8_t* header() const { return header_; }
  std::vector<uint8_t>& tag_ids() { return streams_[0]; }
  std::vector<uint8_t>& lengths() { return streams_[1]; }
  std::vector<uint8_t>& data() { return streams_[2]; }

 private:
  static constexpr size_t kHeaderSize = 26;
  // Room reserved for a stream before its bytes arrive, at most; it grows as they come,
  // so a header announcing a huge stream costs nothing until the bytes are there.
  static constexpr size_t kMaxReserve = size_t{1} << 20;

  void StartStream(int index);

  State state_ = State::kNeedMore;
  uint8_t header_[kHeaderSize] = {};
  size_t header_have_ = 0;
  int part_ = -1;  // -1 while the header fills, then 0, 1, 2 for the streams
  uint32_t sizes_[3] = {0, 0, 0};
  std::vector<uint8_t> streams_[3];
};

}  // namespace marquel
