// The binary records of the cache entries.
#include "persist/cache_records.h"

#include <cstring>

#include "platform/text.h"

namespace marquel {
namespace {

void Put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
void Put64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t Get32(const uint8_t* p) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = v << 8 | p[i];
  return v;
}
uint64_t Get64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = v << 8 | p[i];
  return v;
}

// Writes a path field of 260 UTF-16LE units at p; false when it does not fit.
bool PutPath(uint8_t* p, const std::string& path) {
  char16_t units[kRecordPathUnits];
  if (!CopyToWideRecord(path, units, kRecordPathUnits)) return false;
  for (size_t i = 0; i < kRecordPathUnits; ++i) {
    p[2 * i] = static_cast<uint8_t>(units[i] & 0xFF);
    p[2 * i + 1] = static_cast<uint8_t>(units[i] >> 8);
  }
  return true;
}

std::string GetPath(const uint8_t* p) {
  char16_t units[kRecordPathUnits];
  for (size_t i = 0; i < kRecordPathUnits; ++i) {
    units[i] = static_cast<char16_t>(p[2 * i] | p[2 * i + 1] << 8);
  }
  return WideRecordToUtf8(units, kRecordPathUnits);
}

}  // namespace

bool FitsRecordPath(const std::string& path) {
  return Utf16Length(path) < kRecordPathUnits;
}

bool EncodeFileRecord(const CacheFileRecord& record, std::vector<uint8_t>* out) {
  out->assign(kFileRecordSize, 0);
  uint8_t* p = out->data();
  if (!PutPath(p, record.media_path) || !PutPath(p + kRecordCachePathOffset, record.cache_path)) {
    out->clear();
    return false;
  }
  Put64(p + 520, record.identity[0]);
  Put64(p + 528, record.identity[1]);
  return true;
}

bool DecodeFileRecord(const uint8_t* bytes, size_t size, CacheFileRecord* out) {
  if (bytes == nullptr || size != kFileRecordSize) return false;
  out->media_path = GetPath(bytes);
  out->identity[0] = Get64(bytes + 520);
  out->identity[1] = Get64(bytes + 528);
  out->cache_path = GetPath(bytes + kRecordCachePathOffset);
  return true;
}

bool EncodeProgramRecords(const std::vector<CacheProgramRecord>& records,
                          std::vector<uint8_t>* out) {
  out->assign(records.size() * kProgramRecordSize, 0);
  for (size_t i = 0; i < records.size(); ++i) {
    uint8_t* p = out->data() + i * kProgramRecordSize;
    if (!PutPath(p, records[i].cache_path)) {
      out->clear();
      return false;
    }
    Put32(p + kRecordPathBytes, static_cast<uint32_t>(records[i].pmt_pid));
  }
  return true;
}

bool DecodeProgramRecords(const uint8_t* bytes, size_t size, std::vector<CacheProgramRecord>* out) {
  if (bytes == nullptr || size == 0 || size % kProgramRecordSize != 0) return false;
  out->clear();
  for (size_t at = 0; at < size; at += kProgramRecordSize) {
    CacheProgramRecord r;
    r.cache_path = GetPath(bytes + at);
    r.pmt_pid = static_cast<int32_t>(Get32(bytes + at + kRecordPathBytes));
    out->push_back(std::move(r));
  }
  return true;
}

bool EncodeTempRecord(const TempCacheRecord& record, std::vector<uint8_t>* out) {
  out->assign(kTempRecordSize, 0);
  uint8_t* p = out->data();
  if (!PutPath(p, record.media_path) || !PutPath(p + kRecordCachePathOffset, record.cache_path)) {
    out->clear();
    return false;
  }
  Put64(p + kTempRecordSizeOffset, record.original_size);
  Put32(p + 528, record.content_word);
  Put32(p + 532, record.content_crc);
  Put64(p + kTempRecordTimeOffset, static_cast<uint64_t>(record.original_mtime));
  return true;
}

bool DecodeTempRecord(const uint8_t* bytes, size_t size, TempCacheRecord* out) {
  if (bytes == nullptr || size != kTempRecordSize) return false;
  out->media_path = GetPath(bytes);
  out->original_size = Get64(bytes + kTempRecordSizeOffset);
  out->content_word = Get32(bytes + 528);
  out->content_crc = Get32(bytes + 532);
  out->cache_path = GetPath(bytes + kRecordCachePathOffset);
  out->original_mtime = static_cast<int64_t>(Get64(bytes + kTempRecordTimeOffset));
  return true;
}

}  // namespace marquel
