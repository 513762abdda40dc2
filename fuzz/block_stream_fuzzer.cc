// Fuzzes the block reader on bare streams.
//
// Input: one mode byte, two 16-bit big-endian sizes (tag-id stream, length stream), then
// the stream bytes (the data stream is the rest). With mode bit 0 set, each stream gets
// its correct CRC appended, so that the entries themselves are decoded; otherwise the
// bytes are taken as they are (mostly CRC rejections). Mode bit 1 reads the input as a
// whole stored block instead.
//
// Checks: nothing crashes; the reader's run path and its entry-by-entry path give the
// same result and the same samples; a block the reader accepts is written again, by the
// writer's run path and by its step-by-step path, which must give the same bytes, and
// the reader must accept them in turn.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/crc32.h"
#include "tags/block_reader.h"
#include "tags/block_reader_paths.h"
#include "tags/block_writer.h"
#include "tags/block_writer_paths.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes WithCrc(const uint8_t* p, size_t n) {
  Bytes out(p, p + n);
  uint32_t crc = marquel::Crc32Ieee(p, n);
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(crc >> shift));
  return out;
}

bool SameContent(const marquel::BlockContent& a, const marquel::BlockContent& b) {
  for (int32_t id = 0; id < marquel::kTagIdCount; ++id) {
    const marquel::BlockTagSamples& x = a.tags[id];
    const marquel::BlockTagSamples& y = b.tags[id];
    if (x.present != y.present || x.valid != y.valid || x.raw != y.raw ||
        x.interval != y.interval || x.times != y.times || x.values != y.values)
      return false;
    for (size_t i = 0; x.raw && i < x.size(); ++i)
      if (!std::equal(x.RawData(i), x.RawData(i) + x.values[i], y.RawData(i))) return false;
  }
  return true;
}

// The block of `content` by one of the writer's paths, in stored order.
Bytes Written(const marquel::BlockContent& content, marquel::WriterPaths paths) {
  marquel::BlockContentSource source(content);
  marquel::EncodedBlock block;
  const marquel::BlockStreams streams{&block.tag_ids, &block.lengths, &block.data, &block.header};
  if (marquel::WriteBlock(source, streams, paths) != 1) return {};
  return block.Bytes();
}

void CheckRewrite(const marquel::BlockContent& content, const marquel::BlockReadOptions& options) {
  Bytes again = Written(content, marquel::WriterPaths::kRunsAndSteps);
  if (again != Written(content, marquel::WriterPaths::kStepsOnly)) __builtin_trap();
  marquel::BlockContent back;
  if (again.empty() || marquel::DecodeBlockBytes(again.data(), again.size(), options, &back) != 1)
    __builtin_trap();
}

// The entry-by-entry reading of the same streams must agree with what was read.
void CheckPaths(int32_t result, const marquel::BlockContent& content, const uint8_t* ids,
                size_t n_ids, const uint8_t* lengths, size_t n_len, const uint8_t* data,
                size_t n_data, const marquel::BlockReadOptions& options) {
  auto other = std::make_unique<marquel::BlockContent>();
  marquel::BlockRejection why;
  const int32_t again =
      marquel::DecodeBlock(ids, n_ids, lengths, n_len, data, n_data, options, other.get(), &why,
                           nullptr, marquel::ReaderPaths::kEntriesOnly);
  if (again != result || (result == 1 && !SameContent(content, *other))) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 5) return 0;
  const uint8_t mode = data[0];
  marquel::BlockReadOptions options;
  options.max_filled_samples = 1 << 16;  // keeps each run quick
  auto content = std::make_unique<marquel::BlockContent>();
  if (mode & 2) {
    if (marquel::DecodeBlockBytes(data + 1, size - 1, options, content.get()) == 1)
      CheckRewrite(*content, options);
    return 0;
  }
  size_t rest = size - 5;
  size_t n_ids = std::min<size_t>(static_cast<size_t>(data[1]) << 8 | data[2], rest);
  size_t n_len = std::min<size_t>(static_cast<size_t>(data[3]) << 8 | data[4], rest - n_ids);
  const uint8_t* ids = data + 5;
  const uint8_t* lengths = ids + n_ids;
  const uint8_t* bytes = lengths + n_len;
  size_t n_data = rest - n_ids - n_len;
  int32_t result;
  if (mode & 1) {
    Bytes a = WithCrc(ids, n_ids), b = WithCrc(lengths, n_len), c = WithCrc(bytes, n_data);
    result = marquel::DecodeBlock(a.data(), a.size(), b.data(), b.size(), c.data(), c.size(),
                                  options, content.get());
    CheckPaths(result, *content, a.data(), a.size(), b.data(), b.size(), c.data(), c.size(),
               options);
  } else {
    result =
        marquel::DecodeBlock(ids, n_ids, lengths, n_len, bytes, n_data, options, content.get());
  }
  if (result == 1) CheckRewrite(*content, options);
  return 0;
}
