// The end record of the server's data in a program stream: its bytes and the finder.
#include "media/mq_end_record.h"

#include <algorithm>
#include <vector>

namespace marquel {
namespace {

void PutBE64(uint64_t v, uint8_t* out) {
  for (int i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
}

uint64_t GetBE64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
  return v;
}

uint32_t StartCodeAt(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// The payload of the last 0xFA packet of the last pack, as the walk below finds it.
struct LastData {
  size_t payload_begin = 0;
  size_t payload_end = 0;
  bool in_last_pack = false;
};

// Where a PES packet's payload begins, from the packet's start code at `at` to its end
// `end`; 0 when the header does not fit. MPEG-1 headers carry stuffing, an optional STD
// buffer field and a time-stamp form; MPEG-2 headers give their own length.
size_t PayloadBegin(const uint8_t* p, size_t at, size_t end, bool mpeg1) {
  size_t i = at + 6;
  if (!mpeg1) {
    if (i + 3 > end || (p[i] & 0xC0) != 0x80) return 0;
    i += 3 + p[i + 2];
    return i <= end ? i : 0;
  }
  while (i < end && p[i] == 0xFF && i - at - 6 < 16) ++i;
  if (i < end && (p[i] & 0xC0) == 0x40) i += 2;
  if (i >= end) return 0;
  if ((p[i] & 0xF0) == 0x20)
    i += 5;
  else if ((p[i] & 0xF0) == 0x30)
    i += 10;
  else if (p[i] == 0x0F)
    i += 1;
  else
    return 0;
  return i <= end ? i : 0;
}

// Follows packs and packets from the pack start code at `start`. True when they run
// exactly to the end of the tail; *last then describes the last 0xFA packet.
bool WalkToEnd(const uint8_t* p, size_t size, size_t start, LastData* last) {
  size_t at = start;
  bool mpeg1 = false;
  *last = LastData{};
  while (at < size) {
    if (size - at < 4 || (StartCodeAt(p + at) >> 8) != 1) return false;
    const uint8_t code = p[at + 3];
    if (code == 0xBA) {
      if (size - at < 5) return false;
      mpeg1 = (p[at + 4] & 0xF0) == 0x20;
      if (!mpeg1 && (p[at + 4] & 0xC0) != 0x40) return false;
      size_t header = mpeg1 ? 12 : 14;
      if (size - at < header) return false;
      if (!mpeg1) header += p[at + 13] & 0x07;
      if (size - at < header) return false;
      last->in_last_pack = false;
      at += header;
    } else if (code == 0xB9) {
      at += 4;
    } else if (code >= 0xBB) {
      if (size - at < 6) return false;
      const size_t end = at + 6 + ((size_t{p[at + 4]} << 8) | p[at + 5]);
      if (end > size) return false;
      if (code == 0xFA) {
        size_t begin = PayloadBegin(p, at, end, mpeg1);
        if (begin == 0) return false;
        *last = LastData{begin, end, true};
      }
      at = end;
    } else {
      return false;
    }
  }
  return at == size;
}

}  // namespace

void SerialiseMQEndRecord(const MQEndRecord& record, uint8_t* out) {
  out[0] = 0x00, out[1] = 0x00, out[2] = 0x01, out[3] = 0xFF;
  PutBE64(static_cast<uint64_t>(record.start_address), out + 4);
  PutBE64(static_cast<uint64_t>(record.original_mtime), out + 12);
  PutBE64(record.original_size, out + 20);
  PutBE64(static_cast<uint64_t>(record.last), out + 28);
}

bool ParseMQEndRecord(const uint8_t* bytes, int64_t record_offset, int64_t file_size,
                      MQEndRecord* out) {
  if (StartCodeAt(bytes) != 0x000001FF) return false;
  MQEndRecord r;
  r.start_address = static_cast<int64_t>(GetBE64(bytes + 4));
  r.original_mtime = static_cast<int64_t>(GetBE64(bytes + 12));
  r.original_size = GetBE64(bytes + 20);
  r.last = static_cast<int64_t>(GetBE64(bytes + 28));
  // The last field is -1 after an append, or the end of the merged region after an
  // in-place merge: past the start and not after the record.
  const bool merged = r.last > r.start_address && r.last <= record_offset;
  if ((r.last != -1 && !merged) || r.start_address < 0) return false;
  if (r.start_address >= file_size || r.start_address >= record_offset) return false;
  if (r.original_size < static_cast<uint64_t>(r.start_address)) return false;
  *out = r;
  return true;
}

std::optional<FoundMQEndRecord> FindMQEndRecordInTail(const uint8_t* tail, size_t size,
                                                      int64_t tail_offset, int64_t file_size,
                                                      bool* damaged) {
  if (damaged) *damaged = false;
  if (tail_offset < 0 || file_size < 0 || tail_offset + static_cast<int64_t>(size) != file_size)
    return std::nullopt;
  for (size_t at = 0; at + 4 <= size; ++at) {
    if (StartCodeAt(tail + at) != 0x000001BA) continue;
    LastData last;
    if (!WalkToEnd(tail, size, at, &last)) continue;
    // The first walk that reaches the end decides: its last pack must end the data.
    if (!last.in_last_pack) return std::nullopt;
    if (damaged) *damaged = true;  // cleared again when the record holds
    if (last.payload_end - last.payload_begin < kMQEndRecordSize) return std::nullopt;
    const size_t record_at = last.payload_end - kMQEndRecordSize;
    FoundMQEndRecord found;
    found.offset = tail_offset + static_cast<int64_t>(record_at);
    if (!ParseMQEndRecord(tail + record_at, found.offset, file_size, &found.record))
      return std::nullopt;
    if (damaged) *damaged = false;
    return found;
  }
  return std::nullopt;
}

std::optional<FoundMQEndRecord> FindMQEndRecord(FileHandle file, bool* damaged) {
  if (damaged) *damaged = false;
  const int64_t size = GetFileSize64(file);
  if (size <= 0) return std::nullopt;
  const size_t n = static_cast<size_t>(std::min<int64_t>(size, kMQEndRecordSearchBytes));
  std::vector<uint8_t> tail(n);
  const int64_t offset = size - static_cast<int64_t>(n);
  if (!ReadAllAt(file, static_cast<uint64_t>(offset), tail.data(), n)) return std::nullopt;
  return FindMQEndRecordInTail(tail.data(), n, offset, size, damaged);
}

}  // namespace marquel
