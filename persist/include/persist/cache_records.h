// The binary records of the cache entries.
//
// Paths are stored as 260 UTF-16LE code units, zero-terminated and zero-filled; a path
// that does not fit is refused, never cut. Numbers are little endian. Layouts (byte
// offsets):
//
//   File record, 1056 bytes ("VRINFO", "FILEINFO"):
//     0    media file path (260 units)
//     520  identity word 1: the media file's size in bytes (64-bit)
//     528  identity word 2: its modification time, seconds since 1970 (64-bit)
//     536  cache file path (260 units)
//
//   Program record, 524 bytes each, one per program in program order ("TSINFO"):
//     0    cache file path (260 units)
//     520  PMT PID (32-bit)
//
//   Temp record, 1064 bytes ("TempInfo"):
//     0    media file path (260 units)
//     520  original file size (64-bit)          -- compared when an entry is reused
//     528  content word: the first 32-bit word at byte 3172 of the media file, or the
//          number of bytes read there when fewer than 4 came (32-bit)
//     532  content checksum: CRC-32 of the 5120 bytes at 3172, 0 when fewer came
//     536  cache file path (260 units)
//     1056 original modification time (64-bit)  -- compared when an entry is reused
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace marquel {

constexpr size_t kRecordPathUnits = 260;
constexpr size_t kRecordPathBytes = kRecordPathUnits * 2;
constexpr size_t kFileRecordSize = 1056;
constexpr size_t kProgramRecordSize = 524;
constexpr size_t kTempRecordSize = 1064;
// Where the cache file path starts in the file and temp records.
constexpr size_t kRecordCachePathOffset = 536;
// The two words compared when a temp entry is reused.
constexpr size_t kTempRecordSizeOffset = 520;
constexpr size_t kTempRecordTimeOffset = 1056;

struct CacheFileRecord {
  std::string media_path;
  uint64_t identity[2] = {0, 0};  // size, modification time
  std::string cache_path;
};

struct CacheProgramRecord {
  std::string cache_path;
  int32_t pmt_pid = 0;
};

struct TempCacheRecord {
  std::string media_path;
  uint64_t original_size = 0;
  uint32_t content_word = 0;
  uint32_t content_crc = 0;
  std::string cache_path;
  int64_t original_mtime = 0;
};

// Whether a path fits a 260-unit record field with its terminator.
bool FitsRecordPath(const std::string& path);

// Encoders: false (and *out emptied) when a path does not fit.
bool EncodeFileRecord(const CacheFileRecord& record, std::vector<uint8_t>* out);
bool EncodeProgramRecords(const std::vector<CacheProgramRecord>& records,
                          std::vector<uint8_t>* out);
bool EncodeTempRecord(const TempCacheRecord& record, std::vector<uint8_t>* out);

// Decoders: false when `size` is not the record's size (a value of the wrong size counts
// as absent), or for program records when it is not a whole number of records.
bool DecodeFileRecord(const uint8_t* bytes, size_t size, CacheFileRecord* out);
bool DecodeProgramRecords(const uint8_t* bytes, size_t size, std::vector<CacheProgramRecord>* out);
bool DecodeTempRecord(const uint8_t* bytes, size_t size, TempCacheRecord* out);

}  // namespace marquel
