// Fuzzes the block reader on bare streams.
//
// Input: one mode byte, two 16-bit big-endian sizes (tag-id stream, length stream), then
// the stream bytes (the data stream is the rest). With mode bit 0 set, each stream gets
// its correct CRC appended, so that the entries themselves are decoded; otherwise the
// bytes are taken as they are (mostly CRC rejections). Mode bit 1 reads the input as a
// whole stored block instead.
//
// Checks: nothing crashes; a block the reader accepts is written again, and the writer's
// block must be accepted by the reader in turn.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/crc32.h"
#include "tags/block_reader.h"
#include "tags/block_writer.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes WithCrc(const uint8_t* p, size_t n) {
  Bytes out(p, p + n);
  uint32_t crc = marquel::Crc32Ieee(p, n);
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(crc >> shift));
  return out;
}

void CheckRewrite(const marquel::BlockContent& content, const marquel::BlockReadOptions& options) {
  Bytes again = marquel::EncodeBlockBytes(content);
  marquel::BlockContent back;
  if (again.empty() || marquel::DecodeBlockBytes(again.data(), again.size(), options, &back) != 1)
    __builtin_trap();
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
  } else {
    result =
        marquel::DecodeBlock(ids, n_ids, lengths, n_len, bytes, n_data, options, content.get());
  }
  if (result == 1) CheckRewrite(*content, options);
  return 0;
}
