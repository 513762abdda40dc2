// Helpers shared by the data block tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "platform/crc32.h"
#include "tags/block_content.h"
#include "tags/block_reader.h"
#include "tags/block_writer.h"

namespace marquel::blocktest {

using Bytes = std::vector<uint8_t>;
using Pairs = std::vector<std::pair<int64_t, int32_t>>;

// The parts of a block joined in stored order.
inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// (time, value) pairs of one tag.
inline Pairs SamplesOf(const BlockContent& c, int32_t id) {
  Pairs out;
  const BlockTagSamples& t = c.tags[id];
  for (size_t i = 0; i < t.size(); ++i) out.emplace_back(t.times[i], t.values[i]);
  return out;
}

// The bytes of raw sample i of a tag.
inline Bytes RawOf(const BlockContent& c, int32_t id, size_t i) {
  const BlockTagSamples& t = c.tags[id];
  return Bytes(t.RawData(i), t.RawData(i) + t.values[i]);
}

inline void AddPlain(BlockContent& c, int32_t id, const Pairs& samples) {
  for (const auto& [t, v] : samples) c.tags[id].AddPlain(t, v);
}

inline void AddRaw(BlockContent& c, int32_t id, int64_t t, const Bytes& bytes) {
  c.tags[id].AddRaw(t, bytes.data(), static_cast<int32_t>(bytes.size()));
}

// The stored form written by the block writer.
inline Bytes Encode(const BlockContent& c) {
  return EncodeBlockBytes(c);
}

// Decodes a stored block; returns the reader's result.
inline int32_t Decode(const Bytes& bytes, BlockContent* out, BlockRejection* why = nullptr,
                      BlockReadStats* stats = nullptr) {
  return DecodeBlockBytes(bytes.data(), bytes.size(), BlockReadOptions(), out, why, stats);
}

// A stream: the bytes followed by their CRC-32, big-endian.
inline Bytes WithCrc(const Bytes& bytes) {
  Bytes out = bytes;
  uint32_t crc = Crc32Ieee(bytes.data(), bytes.size());
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(crc >> shift));
  return out;
}

// A stored block made by hand from the contents of its three streams (CRCs added).
inline Bytes BuildBlock(const Bytes& tag_ids, const Bytes& lengths, const Bytes& data) {
  Bytes t = WithCrc(tag_ids), l = WithCrc(lengths), d = WithCrc(data);
  Bytes h = {0x01, 0x01, 0xFA, 0x01, 0x00, 0x00};
  for (size_t n : {l.size(), d.size(), t.size(), size_t{256}})
    for (int shift = 24; shift >= 0; shift -= 8) h.push_back(static_cast<uint8_t>(n >> shift));
  Bytes header = WithCrc(h);
  return Cat({header, t, l, d});
}

// The predicted sizes of the block of `c`.
inline BlockSizes Predict(const BlockContent& c) {
  BlockContentSource source(c);
  return PredictBlockSizes(source);
}

}  // namespace marquel::blocktest
