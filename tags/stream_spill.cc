// The temporary file of a stream set aside while its block is written.
#include "tags/stream_spill.h"

#include <algorithm>
#include <vector>

#include "platform/crc32.h"
#include "platform/files.h"
#include "platform/temp_folders.h"

namespace marquel {
namespace {

// A file handle closed on every way out.
struct OpenFile {
  FileHandle h;
  ~OpenFile() {
    if (h != kInvalidFileHandle) CloseFileHandle(h);
  }
};

FileHandle OpenSpill(const std::string& path, uint32_t access) {
  return OpenFileHandle(path, access, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                        kInvalidFileHandle);
}

}  // namespace

std::unique_ptr<StreamSpill> StreamSpill::Create() {
  // In the process's own folder, so that the files of a killed server are swept with it.
  const std::string folder = ProcessTempFolder();
  std::string name;
  if (folder.empty() || MakeTempFileName(folder, "MQS", 0, &name) == 0) return nullptr;
  return std::unique_ptr<StreamSpill>(new StreamSpill(std::move(name)));
}

StreamSpill::~StreamSpill() {
  RemoveFile(path_);
}

bool StreamSpill::Append(const uint8_t* bytes, size_t n) {
  if (n == 0) return true;
  // Opened for each append: a stream spills once per threshold's worth of bytes, and a
  // server with many programs keeps no descriptors open for them.
  OpenFile file{OpenSpill(path_, GENERIC_WRITE)};
  if (file.h == kInvalidFileHandle || !WriteAllAt(file.h, size_, bytes, n)) return false;
  crc_state_ = Crc32IeeeUpdate(crc_state_, bytes, n);
  size_ += n;
  return true;
}

bool StreamSpill::ForEachChunk(size_t max_chunk, const StreamChunkFn& f) const {
  if (size_ == 0) return true;
  max_chunk = std::max<size_t>(max_chunk, 1);
  OpenFile file{OpenSpill(path_, GENERIC_READ)};
  if (file.h == kInvalidFileHandle) return false;
  std::vector<uint8_t> chunk(static_cast<size_t>(std::min<uint64_t>(size_, max_chunk)));
  for (uint64_t at = 0; at < size_;) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(size_ - at, chunk.size()));
    if (!ReadAllAt(file.h, at, chunk.data(), n) || !f(chunk.data(), n)) return false;
    at += n;
  }
  return true;
}

bool ForEachStreamChunk(const StreamSpill* spill, const uint8_t* bytes, size_t n, size_t max_chunk,
                        const StreamChunkFn& f) {
  max_chunk = std::max<size_t>(max_chunk, 1);
  if (spill != nullptr && !spill->ForEachChunk(max_chunk, f)) return false;
  for (size_t at = 0; at < n; at += max_chunk) {
    if (!f(bytes + at, std::min(max_chunk, n - at))) return false;
  }
  return true;
}

}  // namespace marquel
