// One tag of one program: its samples, sorted by time code with no two equal time codes.
//
// The samples live in a record file (a temporary file made on the first insert, see
// docs/tag-store.md) with a memory block of records held in front of it: a cache of up to
// `capacity` records that lookups fill and inserts keep up to date. Every member function
// takes the tag's own lock for its whole work, so one tag may be used from several
// threads; there is no lock above the tag.
//
// Results follow the tag store's convention: 1 success, 0 refused or nothing, -1 failure
// or a missing item.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "tags/sample.h"

namespace marquel {

class RecordFile;

class TagObject {
 public:
  // The memory block starts with and grows by this many records.
  static constexpr int32_t kBlockStep = 1024;
  // A raw sample of this many bytes or more limits the memory block to kLargeRawBlockCap;
  // the block of a raw tag also never holds more than kTagBlockBytes of records.
  static constexpr int32_t kLargeRawBytes = 51200;
  static constexpr int32_t kLargeRawBlockCap = 16;
  // The sampling interval measured from the first two records is never below this.
  static constexpr int64_t kMinMeasuredInterval = 150000;
  // Two records further apart than this split a valid interval.
  static constexpr int64_t kValidIntervalGap = 10000000;

  explicit TagObject(int32_t tagId);
  ~TagObject();
  TagObject(const TagObject&) = delete;
  TagObject& operator=(const TagObject&) = delete;

  int32_t TagId() const { return tag_id_; }

  // --- Samples -------------------------------------------------------------------------

  // Inserts one sample. Before the insert, when the interval is neither set nor measured
  // and records 0 and 1 exist, the interval becomes their distance (at least
  // kMinMeasuredInterval). An equal time code replaces the stored sample. Raw length rules:
  // the first sample of an empty tag fixes kind and sample size (RawSampleSize); a later
  // raw sample with bytes is kept with its own length, whatever it is (up to
  // kMaxRawSampleBytes); one without bytes must have the length of the record it empties
  // (or, at a new time code, the sample size) and is refused with -1 otherwise. Returns 1;
  // 0 when refused (a sample of the other kind than the tag's samples, a bad kind or
  // length); -1 when the record file cannot be made or written, or the length rule refuses
  // it. While the tag is not valid (SetValid) the insert does nothing and returns 1.
  int Insert(const SampleRecord& record);

  // Inserts records sorted by strictly ascending time code, with the same result for
  // every record as Insert would give one at a time, but merged into the record file in
  // one pass. Returns the number of records stored, or -1 when the record file cannot be
  // made or written. Records out of order are inserted one at a time. When `stored` is
  // given, stored[i] becomes 1 for each record kept and 0 for each one refused or lost.
  int64_t InsertSorted(const SampleRecord* records, int64_t count, uint8_t* stored = nullptr);

  // Exact lookup. 1 with *out filled (raw bytes: a fresh copy to free), -1 when the tag has
  // no samples, 0 when no record has that time code.
  int Get(int64_t timeCode, SampleRecord* out);

  // Number of samples.
  int64_t Count();
  // Number of samples in [start, end); an end below 0 means up to the last sample.
  int64_t CountInPeriod(int64_t start, int64_t end);
  // Copies the samples of [start, end) in order into out[0..capacity) and returns how many
  // were written (never more than capacity; raw bytes are fresh copies to free). The read
  // also stops once the copied raw bytes reach maxBytes (after at least one sample).
  // -1, with nothing handed out, when the records cannot be read: a short answer would
  // pass for the whole period.
  int64_t ReadPeriod(int64_t start, int64_t end, SampleRecord* out, int64_t capacity,
                     int64_t maxBytes = INT64_MAX);

  // --- Period editing ------------------------------------------------------------------

  // Removes the samples of [start, end). Later samples keep their time codes. Returns 1, or
  // -1 on a record file failure.
  int DeletePeriod(int64_t start, int64_t end);
  // When the first sample lies before `offset`, deletes [0, offset); then subtracts
  // `offset` from every remaining time code. Returns 1, or -1 on failure.
  int MinusTimeOffset(int64_t offset);
  // Number of valid intervals (records further apart than kValidIntervalGap split them);
  // 0 for a tag without samples. Rebuilds the list, and remembers its size for Memory().
  int64_t ValidIntervalCount();
  // Rebuilds the list and writes up to `capacity` {start, end} pairs. Returns the number of
  // intervals (which may exceed capacity; nothing is written past it).
  int64_t ValidIntervals(int64_t* starts, int64_t* ends, int64_t capacity);
  // Empties the tag: no samples, record file cut to nothing, memory block emptied. The
  // kind and sample size are fixed again by the next sample.
  void Clear();

