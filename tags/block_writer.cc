#include "tags/block_writer.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "block_run.h"
#include "block_sinks.h"
#include "block_walk.h"
#include "block_writer_paths.h"
#include "log/log.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

// The entries of one step go out through the sink: the time entry before the first
// sample entry, then the sample entries.
template <class Sink>
struct StepWriter {
  Sink& sink;
  int64_t current;
  int64_t& previous;
  bool time_written = false;

  void TimeEntry() {
    if (time_written) return;
    time_written = true;
    // The difference wraps as 64-bit two's complement arithmetic does.
    uint64_t diff = static_cast<uint64_t>(current) - static_cast<uint64_t>(previous);
    if (static_cast<int64_t>(diff) >= kAbsoluteTimeGap) {
      // Four 16-bit groups, the least significant first.
      uint64_t t = static_cast<uint64_t>(current);
      sink.Tag(kAbsoluteTimeEntry);
      sink.Data(static_cast<uint32_t>((t & 0xFFFF) << 16 | ((t >> 16) & 0xFFFF)), 32);
      sink.Data(static_cast<uint32_t>(((t >> 32) & 0xFFFF) << 16 | t >> 48), 32);
    } else {
      sink.Tag(kRelativeTimeEntry);
      sink.Data(ThreeBytesLowFirst(diff), 24);
    }
    previous = current;
  }
  void Head(const TagWalk& t) {
    TimeEntry();
    sink.Tag(static_cast<uint8_t>(t.id));
    sink.Length(static_cast<uint32_t>(t.width));
  }

  void Sample(TagWalk& t) {
    const size_t i = t.pos;
    const uint32_t value = static_cast<uint32_t>(t.values[i]);
    if (t.plain) {  // types 0 and 2, the common case, tested first
      Head(t);
      sink.Data(value & t.mask, t.width);
      t.Advance();
      return;
    }
    switch (t.type) {
      case kTagTypeDelta: {
        // The low bits of the step are all the format holds; the reader adds them up.
        const uint32_t step = value - t.prev_value;
        Head(t);
        sink.Data(step & t.mask, t.width);
        t.steps_seen |= step;
        t.prev_value = value;
        break;
      }
      case kTagTypeState:
      case kTagTypeState2:
        StateSample(t);
        return;  // StateSample advances the cursor itself
      case kTagTypeRaw:
        RawSample(t, i);
        break;
      default:  // types 0 and 2
        Head(t);
        sink.Data(value & t.mask, t.width);
        break;
    }
    t.Advance();
  }

  void RawSample(TagWalk& t, size_t i) {
    Head(t);
    // A plain sample in a raw tag, or a raw sample without bytes, has no bytes to
    // write: it goes out with a byte count of 0. A count the length field cannot hold
    // is cut to the largest it can, with that many bytes, so the streams stay in step.
    const uint8_t* bytes = t.batch.Bytes(i);
    const uint32_t n = RawByteCount(bytes, t.values[i], t.mask);
    sink.Data(n, t.width);
    sink.ReserveData(n);
    sink.DataBytes(bytes, n);
  }

  void StateSample(TagWalk& t) {
    const int64_t value = t.values[t.pos];
    const int64_t time = t.cur_time;
    if (value != t.last_written) {
      Head(t);
      sink.Data(static_cast<uint32_t>(value | 2) & t.mask, t.width);
      sink.Data(ThreeBytesLowFirst(static_cast<uint64_t>(t.interval)), 24);
      t.last_written = value;
    }
    // Samples 0, 1 and 2 never end a run by a gap; from sample 3 on, a sample more than
    // twice the interval after its predecessor ends the run after itself.
    bool gap = t.index >= 3 && GapExceeds(t.prev_time, time, t.interval);
    t.prev_time = time;
    ++t.index;
    t.Advance();
    if (gap || t.done) {
      Head(t);
      sink.Data(0, t.width);
      t.last_written = -1;
    }
  }
};

