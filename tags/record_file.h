// The record file of one tag: every sample of the tag, sorted by time code, no two equal.
//
// Layout (see docs/tag-store.md): a temporary file of fixed-size pages. Each page holds
// 1..P records of one fixed size (32, or 32 + the inline room of a raw tag), sorted, and
// a directory in memory lists the pages in time order with their first and last time
// code, record count and file slot. The last page (the tail) lives in memory, so that
// appending costs a copy. Single inserts before the tail go to a bounded in-memory
// overlay that is merged into the pages in one pass when it fills or before any ordered
// read (overlays and tails of all files share budgets in bytes: past them an overlay is
// merged at once and a tail goes to disk until it is written to again); a merge rewrites
// only the pages whose time range it touches. Sorted runs (period copies) merge straight
// into the pages the same way. Raw bytes longer than the inline room lie apart in a
// companion file, which is compacted when most of it is dead.
//
// Not thread-safe: the owning TagObject serialises all calls under its lock.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "descriptor_pool.h"
#include "tags/sample.h"

namespace marquel {

class RecordFile {
 public:
  // Makes a new, empty temporary file ("MQT<hex>.tmp" in the process's own temporary
  // folder, platform/temp_folders.h). Null when it cannot be made.
  static std::unique_ptr<RecordFile> Create();
  // Deletes the temporary file.
  ~RecordFile();
  RecordFile(const RecordFile&) = delete;
  RecordFile& operator=(const RecordFile&) = delete;

  const std::string& path() const { return file_.path(); }
  bool Empty() const { return pages_.empty() && overlay_.empty(); }
  int32_t kind() const { return kind_; }
  int32_t sample_size() const { return sample_size_; }
  // The bytes a raw record holds inline: the sample size, at most kMaxInlineRawBytes.
  int32_t inline_room() const { return room_; }
  bool dirty() const { return dirty_; }
  // Fixes the kind and sample size of the records. Only while the file is empty.
  void SetFormat(int32_t kind, int32_t sampleSize);

  // Raw bytes beyond this many lie apart, so that pages, the tail and the overlay stay
  // small whatever the sample size.
  static constexpr int32_t kMaxInlineRawBytes = 1024;

  // Stores one record (kind as the file's). An equal time code is replaced. Raw rules:
  // with bytes any length is kept; without bytes the length must equal the stored
  // record's (or, for a new time code, the sample size). 1, or -1 (rule, I/O).
  int Insert(const SampleRecord& record);
  // Stores records of strictly ascending time code, each raw one with bytes, in one
  // merge. 1, or -1 on I/O failure.
  int InsertSortedRun(const SampleRecord* records, int64_t count);
  // Exact lookup: 1 with *out a view into *storage, 0 not found, -1 on I/O failure.
  int Find(int64_t timeCode, SampleRecord* out, std::vector<uint8_t>* storage);

  // Counts (merging the overlay first). The period is half-open; hasEnd false means up to
  // the last record. -1 on I/O failure.
  int64_t Count();
  int64_t CountRange(int64_t start, bool hasEnd, int64_t end);
  // Visits, in order, the records from `from` (inclusive or not) up to `end` (exclusive,
  // when hasEnd). The visitor gets a view valid during the call and returns false to stop.
  // 1, or -1 on I/O failure.
  using Visitor = std::function<bool(const SampleRecord&)>;
  int Scan(int64_t from, bool fromInclusive, bool hasEnd, int64_t end, const Visitor& visit);

  // Removes the records of [start, end) (to the last one when !hasEnd). 1, or -1.
  int DeleteRange(int64_t start, bool hasEnd, int64_t end);
  // Subtracts `offset` from every time code (wrapping). 1, or -1.
  int MinusOffset(int64_t offset);
  // Empties the file.
  void Truncate();