  // --- Facts ---------------------------------------------------------------------------

  int32_t Kind();           // kPlainSample or kRawSample (from the first sample)
  int32_t RawSampleSize();  // 0 for plain tags
  int64_t Interval();
  bool IntervalSet();
  // Sets the sampling interval; `explicitly` also sets the interval-set flag so that it is
  // no longer measured (SetTimeIntervalForTag, or a stored block carrying it).
  void SetInterval(int64_t interval, bool explicitly);
  // While a tag is not valid every insert is a no-op that returns success.
  bool Valid();
  void SetValid(bool valid);
  // State tags: the last state value written and the start of the open run (-1 when none).
  // Owned by the data-block codec; the tag only keeps them.
  int32_t LastStateValue();
  void SetLastStateValue(int32_t value);
  int64_t RunStartTime();
  void SetRunStartTime(int64_t time);

  // The memory figure: 32 x capacity + 16 x (8 + intervals last listed); a tag without a
  // record file counts 32 x capacity + 128.
  int64_t Memory();
  bool HasRecordFile();
  int32_t BlockCount();     // records now in the memory block
  int32_t BlockCapacity();  // its capacity in records
  // Grows the memory block by kBlockStep records. 1, or -1 (capacity unchanged).
  int GrowMemoryBlock();

  // --- Loading (the data-block reader) -------------------------------------------------

  // Appends a sample while loading; samples must come in ascending time order. The record
  // goes to the memory block; a full block is first moved to the record file. Until
  // FlushMemoryBlock the appended records are part of the tag for every other operation
  // (they are flushed first). A record not after the previous one is inserted as Insert
  // does. Returns 1, or -1 when the record file cannot be made or written. A tag that is
  // not valid ignores the record and returns 1.
  int BulkAppend(const SampleRecord& record);
  // Releases the memory block: records appended by BulkAppend and not yet in the record
  // file are appended to it in order, then the block is emptied. 1, or -1 on failure.
  int FlushMemoryBlock();

 private:
  friend class TagRecordCursor;
  struct Block;

  int InsertLocked(const SampleRecord& record);
  void FitBlockToSample(int32_t sampleBytes);
  int EnsureRecordFile();
  int FlushPendingLocked();
  void MeasureIntervalLocked();
  void MirrorIntoBlock(const SampleRecord& record);
  int64_t ReadAfterLocked(int64_t afterTime, bool inclusive, int64_t capacity,
                          std::vector<SampleRecord>* out, std::vector<uint8_t>* bytes, bool* full);
  int64_t CountIntervalsLocked(int64_t* starts, int64_t* ends, int64_t capacity);

  const int32_t tag_id_;
  std::mutex mu_;  // the tag's critical section
  int32_t kind_ = kPlainSample;
  int32_t raw_size_ = 0;
  int32_t capacity_ = kBlockStep;
  int32_t cursor_ = 0;
  int64_t cached_pos_[2] = {-1, -1};
  int64_t interval_ = 0;
  int32_t interval_set_ = 0;
  int32_t last_state_ = -1;
  int64_t run_start_ = -1;
  int32_t valid_ = 1;
  bool pending_ = false;  // the block holds appended records not yet in the file
  int64_t intervals_listed_ = 0;
  std::unique_ptr<Block> block_;
  std::unique_ptr<RecordFile> file_;
};

// Reads a tag's records in ascending order, a chunk at a time (of at most chunkRecords
// records and about kStorePieceBytes of raw bytes), for the serialiser. Each
// chunk is read under the tag's lock and the cursor continues after the last time code it
// returned, so it stays correct if the tag changes in between (it then sees the change).
class TagRecordCursor {
 public:
  explicit TagRecordCursor(TagObject* tag, int64_t chunkRecords = 1024);
  // Whether there is a current record.
  bool Valid() const { return pos_ < records_.size(); }
  // The current record. Its raw bytes belong to the cursor and stay valid until Next().
  const SampleRecord& Current() const { return records_[pos_]; }
  // The index of the current record among the tag's records (0 for the first).
  int64_t Index() const { return index_; }
  void Next();
  // Whether a chunk could not be read (the record file failed): the cursor then ends
  // early, and what it gave is not the whole tag.
  bool Failed() const { return failed_; }

 private:
  void Load(int64_t afterTime, bool inclusive);

  TagObject* tag_;
  int64_t chunk_;
  std::vector<SampleRecord> records_;
  std::vector<uint8_t> bytes_;
  size_t pos_ = 0;
  int64_t index_ = 0;
  bool exhausted_ = false;
  bool failed_ = false;
};

}  // namespace marquel
