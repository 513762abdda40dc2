#include "tags/block_format.h"

#include "platform/crc32.h"

namespace marquel {

void WriteBlockHeader(uint32_t length_size, uint32_t data_size, uint32_t tag_id_size,
                      BitBuffer* out) {
  out->Clear();
  out->Reserve(kBlockHeaderBufferSize);
  out->WriteBits(kBlockVersionFirst, 8);
  out->WriteBits(kBlockVersionSecond, 8);
  out->WriteBits(kBlockIdentifier, 32);
  out->WriteBits(length_size, 32);
  out->WriteBits(data_size, 32);
  out->WriteBits(tag_id_size, 32);
  out->WriteBits(kBlockTagTableCapacity, 32);
  out->AppendCrc();
}

BlockHeader ParseBlockHeader(const uint8_t* bytes) {
  BlockHeader h;
  h.version_first = bytes[0];
  h.version_second = bytes[1];
  h.identifier = LoadBigEndian32(bytes + 2);
  h.length_size = LoadBigEndian32(bytes + 6);
  h.data_size = LoadBigEndian32(bytes + 10);
  h.tag_id_size = LoadBigEndian32(bytes + 14);
  h.capacity = LoadBigEndian32(bytes + 18);
  h.crc = LoadBigEndian32(bytes + 22);
  return h;
}

bool BlockHeaderCrcOk(const uint8_t* bytes) {
  return Crc32Ieee(bytes, kBlockHeaderSize - kBlockCrcSize) == LoadBigEndian32(bytes + 22);
}

bool StreamCrcOk(const uint8_t* bytes, size_t n) {
  if (n < kBlockCrcSize) return false;
  return Crc32Ieee(bytes, n - kBlockCrcSize) == LoadBigEndian32(bytes + n - kBlockCrcSize);
}

}  // namespace marquel