  // Records per page and overlay bound, for tests.
  int32_t page_records() const { return page_records_; }
  size_t overlay_limit() const { return overlay_limit_; }
  size_t overlay_size() const { return overlay_.size(); }
  // The bytes the overlays of all record files hold now.
  static int64_t AllOverlayBytes();
  // The bytes the in-memory tails of all record files hold now.
  static int64_t AllTailBytes();
  // Whether the last page lives in memory now (tests).
  bool tail_in_memory() const { return !pages_.empty() && pages_.back().slot < 0; }
  size_t page_count() const { return pages_.size(); }
  // The companion file of bytes lying apart: its size, the part no record names any
  // more, and the dead size below which it is never compacted.
  uint64_t apart_size() const { return apart_size_; }
  uint64_t apart_dead() const { return apart_dead_; }
  void set_compact_floor(uint64_t bytes) { compact_floor_ = bytes; }

 private:
  struct Page {
    int64_t first;
    int64_t last;
    int32_t count;
    int32_t slot;  // -1 for the tail, which lives in tail_
  };
  class MergeWriter;

  explicit RecordFile(std::string path);
  size_t RecordBytes() const { return static_cast<size_t>(record_bytes_); }
  size_t PageBytes() const { return RecordBytes() * page_records_; }
  bool IsTail(size_t page) const { return page + 1 == pages_.size(); }

  // Page access.
  size_t PageFor(int64_t key) const;
  int LoadPage(size_t page, std::vector<uint8_t>* buffer);
  int WritePage(int32_t slot, const uint8_t* data, int32_t count);
  int32_t AllocSlot();
  int ReadKey(size_t page, int32_t index, int64_t* key);
  int LowerBoundInPage(size_t page, int64_t key, int32_t* index);
  int64_t Position(int64_t key);  // records with a time code below key, or -1

  // Inserts.
  int CheckRawRule(const SampleRecord& record);
  int Place(const uint8_t* rec);
  int InsertIntoTail(const uint8_t* rec);
  int MergeOverlay();
  void DropOverlay();
  // After each operation: counts the tail's bytes among all files' and, past
  // kAllTailsBytes, writes the tail out to a slot (the next insert reads it back); lets go
  // of a large scratch record.
  void SettleMemory();
  int EvictTail();
  struct Settle {
    RecordFile* file;
    ~Settle() { file->SettleMemory(); }
  };
  int MergeRun(const uint8_t* run, int64_t count);
  int Abandon(MergeWriter& out);
  int RestoreTail();

  // Bytes lying apart (record_apart.cc).
  std::string ApartPath() const;
  int Encode(const SampleRecord& record, uint8_t* dst);
  int ResolveApart(const uint8_t* rec, std::vector<uint8_t>* bytes, SampleRecord* view);
  void ForgetApart(const uint8_t* rec);
  int ForgetApartInPage(size_t page);
  void MaybeCompactApart();
  int CompactApart();
  int CopyPageApart(size_t page, PooledFile* to, uint64_t* size, std::vector<uint8_t>* data,
                    bool* moved);
  void TruncateApart();

  PooledFile file_;
  int32_t kind_ = kPlainSample;
  int32_t sample_size_ = 0;
  int32_t room_ = 0;
  int32_t record_bytes_ = 32;
  int32_t page_records_ = 2048;
  size_t overlay_limit_ = 0;
  std::vector<Page> pages_;
  std::vector<uint8_t> tail_;  // the records of the last page
  std::vector<int32_t> free_slots_;
  int32_t slot_count_ = 0;
  int64_t count_ = 0;                  // records in the pages (the overlay not counted)
  std::map<int64_t, size_t> overlay_;  // time code -> offset in overlay_bytes_
  std::vector<uint8_t> overlay_bytes_;
  std::vector<uint8_t> scratch_;
  int64_t tail_counted_ = 0;  // this file's share of AllTailBytes()
  bool dirty_ = false;
  std::unique_ptr<PooledFile> apart_;  // made with the first bytes that lie apart
  uint64_t apart_size_ = 0;
  uint64_t apart_dead_ = 0;
  uint64_t compact_floor_ = 4u << 20;
};

}  // namespace marquel