template <class Sink>
class Walker {
 public:
  Walker(BlockSampleSource& source, Sink& sink, WriterPaths paths)
      : source_(source), sink_(sink), runs_(paths == WriterPaths::kRunsAndSteps) {}

  // Merges the tags by time. Each step writes, in ascending id order, one sample of
  // every tag whose current sample has the step's time, and finds the next step's time
  // on the way.
  void Run() {
    OpenTags();
    Sink sink = sink_;  // a local copy, which the compiler can keep in registers
    int64_t previous = 0;
    int64_t current = 0;
    for (size_t k = 0; k < tags_.size(); ++k)
      if (k == 0 || tags_[k].cur_time < current) current = tags_[k].cur_time;
    size_t wait = 0;     // steps to go step by step before the next run is tried
    size_t backoff = 1;  // the wait after a run that ended too soon to pay for itself
    size_t walked = 0;   // steps since the last window was warmed
    Warm(0, 2 * kWarmWindow);
    while (!tags_.empty()) {
      if (++walked >= kWarmWindow) {
        walked = 0;
        Warm(kWarmWindow, 2 * kWarmWindow);
      }
      if (wait > 0) {
        --wait;
      } else if (runs_) {
        const size_t steps = plan_.Make(tags_, current) ? WriteRun(sink, plan_, previous) : 0;
        plan_.Finish(steps);
        walked += steps;
        if (steps > 0) current = EarliestTime();
        if (steps < kShortRun) {
          wait = backoff;
          backoff = std::min<size_t>(backoff * 2, kLongestWait);
        } else {
          backoff = 1;
        }
      }
      // The step the run could not write, as every step when there is no run.
      // A step writes at most a time entry and, per tag, a sample and an end item.
      sink.Reserve(2 * tags_.size() + 1, 0);
      StepWriter<Sink> step{sink, current, previous};
      // The next step's time: the smallest current time left (a tag that has ended is
      // dropped, which keeps the others in ascending id order).
      int64_t next = std::numeric_limits<int64_t>::max();
      TagWalk* end = tags_.data() + tags_.size();
      for (TagWalk* t = tags_.data(); t != end;) {
        if (t->cur_time == current) {
          step.Sample(*t);
          if (t->done) {
            if (t->type == kTagTypeDelta && (t->steps_seen & ~t->mask) != 0) cut_.push_back(t->id);
            size_t at = static_cast<size_t>(t - tags_.data());
            tags_.erase(tags_.begin() + static_cast<ptrdiff_t>(at));
            t = tags_.data() + at;
            end = tags_.data() + tags_.size();
            continue;
          }
        }
        next = std::min(next, t->cur_time);
        ++t;
      }
      current = next;
    }
    sink_ = sink;
  }

  // The delta tags, after Run, with a step their width could not hold.
  const std::vector<int32_t>& DeltaTagsCut() const { return cut_; }

 private:
  // A run this short costs about what it saves: after one, runs are tried again only
  // after a wait that doubles up to kLongestWait steps.
  static constexpr size_t kShortRun = 4;
  static constexpr size_t kLongestWait = 64;

  void Warm(size_t from, size_t to) const {
    for (const TagWalk& t : tags_) t.Warm(from, to);
  }

  int64_t EarliestTime() const {
    int64_t earliest = std::numeric_limits<int64_t>::max();
    for (const TagWalk& t : tags_) earliest = std::min(earliest, t.cur_time);
    return earliest;
  }

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
      t.Fetch();
      if (t.done) continue;
      t.id = id;
      t.type = kTagDefinitions[id].nType;
      t.plain = t.type == kTagTypeValue || t.type == kTagTypeValue2;
      t.width = kTagDefinitions[id].nBits & 31;
      t.mask = t.width == 0 ? 0 : (uint32_t{1} << t.width) - 1;
      if (IsStateTagType(t.type)) {
        t.interval = source_.Interval(id);
        if (t.interval == 0) t.interval = kDefaultStateInterval;
      }
      tags_.push_back(std::move(t));
    }
  }

  BlockSampleSource& source_;
  Sink& sink_;
  const bool runs_;
  std::vector<TagWalk> tags_;
  std::vector<int32_t> cut_;
  RunPlan plan_;
};

