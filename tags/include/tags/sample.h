// Sample records of the tag store.
//
// Clients exchange MarquelOneTag (a plain sample) and MarquelRawDataTag (a raw-data
// sample). Inside the server every sample travels as one 32-byte SampleRecord, the unit of
// the memory block and of the record file.
#pragma once

#include <cstdint>

namespace marquel {

// A plain sample as clients see it.
struct MarquelOneTag {
  int64_t llTimeCode = 0;
  int32_t value = 0;
};

// A raw-data sample as clients see it: nLength bytes at pBuffer.
struct MarquelRawDataTag {
  int64_t llTimeCode = 0;
  int32_t nLength = 0;
  uint8_t* pBuffer = nullptr;
};

// Kinds of a stored sample and of a tag.
constexpr int32_t kPlainSample = 0;
constexpr int32_t kRawSample = 1;

// One stored sample, 32 bytes, fields in the order of the record file's head.
//
// Ownership of pBuffer: a record handed to an insert is only read (the store copies the
// bytes). A record filled by a read (GetOne, GetDataAll, GetDataPeriod ...) owns a fresh
// buffer from AllocSampleBuffer that the caller releases with FreeSampleBuffer (or
// FreeSampleBuffers for an array). A raw sample may have no bytes (pBuffer null): it was
// inserted or emptied without bytes.
struct SampleRecord {
  int64_t llTimeCode = 0;
  int32_t nKind = kPlainSample;  // kPlainSample or kRawSample
  int32_t nUnused1 = 0;          // not used by the store
  int32_t nValue = 0;            // plain: the value; raw: the byte length
  int32_t nUnused2 = 0;          // not used by the store
  uint8_t* pBuffer = nullptr;    // raw: the bytes (nValue of them), or null
};
static_assert(sizeof(SampleRecord) == 32, "a stored sample record is 32 bytes");

// A plain sample record.
inline SampleRecord MakePlainSample(int64_t timeCode, int32_t value) {
  SampleRecord r;
  r.llTimeCode = timeCode;
  r.nKind = kPlainSample;
  r.nValue = value;
  return r;
}

// A raw sample record that points at the caller's bytes (not owned).
inline SampleRecord MakeRawSample(int64_t timeCode, int32_t length, const uint8_t* bytes) {
  SampleRecord r;
  r.llTimeCode = timeCode;
  r.nKind = kRawSample;
  r.nValue = length;
  r.pBuffer = const_cast<uint8_t*>(bytes);
  return r;
}

// Allocates n bytes for a record read out of the store (n may be 0: then null).
uint8_t* AllocSampleBuffer(int32_t n);
// Frees a buffer from AllocSampleBuffer (null is fine).
void FreeSampleBuffer(uint8_t* buffer);
// Frees the buffers of `count` records filled by a read and nulls their pointers.
void FreeSampleBuffers(SampleRecord* records, int64_t count);

// The largest raw sample the store accepts, in bytes. Bigger ones are refused. Every
// in-memory structure of the store holds at least one sample, so this bounds what one
// sample can make the server hold.
constexpr int32_t kMaxRawSampleBytes = 1024 * 1024;

// What the store's in-memory pieces hold at most, in bytes (each at least one record): a
// tag's memory block, a record file's overlay, one merge slice, one chunk of a period copy
// or of the serialiser's reading.
constexpr int64_t kTagBlockBytes = int64_t{1} << 20;
constexpr int64_t kOverlayBytes = int64_t{4} << 20;
constexpr int64_t kStorePieceBytes = int64_t{4} << 20;
// The memory blocks (caches) of all tags together.
constexpr int64_t kAllBlocksBytes = int64_t{16} << 20;
// A period copied within one tag is read whole first; at most this much of it.
constexpr int64_t kSameTagCopyBytes = int64_t{64} << 20;
// The in-memory last pages (tails) of all record files together; past it a tail goes to
// disk after each operation on its file.
constexpr int64_t kAllTailsBytes = int64_t{16} << 20;
// The overlays of all record files together; past it an insert into an overlay merges that
// overlay at once.
constexpr int64_t kAllOverlaysBytes = int64_t{16} << 20;

// How many records of `recordBytes` each fit `budget` bytes, at least one.
inline int64_t RecordsWithin(int64_t budget, int64_t recordBytes) {
  return recordBytes > 0 && budget > recordBytes ? budget / recordBytes : 1;
}

}  // namespace marquel
