// Record file inserts: the tail, the overlay, and the merge of sorted runs into pages.
#include <algorithm>
#include <atomic>
#include <cstring>

#include "record_file.h"
#include "record_layout.h"

namespace marquel {
namespace {

// The overlays of all record files (of every tag, on any thread).
std::atomic<int64_t> all_overlay_bytes{0};

}  // namespace

int64_t RecordFile::AllOverlayBytes() {
  return all_overlay_bytes.load(std::memory_order_relaxed);
}

std::atomic<int64_t> all_tail_bytes{0};

int64_t RecordFile::AllTailBytes() {
  return all_tail_bytes.load(std::memory_order_relaxed);
}

int RecordFile::EvictTail() {
  if (pages_.empty() || pages_.back().slot >= 0) return 1;
  int32_t slot = AllocSlot();
  if (WritePage(slot, tail_.data(), pages_.back().count) < 0) {
    free_slots_.push_back(slot);
    return -1;
  }
  pages_.back().slot = slot;
  tail_.clear();
  tail_.shrink_to_fit();
  return 1;
}

void RecordFile::SettleMemory() {
  if (scratch_.capacity() > (64u << 10)) {
    scratch_.clear();
    scratch_.shrink_to_fit();
  }
  auto count = [this] {
    int64_t now = static_cast<int64_t>(tail_.capacity());
    all_tail_bytes.fetch_add(now - tail_counted_, std::memory_order_relaxed);
    tail_counted_ = now;
  };
  count();
  // A tail that cannot be written out stays in memory: it is still the file's data.
  if (tail_counted_ > 0 && AllTailBytes() > kAllTailsBytes && EvictTail() == 1) count();
}

void RecordFile::DropOverlay() {
  all_overlay_bytes.fetch_sub(static_cast<int64_t>(overlay_bytes_.size()),
                              std::memory_order_relaxed);
  overlay_.clear();
  overlay_bytes_.clear();
  overlay_bytes_.shrink_to_fit();
}

// Collects merged records into pages and writes them out, always into free slots: the
// pages being merged stay intact until the directory is switched over, so a failed write
// leaves the file as it was. One finished page is held back so that the last two can be
// balanced at the end.
class RecordFile::MergeWriter {
 public:
  MergeWriter(RecordFile* file, bool toTail)
      : file_(file),
        rec_(file->RecordBytes()),
        fill_(toTail ? file->page_records_ : std::max(1, file->page_records_ * 3 / 4)),
        to_tail_(toTail) {}

  int Emit(const uint8_t* rec) {
    current_.insert(current_.end(), rec, rec + rec_);
    if (Count(current_) < fill_) return 1;
    if (held_ && WriteHeld() < 0) return -1;
    held_ = true;
    held_buf_.swap(current_);
    current_.clear();
    return 1;
  }

  // Writes what is left. The tail region leaves its last page in memory as the new tail;
  // elsewhere the last two pages are joined or balanced, then written.
  int Finish() {
    if (current_.empty() && held_) {
      current_.swap(held_buf_);
      held_ = false;
    }
    if (!to_tail_ && held_) {
      int32_t total = Count(held_buf_) + Count(current_);
      if (total <= file_->page_records_) {
        held_buf_.insert(held_buf_.end(), current_.begin(), current_.end());
        current_.clear();
      } else if (Count(current_) < fill_ / 2) {
        size_t keep = static_cast<size_t>(total / 2) * rec_;
        std::vector<uint8_t> both(held_buf_);
        both.insert(both.end(), current_.begin(), current_.end());
        held_buf_.assign(both.begin(), both.begin() + keep);
        current_.assign(both.begin() + keep, both.end());
      }
    }
    if (held_ && WriteHeld() < 0) return -1;
    if (current_.empty()) return 1;
    if (to_tail_) {
      pages_.push_back(Describe(current_, -1));
      tail_.swap(current_);
      return 1;
    }
    held_buf_.swap(current_);
    return WriteHeld();
  }

  std::vector<Page>& pages() { return pages_; }
  std::vector<uint8_t>& tail() { return tail_; }
  const std::vector<int32_t>& slots() const { return slots_; }
  int64_t written() const { return written_; }

 private:
  int32_t Count(const std::vector<uint8_t>& buf) const {
    return static_cast<int32_t>(buf.size() / rec_);
  }

  Page Describe(const std::vector<uint8_t>& buf, int32_t slot) {
    int32_t n = Count(buf);
    written_ += n;
    return Page{RecordKey(buf.data()), RecordKey(buf.data() + rec_ * (n - 1)), n, slot};
  }

