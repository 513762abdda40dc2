// The memory block of a TagObject (private to the tag store).
#pragma once

#include <algorithm>
#include <atomic>
#include <vector>

#include "tags/tag_object.h"

namespace marquel {

// The memory block: records sorted by time code, each raw one owning a copy of its bytes.
// Its capacity is the tag's capacity_; the vector only grows as records arrive, so an
// idle tag does not pin 32 KiB. Raw samples may have any length, so its bytes (32 per
// record and the raw bytes) are bounded too: a block holds at most kTagBlockBytes (and
// always one record), and the blocks of all tags, as a cache, stop taking records past
// kAllBlocksBytes.
struct TagObject::Block {
  std::vector<SampleRecord> records;
  int64_t bytes = 0;

  ~Block() { Clear(); }
  bool empty() const { return records.empty(); }
  size_t size() const { return records.size(); }
  void Clear() {
    FreeSampleBuffers(records.data(), static_cast<int64_t>(records.size()));
    records.clear();
    Count(-bytes);
  }
  // The bytes a record of the block costs.
  static int64_t Cost(const SampleRecord& r) {
    return 32 + (r.pBuffer != nullptr && r.nValue > 0 ? r.nValue : 0);
  }
  void Count(int64_t delta) {
    bytes += delta;
    AllBytes().fetch_add(delta, std::memory_order_relaxed);
  }
  // Whether one more record like `record` stays within this block's bound. An empty block
  // takes any one record.
  bool Fits(const SampleRecord& record) const {
    return records.empty() || bytes + Cost(record) <= kTagBlockBytes;
  }
  // Whether the blocks of all tags have room for a cached record.
  static bool CacheHasRoom() {
    return AllBytes().load(std::memory_order_relaxed) < kAllBlocksBytes;
  }
  static std::atomic<int64_t>& AllBytes() {
    static std::atomic<int64_t> all{0};
    return all;
  }
  // The index of the first record whose time code is not below `key`.
  size_t LowerBound(int64_t key) const {
    auto it = std::lower_bound(records.begin(), records.end(), key,
                               [](const SampleRecord& r, int64_t k) { return r.llTimeCode < k; });
    return static_cast<size_t>(it - records.begin());
  }
};

}  // namespace marquel
