#include "tags/block_writer.h"

#include <algorithm>
#include <limits>

#include "tags/block_format.h"

namespace marquel {
namespace {

// Counts the bits each stream would receive.
struct CountingSink {
  uint64_t tag_bytes = 0;
  uint64_t length_bits = 0;
  uint64_t data_bits = 0;
  void Tag(uint8_t) { ++tag_bytes; }
  void Length(uint32_t, int bits) { length_bits += static_cast<uint64_t>(bits); }
  void Data(uint32_t, int bits) { data_bits += static_cast<uint64_t>(bits); }
  void DataBytes(const uint8_t*, size_t n) { data_bits += static_cast<uint64_t>(n) * 8; }
};

// Writes the entries into the three stream buffers.
struct BufferSink {
  BitBuffer* tag_ids;
  BitBuffer* lengths;
  BitBuffer* data;
  void Tag(uint8_t id) { tag_ids->WriteBits(id, 8); }
  void Length(uint32_t value, int bits) { lengths->WriteBits(value, bits); }
  void Data(uint32_t value, int bits) { data->WriteBits(value, bits); }
  void DataBytes(const uint8_t* bytes, size_t n) { data->WriteBytes(bytes, n); }
};

// Samples fetched from a cursor per call.
constexpr size_t kBatch = 256;

// One tag while the writer walks it.
struct TagWalk {
  int32_t id = 0;
  int32_t type = 0;
  int width = 0;         // value width, 0..31 (what the 5-bit length item can say)
  int64_t interval = 0;  // state tags: the interval written (0 became the default)
  std::unique_ptr<BlockTagCursor> cursor;
  std::vector<BlockSampleView> batch;  // batch[pos] is the current sample
  size_t pos = 0;
  size_t count = 0;
  bool has_cur = false;
  int64_t cur_time = 0;       // batch[pos].time, kept at hand for the merge
  uint64_t index = 0;         // index of the current sample among the tag's samples
  int64_t prev_time = 0;      // time of the sample before `cur`
  uint32_t prev_value = 0;    // delta tags: the previous sample's value (0 before the first)
  int64_t last_written = -1;  // state tags: the last state value written, -1 for none
};

// Whether `later` - `earlier` exceeds twice `interval`, without overflow.
bool GapExceeds(int64_t earlier, int64_t later, int64_t interval) {
  return static_cast<__int128>(later) - earlier > static_cast<__int128>(interval) * 2;
}

template <class Sink>
class Walker {
 public:
  Walker(BlockSampleSource& source, Sink& sink) : source_(source), sink_(sink) {}

  void Run() {
    OpenTags();
    while (true) {
      bool any = false;
      for (const TagWalk& t : tags_) {
        if (t.has_cur && (!any || t.cur_time < current_)) {
          current_ = t.cur_time;
          any = true;
        }
      }
      if (!any) break;
      time_written_ = false;
      for (TagWalk& t : tags_)
        if (t.has_cur && t.cur_time == current_) WriteSample(t);
    }
  }

 private:
  void OpenTags() {
    int32_t highest = std::min<int32_t>(source_.HighestTagId(), kTagIdCount - 1);
    for (int32_t id = 0; id <= highest; ++id) {
      // Tag-id bytes 0 and 1 mean time entries; a sample entry of tag 0 or 1 would be read
      // back as a time entry and throw the three streams out of step, so these tags are
      // never written.
      if (id == kAbsoluteTimeEntry || id == kRelativeTimeEntry) continue;
      TagWalk t;
      t.cursor = source_.OpenTag(id);
      if (!t.cursor) continue;
      t.batch.resize(kBatch);
      Refill(t);
      if (!t.has_cur) continue;
      t.id = id;
      t.type = kTagDefinitions[id].nType;
      t.width = kTagDefinitions[id].nBits & 31;
      if (IsStateTagType(t.type)) {
        t.interval = source_.Interval(id);
        if (t.interval == 0) t.interval = kDefaultStateInterval;
      }
      tags_.push_back(std::move(t));
    }
  }

  // Writes the step's time entry before its first sample entry.
  void EnsureTimeEntry() {
    if (time_written_) return;
    time_written_ = true;
    // The difference wraps as 64-bit two's complement arithmetic does.
    int64_t diff =
        static_cast<int64_t>(static_cast<uint64_t>(current_) - static_cast<uint64_t>(previous_));
    if (diff >= kAbsoluteTimeGap) {
      uint64_t t = static_cast<uint64_t>(current_);
      sink_.Tag(kAbsoluteTimeEntry);
      for (int group = 0; group < 4; ++group)
        sink_.Data(static_cast<uint32_t>(t >> (16 * group)) & 0xFFFF, 16);
    } else {
      uint64_t d = static_cast<uint64_t>(diff);
      sink_.Tag(kRelativeTimeEntry);
      for (int byte = 0; byte < 3; ++byte)
        sink_.Data(static_cast<uint32_t>(d >> (8 * byte)) & 0xFF, 8);
    }
    previous_ = current_;
  }

  void EntryHead(const TagWalk& t) {
    EnsureTimeEntry();
    sink_.Tag(static_cast<uint8_t>(t.id));
    sink_.Length(static_cast<uint32_t>(t.width), kLengthItemBits);
  }

  static void Refill(TagWalk& t) {
    t.pos = 0;
    t.count = t.cursor->Next(t.batch.data(), kBatch);
    t.has_cur = t.count > 0;
    if (t.has_cur) t.cur_time = t.batch[0].time;
  }

