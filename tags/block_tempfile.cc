#include "tags/block_tempfile.h"

#include <algorithm>
#include <vector>

#include "log/log.h"
#include "tags/block_format.h"
#include "tags/block_program.h"

namespace marquel {
namespace {

// Writes all n bytes, in pieces that fit the 32-bit count of WriteFile.
bool WriteAll(FileHandle file, const uint8_t* bytes, size_t n) {
  while (n > 0) {
    uint32_t piece = static_cast<uint32_t>(std::min<size_t>(n, 1u << 30));
    uint32_t written = 0;
    if (!WriteFile(file, bytes, piece, &written) || written != piece) return false;
    bytes += piece;
    n -= piece;
  }
  return true;
}

// Reads exactly n bytes; false on an error or a short read.
bool ReadExactly(FileHandle file, uint8_t* out, size_t n) {
  while (n > 0) {
    uint32_t piece = static_cast<uint32_t>(std::min<size_t>(n, 1u << 30));
    uint32_t got = 0;
    if (!ReadFile(file, out, piece, &got) || got == 0) return false;
    out += got;
    n -= got;
  }
  return true;
}

// Bytes between the file position and the end of the file (0 when unknown).
uint64_t BytesLeft(FileHandle file) {
  int64_t size = GetFileSize64(file);
  int64_t at = SeekFile(file, 0, FILE_CURRENT);
  return size < 0 || at < 0 || at > size ? 0 : static_cast<uint64_t>(size - at);
}

// Reads one stream of `size` bytes straight into *out (no second copy of a large
// stream). False on a short read (checked before anything is allocated for it).
bool ReadStream(FileHandle file, uint32_t size, std::vector<uint8_t>* out) {
  if (size > BytesLeft(file)) return false;
  out->resize(size);
  return ReadExactly(file, out->data(), size);
}

}  // namespace

int32_t WriteProgramBlockToFile(MQOneProgram& program, FileHandle file) {
  if (program.CheckBuffersForSerialise() != 1) return 0;
  const ProgramBuffer* parts[] = {program.HeaderBuffer(), program.TagIdBuffer(),
                                  program.DataLengthBuffer(), program.DataBuffer()};
  if (parts[0]->Size() < kBlockHeaderSize) return 0;
  // Chunk by chunk, so that a spilled stream never comes back into memory whole.
  auto write = [file](const uint8_t* bytes, size_t n) { return WriteAll(file, bytes, n); };
  for (const ProgramBuffer* part : parts) {
    if (!part->ForEachChunk(kStreamReadChunk, write)) return -1;
  }
  return 1;
}

int32_t ReadProgramBlockFromTempFile(MQOneProgram& program, FileHandle file) {
  const int32_t number = program.Number();
  auto fail = [&program] {
    program.ReleaseBuffers();
    return 0;
  };
  uint8_t header[kBlockHeaderSize];
  if (!ReadExactly(file, header, kBlockHeaderSize)) return fail();
  if (!BlockHeaderCrcOk(header)) {
    MQ_LOG("MQOneProgram: [%d] Read from temp file check crc header failed", number);
    return fail();
  }
  BlockHeader h = ParseBlockHeader(header);

  std::vector<uint8_t> tag_ids, lengths, data;
  if (!ReadStream(file, h.tag_id_size, &tag_ids)) return fail();
  if (!StreamCrcOk(tag_ids.data(), tag_ids.size())) {
    MQ_LOG("MQOneProgram: [%d] Read from temp file check crc tagid failed", number);
    return fail();
  }
  if (!ReadStream(file, h.length_size, &lengths)) return fail();
  if (!StreamCrcOk(lengths.data(), lengths.size())) {
    MQ_LOG("MQOneProgram: [%d] Read from temp file check crc length failed", number);
    return fail();
  }
  if (!ReadStream(file, h.data_size, &data)) return fail();
  SetProgramBlockBuffers(program, header, std::move(tag_ids), std::move(lengths), std::move(data));
  return 1;
}

}  // namespace marquel