  int WriteHeld() {
    int32_t slot = file_->AllocSlot();
    slots_.push_back(slot);
    if (file_->WritePage(slot, held_buf_.data(), Count(held_buf_)) < 0) return -1;
    pages_.push_back(Describe(held_buf_, slot));
    held_buf_.clear();
    held_ = false;
    return 1;
  }

  RecordFile* file_;
  size_t rec_;
  int32_t fill_;
  bool to_tail_;
  bool held_ = false;
  std::vector<uint8_t> current_;
  std::vector<uint8_t> held_buf_;
  std::vector<uint8_t> tail_;
  std::vector<Page> pages_;
  std::vector<int32_t> slots_;  // slots written
  int64_t written_ = 0;
};

int RecordFile::CheckRawRule(const SampleRecord& record) {
  if (kind_ != kRawSample) return 1;
  if (record.nValue < 0) return -1;
  if (record.pBuffer != nullptr) return 1;  // bytes of any length are kept
  // No bytes: the length must match the record it replaces, or the sample size.
  SampleRecord existing;
  std::vector<uint8_t> storage;
  int found = Find(record.llTimeCode, &existing, &storage);
  if (found < 0) return -1;
  int32_t expected = found == 1 ? existing.nValue : sample_size_;
  return record.nValue == expected ? 1 : -1;
}

int RecordFile::Insert(const SampleRecord& record) {
  Settle settle{this};
  if (CheckRawRule(record) < 0) return -1;
  scratch_.resize(RecordBytes());
  if (Encode(record, scratch_.data()) < 0) return -1;
  dirty_ = true;
  int rc = Place(scratch_.data());
  if (rc < 0) ForgetApart(scratch_.data());
  MaybeCompactApart();
  return rc;
}

// Puts one encoded record where its time code belongs: over an equal one in the overlay,
// into the tail, or into the overlay.
int RecordFile::Place(const uint8_t* rec) {
  int64_t key = RecordKey(rec);
  auto hit = overlay_.find(key);
  if (hit != overlay_.end()) {
    ForgetApart(overlay_bytes_.data() + hit->second);
    std::memcpy(overlay_bytes_.data() + hit->second, rec, RecordBytes());
    return 1;
  }
  if (pages_.empty() || key >= pages_.back().first) return InsertIntoTail(rec);
  overlay_.emplace(key, overlay_bytes_.size());
  overlay_bytes_.insert(overlay_bytes_.end(), rec, rec + RecordBytes());
  int64_t all =
      all_overlay_bytes.fetch_add(static_cast<int64_t>(RecordBytes()), std::memory_order_relaxed) +
      static_cast<int64_t>(RecordBytes());
  if (overlay_.size() >= overlay_limit_ || all > kAllOverlaysBytes) return MergeOverlay();
  return 1;
}

int RecordFile::InsertIntoTail(const uint8_t* rec) {
  int64_t key = RecordKey(rec);
  if (RestoreTail() < 0) return -1;
  if (pages_.empty()) {
    tail_.assign(rec, rec + RecordBytes());
    pages_.push_back(Page{key, key, 1, -1});
    ++count_;
    return 1;
  }
  Page& tail = pages_.back();
  size_t bytes = RecordBytes();
  // Appending to a full tail: the tail goes to disk and a new one starts.
  if (key > tail.last && tail.count >= page_records_) {
    int32_t slot = AllocSlot();
    if (WritePage(slot, tail_.data(), tail.count) < 0) return -1;
    tail.slot = slot;
    tail_.assign(rec, rec + bytes);
    pages_.push_back(Page{key, key, 1, -1});
    ++count_;
    return 1;
  }
  int32_t lo = 0;
  int32_t hi = tail.count;
  while (lo < hi) {
    int32_t mid = lo + (hi - lo) / 2;
    if (RecordKey(tail_.data() + bytes * mid) < key) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  uint8_t* at = tail_.data() + bytes * lo;
  if (lo < tail.count && RecordKey(at) == key) {
    ForgetApart(at);
    std::memcpy(at, rec, bytes);
    return 1;
  }
  if (tail.count >= page_records_) return MergeRun(rec, 1);  // splits the full tail
  tail_.insert(tail_.begin() + static_cast<ptrdiff_t>(bytes * lo), rec, rec + bytes);
  ++tail.count;
  tail.first = std::min(tail.first, key);
  tail.last = std::max(tail.last, key);
  ++count_;
  return 1;
}

int RecordFile::MergeOverlay() {
  if (overlay_.empty()) return 1;
  std::vector<uint8_t> run;
  run.reserve(overlay_bytes_.size());
  for (const auto& [key, offset] : overlay_) {
    const uint8_t* rec = overlay_bytes_.data() + offset;
    run.insert(run.end(), rec, rec + RecordBytes());
  }
  if (MergeRun(run.data(), static_cast<int64_t>(overlay_.size())) < 0) return -1;
  DropOverlay();
  return 1;
}

int RecordFile::InsertSortedRun(const SampleRecord* records, int64_t count) {
  if (count <= 0) return 1;
  Settle settle{this};
  if (MergeOverlay() < 0) return -1;
  dirty_ = true;
  // Merge in slices so that memory stays bounded (a period copy hands in 65,536 samples
  // at a time, which one slice takes whole).
  const int64_t slice =
      std::min<int64_t>(std::max<int64_t>(static_cast<int64_t>(overlay_limit_), 65536),
                        RecordsWithin(kStorePieceBytes, static_cast<int64_t>(RecordBytes())));
  std::vector<uint8_t> run;
  for (int64_t at = 0; at < count; at += slice) {
    int64_t n = std::min(slice, count - at);
    run.resize(RecordBytes() * static_cast<size_t>(n));
    int64_t encoded = 0;
    while (encoded < n && Encode(records[at + encoded], run.data() + RecordBytes() * encoded) > 0)
      ++encoded;
    if (encoded < n || MergeRun(run.data(), n) < 0) {
      for (int64_t i = 0; i < encoded; ++i) ForgetApart(run.data() + RecordBytes() * i);
      return -1;
    }
  }
  MaybeCompactApart();
  return 1;
}

// Gives back the slots a failed merge wrote; the directory was not changed.
int RecordFile::Abandon(MergeWriter& out) {
  for (int32_t slot : out.slots()) free_slots_.push_back(slot);
  return -1;
}

// Merges `count` sorted records into the pages whose range they touch: from the page
// holding the first record's time to the page holding the last one's. Pages outside stay
// as they are. An equal time code takes the run's record.
int RecordFile::MergeRun(const uint8_t* run, int64_t count) {
  const size_t bytes = RecordBytes();
  size_t first = 0;
  size_t last = 0;
  bool havePages = !pages_.empty();
  if (havePages) {
    first = PageFor(RecordKey(run));
    last = std::max(first, PageFor(RecordKey(run + bytes * (count - 1))));
  }
  bool toTail = !havePages || last + 1 == pages_.size();
  MergeWriter out(this, toTail);
  int64_t before = 0;
  int64_t j = 0;
  std::vector<uint8_t> page;
  uint64_t dead = 0;  // bytes apart of the records the run replaces
  for (size_t i = first; havePages && i <= last; ++i) {
    if (LoadPage(i, &page) < 0) return Abandon(out);
    before += pages_[i].count;
    for (int32_t r = 0; r < pages_[i].count; ++r) {
      const uint8_t* rec = page.data() + bytes * r;
      int64_t key = RecordKey(rec);
      while (j < count && RecordKey(run + bytes * j) < key) {
        if (out.Emit(run + bytes * j++) < 0) return Abandon(out);
      }
      if (j < count && RecordKey(run + bytes * j) == key) {
        if (RecordBytesApart(rec)) dead += static_cast<uint64_t>(RecordValue(rec));
        if (out.Emit(run + bytes * j++) < 0) return Abandon(out);
      } else if (out.Emit(rec) < 0) {
        return Abandon(out);
      }
    }
  }
  while (j < count) {
    if (out.Emit(run + bytes * j++) < 0) return Abandon(out);
  }
  if (out.Finish() < 0) return Abandon(out);
  auto& fresh = out.pages();
  if (havePages) {
    for (size_t i = first; i <= last; ++i) {
      if (pages_[i].slot >= 0) free_slots_.push_back(pages_[i].slot);
    }
    pages_.erase(pages_.begin() + static_cast<ptrdiff_t>(first),
                 pages_.begin() + static_cast<ptrdiff_t>(last) + 1);
  }
  pages_.insert(pages_.begin() + static_cast<ptrdiff_t>(first), fresh.begin(), fresh.end());
  if (toTail) tail_.swap(out.tail());
  count_ += out.written() - before;
  apart_dead_ += dead;
  return 1;
}

}  // namespace marquel
