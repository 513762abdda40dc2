#include "tags/bit_buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/crc32.h"

namespace marquel {

bool BitReader::ReadBytes(uint8_t* out, size_t n) {
  if (BitsLeft() / 8 < n) return false;
  if ((pos_ & 7) == 0) {
    if (n > 0) std::memcpy(out, data_ + (pos_ >> 3), n);
    pos_ += static_cast<uint64_t>(n) * 8;
    return true;
  }
  // Off a byte boundary: eight bytes at a time from a shifted 64-bit window while nine
  // bytes are there to load, then one at a time.
  const int skip = static_cast<int>(pos_ & 7);
  size_t i = 0;
  for (size_t byte = static_cast<size_t>(pos_ >> 3); i + 8 <= n && byte + 9 <= size_;
       i += 8, byte += 8) {
    uint64_t w = Load64(data_ + byte) << skip | data_[byte + 8] >> (8 - skip);
    for (int k = 0; k < 8; ++k) out[i + k] = static_cast<uint8_t>(w >> (56 - 8 * k));
  }
  pos_ += static_cast<uint64_t>(i) * 8;
  uint32_t v = 0;
  for (; i < n; ++i) {
    ReadBits(8, &v);
    out[i] = static_cast<uint8_t>(v);
  }
  return true;
}

void BitBuffer::Reserve(size_t capacity) {
  if (capacity + kSlack > storage_.size()) storage_.resize(capacity + kSlack, 0);
}

void BitBuffer::Grow(size_t needed) {
  size_t doubled = capacity() * 2;
  if (spill_threshold_ > 0) {
    if (size_ > 0 && needed > spill_threshold_) {
      needed -= size_;
      Spill();
      if (needed + kSlack <= storage_.size()) return;
    }
    doubled = std::min(doubled, spill_threshold_);
  }
  size_t target = std::max(needed, doubled);
  target = std::max<size_t>(target, 64);
  storage_.resize(target + kSlack, 0);
}

void BitBuffer::Spill() {
  // After a failure the stream is lost whatever follows: its bytes are dropped, so that
  // memory stays bounded until the writer gives up.
  if (!spill_failed_) {
    if (!spill_) spill_ = StreamSpill::Create();
    if (!spill_ || !spill_->Append(storage_.data(), size_)) spill_failed_ = true;
  }
  spilled_ += size_;
  size_ = 0;
  read_pos_ = 0;
}

std::unique_ptr<StreamSpill> BitBuffer::ReleaseSpill() {
  spilled_ = 0;
  return std::move(spill_);
}

void BitBuffer::Clear() {
  size_ = 0;
  acc_ = 0;
  pending_ = 0;
  read_pos_ = 0;
  spilled_ = 0;
  spill_failed_ = false;
  spill_.reset();
}

void BitBuffer::Assign(const uint8_t* bytes, size_t n) {
  Clear();
  Reserve(n);
  if (n > 0) std::memcpy(storage_.data(), bytes, n);
  // Bytes past the data stay zero so that a stale tail never looks like content.
  std::fill(storage_.begin() + static_cast<ptrdiff_t>(n), storage_.end(), 0);
  size_ = n;
}

std::vector<uint8_t> BitBuffer::ReleaseBytes() {
  std::vector<uint8_t> out = std::move(storage_);
  out.resize(size_);
  // Growth by doubling can leave up to half the capacity unused; give it back.
  if (out.capacity() > out.size() + out.size() / 4 + 64) out.shrink_to_fit();
  storage_.clear();
  Clear();
  return out;
}

void BitBuffer::FlushWholeBytes() {
  while (pending_ >= 8) {
    if (size_ + kSlack > storage_.size()) Grow(size_ + 1);
    pending_ -= 8;
    storage_[size_++] = static_cast<uint8_t>(acc_ >> pending_);
  }
}

void BitBuffer::WriteBytes(const uint8_t* bytes, size_t n) {
  if (n == 0) return;
  if ((pending_ & 7) == 0) {
    // At a byte boundary the bytes go in as they are.
    FlushWholeBytes();
    if (size_ + n + kSlack > storage_.size()) Grow(size_ + n);
    std::memcpy(storage_.data() + size_, bytes, n);
    size_ += n;
    return;
  }
  // Off a byte boundary the bytes go in four at a time.
  size_t i = 0;
  for (; i + 4 <= n; i += 4)
    WriteBits(uint32_t(bytes[i]) << 24 | uint32_t(bytes[i + 1]) << 16 |
                  uint32_t(bytes[i + 2]) << 8 | bytes[i + 3],
              32);
  for (; i < n; ++i) WriteBits(bytes[i], 8);
}

void BitBuffer::PadToByte() {
  int rest = pending_ & 7;
  if (rest != 0) WriteBits(0, 8 - rest);
  FlushWholeBytes();
}

void BitBuffer::AppendCrc() {
  PadToByte();
  const uint32_t state = spill_ ? spill_->crc_state() : kCrc32IeeeInit;
  WriteBits(Crc32IeeeFinish(Crc32IeeeUpdate(state, storage_.data(), size_)), 32);
}

bool BitBuffer::ReadBits(int bits, uint32_t* value) {
  BitReader reader(storage_.data(), size_);
  reader.Seek(read_pos_);
  if (!reader.ReadBits(bits, value)) return false;
  read_pos_ = reader.bit_position();
  return true;
}

size_t BitBuffer::ReadBytes(uint8_t* out, size_t n) {
  if ((read_pos_ & 7) != 0) return 0;
  size_t at = static_cast<size_t>(read_pos_ >> 3);
  size_t count = at < size_ ? std::min(n, size_ - at) : 0;
  if (count > 0) std::memcpy(out, storage_.data() + at, count);
  read_pos_ += static_cast<uint64_t>(count) * 8;
  return count;
}

void BitBuffer::SetReadPosition(uint64_t bit) {
  read_pos_ = std::min<uint64_t>(bit, static_cast<uint64_t>(size_) * 8);
}

bool BitBuffer::HasValidCrc() const {
  if (size_ < 4) return false;
  const uint8_t* tail = storage_.data() + size_ - 4;
  uint32_t stored = uint32_t(tail[0]) << 24 | uint32_t(tail[1]) << 16 | uint32_t(tail[2]) << 8 |
                    uint32_t(tail[3]);
  return Crc32Ieee(storage_.data(), size_ - 4) == stored;
}

}  // namespace marquel
