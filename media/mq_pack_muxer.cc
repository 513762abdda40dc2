// MQPackMuxer: pack headers, data packets, padding and the two flush variants.
#include "media/mq_pack_muxer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "media/file_type.h"

namespace marquel {
namespace {

// All stuffing and padding bytes come from here.
constexpr size_t kFillBytes = 4096;
const std::array<uint8_t, kFillBytes>& FillArea() {
  static const std::array<uint8_t, kFillBytes> fill = [] {
    std::array<uint8_t, kFillBytes> a;
    a.fill(0xFF);
    return a;
  }();
  return fill;
}

// The third 24-bit group of an MPEG-2 pack header for the fixed-rate types: the mux rate
// and its two marker bits.
constexpr uint32_t kSvcdRateField = 27891;  // mux rate 6972, '11'
constexpr uint32_t kDvdRateField = 100803;  // mux rate 25200, '11'
// The type-6 PES extension: flags 0x10 (STD buffer present), '01', scale 1, size 230.
constexpr uint32_t kSvcdPesExtension = 0x1060E6;

}  // namespace

int32_t MQPackMuxer::TypeForFormat(int32_t format) {
  switch (format) {
    case static_cast<int32_t>(MQ_FORMAT_MPEG1):
      return kTypeMpeg1;
    case static_cast<int32_t>(MQ_FORMAT_VCD):
      return kTypeVcd;
    case static_cast<int32_t>(MQ_FORMAT_SVCD):
      return kTypeSvcd;
    case static_cast<int32_t>(MQ_FORMAT_VOB):
      return kTypeDvd;
    default:
      return kTypeMpeg2;
  }
}

MQPackMuxer::MQPackMuxer() = default;

bool MQPackMuxer::SetType(int32_t type) {
  type_ = type;
  switch (type) {
    case kTypeMpeg1:
    case kTypeVcd:
      pack_size_ = 2324, payload_room_ = 2304, full_payload_ = 2294;
      return true;
    case kTypeSvcd:
      pack_size_ = 2324, payload_room_ = 2306, full_payload_ = 2298;
      return true;
    case kTypeMpeg2:
    case kTypeDvd:
    case kTypeDvdOther:
      pack_size_ = 2048, payload_room_ = 2030, full_payload_ = 2025;
      return true;
    default:
      pack_size_ = payload_room_ = full_payload_ = 0;
      return false;
  }
}

void MQPackMuxer::SetClock(uint64_t base, uint32_t extension) {
  clock_base_ = base & ((uint64_t{1} << 33) - 1);
  clock_ext_ = extension & 0x1FF;
}

int32_t MQPackMuxer::Initialise(uint64_t argument) {
  uint64_t capacity = argument == 0 ? kDefaultOutputBytes : argument / 8;
  capacity = std::clamp<uint64_t>(capacity, 2 * kLargestPack, kDefaultOutputBytes);
  try {
    input_.assign(kInputBytes, 0);
    output_.assign(static_cast<size_t>(capacity), 0);
  } catch (const std::bad_alloc&) {
    input_.clear();
    output_.clear();
    return 0;
  }
  in_begin_ = in_end_ = out_begin_ = out_end_ = 0;
  bit_acc_ = 0;
  bit_count_ = 0;
  return 1;
}

size_t MQPackMuxer::Feed(const uint8_t* bytes, size_t count) {
  if (input_.empty() || full_payload_ == 0) return 0;
  size_t taken = 0;
  while (true) {
    if (in_end_ == input_.size() && in_begin_ > 0) {
      std::memmove(input_.data(), input_.data() + in_begin_, InputCount());
      in_end_ -= in_begin_;
      in_begin_ = 0;
    }
    size_t n = std::min(count - taken, input_.size() - in_end_);
    std::memcpy(input_.data() + in_end_, bytes + taken, n);
    in_end_ += n;
    taken += n;
    while (InputCount() >= static_cast<size_t>(full_payload_) && OutputRoom(pack_size_))
      EmitFullPack();
    // Stop when everything is in, or when neither buffer can move on.
    if (taken == count || n == 0) break;
  }
  return taken;
}

int32_t MQPackMuxer::TakePack(uint8_t* out) {
  if (pack_size_ == 0 || OutputCount() < static_cast<size_t>(pack_size_)) return 0;
  return static_cast<int32_t>(TakeOutput(out, static_cast<size_t>(pack_size_)));
}

size_t MQPackMuxer::TakeOutput(uint8_t* out, size_t max) {
  size_t n = std::min(max, OutputCount());
  std::memcpy(out, output_.data() + out_begin_, n);
  out_begin_ += n;
  if (out_begin_ == out_end_) out_begin_ = out_end_ = 0;
  return n;
}

// Makes room for `bytes` at the output's end, moving the waiting bytes to the front when
// that helps.
bool MQPackMuxer::OutputRoom(size_t bytes) {
  if (output_.size() - out_end_ >= bytes) return true;
  if (output_.size() - OutputCount() < bytes) return false;
  std::memmove(output_.data(), output_.data() + out_begin_, OutputCount());
  out_end_ -= out_begin_;
  out_begin_ = 0;
  return true;
}

void MQPackMuxer::PutBits(uint64_t value, int bits) {
  for (int i = bits - 1; i >= 0; --i) {
    bit_acc_ = (bit_acc_ << 1) | static_cast<uint32_t>((value >> i) & 1);
    if (++bit_count_ == 8) {
      output_[out_end_++] = static_cast<uint8_t>(bit_acc_);
      bit_acc_ = 0;
      bit_count_ = 0;
    }
  }
}

void MQPackMuxer::PutBytes(const uint8_t* bytes, size_t n) {
  std::memcpy(output_.data() + out_end_, bytes, n);
  out_end_ += n;
}

void MQPackMuxer::PutFill(size_t n) {
  while (n > 0) {
    size_t k = std::min(n, kFillBytes);
    PutBytes(FillArea().data(), k);
    n -= k;
  }
}

void MQPackMuxer::WritePackHeader() {
  PutBits(0x000001BA, 32);
  PutBits(IsMpeg1() ? 0x2 : 0x1, IsMpeg1() ? 4 : 2);
  PutBits(clock_base_ >> 30, 3);
  PutBits(1, 1);
  PutBits((clock_base_ >> 15) & 0x7FFF, 15);
  PutBits(1, 1);
  PutBits(clock_base_ & 0x7FFF, 15);
  PutBits(1, 1);
  if (IsMpeg1()) {
    PutBits(1, 1);
    PutBits(mux_rate_, 22);
    PutBits(1, 1);
    return;
  }
  PutBits(clock_ext_, 9);
  PutBits(1, 1);
  if (type_ == kTypeSvcd)
    PutBits(kSvcdRateField, 24);
  else if (type_ == kTypeDvd || type_ == kTypeDvdOther)
    PutBits(kDvdRateField, 24);
  else
    PutBits((uint64_t{mux_rate_} << 2) | 0x3, 24);
  PutBits(0x1F, 5);
  PutBits(0, 3);  // no pack stuffing
}

void MQPackMuxer::WritePacketHeader(int32_t payload, int32_t stuffing) {
  PutBits(0x000001, 24);
  PutBits(stream_id_, 8);
  if (IsMpeg1()) {
    PutBits(static_cast<uint32_t>(payload + stuffing + 12), 16);
    PutFill(static_cast<size_t>(9 + stuffing));
    PutBits(0x1, 2);
    PutBits(1, 1);     // STD buffer scale
    PutBits(46, 13);   // STD buffer size
    PutBits(0x0F, 8);  // no time stamps
    return;
  }
  const bool svcd = type_ == kTypeSvcd;
  PutBits(static_cast<uint32_t>(payload + stuffing + 3 + (svcd ? 3 : 0)), 16);
  PutBits(0x81, 8);
  PutBits(0, 2);  // no time stamps
  PutBits(svcd ? 1 : 0, 6);
  PutBits(static_cast<uint32_t>(stuffing + (svcd ? 3 : 0)), 8);
  if (svcd) PutBits(kSvcdPesExtension, 24);
  PutFill(static_cast<size_t>(stuffing));
}

void MQPackMuxer::WritePadding(int32_t length) {
  if (length <= 0) return;
  PutBits(0x000001BE, 32);
  PutBits(static_cast<uint32_t>(length), 16);
  if (IsMpeg1()) {
    PutBits(0x0F, 8);
    PutFill(static_cast<size_t>(length - 1));
  } else {
    PutFill(static_cast<size_t>(length));
  }
}

void MQPackMuxer::EmitFullPack() {
  WritePackHeader();
  WritePacketHeader(full_payload_, 0);
  PutBytes(input_.data() + in_begin_, static_cast<size_t>(full_payload_));
  in_begin_ += static_cast<size_t>(full_payload_);
}

// The last pack of the data: n waiting bytes (0 < n < a full packet), stuffed or padded
// to the pack size by the arithmetic of the muxer's kind.
void MQPackMuxer::EmitLastPack(int32_t n) {
  WritePackHeader();
  if (IsMpeg1()) {
    const int32_t room = payload_room_ - n;
    const int32_t stuffing = room - 16 < 0 ? room - 10 : 0;
    WritePacketHeader(n, stuffing);
    PutBytes(input_.data() + in_begin_, static_cast<size_t>(n));
    WritePadding(room - 16);
  } else {
    const bool svcd = type_ == kTypeSvcd;
    const int32_t fill = pack_size_ - (svcd ? 26 : 23);
    const int32_t threshold = pack_size_ - (svcd ? 33 : 30);
    WritePacketHeader(n, n >= threshold ? fill - n : 0);
    PutBytes(input_.data() + in_begin_, static_cast<size_t>(n));
    if (n < threshold) WritePadding(fill - n - 6);
  }
  in_begin_ += static_cast<size_t>(n);
  if (in_begin_ == in_end_) in_begin_ = in_end_ = 0;
}

void MQPackMuxer::FlushOnce(const MQEndRecord* record, bool* record_pending) {
  const int32_t waiting = static_cast<int32_t>(InputCount());
  if (record != nullptr) {
    const int32_t limit =
        IsMpeg1() ? payload_room_ - 24 - 36 : pack_size_ - (type_ == kTypeSvcd ? 33 : 30) - 36;
    if (waiting <= limit) {
      SerialiseMQEndRecord(*record, input_.data() + in_end_);
      in_end_ += kMQEndRecordSize;
      *record_pending = false;
    } else {
      *record_pending = true;
    }
  }
  const int32_t n = static_cast<int32_t>(InputCount());
  if (n > 0) EmitLastPack(n);
}

int32_t MQPackMuxer::Flush(const MQEndRecord* record) {
  if (input_.empty() || full_payload_ == 0) return 0;
  while (InputCount() >= static_cast<size_t>(full_payload_) && OutputRoom(pack_size_))
    EmitFullPack();
  if (InputCount() >= static_cast<size_t>(full_payload_)) return 0;
  if (!OutputRoom(2 * static_cast<size_t>(pack_size_))) return 0;
  // Feed leaves less than a full packet waiting; the record fits behind it (the input is
  // far larger than two packets).
  if (input_.size() - in_end_ < kMQEndRecordSize) {
    std::memmove(input_.data(), input_.data() + in_begin_, InputCount());
    in_end_ -= in_begin_;
    in_begin_ = 0;
  }
  bool pending = false;
  FlushOnce(record, &pending);
  if (pending) {
    SerialiseMQEndRecord(*record, input_.data() + in_end_);
    in_end_ += kMQEndRecordSize;
    FlushOnce(nullptr, &pending);
  }
  return 1;
}

}  // namespace marquel
