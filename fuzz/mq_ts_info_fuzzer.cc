// Fuzzes the reader of the MQ information packet. Input: one byte choosing the unit size
// (188, 192 or 204) and, in its high bits, whether the rest is taken as the unit itself
// or as the fields of a packet the writer makes (and one byte of it then damaged). A
// packet the reader answers must hold what its checks promise and be written back to the
// same fields.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "media/mq_ts_info.h"

namespace {

using Bytes = std::vector<uint8_t>;

uint64_t Take(const uint8_t*& p, const uint8_t* end, int bytes) {
  uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) v = (v << 8) | (p < end ? *p++ : 0);
  return v;
}

// A packet the writer makes from the fuzzed fields.
Bytes Written(const uint8_t* p, const uint8_t* end, int32_t unit) {
  marquel::MQTsInfo info;
  info.original_mtime = static_cast<int64_t>(Take(p, end, 8));
  info.original_size = Take(p, end, 8);
  info.mq_pid = static_cast<uint16_t>(Take(p, end, 2) & 0x1FFF);
  info.merge_mtime = static_cast<int64_t>(Take(p, end, 8));
  const size_t count = Take(p, end, 1) % 9;
  int64_t at = 0;
  for (size_t i = 0; i < count; ++i) {
    at += static_cast<int64_t>(Take(p, end, 2));
    info.programs.push_back({static_cast<uint16_t>(Take(p, end, 2) & 0x1FFF), at});
  }
  Bytes out;
  marquel::SerialiseMQTsInfo(info, unit, &out);
  if (!out.empty() && p + 2 <= end) out[p[0] % out.size()] ^= p[1];
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int32_t units[] = {188, 192, 204};
  const int32_t unit = units[(data[0] & 3) % 3];
  Bytes bytes =
      (data[0] & 4) != 0 ? Written(data + 1, data + size, unit) : Bytes(data + 1, data + size);
  if (bytes.size() < static_cast<size_t>(unit)) return 0;
  const int64_t file_size = 70000;
  auto info = marquel::ParseMQTsInfo(bytes.data(), unit, file_size - unit, file_size);
  if (!info) return 0;
  if (info->programs.empty() || info->programs.size() > 8 || info->mq_pid > 0x1FFF) abort();
  int64_t previous = 0;
  for (const auto& p : info->programs) {
    if (p.end_offset <= previous || p.end_offset > file_size - unit || p.pmt_pid > 0x1FFF) abort();
    previous = p.end_offset;
  }
  Bytes again;
  if (!marquel::SerialiseMQTsInfo(*info, unit, &again)) abort();
  // The fields up to the run of one-bits are exactly what was read (the prefix is not).
  const size_t prefix = static_cast<size_t>(unit - 188);
  if (std::memcmp(again.data() + prefix, bytes.data() + prefix, 61 + 14 * info->programs.size()) !=
      0)
    abort();
  return 0;
}
