#include "tags/block_program.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "log/log.h"
#include "tags/block_format.h"

namespace marquel {
namespace {

// A tag's records in order, a batch at a time. TagRecordCursor keeps a record's raw
// bytes only until its next step, so the bytes of a batch are copied into the cursor's
// own buffer, which lives until the next batch. A batch ends after kBatch records or
// once its bytes reach kBatchBytes, so that large raw samples never gather in memory.
class ProgramTagCursor : public BlockTagCursor {
 public:
  ProgramTagCursor(TagObject* tag, bool* failed) : cursor_(tag), failed_(failed) {}
  bool Next(BlockSampleBatch* batch) override {
    times_.clear();
    values_.clear();
    offsets_.clear();
    bytes_.clear();
    bool any_bytes = false;
    for (size_t n = 0; n < kBatch && bytes_.size() < kBatchBytes && cursor_.Valid();
         ++n, cursor_.Next()) {
      const SampleRecord& r = cursor_.Current();
      times_.push_back(r.llTimeCode);
      values_.push_back(r.nValue);
      offsets_.push_back(BlockSampleBatch::kNoBytes);
      if (r.nKind == kRawSample && r.pBuffer != nullptr && r.nValue > 0) {
        offsets_.back() = bytes_.size();
        bytes_.insert(bytes_.end(), r.pBuffer, r.pBuffer + r.nValue);
        any_bytes = true;
      }
    }
    if (cursor_.Failed()) *failed_ = true;
    if (times_.empty()) return false;
    *batch = BlockSampleBatch();
    batch->times = times_.data();
    batch->values = values_.data();
    batch->count = times_.size();
    if (any_bytes) {
      bytes_.insert(bytes_.end(), kReadPast, 0);
      batch->raw_base = bytes_.data();
      batch->raw_readable_past = true;
      batch->raw_offsets = offsets_.data();
    }
    return true;
  }

