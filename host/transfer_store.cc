// TransferStore: the results of bulk reads that are handed out page by page.
#include "transfer_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/env.h"
#include "platform/files.h"

namespace marquel::host {
namespace {

constexpr size_t kHeadBytes = 12;          // time code and value or length
constexpr size_t kHeadsPerRead = 1 << 16;  // heads read back per pread

// An unlinked file in the temporary folder: nothing is left behind when the server ends.
int MakeUnlinkedFile() {
  std::string folder = CurrentEnv()->TempFolder();
  int fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  std::string name = folder + "/marquel-transfer-XXXXXX";
  fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd >= 0) ::unlink(name.c_str());
  return fd;
}

// Reads `count` heads of stored samples from element `first` on.
bool ReadHeads(Transfer& t, int64_t first, size_t count, int64_t* times, int32_t* values) {
  std::vector<uint8_t> chunk;
  for (size_t done = 0; done < count;) {
    size_t n = std::min(count - done, kHeadsPerRead);
    chunk.resize(n * kHeadBytes);
    uint64_t offset = static_cast<uint64_t>(first + static_cast<int64_t>(done)) * kHeadBytes;
    if (!t.heads.ReadAt(offset, chunk.data(), chunk.size())) return false;
    for (size_t i = 0; i < n; ++i) {
      std::memcpy(&times[done + i], chunk.data() + i * kHeadBytes, 8);
      std::memcpy(&values[done + i], chunk.data() + i * kHeadBytes + 8, 4);
    }
    done += n;
  }
  return true;
}

}  // namespace

SpillFile::~SpillFile() {
  if (fd_ >= 0) ::close(fd_);
}

SpillFile::SpillFile(SpillFile&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      size_(std::exchange(other.size_, 0)),
      buffer_(std::move(other.buffer_)) {}

SpillFile& SpillFile::operator=(SpillFile&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    size_ = std::exchange(other.size_, 0);
    buffer_ = std::move(other.buffer_);
  }
  return *this;
}

bool SpillFile::Flush() {
  if (buffer_.empty()) return true;
  if (fd_ < 0) fd_ = MakeUnlinkedFile();
  if (fd_ < 0 || !WriteAllAt(fd_, size_ - buffer_.size(), buffer_.data(), buffer_.size()))
    return false;
  buffer_.clear();
  return true;
}

bool SpillFile::Append(const void* data, size_t n) {
  const auto* p = static_cast<const uint8_t*>(data);
  while (n > 0) {
    size_t k = std::min(n, kBufferBytes - buffer_.size());
    buffer_.insert(buffer_.end(), p, p + k);
    size_ += k;
    p += k;
    n -= k;
    if (buffer_.size() >= kBufferBytes && !Flush()) return false;
  }
  return true;
}

bool SpillFile::ReadAt(uint64_t offset, void* data, size_t n) {
  if (n == 0) return true;
  if (offset + n > size_ || !Flush()) return false;
  return ReadAllAt(fd_, offset, data, n);
}

bool Transfer::Keep(int64_t time, int32_t value, const uint8_t* data, size_t length) {
  uint8_t head[kHeadBytes];
  std::memcpy(head, &time, 8);
  std::memcpy(head + 8, &value, 4);
  if (!heads.Append(head, sizeof head)) return false;
  ++stored;
  if (!raw || length == 0) return true;
  if (data != nullptr) return bytes.Append(data, length);
  static const uint8_t kZeros[4096] = {};
  for (size_t done = 0; done < length; done += sizeof kZeros)
    if (!bytes.Append(kZeros, std::min(sizeof kZeros, length - done))) return false;
  return true;
}

bool TransferStore::Admits(const std::string& owner) const {
  if (transfers_.size() < kMaxTransfers) return true;
  return std::any_of(transfers_.begin(), transfers_.end(),
                     [&](const auto& entry) { return entry.second.owner == owner; });
}

