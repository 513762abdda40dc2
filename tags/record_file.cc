// Record file: creation, page access, lookups and counts. Inserts and merges are in
// record_merge.cc, deletes and offsets in record_edit.cc.
#include "record_file.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/files.h"
#include "platform/temp_folders.h"
#include "record_layout.h"

namespace marquel {
namespace {

// At most about 16 KiB and 512 records per page (a record is at most the inline room, so
// a page holds at least 15). Every tag keeps its last page in memory, so the page size
// bounds what an idle tag costs.
int32_t PageRecordsFor(int32_t recordBytes) {
  return std::clamp<int32_t>(16384 / recordBytes, 1, 512);
}

// The overlay holds at most kOverlayBytes of records (with their index), at least one.
size_t OverlayLimitFor(int32_t recordBytes) {
  return static_cast<size_t>(RecordsWithin(kOverlayBytes, int64_t{recordBytes} + 48));
}

}  // namespace

std::unique_ptr<RecordFile> RecordFile::Create() {
  std::string name;
  // In the process's own folder, so that a clean-up can tell the files of a killed
  // process from those of a live one.
  const std::string folder = ProcessTempFolder();
  if (folder.empty() || MakeTempFileName(folder, "MQT", 0, &name) == 0) return nullptr;
  return std::unique_ptr<RecordFile>(new RecordFile(std::move(name)));
}

RecordFile::RecordFile(std::string path) : file_(std::move(path)) {
  SetFormat(kPlainSample, 0);
}

RecordFile::~RecordFile() {
  DropOverlay();
  tail_.clear();
  tail_.shrink_to_fit();
  SettleMemory();
  ::unlink(file_.path().c_str());
  if (apart_) ::unlink(apart_->path().c_str());
}

void RecordFile::SetFormat(int32_t kind, int32_t sampleSize) {
  if (!Empty()) return;
  kind_ = kind;
  sample_size_ = kind == kRawSample ? sampleSize : 0;
  room_ = std::min(sample_size_, kMaxInlineRawBytes);
  record_bytes_ = kRecordHeadBytes + room_;
  page_records_ = PageRecordsFor(record_bytes_);
  overlay_limit_ = OverlayLimitFor(record_bytes_);
  // Slots are sized by the record size: a new format starts the file again.
  if (slot_count_ > 0) Truncate();
}

size_t RecordFile::PageFor(int64_t key) const {
  auto it = std::upper_bound(pages_.begin(), pages_.end(), key,
                             [](int64_t k, const Page& p) { return k < p.first; });
  return it == pages_.begin() ? 0 : static_cast<size_t>(it - pages_.begin()) - 1;
}

int RecordFile::LoadPage(size_t page, std::vector<uint8_t>* buffer) {
  const Page& p = pages_[page];
  size_t bytes = RecordBytes() * static_cast<size_t>(p.count);
  if (p.slot < 0) {
    buffer->assign(tail_.begin(), tail_.begin() + bytes);
    return 1;
  }
  buffer->resize(bytes);
  FileLease lease(&file_);
  if (lease.fd() < 0) return -1;
  return ReadAllAt(lease.fd(), static_cast<uint64_t>(p.slot) * PageBytes(), buffer->data(), bytes)
             ? 1
             : -1;
}

int RecordFile::WritePage(int32_t slot, const uint8_t* data, int32_t count) {
  FileLease lease(&file_);
  if (lease.fd() < 0) return -1;
  return WriteAllAt(lease.fd(), static_cast<uint64_t>(slot) * PageBytes(), data,
                    RecordBytes() * static_cast<size_t>(count))
             ? 1
             : -1;
}

int32_t RecordFile::AllocSlot() {
  if (!free_slots_.empty()) {
    int32_t slot = free_slots_.back();
    free_slots_.pop_back();
    return slot;
  }
  return slot_count_++;
}

int RecordFile::ReadKey(size_t page, int32_t index, int64_t* key) {
  const Page& p = pages_[page];
  uint64_t at = RecordBytes() * static_cast<size_t>(index);
  if (p.slot < 0) {
    *key = RecordKey(tail_.data() + at);
    return 1;
  }
  FileLease lease(&file_);
  if (lease.fd() < 0) return -1;
  return ReadAllAt(lease.fd(), static_cast<uint64_t>(p.slot) * PageBytes() + at, key, sizeof *key)
             ? 1
             : -1;
}

// The index of the first record of `page` whose time code is not below `key`.
int RecordFile::LowerBoundInPage(size_t page, int64_t key, int32_t* index) {
  int32_t lo = 0;
  int32_t hi = pages_[page].count;
  while (lo < hi) {
    int32_t mid = lo + (hi - lo) / 2;
    int64_t k;
    if (ReadKey(page, mid, &k) < 0) return -1;
    if (k < key) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  *index = lo;
  return 1;
}

int64_t RecordFile::Position(int64_t key) {
  if (pages_.empty()) return 0;
  size_t page = PageFor(key);
  int64_t before = 0;
  for (size_t i = 0; i < page; ++i) before += pages_[i].count;
  const Page& p = pages_[page];
  if (key <= p.first) return before;
  if (key > p.last) return before + p.count;
  int32_t index = 0;
  if (LowerBoundInPage(page, key, &index) < 0) return -1;
  return before + index;
}

int RecordFile::Find(int64_t timeCode, SampleRecord* out, std::vector<uint8_t>* storage) {
  auto hit = overlay_.find(timeCode);
  if (hit != overlay_.end()) {
    storage->assign(overlay_bytes_.begin() + hit->second,
                    overlay_bytes_.begin() + hit->second + RecordBytes());
    return ResolveApart(storage->data(), storage, out);
  }
  if (pages_.empty()) return 0;
  size_t page = PageFor(timeCode);
  const Page& p = pages_[page];
  if (timeCode < p.first || timeCode > p.last) return 0;
  int32_t index = 0;
  if (LowerBoundInPage(page, timeCode, &index) < 0) return -1;
  if (index >= p.count) return 0;
  int64_t key = 0;
  if (ReadKey(page, index, &key) < 0) return -1;
  if (key != timeCode) return 0;
  storage->resize(RecordBytes());
  size_t at = RecordBytes() * static_cast<size_t>(index);
  if (p.slot < 0) {
    std::memcpy(storage->data(), tail_.data() + at, RecordBytes());
  } else {
    FileLease lease(&file_);
    if (lease.fd() < 0 || !ReadAllAt(lease.fd(), static_cast<uint64_t>(p.slot) * PageBytes() + at,
                                     storage->data(), RecordBytes()))
      return -1;
  }
  return ResolveApart(storage->data(), storage, out);
}

int64_t RecordFile::Count() {
  Settle settle{this};
  if (MergeOverlay() < 0) return -1;
  return count_;
}

int64_t RecordFile::CountRange(int64_t start, bool hasEnd, int64_t end) {
  Settle settle{this};
  if (MergeOverlay() < 0) return -1;
  if (hasEnd && end <= start) return 0;
  int64_t from = Position(start);
  int64_t to = hasEnd ? Position(end) : count_;
  if (from < 0 || to < 0) return -1;
  return to - from;
}

int RecordFile::Scan(int64_t from, bool fromInclusive, bool hasEnd, int64_t end,
                     const Visitor& visit) {
  Settle settle{this};
  if (MergeOverlay() < 0) return -1;
  if (pages_.empty()) return 1;
  std::vector<uint8_t> buffer;
  std::vector<uint8_t> apart;
  SampleRecord view;
  for (size_t page = PageFor(from); page < pages_.size(); ++page) {
    if (pages_[page].last < from || (pages_[page].last == from && !fromInclusive)) continue;
    if (hasEnd && pages_[page].first >= end) break;
    if (LoadPage(page, &buffer) < 0) return -1;
    for (int32_t i = 0; i < pages_[page].count; ++i) {
      const uint8_t* rec = buffer.data() + RecordBytes() * static_cast<size_t>(i);
      int64_t key = RecordKey(rec);
      if (key < from || (key == from && !fromInclusive)) continue;
      if (hasEnd && key >= end) return 1;
      apart.clear();  // the previous view's bytes are no longer needed
      if (ResolveApart(rec, &apart, &view) < 0) return -1;
      if (!visit(view)) return 1;
    }
  }
  return 1;
}

}  // namespace marquel
