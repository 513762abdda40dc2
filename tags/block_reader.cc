#include "tags/block_reader.h"

#include <memory>
#include <utility>

#include "tags/bit_buffer.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

// Per-tag state of the reader.
struct TagState {
  bool asked = false;
  bool valid = true;
  uint32_t sum = 0;       // delta tags: the running sum, kept modulo 2^width
  bool run_open = false;  // state tags: a run has started and not ended
  int32_t run_state = 0;
  int64_t run_start = 0;
  int64_t interval = 0;  // state tags: the interval of the last state item
};

class Decoder {
 public:
  Decoder(const BlockReadOptions& options, BlockContent* content, BlockReadStats* stats)
      : options_(options), content_(*content), stats_(*stats) {}

  BlockRejection Run(const uint8_t* ids, size_t id_count, BitReader lengths, BitReader data) {
    Reserve(ids, id_count);
    for (size_t i = 0; i < id_count; ++i) {
      uint8_t id = ids[i];
      if (id == kAbsoluteTimeEntry) {
        // Four 16-bit groups, the least significant first.
        uint32_t low, high;
        if (!data.ReadBits(32, &low) || !data.ReadBits(32, &high))
          return BlockRejection::kDataStreamShort;
        uint64_t g0 = low >> 16, g1 = low & 0xFFFF, g2 = high >> 16, g3 = high & 0xFFFF;
        now_ = static_cast<int64_t>(g0 | g1 << 16 | g2 << 32 | g3 << 48);
        continue;
      }
      if (id == kRelativeTimeEntry) {
        uint32_t d;
        if (!ReadThreeBytes(data, &d)) return BlockRejection::kDataStreamShort;
        // The difference is a signed 24-bit number: the writer stores a step below
        // 1000000 this way, and only a negative first time code makes it negative.
        int64_t step = (d & 0x800000u) ? static_cast<int64_t>(d) - 0x1000000 : d;
        now_ = static_cast<int64_t>(static_cast<uint64_t>(now_) + static_cast<uint64_t>(step));
        continue;
      }
      uint32_t width;
      if (!lengths.ReadBits(kLengthItemBits, &width)) return BlockRejection::kLengthStreamShort;
      if (width < 1) {
        ++stats_.skipped_entries;
        continue;
      }
      const int32_t type = kTagDefinitions[id].nType;
      TagState& st = state_[id];
      if (st.asked && (type == kTagTypeValue || type == kTagTypeValue2)) {
        // The common entry, kept in this loop: a value of a tag already met.
        uint32_t value;
        if (!data.ReadBits(static_cast<int>(width), &value))
          return BlockRejection::kDataStreamShort;
        Append(id, st.valid, static_cast<int32_t>(value));
        continue;
      }
      BlockRejection r = SampleEntry(id, static_cast<int>(width), data);
      if (r != BlockRejection::kNone) return r;
    }
    stats_.entries = id_count;
    return BlockRejection::kNone;
  }

 private:
  // Makes room for each tag's entries at once (one count per tag-id byte), so that the
  // sample lists do not grow step by step.
  void Reserve(const uint8_t* ids, size_t id_count) {
    uint64_t count[kTagIdCount] = {};
    for (size_t i = 0; i < id_count; ++i) ++count[ids[i]];
    for (int32_t id = 2; id < kTagIdCount; ++id) {
      if (count[id] == 0) continue;
      BlockTagSamples& tag = content_.tags[id];
      tag.times.reserve(count[id]);
      tag.values.reserve(count[id]);
      if (kTagDefinitions[id].nType == kTagTypeRaw) tag.raw_offset.reserve(count[id]);
    }
  }

  // Three bytes, the least significant first.
  static bool ReadThreeBytes(BitReader& data, uint32_t* out) {
    uint32_t v;
    if (!data.ReadBits(24, &v)) return false;
    *out = (v >> 16) | (v & 0xFF00) | (v & 0xFF) << 16;
    return true;
  }

