// The server's data cut into transport packets on its own PID.
#include "media/mq_ts_packetizer.h"

#include <algorithm>

namespace marquel {

int32_t TsUnitPrefixBytes(int32_t unit_size) {
  switch (unit_size) {
    case 188:
      return 0;
    case 192:
      return 4;
    case 204:
      return 16;
    default:
      return -1;
  }
}

MQTsPacketizer::MQTsPacketizer(int32_t unit_size, uint16_t pid, Sink sink)
    : unit_size_(unit_size),
      prefix_(TsUnitPrefixBytes(unit_size)),
      pid_(static_cast<uint16_t>(pid & 0x1FFF)),
      sink_(std::move(sink)) {
  if (!Valid()) return;
  payload_.reserve(kMQTsPayloadBytes);
  block_capacity_ = kBlockBytes / static_cast<size_t>(unit_size_) * unit_size_;
  block_.reserve(block_capacity_);
}

void MQTsPacketizer::MakePacket() {
  block_.insert(block_.end(), static_cast<size_t>(prefix_), 0xFF);
  block_.push_back(0x47);
  block_.push_back(static_cast<uint8_t>(0x40 | (pid_ >> 8)));
  block_.push_back(static_cast<uint8_t>(pid_ & 0xFF));
  block_.push_back(static_cast<uint8_t>(0x10 | counter_));
  block_.push_back(0x00);
  block_.insert(block_.end(), payload_.begin(), payload_.end());
  payload_.clear();
  counter_ = static_cast<uint8_t>((counter_ + 1) & 0x0F);
  ++packets_;
}

bool MQTsPacketizer::Flush() {
  if (block_.empty()) return true;
  if (!sink_ || !sink_(block_.data(), block_.size())) failed_ = true;
  block_.clear();
  return !failed_;
}

bool MQTsPacketizer::Feed(const uint8_t* bytes, size_t count) {
  if (!Valid() || failed_) return false;
  while (count > 0) {
    const size_t take = std::min(count, kMQTsPayloadBytes - payload_.size());
    payload_.insert(payload_.end(), bytes, bytes + take);
    bytes += take;
    count -= take;
    if (payload_.size() < kMQTsPayloadBytes) break;
    MakePacket();
    if (block_.size() + static_cast<size_t>(unit_size_) > block_capacity_ && !Flush()) {
      return false;
    }
  }
  return true;
}

bool MQTsPacketizer::Finish() {
  if (!Valid() || failed_) return false;
  if (!payload_.empty()) {
    payload_.resize(kMQTsPayloadBytes, 0xFF);
    MakePacket();
  }
  return Flush();
}

}  // namespace marquel
