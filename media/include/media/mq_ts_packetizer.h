// MQTsPacketizer: cuts the server's data for one program into transport packets of its own.
//
// A program's serialised streams are fed one after another and form one continuous
// payload. Every 183 payload bytes make one packet on the MQ PID: the unit's prefix (4
// bytes 0xFF for 192-byte units, 16 for 204-byte units, none for 188), sync byte 0x47,
// payload unit start set in every packet, payload only, a continuity counter from 0
// counting modulo 16, a pointer field of 0, then the 183 bytes. Finish pads the last
// packet's payload with 0xFF. Readers take the payload after the pointer field.
//
// Memory is fixed: finished packets gather in one block of at most kBlockBytes and go to
// the sink whenever it is full, and at Finish.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace marquel {

// Payload bytes per MQ packet: the 188-byte packet less its header and pointer field.
constexpr size_t kMQTsPayloadBytes = 183;

// The prefix before the 188-byte packet in a unit of `unit_size` bytes: 0 for 188, 4 for
// 192, 16 for 204; -1 for any other size.
int32_t TsUnitPrefixBytes(int32_t unit_size);

class MQTsPacketizer {
 public:
  static constexpr size_t kBlockBytes = 512000;
  // Takes a block of whole packets; false stops the packetizer (the write failed).
  using Sink = std::function<bool(const uint8_t* bytes, size_t count)>;

  // A packetizer for units of `unit_size` bytes (188, 192 or 204) on `pid` (13 bits).
  // With another unit size it is not valid and every call fails.
  MQTsPacketizer(int32_t unit_size, uint16_t pid, Sink sink);

  bool Valid() const { return prefix_ >= 0; }

  // Appends payload bytes; full blocks go to the sink. False when the sink failed (then
  // and afterwards) or the packetizer is not valid.
  bool Feed(const uint8_t* bytes, size_t count);

  // Pads and sends the last packet, then the block. False as for Feed. Feeding after
  // Finish starts a new payload whose counter goes on.
  bool Finish();

  // Packets made so far, sent or waiting.
  uint64_t PacketCount() const { return packets_; }

 private:
  void MakePacket();
  bool Flush();

  int32_t unit_size_;
  int32_t prefix_;
  uint16_t pid_;
  Sink sink_;
  uint8_t counter_ = 0;
  uint64_t packets_ = 0;
  bool failed_ = false;
  std::vector<uint8_t> payload_;  // up to 183 bytes not yet in a packet
  std::vector<uint8_t> block_;    // whole packets waiting for the sink
  size_t block_capacity_ = 0;
};

}  // namespace marquel