uint64_t TransferStore::Add(Transfer transfer) {
  size_t owned = 0;
  for (const auto& [id, t] : transfers_)
    if (t.owner == transfer.owner) ++owned;
  if (owned >= kMaxPerClient || transfers_.size() >= kMaxTransfers) {
    for (auto it = transfers_.begin(); it != transfers_.end(); ++it) {
      if (it->second.owner == transfer.owner) {
        Erase(it->first);
        break;
      }
    }
  }
  uint64_t id = next_id_++;
  stored_bytes_ += transfer.Bytes();
  transfers_.emplace(id, std::move(transfer));
  return id;
}

Transfer* TransferStore::Find(const std::string& owner, uint64_t id) {
  auto it = transfers_.find(id);
  if (it == transfers_.end() || it->second.owner != owner) return nullptr;
  return &it->second;
}

void TransferStore::Erase(uint64_t id) {
  auto it = transfers_.find(id);
  if (it == transfers_.end()) return;
  stored_bytes_ -= it->second.Bytes();
  transfers_.erase(it);
}

void TransferStore::EraseOwner(const std::string& owner) {
  for (auto it = transfers_.begin(); it != transfers_.end();) {
    if (it->second.owner == owner) {
      stored_bytes_ -= it->second.Bytes();
      it = transfers_.erase(it);
    } else {
      ++it;
    }
  }
}

bool TakePlainPage(Transfer& t, int32_t limit, std::vector<int64_t>* times,
                   std::vector<int32_t>* values) {
  int64_t left = std::max<int64_t>(t.total - t.next, 0);
  size_t n = static_cast<size_t>(std::min<int64_t>(left, std::clamp(limit, 1, kMaxPageSamples)));
  times->assign(n, 0);
  values->assign(n, 0);
  size_t kept = static_cast<size_t>(std::clamp<int64_t>(t.stored - t.next, 0, n));
  if (!ReadHeads(t, t.next, kept, times->data(), values->data())) return false;
  t.next += static_cast<int64_t>(n);
  return true;
}

bool TakeRawPage(Transfer& t, int32_t byte_limit, std::vector<int64_t>* times,
                 std::vector<int32_t>* lengths, std::vector<uint8_t>* bytes) {
  uint64_t budget = static_cast<uint64_t>(std::clamp(byte_limit, 1, kMaxPageBytes));
  int64_t left = std::max<int64_t>(t.total - t.next, 0);
  size_t most = static_cast<size_t>(std::min<int64_t>(left, kMaxPageSamples));
  times->clear();
  lengths->clear();
  // Stored samples while their bytes fit (at least one), then the zeros, which carry none.
  uint64_t used = 0;
  std::vector<int64_t> chunk_times;
  std::vector<int32_t> chunk_lengths;
  bool full = false;
  while (!full && times->size() < most && t.next + static_cast<int64_t>(times->size()) < t.stored) {
    int64_t first = t.next + static_cast<int64_t>(times->size());
    size_t n = static_cast<size_t>(
        std::min<int64_t>({t.stored - first, static_cast<int64_t>(most - times->size()),
                           static_cast<int64_t>(kHeadsPerRead)}));
    chunk_times.resize(n);
    chunk_lengths.resize(n);
    if (!ReadHeads(t, first, n, chunk_times.data(), chunk_lengths.data())) return false;
    for (size_t i = 0; i < n; ++i) {
      uint64_t length = static_cast<uint64_t>(std::max(chunk_lengths[i], 0));
      if (!times->empty() && used + length > budget) {
        full = true;
        break;
      }
      used += length;
      times->push_back(chunk_times[i]);
      lengths->push_back(chunk_lengths[i]);
    }
  }
  if (!full && times->size() < most && t.next + static_cast<int64_t>(times->size()) >= t.stored) {
    times->resize(most, 0);
    lengths->resize(most, 0);
  }
  bytes->resize(used);
  if (!t.bytes.ReadAt(t.next_byte, bytes->data(), used)) return false;
  t.next += static_cast<int64_t>(times->size());
  t.next_byte += used;
  return true;
}

}  // namespace marquel::host
