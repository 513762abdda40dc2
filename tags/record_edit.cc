// Record file edits: deleting a period, shifting every time code, emptying.
#include <unistd.h>

#include <cstring>

#include "record_file.h"
#include "record_layout.h"

namespace marquel {

int RecordFile::DeleteRange(int64_t start, bool hasEnd, int64_t end) {
  Settle settle{this};
  if (MergeOverlay() < 0) return -1;
  if (hasEnd && end <= start) return 1;
  const size_t bytes = RecordBytes();
  std::vector<Page> kept;
  kept.reserve(pages_.size());
  std::vector<uint8_t> page;
  for (size_t i = 0; i < pages_.size(); ++i) {
    Page p = pages_[i];
    bool before = p.last < start;
    bool after = hasEnd && p.first >= end;
    if (before || after) {
      kept.push_back(p);
      continue;
    }
    dirty_ = true;
    if (p.first >= start && (!hasEnd || p.last < end)) {  // wholly inside: drop the page
      if (ForgetApartInPage(i) < 0) return -1;
      if (p.slot >= 0) free_slots_.push_back(p.slot);
      count_ -= p.count;
      continue;
    }
    if (LoadPage(i, &page) < 0) return -1;
    std::vector<uint8_t> rest;
    rest.reserve(page.size());
    for (int32_t r = 0; r < p.count; ++r) {
      const uint8_t* rec = page.data() + bytes * r;
      int64_t key = RecordKey(rec);
      if (key >= start && (!hasEnd || key < end)) {
        ForgetApart(rec);
        continue;
      }
      rest.insert(rest.end(), rec, rec + bytes);
    }
    int32_t n = static_cast<int32_t>(rest.size() / bytes);
    count_ -= p.count - n;
    p.count = n;
    p.first = RecordKey(rest.data());
    p.last = RecordKey(rest.data() + bytes * (n - 1));
    if (p.slot < 0) {
      tail_.swap(rest);
    } else if (WritePage(p.slot, rest.data(), n) < 0) {
      return -1;
    }
    kept.push_back(p);
  }
  pages_.swap(kept);
  if (RestoreTail() < 0) return -1;
  MaybeCompactApart();
  return 1;
}

// Keeps the rule that the last page is the in-memory tail: after a delete the last page
// may be one that lives on disk; it is read back and its slot freed.
int RecordFile::RestoreTail() {
  if (pages_.empty()) {
    tail_.clear();
    return 1;
  }
  Page& last = pages_.back();
  if (last.slot < 0) return 1;
  std::vector<uint8_t> page;
  if (LoadPage(pages_.size() - 1, &page) < 0) return -1;
  tail_.swap(page);
  free_slots_.push_back(last.slot);
  last.slot = -1;
  return 1;
}

int RecordFile::MinusOffset(int64_t offset) {
  Settle settle{this};
  if (MergeOverlay() < 0) return -1;
  const size_t bytes = RecordBytes();
  std::vector<uint8_t> page;
  auto shift = [offset](int64_t t) {
    return static_cast<int64_t>(static_cast<uint64_t>(t) - static_cast<uint64_t>(offset));
  };
  for (size_t i = 0; i < pages_.size(); ++i) {
    Page& p = pages_[i];
    uint8_t* data;
    if (p.slot < 0) {
      data = tail_.data();
    } else {
      if (LoadPage(i, &page) < 0) return -1;
      data = page.data();
    }
    // Only the record heads change.
    for (int32_t r = 0; r < p.count; ++r) {
      uint8_t* rec = data + bytes * r;
      SetRecordKey(rec, shift(RecordKey(rec)));
    }
    if (p.slot >= 0 && WritePage(p.slot, data, p.count) < 0) return -1;
    p.first = shift(p.first);
    p.last = shift(p.last);
  }
  dirty_ = true;
  return 1;
}

void RecordFile::Truncate() {
  Settle settle{this};
  pages_.clear();
  tail_.clear();
  tail_.shrink_to_fit();
  free_slots_.clear();
  DropOverlay();
  slot_count_ = 0;
  count_ = 0;
  dirty_ = true;
  TruncateApart();
  FileLease lease(&file_);
  if (lease.fd() >= 0) {
    int rc = ::ftruncate(lease.fd(), 0);
    (void)rc;  // a file that cannot be cut only keeps unused bytes
  }
}

}  // namespace marquel
