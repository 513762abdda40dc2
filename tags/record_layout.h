// The layout of one record in a record file and in its in-memory pages.
//
// A record is a 32-byte head followed, for a raw-data tag, by the tag's sample size in
// bytes: time code (8), kind (4), flags (4: bit 0 = the sample has bytes), value or byte
// length (4), 12 zero bytes, then the sample bytes zero-padded to the sample size. All
// fields in host byte order: the file is private to this process and temporary.
#pragma once

#include <cstdint>
#include <cstring>

#include "tags/sample.h"

namespace marquel {

constexpr int32_t kRecordHeadBytes = 32;
constexpr uint32_t kRecordHasBytes = 1;

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

// Writes `r` as a record of 32 + sampleSize bytes. A raw sample's bytes (nValue of them,
// which the caller has checked to be at most sampleSize) are copied when present.
inline void EncodeRecord(const SampleRecord& r, int32_t sampleSize, uint8_t* dst) {
  std::memset(dst, 0, static_cast<size_t>(kRecordHeadBytes + sampleSize));
  std::memcpy(dst, &r.llTimeCode, 8);
  std::memcpy(dst + 8, &r.nKind, 4);
  uint32_t flags = (r.nKind == kRawSample && r.pBuffer != nullptr) ? kRecordHasBytes : 0;
  std::memcpy(dst + 12, &flags, 4);
  std::memcpy(dst + 16, &r.nValue, 4);
  if (flags != 0 && r.nValue > 0) std::memcpy(dst + kRecordHeadBytes, r.pBuffer, r.nValue);
}

// A view of a record: pBuffer points into `src` (not owned) or is null.
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
