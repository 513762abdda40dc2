// The layout of one record in a record file and in its in-memory pages.
//
// A record is a 32-byte head followed, for a raw-data tag, by the file's inline room in
// bytes: time code (8), kind (4), flags (4: bit 0 = the sample has bytes, bit 1 = they lie
// apart), value or byte length (4), 4 zero bytes, the offset of bytes that lie apart (8),
// then the sample bytes zero-padded to the inline room. Bytes longer than the room live
// in the record file's companion file (record_apart.cc) and the head gives their offset.
// All fields in host byte order: the files are private to this process and temporary.
#pragma once

#include <cstdint>
#include <cstring>

#include "tags/sample.h"

namespace marquel {

constexpr int32_t kRecordHeadBytes = 32;
constexpr uint32_t kRecordHasBytes = 1;
constexpr uint32_t kRecordBytesApart = 2;

inline int64_t RecordKey(const uint8_t* rec) {
  int64_t t;
  std::memcpy(&t, rec, sizeof t);
  return t;
}

inline void SetRecordKey(uint8_t* rec, int64_t t) {
  std::memcpy(rec, &t, sizeof t);
}

inline uint32_t RecordFlags(const uint8_t* rec) {
  uint32_t f;
  std::memcpy(&f, rec + 12, sizeof f);
  return f;
}

inline int32_t RecordValue(const uint8_t* rec) {
  int32_t v;
  std::memcpy(&v, rec + 16, sizeof v);
  return v;
}

inline bool RecordBytesApart(const uint8_t* rec) {
  return (RecordFlags(rec) & kRecordBytesApart) != 0;
}

inline uint64_t RecordApartOffset(const uint8_t* rec) {
  uint64_t at;
  std::memcpy(&at, rec + 24, sizeof at);
  return at;
}

// Writes `r` as a record of 32 + room bytes. A raw sample's bytes (nValue of them) are
// copied when present and at most `room` long; longer ones are marked as lying apart at
// `apartOffset`, where the caller has written them.
inline void EncodeRecord(const SampleRecord& r, int32_t room, uint8_t* dst,
                         uint64_t apartOffset = 0) {
  std::memset(dst, 0, static_cast<size_t>(kRecordHeadBytes + room));
  std::memcpy(dst, &r.llTimeCode, 8);
  std::memcpy(dst + 8, &r.nKind, 4);
  uint32_t flags = (r.nKind == kRawSample && r.pBuffer != nullptr) ? kRecordHasBytes : 0;
  if (flags != 0 && r.nValue > room) flags |= kRecordBytesApart;
  std::memcpy(dst + 12, &flags, 4);
  std::memcpy(dst + 16, &r.nValue, 4);
  if ((flags & kRecordBytesApart) != 0) {
    std::memcpy(dst + 24, &apartOffset, 8);
  } else if (flags != 0 && r.nValue > 0) {
    std::memcpy(dst + kRecordHeadBytes, r.pBuffer, r.nValue);
  }
}

// A view of a record: pBuffer points into `src` (not owned) or is null. Bytes that lie
// apart are not in `src`: the record file fills them in (RecordFile::ResolveApart).
inline SampleRecord DecodeRecord(const uint8_t* src) {
  SampleRecord r;
  std::memcpy(&r.llTimeCode, src, 8);
  std::memcpy(&r.nKind, src + 8, 4);
  r.nValue = RecordValue(src);
  if ((RecordFlags(src) & kRecordHasBytes) != 0)
    r.pBuffer = const_cast<uint8_t*>(src + kRecordHeadBytes);
  return r;
}

// A copy of a record view whose raw bytes (if any) are a fresh AllocSampleBuffer copy.
// On allocation failure the copy has no bytes.
inline SampleRecord CopyOut(const SampleRecord& view) {
  SampleRecord r = view;
  r.pBuffer = nullptr;
  if (view.nKind == kRawSample && view.pBuffer != nullptr && view.nValue > 0) {
    r.pBuffer = AllocSampleBuffer(view.nValue);
    if (r.pBuffer != nullptr) std::memcpy(r.pBuffer, view.pBuffer, view.nValue);
  }
  return r;
}

}  // namespace marquel
