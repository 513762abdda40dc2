#include "media/stream_ring.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace marquel {

namespace {
constexpr int32_t kDefaultCapacity = 16;
}  // namespace

bool StreamRing::Create(int32_t capacity) {
  Destroy();
  if (capacity < 0) return false;
  if (capacity == 0) capacity = kDefaultCapacity;
  data_.reset(new (std::nothrow) uint8_t[capacity]);
  if (!data_) return false;
  capacity_ = capacity;
  return true;
}

void StreamRing::Destroy() {
  data_.reset();
  capacity_ = 0;
  Reset();
  saved_ = Saved();
}

void StreamRing::Reset() {
  write_ = read_ = 0;
  bit_count_ = 0;
  partial_ = 0;
  bit_padding_ = 0;
  overrun_ = false;
}

int32_t StreamRing::Count() const {
  if (capacity_ <= 0) return 0;
  return write_ >= read_ ? write_ - read_ : write_ - read_ + capacity_;
}

bool StreamRing::IsFull() const {
  if (capacity_ <= 0) return false;
  return write_ + 1 == read_ || write_ == read_ + capacity_ - 1;
}

int32_t StreamRing::ContiguousCount() const {
  return write_ >= read_ ? write_ - read_ : capacity_ - read_;
}

// Copies n bytes to the array at the write index. Bytes beyond one capacity would only be
// overwritten again by later ones, so only the last `capacity` of them are copied, after
// advancing the index past the others; the result equals copying all of them in turn.
void StreamRing::StoreBytes(const uint8_t* bytes, int32_t n) {
  const int32_t free_space = FreeSpace();
  if (n > free_space) overrun_ = true;
  if (n > capacity_) {
    write_ = static_cast<int32_t>((int64_t{write_} + (n - capacity_)) % capacity_);
    bytes += n - capacity_;
    n = capacity_;
  }
  // memmove: a caller may append bytes that it peeked at inside this very ring.
  const int32_t first = std::min(n, capacity_ - write_);
  std::memmove(data_.get() + write_, bytes, first);
  if (n > first) std::memmove(data_.get(), bytes + first, n - first);
  write_ = n > first ? n - first : Wrap(write_ + first);
}

void StreamRing::Append(const void* bytes, int32_t n) {
  if (n <= 0 || capacity_ <= 0 || bytes == nullptr) return;
  const auto* in = static_cast<const uint8_t*>(bytes);
  if (bit_count_ == 0) {
    StoreBytes(in, n);
    return;
  }
  // Each byte straddles the partial byte and the next one.
  const int32_t shift = bit_count_;
  for (int32_t i = 0; i < n; ++i) {
    PutBitByte(static_cast<uint8_t>(partial_ | (in[i] >> shift)));
    partial_ = static_cast<uint8_t>(in[i] << (8 - shift));
  }
}

void StreamRing::CopyOut(void* out, int32_t n) const {
  const int32_t first = std::min(n, capacity_ - read_);
  auto* dst = static_cast<uint8_t*>(out);
  std::memcpy(dst, data_.get() + read_, first);
  if (n > first) std::memcpy(dst + first, data_.get(), n - first);
}

int32_t StreamRing::Read(void* out, int32_t n) {
  const int32_t done = Peek(out, n);
  read_ = Wrap(read_ + done);
  return done;
}

int32_t StreamRing::Peek(void* out, int32_t n) const {
  if (n <= 0 || out == nullptr) return 0;
  const int32_t done = std::min(n, Count());
  if (done > 0) CopyOut(out, done);
  return done;
}

int32_t StreamRing::Skip(int32_t n) {
  if (n <= 0) return 0;
  const int32_t done = std::min(n, Count());
  read_ = Wrap(read_ + done);
  return done;
}

int32_t StreamRing::TakeAll(void* out) {
  if (out == nullptr) return 0;
  const int32_t held = Count();
  if (held > 0) CopyOut(out, held);
  read_ = write_;
  overrun_ = false;
  return held;
}

void StreamRing::Mark() {
  saved_.read = read_;
  saved_.bit_count = bit_count_;
  saved_.partial = partial_;
  saved_.bit_padding = bit_padding_;
  saved_.overrun = overrun_;
}

void StreamRing::Restore() {
  // A mark taken before Destroy() or Create() cannot point past the current array.
  read_ = saved_.read < capacity_ ? saved_.read : 0;
  bit_count_ = saved_.bit_count;
  partial_ = saved_.partial;
  bit_padding_ = saved_.bit_padding;
  overrun_ = saved_.overrun;
}

int32_t StreamRing::SkipToZeroPair() {
  int32_t skipped = 0;
  int32_t held = Count();
  while (held > 0) {
    // Step over the non-zero bytes of the unwrapped run at once.
    const int32_t run = ContiguousCount();
    const uint8_t* start = data_.get() + read_;
    const void* zero = std::memchr(start, 0, run);
    const int32_t step =
        zero ? static_cast<int32_t>(static_cast<const uint8_t*>(zero) - start) : run;
    read_ = Wrap(read_ + step);
    skipped += step;
    held -= step;
    if (zero == nullptr) continue;
    // On a 0: 00 00 xx needs the two bytes after it, and the fourth byte to be held.
    if (held < 4) break;
    if (At(1) == 0 && At(2) != 0) break;
    read_ = Wrap(read_ + 1);
    ++skipped;
    --held;
  }
  return skipped;
}

int32_t StreamRing::SkipToByte(uint8_t value) {
  int32_t skipped = 0;
  int32_t held = Count();
  while (held > 0) {
    const int32_t run = ContiguousCount();
    const uint8_t* start = data_.get() + read_;
    const void* hit = std::memchr(start, value, run);
    const int32_t step = hit ? static_cast<int32_t>(static_cast<const uint8_t*>(hit) - start) : run;
    read_ = Wrap(read_ + step);
    skipped += step;
    held -= step;
    if (hit != nullptr) break;
  }
  return skipped;
}

// Stores one completed byte of the bit writer at the write index.
void StreamRing::PutBitByte(uint8_t byte) {
  if (FreeSpace() < 1) overrun_ = true;
  data_[write_] = byte;
  write_ = Wrap(write_ + 1);
}

void StreamRing::WriteBits(uint32_t value, int32_t bits) {
  if (bits <= 0 || bits > 32 || capacity_ <= 0) return;
  for (int32_t i = bits - 1; i >= 0; --i) {
    partial_ = static_cast<uint8_t>(partial_ | (((value >> i) & 1u) << (7 - bit_count_)));
    if (++bit_count_ == 8) {
      PutBitByte(partial_);
      partial_ = 0;
      bit_count_ = 0;
    }
  }
}

void StreamRing::FlushBits() {
  if (bit_count_ > 0 && capacity_ > 0) {
    const uint8_t low_mask = static_cast<uint8_t>(0xFFu >> bit_count_);
    PutBitByte(static_cast<uint8_t>(partial_ | (bit_padding_ & low_mask)));
  }
  bit_count_ = 0;
  partial_ = 0;
  overrun_ = false;
}

}  // namespace marquel