  BlockRejection SampleEntry(int32_t id, int width, BitReader& data) {
    TagState& st = state_[id];
    BlockTagSamples& tag = content_.tags[id];
    tag.present = true;
    if (!st.asked) {
      st.asked = true;
      st.valid = !options_.accept || options_.accept(id);
      tag.valid = st.valid;
    }
    int32_t type = kTagDefinitions[id].nType;
    uint32_t item;
    if (!data.ReadBits(width, &item)) return BlockRejection::kDataStreamShort;
    switch (type) {
      case kTagTypeDelta: {
        uint32_t mask = width >= 32 ? ~0u : (uint32_t{1} << width) - 1;
        st.sum = (st.sum + item) & mask;
        Append(id, st.valid, static_cast<int32_t>(st.sum));
        return BlockRejection::kNone;
      }
      case kTagTypeState:
      case kTagTypeState2:
        return StateItem(id, item, data);
      case kTagTypeRaw:
        return RawSample(id, item, data);
      default:
        Append(id, st.valid, static_cast<int32_t>(item));
        return BlockRejection::kNone;
    }
  }

  BlockRejection RawSample(int32_t id, uint32_t count, BitReader& data) {
    if (data.BitsLeft() / 8 < count) return BlockRejection::kDataStreamShort;
    BlockTagSamples& tag = content_.tags[id];
    tag.raw = true;
    if (!state_[id].valid || !After(tag)) {
      if (state_[id].valid) ++stats_.dropped_samples;
      data.Seek(data.bit_position() + uint64_t{count} * 8);
      return BlockRejection::kNone;
    }
    size_t at = tag.raw_bytes.size();
    tag.raw_bytes.resize(at + count);
    data.ReadBytes(tag.raw_bytes.data() + at, count);
    tag.times.push_back(now_);
    tag.values.push_back(static_cast<int32_t>(count));
    tag.raw_offset.push_back(at);
    return BlockRejection::kNone;
  }

  BlockRejection StateItem(int32_t id, uint32_t item, BitReader& data) {
    TagState& st = state_[id];
    if (item == 0) {  // end item: fill the run up to and including now, then close it
      if (st.run_open) {
        Fill(id, now_, /*inclusive=*/true);
        st.run_open = false;
      }
      return BlockRejection::kNone;
    }
    if (item != 2 && item != 3) return BlockRejection::kBadStateItem;
    uint32_t interval;
    if (!ReadThreeBytes(data, &interval)) return BlockRejection::kDataStreamShort;
    // An interval of 0 cannot step a run; it stands for the writer's default, as a tag
    // with interval 0 is written with it.
    st.interval = interval == 0 ? kDefaultStateInterval : interval;
    content_.tags[id].interval = st.interval;
    content_.tags[id].interval_set = true;
    int32_t state = static_cast<int32_t>(item & 1);
    if (st.run_open && state != st.run_state) Fill(id, now_, /*inclusive=*/false);
    if (!st.run_open || state != st.run_state) {
      st.run_open = true;
      st.run_state = state;
      st.run_start = now_;
    }
    Append(id, st.valid, state);
    return BlockRejection::kNone;
  }

  // Adds samples of the run's state at run start + k * interval, k >= 1, that lie after
  // the tag's last sample and before `limit` (up to and including it when inclusive).
  void Fill(int32_t id, int64_t limit, bool inclusive) {
    TagState& st = state_[id];
    BlockTagSamples& tag = content_.tags[id];
    if (!st.valid) return;
    const __int128 start = st.run_start;
    const __int128 step = st.interval;
    __int128 k = 1;
    if (!tag.empty() && tag.times.back() >= st.run_start) k = (tag.times.back() - start) / step + 1;
    for (__int128 t = start + k * step; inclusive ? t <= limit : t < limit; t += step) {
      if (stats_.filled_samples >= options_.max_filled_samples) {
        stats_.fill_truncated = true;
        return;
      }
      tag.times.push_back(static_cast<int64_t>(t));
      tag.values.push_back(st.run_state);
      ++stats_.filled_samples;
    }
  }