  // Moves to the tag's next sample. The bytes of the sample left behind may go.
  static void Advance(TagWalk& t) {
    t.prev_time = t.cur_time;
    ++t.index;
    if (++t.pos < t.count) {
      t.cur_time = t.batch[t.pos].time;
    } else {
      Refill(t);
    }
  }

  void WriteSample(TagWalk& t) {
    const BlockSampleView s = t.batch[t.pos];
    switch (t.type) {
      case kTagTypeDelta: {
        EntryHead(t);
        uint32_t value = static_cast<uint32_t>(s.value);
        sink_.Data(value - t.prev_value, t.width);
        t.prev_value = value;
        break;
      }
      case kTagTypeState:
      case kTagTypeState2:
        WriteStateSample(t, s);
        return;  // WriteStateSample advances the cursor itself
      case kTagTypeRaw: {
        EntryHead(t);
        // A plain sample in a raw tag, or a raw sample without bytes, has no bytes to
        // write: it goes out with a byte count of 0. A count the length field cannot
        // hold is cut to the largest it can, with that many bytes, so the streams stay
        // in step.
        uint32_t n = 0;
        if (s.kind == 1 && s.bytes != nullptr && s.value > 0) n = static_cast<uint32_t>(s.value);
        uint32_t max = t.width == 0 ? 0 : (uint32_t{1} << t.width) - 1;
        n = std::min(n, max);
        sink_.Data(n, t.width);
        sink_.DataBytes(s.bytes, n);
        break;
      }
      default:  // types 0 and 2
        EntryHead(t);
        sink_.Data(static_cast<uint32_t>(s.value), t.width);
        break;
    }
    Advance(t);
  }

  void WriteStateSample(TagWalk& t, const BlockSampleView& s) {
    int64_t value = s.value;
    if (value != t.last_written) {
      EntryHead(t);
      sink_.Data(static_cast<uint32_t>(value | 2), t.width);
      uint64_t iv = static_cast<uint64_t>(t.interval);
      for (int byte = 0; byte < 3; ++byte)
        sink_.Data(static_cast<uint32_t>(iv >> (8 * byte)) & 0xFF, 8);
      t.last_written = value;
    }
    // Samples 0, 1 and 2 never end a run by a gap; from sample 3 on, a sample more than
    // twice the interval after its predecessor ends the run after itself.
    bool gap = t.index >= 3 && GapExceeds(t.prev_time, s.time, t.interval);
    Advance(t);
    if (gap || !t.has_cur) {
      EntryHead(t);
      sink_.Data(0, t.width);
      t.last_written = -1;
    }
  }

  BlockSampleSource& source_;
  Sink& sink_;
  std::vector<TagWalk> tags_;
  int64_t current_ = 0;
  int64_t previous_ = 0;
  bool time_written_ = false;
};

}  // namespace

uint64_t BlockSizes::Total() const {
  return tag_id_size + length_size + data_size + kBlockHeaderSize;
}

BlockSizes PredictBlockSizes(BlockSampleSource& source) {
  CountingSink sink;
  Walker<CountingSink>(source, sink).Run();
  BlockSizes sizes;
  sizes.tag_id_size = sink.tag_bytes + kBlockCrcSize;
  sizes.length_size = sink.length_bits / 8 + kBlockCrcSize;
  sizes.data_size = sink.data_bits / 8 + kBlockCrcSize;
  return sizes;
}

int32_t WriteBlock(BlockSampleSource& source, const BlockStreams& out) {
  // The buffers grow as the entries come, to exactly the sizes a prediction pass would
  // have reserved (plus the padding); a separate pass would read every sample twice,
  // which for a stored program means reading every record file twice.
  BitBuffer* streams[] = {out.tag_ids, out.lengths, out.data};
  for (BitBuffer* b : streams) b->Clear();
  BufferSink sink{out.tag_ids, out.lengths, out.data};
  Walker<BufferSink>(source, sink).Run();
  // The CRCs go on in this order: data, tag ids, lengths.
  out.data->AppendCrc();
  out.tag_ids->AppendCrc();
  out.lengths->AppendCrc();
  constexpr uint64_t kMax = std::numeric_limits<uint32_t>::max();
  if (out.tag_ids->size() > kMax || out.lengths->size() > kMax || out.data->size() > kMax) {
    for (BitBuffer* b : streams) b->Clear();
    out.header->Clear();
    return -1;
  }
  WriteBlockHeader(static_cast<uint32_t>(out.lengths->size()),
                   static_cast<uint32_t>(out.data->size()),
                   static_cast<uint32_t>(out.tag_ids->size()), out.header);
  return 1;
}

std::vector<uint8_t> EncodedBlock::Bytes() const {
  std::vector<uint8_t> bytes;
  bytes.reserve(header.size() + tag_ids.size() + lengths.size() + data.size());
  for (const BitBuffer* b : {&header, &tag_ids, &lengths, &data})
    bytes.insert(bytes.end(), b->data(), b->data() + b->size());
  return bytes;
}

int32_t EncodeBlock(BlockSampleSource& source, EncodedBlock* out) {
  return WriteBlock(source, BlockStreams{&out->tag_ids, &out->lengths, &out->data, &out->header});
}

std::vector<uint8_t> EncodeBlockBytes(const BlockContent& content) {
  BlockContentSource source(content);
  EncodedBlock block;
  if (EncodeBlock(source, &block) != 1) return {};
  return block.Bytes();
}

}  // namespace marquel
