// Test programs made for runs: tags sampled together on one time grid, with what ends a
// run mixed in (a state change, a state gap, a tag missing from a step or sampled
// between steps, a jump of 1000000 or more, the end of a cursor's batch).
#pragma once

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "tags/block_content.h"
#include "tags/block_format.h"

namespace marquel::blocktest {

// Every tag type, and widths from 1 to 30 bits; tags 33 and 34 make a step's data pass
// 64 bits between raw samples.
inline const int32_t kLockstepIds[] = {2,  16, 17,  19,  20,  25,  29,  31,  32,
                                       33, 34, 114, 122, 123, 251, 252, 253, 254};

// Hands out each tag's samples in batches of random sizes, as a program's stored tags
// come in batches.
class ChoppedSource : public BlockSampleSource {
 public:
  ChoppedSource(const BlockContent& content, uint64_t seed) : inner_(content), seed_(seed) {}
  int32_t HighestTagId() override { return inner_.HighestTagId(); }
  int64_t Interval(int32_t id) override { return inner_.Interval(id); }
  std::unique_ptr<BlockTagCursor> OpenTag(int32_t id) override {
    auto inner = inner_.OpenTag(id);
    if (!inner) return nullptr;
    return std::make_unique<Cursor>(std::move(inner), seed_ + static_cast<uint64_t>(id));
  }

 private:
  class Cursor : public BlockTagCursor {
   public:
    // Cursors of odd seeds do not let raw bytes be read past their end, so that the
    // writer copies those a byte at a time.
    Cursor(std::unique_ptr<BlockTagCursor> inner, uint64_t seed)
        : inner_(std::move(inner)), rng_(seed), readable_past_(seed % 2 == 0) {}
    bool Next(BlockSampleBatch* batch) override {
      if (left_ == 0) {
        if (!inner_->Next(&whole_)) return false;
        at_ = 0;
        left_ = whole_.count;
      }
      size_t n = std::min(left_, std::uniform_int_distribution<size_t>(1, 40)(rng_));
      *batch = whole_;
      batch->times += at_;
      batch->values += at_;
      if (batch->raw_offsets != nullptr) batch->raw_offsets += at_;
      batch->count = n;
      batch->raw_readable_past = whole_.raw_readable_past && readable_past_;
      at_ += n;
      left_ -= n;
      return true;
    }

   private:
    std::unique_ptr<BlockTagCursor> inner_;
    std::mt19937_64 rng_;
    BlockSampleBatch whole_;
    size_t at_ = 0;
    size_t left_ = 0;
    bool readable_past_;
  };
  BlockContentSource inner_;
  uint64_t seed_;
};

// A program whose tags mostly share every step of one time grid.
inline BlockContent LockstepContent(uint64_t seed) {
  std::mt19937_64 rng(seed);
  auto uniform = [&rng](int64_t lo, int64_t hi) {
    return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
  };
  auto chance = [&](int per_mille) { return uniform(0, 999) < per_mille; };
  const int steps = static_cast<int>(uniform(1, 400));
  std::vector<int64_t> grid;
  int64_t t = uniform(-5, 3000000);
  for (int i = 0; i < steps; ++i) {
    grid.push_back(t);
    t += chance(10) ? uniform(1000000, 3000000) : chance(20) ? 0 : uniform(1, 700000);
  }
  const int missing = static_cast<int>(uniform(0, 60));  // per mille of samples left out
  BlockContent c;
  for (int32_t id : kLockstepIds) {
    if (chance(150)) continue;
    BlockTagSamples& tag = c.tags[id];
    const int32_t type = kTagDefinitions[id].nType;
    if (IsStateTagType(type)) tag.interval = chance(300) ? 0 : uniform(1, 900000);
    int32_t state = static_cast<int32_t>(uniform(0, 1));
    const bool bytes_less = chance(100);  // a raw tag of plain samples: no bytes at all
    for (int64_t time : grid) {
      if (chance(missing)) continue;
      if (chance(5)) time += 1;  // a sample between the grid's steps
      if (!tag.times.empty() && time < tag.times.back()) time = tag.times.back();
      if (IsStateTagType(type)) {
        if (chance(30)) state ^= 1;
        tag.AddPlain(time, state);
      } else if (type == kTagTypeRaw && !bytes_less) {
        std::vector<uint8_t> bytes(static_cast<size_t>(uniform(0, chance(50) ? 300 : 20)));
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
        tag.AddRaw(time, bytes.data(), static_cast<int32_t>(bytes.size()));
      } else {
        tag.AddPlain(time, static_cast<int32_t>(rng()));
      }
    }
  }
  return c;
}

}  // namespace marquel::blocktest
