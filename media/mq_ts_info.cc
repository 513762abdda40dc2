// The MQ information packet of a transport stream: its bytes and its strict reader.
#include "media/mq_ts_info.h"

#include <cstring>

#include "media/mq_ts_packetizer.h"

namespace marquel {
namespace {

// The packet's fixed opening, from the sync byte up to the first tagged field.
constexpr uint8_t kOpening[] = {0x47, 0x40, 0xE1, 0x10, 0x00, 0xFE, 0xF0, 0x4D,
                                0xFF, 0xFF, 0x01, 0x00, 0x00, 0xF0, 0x2E};
constexpr char kMarker[] = "MQDATA";

void Put(std::vector<uint8_t>& out, uint64_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint64_t Get(const uint8_t*& p, int bytes) {
  uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) v = (v << 8) | *p++;
  return v;
}

// Reads a two-byte tag and checks it.
bool Tag(const uint8_t*& p, uint16_t want) {
  return Get(p, 2) == want;
}

}  // namespace

bool SerialiseMQTsInfo(const MQTsInfo& info, int32_t unit_size, std::vector<uint8_t>* out) {
  const int32_t prefix = TsUnitPrefixBytes(unit_size);
  const size_t count = info.programs.size();
  if (prefix < 0 || count < 1 || count > kMQInfoMaxPrograms) return false;
  std::vector<uint8_t> unit(static_cast<size_t>(prefix), 0xFF);
  unit.insert(unit.end(), std::begin(kOpening), std::end(kOpening));
  Put(unit, 0xE006, 2);
  unit.insert(unit.end(), kMarker, kMarker + 6);
  Put(unit, 0xE108, 2);
  Put(unit, static_cast<uint64_t>(info.original_mtime), 8);
  Put(unit, 0xE208, 2);
  Put(unit, info.original_size, 8);
  Put(unit, 0xE302, 2);
  Put(unit, count, 2);
  Put(unit, 0xE402, 2);
  Put(unit, info.mq_pid, 2);
  Put(unit, 0xE508, 2);
  Put(unit, static_cast<uint64_t>(info.merge_mtime), 8);
  for (const MQTsInfoProgram& p : info.programs) {
    Put(unit, p.pmt_pid, 2);
    Put(unit, 0x400A, 2);
    Put(unit, 0xF008, 2);
    Put(unit, static_cast<uint64_t>(p.end_offset), 8);
  }
  // The run of one-bits is a count of bits; the bits left in its last byte stay 0.
  const size_t ones = 127 - 14 * count;
  unit.insert(unit.end(), ones / 8, 0xFF);
  if (ones % 8) unit.push_back(static_cast<uint8_t>(0xFF00 >> (ones % 8)));
  unit.resize(static_cast<size_t>(unit_size), 0xFF);
  *out = std::move(unit);
  return true;
}

std::optional<MQTsInfo> ParseMQTsInfo(const uint8_t* unit, int32_t unit_size, int64_t unit_offset,
                                      int64_t file_size) {
  const int32_t prefix = TsUnitPrefixBytes(unit_size);
  if (prefix < 0 || unit_offset < 0 || unit_offset + unit_size > file_size) return {};
  const uint8_t* p = unit + prefix;
  if (std::memcmp(p, kOpening, sizeof kOpening) != 0) return {};
  p += sizeof kOpening;
  if (!Tag(p, 0xE006) || std::memcmp(p, kMarker, 6) != 0) return {};
  p += 6;
  MQTsInfo info;
  if (!Tag(p, 0xE108)) return {};
  info.original_mtime = static_cast<int64_t>(Get(p, 8));
  if (!Tag(p, 0xE208)) return {};
  info.original_size = Get(p, 8);
  if (!Tag(p, 0xE302)) return {};
  const uint64_t count = Get(p, 2);
  if (count < 1 || count > kMQInfoMaxPrograms) return {};
  if (!Tag(p, 0xE402)) return {};
  info.mq_pid = static_cast<uint16_t>(Get(p, 2));
  if (info.mq_pid > 0x1FFF || !Tag(p, 0xE508)) return {};
  info.merge_mtime = static_cast<int64_t>(Get(p, 8));
  int64_t previous_end = 0;
  for (uint64_t i = 0; i < count; ++i) {
    MQTsInfoProgram program;
    program.pmt_pid = static_cast<uint16_t>(Get(p, 2));
    if (program.pmt_pid > 0x1FFF || !Tag(p, 0x400A) || !Tag(p, 0xF008)) return {};
    program.end_offset = static_cast<int64_t>(Get(p, 8));
    if (program.end_offset <= previous_end || program.end_offset > unit_offset) return {};
    previous_end = program.end_offset;
    info.programs.push_back(program);
  }
  return info;
}

}  // namespace marquel
