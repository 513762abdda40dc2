// Record file: raw bytes that lie apart from their records.
//
// A raw record holds its bytes inline up to the file's inline room (the sample size that
// the tag's first sample fixed, at most kMaxInlineRawBytes). Longer bytes are appended to
// a companion file next to the record file and the record's head keeps their offset.
// Records move between pages, the tail and the overlay as whole records, so the offset
// travels with them. Bytes of replaced or deleted records stay behind as dead bytes; when
// the dead part passes both the floor and half the file, the live bytes are copied to a
// fresh file and the pages naming them are rewritten into free slots.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cstring>

#include "platform/files.h"
#include "record_file.h"
#include "record_layout.h"

namespace marquel {
namespace {

// An empty private file for bytes lying apart; null when it cannot be made. The pool
// opens files by path without creating them.
std::unique_ptr<PooledFile> MakeApartFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  ::close(fd);
  return std::make_unique<PooledFile>(path);
}

}  // namespace

// "MQT1A2B.tmp" keeps its bytes in "MQT1A2BR.tmp": the same folder and the same pattern.
std::string RecordFile::ApartPath() const {
  const std::string& path = file_.path();
  const std::string suffix = ".tmp";
  if (path.size() > suffix.size() &&
      path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0)
    return path.substr(0, path.size() - suffix.size()) + "R" + suffix;
  return path + "R";
}

// Encodes `record` into dst; bytes longer than the inline room are appended apart first.
int RecordFile::Encode(const SampleRecord& record, uint8_t* dst) {
  bool apart = record.nKind == kRawSample && record.pBuffer != nullptr && record.nValue > room_;
  if (!apart) {
    EncodeRecord(record, room_, dst);
    return 1;
  }
  if (!apart_) apart_ = MakeApartFile(ApartPath());
  if (!apart_) return -1;
  FileLease lease(apart_.get());
  if (lease.fd() < 0 ||
      !WriteAllAt(lease.fd(), apart_size_, record.pBuffer, static_cast<size_t>(record.nValue)))
    return -1;
  EncodeRecord(record, room_, dst, apart_size_);
  apart_size_ += static_cast<uint64_t>(record.nValue);
  return 1;
}

// Decodes `rec`. Bytes lying apart are appended to *bytes, and the view points at them.
int RecordFile::ResolveApart(const uint8_t* rec, std::vector<uint8_t>* bytes, SampleRecord* view) {
  *view = DecodeRecord(rec);
  if (!RecordBytesApart(rec)) return 1;
  uint64_t at = RecordApartOffset(rec);
  size_t n = static_cast<size_t>(view->nValue);
  if (!apart_ || n == 0) return -1;
  size_t start = bytes->size();
  bytes->resize(start + n);
  FileLease lease(apart_.get());
  if (lease.fd() < 0 || !ReadAllAt(lease.fd(), at, bytes->data() + start, n)) return -1;
  view->pBuffer = bytes->data() + start;
  return 1;
}

// A record that is dropped or replaced leaves its bytes apart dead.
void RecordFile::ForgetApart(const uint8_t* rec) {
  if (RecordBytesApart(rec)) apart_dead_ += static_cast<uint64_t>(RecordValue(rec));
}

int RecordFile::ForgetApartInPage(size_t page) {
  if (apart_size_ == 0) return 1;
  std::vector<uint8_t> data;
  if (LoadPage(page, &data) < 0) return -1;
  for (int32_t r = 0; r < pages_[page].count; ++r) ForgetApart(data.data() + RecordBytes() * r);
  return 1;
}

void RecordFile::MaybeCompactApart() {
  if (apart_dead_ < compact_floor_ || apart_dead_ * 2 < apart_size_) return;
  // A failed compaction leaves everything as it was; it is tried again later.
  CompactApart();
}

// Copies the live bytes of one page's records to `to`, rewriting their offsets in *data.
int RecordFile::CopyPageApart(size_t page, PooledFile* to, uint64_t* size,
                              std::vector<uint8_t>* data, bool* moved) {
  *moved = false;
  if (LoadPage(page, data) < 0) return -1;
  std::vector<uint8_t> bytes;
  for (int32_t r = 0; r < pages_[page].count; ++r) {
    uint8_t* rec = data->data() + RecordBytes() * r;
    if (!RecordBytesApart(rec)) continue;
    SampleRecord view;
    bytes.clear();
    if (ResolveApart(rec, &bytes, &view) < 0) return -1;
    FileLease lease(to);
    if (lease.fd() < 0 || !WriteAllAt(lease.fd(), *size, bytes.data(), bytes.size())) return -1;
    std::memcpy(rec + 24, size, sizeof *size);
    *size += bytes.size();
    *moved = true;
  }
  return 1;
}

// Writes the live bytes to a fresh file and the pages naming them to free slots; only
// when all that succeeded does the fresh file replace the old one and the directory
// switch, so a failure changes nothing.
int RecordFile::CompactApart() {
  if (!apart_ || MergeOverlay() < 0) return -1;
  std::string freshPath = ApartPath() + ".new";
  auto fresh = MakeApartFile(freshPath);
  if (!fresh) return -1;
  uint64_t size = 0;
  std::vector<Page> pages = pages_;
  std::vector<int32_t> written;
  std::vector<uint8_t> data;
  std::vector<uint8_t> tail = tail_;
  auto fail = [&]() {
    for (int32_t slot : written) free_slots_.push_back(slot);
    fresh.reset();
    ::unlink(freshPath.c_str());
    return -1;
  };
  for (size_t i = 0; i < pages_.size(); ++i) {
    bool moved = false;
    if (CopyPageApart(i, fresh.get(), &size, &data, &moved) < 0) return fail();
    if (!moved) continue;
    if (pages[i].slot < 0) {
      tail.swap(data);
      continue;
    }
    int32_t slot = AllocSlot();
    written.push_back(slot);
    if (WritePage(slot, data.data(), pages[i].count) < 0) return fail();
    pages[i].slot = slot;
  }
  fresh.reset();
  apart_.reset();  // closes its descriptor before the rename
  bool renamed = RenameFile(freshPath, ApartPath());
  apart_ = std::make_unique<PooledFile>(ApartPath());
  if (!renamed) return fail();
  for (size_t i = 0; i < pages_.size(); ++i) {
    if (pages_[i].slot >= 0 && pages[i].slot != pages_[i].slot)
      free_slots_.push_back(pages_[i].slot);
  }
  pages_.swap(pages);
  tail_.swap(tail);
  apart_size_ = size;
  apart_dead_ = 0;
  return 1;
}

void RecordFile::TruncateApart() {
  apart_size_ = 0;
  apart_dead_ = 0;
  if (!apart_) return;
  FileLease lease(apart_.get());
  if (lease.fd() >= 0) {
    int rc = ::ftruncate(lease.fd(), 0);
    (void)rc;  // a file that cannot be cut only keeps unused bytes
  }
}

}  // namespace marquel
