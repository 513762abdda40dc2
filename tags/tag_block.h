// The memory block of a TagObject (private to the tag store).
#pragma once

#include <algorithm>
#include <vector>

#include "tags/tag_object.h"

namespace marquel {

// The memory block: records sorted by time code, each raw one owning a copy of its bytes.
// Its capacity is the tag's capacity_; the vector only grows as records arrive, so an
// idle tag does not pin 32 KiB. Raw samples may have any length, so the bytes it holds
// are bounded too (kMaxBlockBytes); `bytes` counts them.
struct TagObject::Block {
  std::vector<SampleRecord> records;
  size_t bytes = 0;

  ~Block() { Clear(); }
  bool empty() const { return records.empty(); }
  size_t size() const { return records.size(); }
  void Clear() {
    FreeSampleBuffers(records.data(), static_cast<int64_t>(records.size()));
    records.clear();
    bytes = 0;
  }
  // The bytes a record of the block holds.
  static size_t Held(const SampleRecord& r) {
    return r.pBuffer != nullptr && r.nValue > 0 ? static_cast<size_t>(r.nValue) : 0;
  }
  // Whether one more record of `record`'s bytes stays within the bound. An empty block
  // takes any one record.
  bool Fits(const SampleRecord& record) const {
    return records.empty() || bytes + Held(record) <= static_cast<size_t>(kMaxBlockBytes);
  }
  // The index of the first record whose time code is not below `key`.
  size_t LowerBound(int64_t key) const {
    auto it = std::lower_bound(records.begin(), records.end(), key,
                               [](const SampleRecord& r, int64_t k) { return r.llTimeCode < k; });
    return static_cast<size_t>(it - records.begin());
  }
};

}  // namespace marquel
