// MQOneProgram: the tag store of one program of one open media file.
//
// A program owns one TagObject per tag id that has received a sample, in a table of 256
// slots indexed by tag id. There is no lock at this level: every tag locks itself, and the
// open-file table serialises calls per file. Tag ids outside 0..255 are answered as a
// missing tag (counts 0, lookups -1, inserts 0) and never index the table.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "tags/sample.h"
#include "tags/stream_spill.h"
#include "tags/tag_definitions.h"
#include "tags/tag_object.h"

namespace marquel {

// One of the data-block codec's serialisation buffers: its bytes and a bit position.
// A large stream written at a close keeps only its last part in `bytes`: the part before
// lies in `spill` (tags/stream_spill.h), and bitPosition counts both. Readers that must
// work for any size read through ForEachChunk; `bytes` alone is the whole content only
// while `spill` is null, as it always is for the header and for a block read back.
struct ProgramBuffer {
  std::vector<uint8_t> bytes;
  uint64_t bitPosition = 0;
  // Shared, so that a buffer stays copyable; the file goes with its last holder.
  std::shared_ptr<const StreamSpill> spill;

  // Bytes of content: whole bytes of bitPosition (26 for the header, whose `bytes` has 52).
  uint64_t Size() const { return bitPosition / 8; }
  // Hands the content to `f` in order, the spilled bytes first, in chunks of at most
  // `max_chunk` bytes. False when the spill cannot be read back or `f` stops.
  bool ForEachChunk(size_t max_chunk, const StreamChunkFn& f) const;
};

// GetDataAll / GetDataPeriod: the tag's records could not be read.
constexpr int64_t kReadFailed = -2;

class MQOneProgram {
 public:
  // Bytes of the header buffer, always.
  static constexpr int32_t kHeaderBufferBytes = 52;

  // `number` identifies the program in log lines (its index in the session).
  explicit MQOneProgram(int32_t number = 0);
  ~MQOneProgram();
  MQOneProgram(const MQOneProgram&) = delete;
  MQOneProgram& operator=(const MQOneProgram&) = delete;

  int32_t Number() const { return number_; }
  void SetNumber(int32_t number) { number_ = number; }
  int32_t PMTPID() const { return pmt_pid_.load(std::memory_order_relaxed); }
  void SetPMTPID(int32_t pid) { pmt_pid_.store(pid, std::memory_order_relaxed); }

  // The session's tag-acceptance callback: asked by the data-block reader whether a tag
  // read from a stored block is wanted. Without one every tag is accepted.
  using AcceptTagFn = std::function<bool(int32_t tagId)>;
  void SetAcceptTagCallback(AcceptTagFn accept) { accept_ = std::move(accept); }
  bool AcceptsTag(int32_t tagId) const { return !accept_ || accept_(tagId); }

  // --- Samples -------------------------------------------------------------------------

  // Inserts one sample into `tagId`, which must be a tag the data block carries (2 to
  // 254: BlockCarriesTag). A raw sample needs a tag id of type 5 and a length of
  // 0..min(kMaxRawSampleBytes, RawLengthLimit(tagId)); a plain sample needs a tag id of
  // another type. Creates the tag on first use. Returns 1 when the sample is stored and 0
  // when it is not: refused by these rules or by the tag (the other kind than the tag's
  // samples, the length rule of TagObject::Insert), or lost to a record file failure.
  // A tag the open's selection left out (not Valid) keeps nothing, so 0 too. Never -1,
  // which the table keeps for a handle without a file.
  int InsertOne(int32_t tagId, const SampleRecord& record);
  // Whether InsertOne's own rules (before the tag's) let `record` into `tagId`.
  static bool Admits(int32_t tagId, const SampleRecord& record);
  // Inserts `count` samples one at a time and returns how many were stored (the sum of
  // the results that are 1). 0 for a null array or a count below 1.
  int32_t InsertMany(int32_t tagId, const SampleRecord* records, int32_t count);
  // 1 with *out filled, -1 when the tag has no samples (or no tag object, or a bad id or
  // null out), 0 when no sample has exactly that time code.
  int GetOne(int32_t tagId, int64_t timeCode, SampleRecord* out);

  // Sample counts; 0 for a missing tag. The period is half-open, an end below 0 meaning
  // up to the last sample.
  int64_t QueryOneTagSize(int32_t tagId);
  int64_t QueryOneTagPeriodSize(int32_t tagId, int64_t start, int64_t end);
  // Copies the samples into out[0..capacity) and returns how many were written; 0 for a
  // missing tag, a null array or a capacity below 1; kReadFailed (nothing handed out)
  // when the tag's records cannot be read, which is never told as "no samples". Raw
  // bytes are fresh copies to free.
  int64_t GetDataAll(int32_t tagId, SampleRecord* out, int64_t capacity);
  int64_t GetDataPeriod(int32_t tagId, int64_t start, int64_t end, SampleRecord* out,
                        int64_t capacity);