 private:
  static constexpr size_t kBatch = 256;
  static constexpr size_t kBatchBytes = size_t{1} << 20;
  static constexpr size_t kReadPast = 8;  // zero bytes after the last sample's (see the batch)
  TagRecordCursor cursor_;
  bool* failed_;
  std::vector<int64_t> times_;
  std::vector<int32_t> values_;
  std::vector<uint64_t> offsets_;
  std::vector<uint8_t> bytes_;
};

// Moves a written stream, with its spill file, into one of the program's buffers.
void StoreStream(ProgramBuffer* buffer, BitBuffer& stream) {
  const uint64_t size = stream.stream_size();
  buffer->spill = stream.ReleaseSpill();
  buffer->bytes = stream.ReleaseBytes();
  buffer->bitPosition = size * 8;
}

// A stream's content in one piece, for the decoder: the buffer's own bytes, or the whole
// stream read back into *copy when part of it was spilled. False when it cannot be read.
bool WholeStream(const ProgramBuffer& buffer, std::vector<uint8_t>* copy, const uint8_t** data,
                 size_t* size) {
  if (!buffer.spill) {
    *data = buffer.bytes.data();
    *size = buffer.bytes.size();
    return true;
  }
  copy->clear();
  copy->reserve(static_cast<size_t>(buffer.Size()));
  const bool whole = buffer.ForEachChunk(kStreamReadChunk, [copy](const uint8_t* p, size_t n) {
    copy->insert(copy->end(), p, p + n);
    return true;
  });
  *data = copy->data();
  *size = copy->size();
  return whole;
}

void StoreHeader(MQOneProgram& program, const uint8_t* header) {
  ProgramBuffer* h = program.MakeHeaderBuffer();
  std::memcpy(h->bytes.data(), header, kBlockHeaderSize);
  h->bitPosition = kBlockHeaderSize * 8;
}

}  // namespace

std::unique_ptr<BlockTagCursor> ProgramBlockSource::OpenTag(int32_t tag_id) {
  TagObject* tag = program_.Tag(tag_id);
  if (tag == nullptr) return nullptr;
  return std::make_unique<ProgramTagCursor>(tag, &read_failed_);
}

int64_t ProgramBlockSource::Interval(int32_t tag_id) {
  TagObject* tag = program_.Tag(tag_id);
  return tag == nullptr ? 0 : tag->Interval();
}

int32_t WriteProgramBlock(MQOneProgram& program, size_t spill_threshold) {
  ProgramBlockSource source(program);
  EncodedBlock block;
  for (BitBuffer* b : {&block.tag_ids, &block.lengths, &block.data})
    b->SetSpillThreshold(spill_threshold);
  if (EncodeBlock(source, &block) != 1 || source.ReadFailed()) {
    if (source.ReadFailed())
      MQ_LOG("MQOneProgram: [%d] a tag's records could not be read", program.Number());
    program.ReleaseBuffers();
    return -1;
  }
  StoreStream(program.MakeTagIdBuffer(0), block.tag_ids);
  StoreStream(program.MakeDataLengthBuffer(0), block.lengths);
  StoreStream(program.MakeDataBuffer(0), block.data);
  StoreHeader(program, block.header.data());
  return 1;
}

int64_t QueryProgramBlockSize(MQOneProgram& program) {
  ProgramBlockSource source(program);
  return static_cast<int64_t>(PredictBlockSizes(source).Total());
}

int64_t QueryProgramBlockPeriodSize(MQOneProgram& program, int64_t start, int64_t end) {
  ProgramBlockSource source(program);
  BlockPeriodSource period(source, start, end);
  return static_cast<int64_t>(PredictBlockSizes(period).Total());
}

std::vector<uint8_t> ProgramBlockBytes(MQOneProgram& program) {
  ProgramBuffer* header = program.HeaderBuffer();
  ProgramBuffer* parts[] = {program.TagIdBuffer(), program.DataLengthBuffer(),
                            program.DataBuffer()};
  if (header == nullptr || header->bytes.size() < kBlockHeaderSize) return {};
  std::vector<uint8_t> out(header->bytes.begin(), header->bytes.begin() + kBlockHeaderSize);
  auto append = [&out](const uint8_t* p, size_t n) {
    out.insert(out.end(), p, p + n);
    return true;
  };
  for (ProgramBuffer* p : parts) {
    if (p == nullptr || !p->ForEachChunk(kStreamReadChunk, append)) return {};
  }
  return out;
}

void SetProgramBlockBuffers(MQOneProgram& program, const uint8_t* header,
                            std::vector<uint8_t> tag_ids, std::vector<uint8_t> lengths,
                            std::vector<uint8_t> data) {
  auto put = [](ProgramBuffer* b, std::vector<uint8_t>&& bytes) {
    b->bytes = std::move(bytes);
    b->bitPosition = static_cast<uint64_t>(b->bytes.size()) * 8;
  };
  put(program.MakeTagIdBuffer(0), std::move(tag_ids));
  put(program.MakeDataLengthBuffer(0), std::move(lengths));
  put(program.MakeDataBuffer(0), std::move(data));
  StoreHeader(program, header);
}

int32_t StoreBlockContent(MQOneProgram& program, const BlockContent& content, uint64_t* dropped) {
  uint64_t left_out = 0;
  int32_t result = 1;
  static const uint8_t kNoBytes = 0;
  for (int32_t id = 0; id < kTagIdCount && result == 1; ++id) {
    const BlockTagSamples& s = content.tags[id];
    if (!s.present) continue;
    TagObject* tag = program.GetOrCreateTag(id);
    if (tag == nullptr) return -1;
    tag->SetValid(s.valid);
    if (s.interval_set) tag->SetInterval(s.interval, true);
    if (!s.valid) continue;
    // Samples of any length are stored, up to the store's limit and to what the tag's
    // count field carries when the program is written again (a crafted block may give a
    // wider field than the tag's).
    int64_t raw_limit = std::min<int64_t>(kMaxRawSampleBytes, RawLengthLimit(id));
    for (size_t i = 0; i < s.size(); ++i) {
      SampleRecord r;
      if (s.raw) {
        if (s.values[i] > raw_limit) {
          ++left_out;
          continue;
        }
        const uint8_t* bytes = s.values[i] > 0 ? s.RawData(i) : &kNoBytes;
        r = MakeRawSample(s.times[i], s.values[i], bytes);
      } else {
        r = MakePlainSample(s.times[i], s.values[i]);
      }
      if (tag->BulkAppend(r) != 1) {
        result = -1;
        break;
      }
    }
  }
  if (program.FlushAllMemoryBlocks() != 1) result = -1;
  if (dropped) *dropped = left_out;
  return result;
}

int32_t LoadProgramBlock(MQOneProgram& program, BlockRejection* why, BlockReadStats* stats,
                         uint64_t max_filled_samples) {
  ProgramBuffer* ids = program.TagIdBuffer();
  ProgramBuffer* lengths = program.DataLengthBuffer();
  ProgramBuffer* data = program.DataBuffer();
  if (ids == nullptr || lengths == nullptr || data == nullptr) return 0;
  // A block this server wrote itself may have spilled streams; a block read from a file
  // never has.
  std::vector<uint8_t> copies[3];
  const uint8_t* bytes[3];
  size_t sizes[3];
  const ProgramBuffer* streams[3] = {ids, lengths, data};
  for (int i = 0; i < 3; ++i) {
    if (!WholeStream(*streams[i], &copies[i], &bytes[i], &sizes[i])) return 0;
  }
  BlockReadOptions options;
  options.accept = [&program](int32_t id) { return program.AcceptsTag(id); };
  options.max_filled_samples = max_filled_samples;
  auto content = std::make_unique<BlockContent>();
  BlockReadStats local;
  if (DecodeBlock(bytes[0], sizes[0], bytes[1], sizes[1], bytes[2], sizes[2], options,
                  content.get(), why, &local) != 1) {
    if (stats) *stats = local;
    return 0;
  }
  program.ClearAllTags();
  uint64_t left_out = 0;
  int32_t result = StoreBlockContent(program, *content, &left_out);
  local.dropped_samples += left_out;
  if (stats) *stats = local;
  return result;
}

}  // namespace marquel