// A delta tag keeps only the low bits of each step; the reader's sum gives the values
// back only while the first value fits the width and the values rise by steps that fit.
void LogDeltaTagsCut(const std::vector<int32_t>& ids) {
  for (int32_t id : ids) {
    const int width = kTagDefinitions[id].nBits & 31;
    MQ_LOG(
        "Block: tag %d (delta, width %d) has a first value of 2^%d or more, a falling "
        "value or a step of 2^%d or more; it will read back otherwise",
        id, width, width, width);
  }
}

}  // namespace

uint64_t BlockSizes::Total() const {
  return tag_id_size + length_size + data_size + kBlockHeaderSize;
}

BlockSizes PredictBlockSizes(BlockSampleSource& source) {
  return PredictBlockSizes(source, WriterPaths::kRunsAndSteps);
}

BlockSizes PredictBlockSizes(BlockSampleSource& source, WriterPaths paths) {
  CountingSink sink;
  Walker<CountingSink>(source, sink, paths).Run();
  BlockSizes sizes;
  sizes.tag_id_size = sink.tag_bytes + kBlockCrcSize;
  sizes.length_size = sink.length_bits / 8 + kBlockCrcSize;
  sizes.data_size = sink.data_bits / 8 + kBlockCrcSize;
  return sizes;
}

int32_t WriteBlock(BlockSampleSource& source, const BlockStreams& out) {
  return WriteBlock(source, out, WriterPaths::kRunsAndSteps);
}

int32_t WriteBlock(BlockSampleSource& source, const BlockStreams& out, WriterPaths paths) {
  // The buffers grow as the entries come, to exactly the sizes a prediction pass would
  // have reserved (plus the padding); a separate pass would read every sample twice,
  // which for a stored program means reading every record file twice.
  BitBuffer* streams[] = {out.tag_ids, out.lengths, out.data};
  for (BitBuffer* b : streams) b->Clear();
  BufferSink sink(out.tag_ids, out.lengths, out.data);
  Walker<BufferSink> walker(source, sink, paths);
  walker.Run();
  LogDeltaTagsCut(walker.DeltaTagsCut());
  sink.Finish();
  // The CRCs go on in this order: data, tag ids, lengths.
  out.data->AppendCrc();
  out.tag_ids->AppendCrc();
  out.lengths->AppendCrc();
  constexpr uint64_t kMax = std::numeric_limits<uint32_t>::max();
  bool lost = false;
  bool too_large = false;
  for (BitBuffer* b : streams) {
    lost = lost || b->spill_failed();
    too_large = too_large || b->stream_size() > kMax;
  }
  if (lost || too_large) {
    if (lost) MQ_LOG("Block: a stream could not be set aside in its temporary file");
    for (BitBuffer* b : streams) b->Clear();
    out.header->Clear();
    return -1;
  }
  WriteBlockHeader(static_cast<uint32_t>(out.lengths->stream_size()),
                   static_cast<uint32_t>(out.data->stream_size()),
                   static_cast<uint32_t>(out.tag_ids->stream_size()), out.header);
  return 1;
}

std::vector<uint8_t> EncodedBlock::Bytes() const {
  std::vector<uint8_t> bytes;
  bytes.reserve(header.stream_size() + tag_ids.stream_size() + lengths.stream_size() +
                data.stream_size());
  for (const BitBuffer* b : {&header, &tag_ids, &lengths, &data}) {
    const bool whole = b->ForEachChunk(kStreamReadChunk, [&bytes](const uint8_t* p, size_t n) {
      bytes.insert(bytes.end(), p, p + n);
      return true;
    });
    if (!whole) return {};
  }
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
