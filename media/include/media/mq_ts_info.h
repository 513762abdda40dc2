// The MQ information packet: the last unit of a transport stream that carries the
// server's data, saying where each program's MQ packets end.
//
// One unit of the file's packet size (prefix of 0xFF bytes as for the MQ packets, then a
// 188-byte packet on PID 225, payload unit start, counter 0, pointer field 0). Its
// section, table id 0xFE with a fixed section length of 77, holds tagged fields, all
// big-endian: 0xE006 "MQDATA"; 0xE108 original modified time; 0xE208 original size;
// 0xE302 program count (1..8); 0xE402 MQ data PID; 0xE508 the modified time just before
// the data was written; then per program its PMT PID, 0x400A, 0xF008 and the file offset
// where that program's MQ packets end. A run of (127 - 14 x programs) one-bits follows;
// the bits after it are 0 and the rest of the packet 0xFF. The section has no CRC.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace marquel {

constexpr uint16_t kMQInfoPid = 225;
constexpr int32_t kMQInfoMaxPrograms = 8;

struct MQTsInfoProgram {
  uint16_t pmt_pid = 0;
  int64_t end_offset = 0;  // where the program's MQ packets end in the file
};

struct MQTsInfo {
  int64_t original_mtime = 0;
  uint64_t original_size = 0;
  uint16_t mq_pid = 0;
  int64_t merge_mtime = 0;  // the file's modified time read just before the data went in
  std::vector<MQTsInfoProgram> programs;
};

// Writes the information packet as one unit of `unit_size` bytes (188, 192 or 204) into
// `out`. False (and `out` untouched) for another unit size, or a program count outside
// 1..8.
bool SerialiseMQTsInfo(const MQTsInfo& info, int32_t unit_size, std::vector<uint8_t>* out);

// Reads one unit of `unit_size` bytes that begins at `unit_offset` in a file of
// `file_size` bytes as an information packet and checks it strictly: sync byte, PID 225
// with payload unit start, payload only with counter 0 and pointer field 0, table id and
// every fixed length and tag, "MQDATA", a program count of 1..8, each program's fixed
// fields, a PMT PID and MQ PID of 13 bits, and end offsets that rise and lie after 0 and
// not after the unit itself. Nothing is returned when any check fails.
std::optional<MQTsInfo> ParseMQTsInfo(const uint8_t* unit, int32_t unit_size, int64_t unit_offset,
                                      int64_t file_size);

}  // namespace marquel