  // Tags by kind. The lists are ascending and return the full count while writing at most
  // `capacity` ids (a null array or a negative capacity writes nothing). `sizes`, when not
  // null, receives each raw tag's sample size beside its id.
  int32_t QueryTagCount();
  int32_t QueryTagList(int32_t* ids, int32_t capacity);
  int32_t QueryRawDataTagCount();
  int32_t QueryRawDataTagList(int32_t* ids, int32_t* sizes, int32_t capacity);
  // 1 with *size set, or -1 when `tagId` has no raw-data tag (or size is null).
  int QueryRawDataTagSampleSize(int32_t tagId, int32_t* size);

  // --- Period editing ------------------------------------------------------------------

  // Deletes [start, end) from one tag, from every tag in use, or from the tags of one
  // category. 1; -1 when a tag's delete fails (the category form stops there).
  int DeleteDataPeriodForOneTag(int32_t tagId, int64_t start, int64_t end);
  int DeleteDataPeriod(int64_t start, int64_t end);
  int DeleteDataPeriodForOneCategory(int32_t category, int64_t start, int64_t end);
  // Subtracts an offset from the time codes of every tag, of one category, or of one tag
  // (TagObject::MinusTimeOffset). 1, or -1 on a failure.
  int MinusTimeOffset(int64_t offset);
  int MinusTimeOffsetForOneCategory(int32_t category, int64_t offset);
  int MinustTimeOffsetForOneTag(int32_t tagId, int64_t offset);
  // Sets a tag's interval explicitly. 1, or -1 when the tag has no tag object.
  int SetTimeIntervalForTag(int32_t tagId, int64_t interval);
  // Accepted and ignored: returns 1.
  int SetMinTimeInterval(int64_t interval);
  // Valid intervals of a tag; 0 for a tag without samples. The list form writes up to
  // `capacity` pairs and returns the number of intervals.
  int64_t QueryValidIntervalSize(int32_t tagId);
  int64_t QueryValidInterval(int32_t tagId, int64_t capacity, int64_t* starts, int64_t* ends);

  // --- Structure -----------------------------------------------------------------------

  // 112 + the memory figure of every tag (TagObject::Memory).
  int64_t QueryMemory();
  // The highest tag id in use (0 when none); scans run over 0..HighestTagId().
  int32_t HighestTagId() const { return highest_tag_id_.load(std::memory_order_acquire); }
  // The tag object of `tagId`, or null (also for a bad id).
  TagObject* Tag(int32_t tagId);
  // The tag object of `tagId`, made when missing (raising the highest id in use); null for
  // a bad id.
  TagObject* GetOrCreateTag(int32_t tagId);
  // Empties every tag (TagObject::Clear); the tag objects stay.
  void ClearAllTags();
  // Flushes every tag's memory block into its record file. 1, or -1 on a failure.
  int FlushAllMemoryBlocks();
  // The category of a tag id (from the definition table), -1 for a bad id.
  static int32_t CategoryOf(int32_t tagId);

  // --- Serialisation buffers (filled and read by the data-block codec) -----------------

  // The four buffers: tag-id stream, data stream, data-length stream, header. Null until
  // made by Make*Buffer. The getters log "m_ptpTagID = NULL" (and so on) when missing.
  ProgramBuffer* TagIdBuffer();
  ProgramBuffer* DataBuffer();
  ProgramBuffer* DataLengthBuffer();
  ProgramBuffer* HeaderBuffer();
  // Recreate a buffer with `bytes` zero bytes (the header always with 52).
  ProgramBuffer* MakeTagIdBuffer(size_t bytes);
  ProgramBuffer* MakeDataBuffer(size_t bytes);
  ProgramBuffer* MakeDataLengthBuffer(size_t bytes);
  ProgramBuffer* MakeHeaderBuffer();
  // Releases all four.
  void ReleaseBuffers();
  // Before serialising: 1 when all four buffers exist; otherwise logs
  // "error! process program but no data!" and returns -1.
  int CheckBuffersForSerialise();

  std::unique_ptr<ProgramBuffer> m_ptpTagID;
  std::unique_ptr<ProgramBuffer> m_ptpData;
  std::unique_ptr<ProgramBuffer> m_ptpDataLength;
  std::unique_ptr<ProgramBuffer> m_ptpHeader;

 private:
  TagObject* TagOrNull(int32_t tagId) const;

  // Tag objects are made once and live as long as the program. The slots are atomic so
  // that a tag made by one thread is seen whole by another; making one takes create_mu_.
  std::atomic<TagObject*> tags_[kTagIdCount] = {};
  std::atomic<int32_t> highest_tag_id_{0};
  std::mutex create_mu_;
  int32_t number_ = 0;
  std::atomic<int32_t> pmt_pid_{0};
  AcceptTagFn accept_;
};

}  // namespace marquel
