// Test helpers: transport streams that carry the server's data as the interleave leaves
// it, built from real program blocks, MQ packets and an information packet.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "media/mq_ts_info.h"
#include "media/mq_ts_packetizer.h"
#include "tags/block_format.h"
#include "tags/block_program.h"
#include "tags/mq_one_program.h"

namespace marquel::tstest {

using Bytes = std::vector<uint8_t>;

// The MQ packets of a program whose block is written, its streams fed in order.
inline Bytes MQPacketsOf(MQOneProgram& program, int32_t unit, uint16_t pid) {
  Bytes out;
  MQTsPacketizer packetizer(unit, pid, [&out](const uint8_t* b, size_t n) {
    out.insert(out.end(), b, b + n);
    return true;
  });
  ProgramBuffer* header = program.HeaderBuffer();
  EXPECT_NE(header, nullptr);
  if (header == nullptr) return out;
  EXPECT_TRUE(packetizer.Feed(header->bytes.data(), kBlockHeaderSize));
  for (ProgramBuffer* stream :
       {program.TagIdBuffer(), program.DataLengthBuffer(), program.DataBuffer()}) {
    EXPECT_TRUE(stream->ForEachChunk(
        65536, [&](const uint8_t* b, size_t n) { return packetizer.Feed(b, n); }));
  }
  EXPECT_TRUE(packetizer.Finish());
  return out;
}

// A null packet (PID 0x1FFF) of the unit size, standing in for an original packet.
inline Bytes NullUnit(int32_t unit) {
  Bytes u(static_cast<size_t>(unit), 0xFF);
  const size_t at = static_cast<size_t>(TsUnitPrefixBytes(unit));
  u[at] = 0x47;
  u[at + 1] = 0x1F;
  u[at + 2] = 0xFF;
  u[at + 3] = 0x10;
  return u;
}

struct ProgramPackets {
  uint16_t pmt_pid = 0;
  Bytes packets;
};

// Appends each program's packets to `file` (the original file of `unit`-byte units), one
// null unit after every `group` MQ packets, then the information packet.
inline MQTsInfo AppendMQData(Bytes& file, int32_t unit, uint16_t mq_pid,
                             const std::vector<ProgramPackets>& programs, int32_t group = 3) {
  MQTsInfo info;
  info.original_mtime = 1700000000;
  info.original_size = file.size();
  info.mq_pid = mq_pid;
  info.merge_mtime = 1700000100;
  const Bytes filler = NullUnit(unit);
  for (const ProgramPackets& p : programs) {
    for (size_t at = 0, n = 0; at < p.packets.size(); at += static_cast<size_t>(unit)) {
      file.insert(file.end(), p.packets.begin() + static_cast<std::ptrdiff_t>(at),
                  p.packets.begin() + static_cast<std::ptrdiff_t>(at + unit));
      if (++n % static_cast<size_t>(group) == 0)
        file.insert(file.end(), filler.begin(), filler.end());
    }
    info.programs.push_back({p.pmt_pid, static_cast<int64_t>(file.size())});
  }
  Bytes unit_bytes;
  EXPECT_TRUE(SerialiseMQTsInfo(info, unit, &unit_bytes));
  file.insert(file.end(), unit_bytes.begin(), unit_bytes.end());
  return info;
}

}  // namespace marquel::tstest