  // Whether a sample at now_ would come after the tag's last sample.
  bool After(const BlockTagSamples& tag) const { return tag.empty() || tag.times.back() < now_; }

  void Append(int32_t id, bool valid, int32_t value) {
    if (!valid) return;
    BlockTagSamples& tag = content_.tags[id];
    if (!After(tag)) {
      ++stats_.dropped_samples;
      return;
    }
    tag.times.push_back(now_);
    tag.values.push_back(value);
  }

  const BlockReadOptions& options_;
  BlockContent& content_;
  BlockReadStats& stats_;
  TagState state_[kTagIdCount];
  int64_t now_ = 0;
};

}  // namespace

const char* BlockRejectionText(BlockRejection why) {
  switch (why) {
    case BlockRejection::kNone:
      return "accepted";
    case BlockRejection::kHeaderCrc:
      return "header CRC mismatch";
    case BlockRejection::kTagIdCrc:
      return "tag-id stream CRC mismatch";
    case BlockRejection::kLengthCrc:
      return "length stream CRC mismatch";
    case BlockRejection::kDataCrc:
      return "data stream CRC mismatch";
    case BlockRejection::kBadStateItem:
      return "state item other than 2 or 3";
    case BlockRejection::kLengthStreamShort:
      return "length stream ends early";
    case BlockRejection::kDataStreamShort:
      return "data stream ends inside an entry";
    case BlockRejection::kTruncated:
      return "block shorter than its header announces";
  }
  return "unknown";
}

int32_t DecodeBlock(const uint8_t* tag_ids, size_t tag_ids_size, const uint8_t* lengths,
                    size_t lengths_size, const uint8_t* data, size_t data_size,
                    const BlockReadOptions& options, BlockContent* out, BlockRejection* why,
                    BlockReadStats* stats) {
  BlockRejection reason = BlockRejection::kNone;
  if (!StreamCrcOk(tag_ids, tag_ids_size)) {
    reason = BlockRejection::kTagIdCrc;
  } else if (!StreamCrcOk(lengths, lengths_size)) {
    reason = BlockRejection::kLengthCrc;
  } else if (!StreamCrcOk(data, data_size)) {
    reason = BlockRejection::kDataCrc;
  }
  BlockReadStats local_stats;
  if (reason == BlockRejection::kNone) {
    auto content = std::make_unique<BlockContent>();
    Decoder decoder(options, content.get(), &local_stats);
    reason = decoder.Run(tag_ids, tag_ids_size - kBlockCrcSize,
                         BitReader(lengths, lengths_size - kBlockCrcSize),
                         BitReader(data, data_size - kBlockCrcSize));
    if (reason == BlockRejection::kNone) std::swap(*out, *content);
  }
  if (why) *why = reason;
  if (stats) *stats = reason == BlockRejection::kNone ? local_stats : BlockReadStats();
  return reason == BlockRejection::kNone ? 1 : 0;
}

int32_t DecodeBlockBytes(const uint8_t* bytes, size_t size, const BlockReadOptions& options,
                         BlockContent* out, BlockRejection* why, BlockReadStats* stats,
                         size_t* consumed) {
  auto reject = [&](BlockRejection r) {
    if (why) *why = r;
    if (stats) *stats = BlockReadStats();
    return 0;
  };
  if (size < kBlockHeaderSize) return reject(BlockRejection::kTruncated);
  if (!BlockHeaderCrcOk(bytes)) return reject(BlockRejection::kHeaderCrc);
  BlockHeader h = ParseBlockHeader(bytes);
  uint64_t total = uint64_t{kBlockHeaderSize} + h.tag_id_size + h.length_size + h.data_size;
  if (total > size) return reject(BlockRejection::kTruncated);
  const uint8_t* ids = bytes + kBlockHeaderSize;
  const uint8_t* lengths = ids + h.tag_id_size;
  const uint8_t* data = lengths + h.length_size;
  if (consumed) *consumed = static_cast<size_t>(total);
  return DecodeBlock(ids, h.tag_id_size, lengths, h.length_size, data, h.data_size, options, out,
                     why, stats);
}

}  // namespace marquel
