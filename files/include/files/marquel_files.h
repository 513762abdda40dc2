// MarquelFiles: the one table of open media files of the server.
//
// A file name becomes a handle, the index of one of 2048 slots (lowest free first, reused
// as soon as a file is fully closed). One session (MarquelOneFile) per distinct file,
// however many clients open it; a reference count of the outstanding opens; the last
// close has the session write its data and frees the slot.
//
// Two names are the same file when they have the same canonical absolute path; on a
// case-insensitive volume (per the Env seam) they also match when they differ only in
// ASCII case.
//
// Every handle argument is checked: a negative handle, one of 2048 or more, or an empty
// slot is an empty slot, whose answer is -1 unless said otherwise. Routers with a program
// index answer -1 (or the program store's "nothing", 0, where noted) when the index is not
// below the file's program count. No operation writes past a caller's array: arrays come
// with their capacity.
//
// Locking: the table lock covers find-by-name, slot fill and free, the reference count
// decisions and the whole final close. Routed operations read the slot without it and
// rely on the tags' own locks.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "persist/marquel_one_file.h"
#include "persist/result_codes.h"
#include "tags/period_edit.h"
#include "tags/sample.h"

namespace marquel {

class MarquelFiles {
 public:
  static constexpr int32_t kSlotCount = 2048;
  // Memory figures: per file 11000 + its programs; the table 16424 + every file.
  static constexpr int64_t kFileMemoryBase = 11000;
  static constexpr int64_t kTableMemoryBase = 16424;

  MarquelFiles();
  // Destroys every remaining session without writing it.
  virtual ~MarquelFiles();
  MarquelFiles(const MarquelFiles&) = delete;
  MarquelFiles& operator=(const MarquelFiles&) = delete;

  // --- Open and close ------------------------------------------------------------------

  // Opens `name` (UTF-8). A name already open gets its handle and one more reference (a
  // read-only session reopens when the selection changed; a writable one keeps its tags
  // and stays writable); otherwise the lowest free slot gets a new session, opened with the
  // type, bLoad 1 and the selection. bOverwrite deletes every sample afterwards (negative
  // time codes too). Returns the handle, or -1 (table full, open failed, or bOverwrite on
  // a read-only session, which could not keep the deletion). The open of a file that a
  // move holds (ClaimClosedFile) waits until that move is over.
  int32_t OpenFile(const std::string& name, int32_t nFileType, int32_t bOverwrite, int32_t nTags,
                   const int32_t* pnTags, int32_t bReadOnly, int64_t llStartTime,
                   int64_t llEndTime);
  // --- Work on closed files (the move of cached tags into them) -----------------------

  // Takes `name` for work on the file itself while no session has it. Waits while
  // another claim holds the same file; then false when a session has it open, else true,
  // and until ReleaseFile every OpenFile of it waits. So a file is never rewritten under
  // a session, nor opened half rewritten.
  bool ClaimClosedFile(const std::string& name);
  // Ends a claim that ClaimClosedFile gave.
  void ReleaseFile(const std::string& name);

  // Drops one reference; the last one closes the session (bWriteToCache) and frees the
  // slot. MQ_SUCCESS, the session's close result, or MQ_ERR for an empty slot.
  int32_t CloseFile(int32_t handle, int32_t bWriteToCache);
  // Close the session's VOB / VCD-SVCD way first; a result of -1 keeps the reference and
  // the slot. The session's result, or -1.
  int32_t CloseVOBFile(int32_t handle);
  int32_t CloseVCDORSVCDFile(int32_t handle);
  // Deletes every sample of every tag of every program, negative time codes too. 1, or -1
  // (also for a read-only session).
  int32_t CleanFile(int32_t handle);

  // --- Table queries -------------------------------------------------------------------

  // The handle of an open file of that name, or -1.
  int32_t FindFile(const std::string& name);
  // The name as given at open into *name. 1, or -1 (also for a null name).
  int32_t QueryFilename(int32_t handle, std::string* name);
  int32_t QueryFileCount();
  // Writes the handles of the open files in ascending order, at most `capacity` of them,
  // and returns how many files are open (a null array writes nothing).
  int32_t QueryAllFileHandles(int32_t* handles, int32_t capacity);
  int64_t QueryAllMemory();
  int64_t QueryOneFileMemory(int32_t handle);
  // The session's reference count, or -1.
  int32_t QueryRefCount(int32_t handle);
  // The session in a slot, or null. Valid only while the caller keeps the file open.
  MarquelOneFile* Session(int32_t handle);

  // --- Plain and raw samples (program store routers) -----------------------------------

  int32_t InsertOne(int32_t handle, int32_t program, int32_t tagId, const SampleRecord& record);
  // The number stored; -1 for an empty slot or bad program.
  int32_t InsertMany(int32_t handle, int32_t program, int32_t tagId, const SampleRecord* records,
                     int32_t count);
  int32_t GetOne(int32_t handle, int32_t program, int32_t tagId, int64_t timeCode,
                 SampleRecord* out);
  int64_t GetDataPeriod(int32_t handle, int32_t program, int32_t tagId, int64_t start, int64_t end,
                        SampleRecord* out, int64_t capacity);
  int64_t GetDataAll(int32_t handle, int32_t program, int32_t tagId, SampleRecord* out,
                     int64_t capacity);
  int64_t QueryOneTagSize(int32_t handle, int32_t program, int32_t tagId);
  int64_t QueryOneTagPeriodSize(int32_t handle, int32_t program, int32_t tagId, int64_t start,
                                int64_t end);
  int32_t QueryTagCount(int32_t handle, int32_t program);
  int32_t QueryTagList(int32_t handle, int32_t program, int32_t* ids, int32_t capacity);
  int32_t QueryRawDataTagCount(int32_t handle, int32_t program);
  int32_t QueryRawDataTagList(int32_t handle, int32_t program, int32_t* ids, int32_t* sizes,
                              int32_t capacity);
  int32_t QueryRawDataTagSampleSize(int32_t handle, int32_t program, int32_t tagId, int32_t* size);

  // --- Intervals and offsets -----------------------------------------------------------

  int32_t SetTimeIntervalForTag(int32_t handle, int32_t program, int32_t tagId, int64_t interval);
  // Accepted and ignored: 1 whatever the handle.
  int32_t SetMinTimeInterval(int32_t handle, int64_t interval);
  int64_t QueryValidIntervalSize(int32_t handle, int32_t program, int32_t tagId);
  int64_t QueryValidInterval(int32_t handle, int32_t program, int32_t tagId, int64_t capacity,
                             int64_t* starts, int64_t* ends);
  int32_t MinusTimeOffset(int32_t handle, int32_t program, int64_t offset);
  int32_t MinusTimeOffsetForOneCategory(int32_t handle, int32_t program, int32_t category,
                                        int64_t offset);
  int32_t MinustTimeOffsetForOneTag(int32_t handle, int32_t program, int32_t tagId, int64_t offset);

  // --- Periods over all programs -------------------------------------------------------

  int32_t DeleteDataPeriod(int32_t handle, int64_t start, int64_t end);
  int32_t DeleteDataPeriodForOneTag(int32_t handle, int32_t tagId, int64_t start, int64_t end);
  int32_t DeleteDataPeriodForOneCategory(int32_t handle, int32_t category, int64_t start,
                                         int64_t end);
  // Two-handle move and copy: each source program goes to the target program of the same
  // PMT PID (made when missing; skipped when it cannot be made). 1, or -1 when a handle is
  // an empty slot, the denominator is 0, or a buffer cannot be had.
  int32_t MoveDataPeriod(int32_t target, int32_t source, int64_t llTargetStartTime,
                         int64_t llSrcStartTime, int64_t llSrcEndTime, int32_t numerator,
                         int32_t denominator);
  int32_t CopyDataPeriod(int32_t target, int32_t source, int64_t llTargetStartTime,
                         int64_t llSrcStartTime, int64_t llSrcEndTime, int32_t numerator,
                         int32_t denominator);
  int32_t MoveDataPeriodForOneTag(int32_t target, int32_t source, int32_t tagId,
                                  int64_t llTargetStartTime, int64_t llSrcStartTime,
                                  int64_t llSrcEndTime, int32_t numerator, int32_t denominator);
  int32_t CopyDataPeriodForOneTag(int32_t target, int32_t source, int32_t tagId,
                                  int64_t llTargetStartTime, int64_t llSrcStartTime,
                                  int64_t llSrcEndTime, int32_t numerator, int32_t denominator);
  int32_t MoveDataPeriodForOneCategory(int32_t target, int32_t source, int32_t category,
                                       int64_t llTargetStartTime, int64_t llSrcStartTime,
                                       int64_t llSrcEndTime, int32_t numerator,
                                       int32_t denominator);
  int32_t CopyDataPeriodForOneCategory(int32_t target, int32_t source, int32_t category,
                                       int64_t llTargetStartTime, int64_t llSrcStartTime,
                                       int64_t llSrcEndTime, int32_t numerator,
                                       int32_t denominator);

  // --- Programs and file facts (session routers) ---------------------------------------

  // 1 with *count set, or -1.
  int32_t GetMQProgramCounts(int32_t handle, int32_t* count);
  // 1 with one PMT PID per program, or -1 (nTotal must be the program count).
  int32_t GetMQPMTPIDS(int32_t handle, int32_t nTotal, int32_t* pids);
  // 1 with the program's index in *index, or -1.
  int32_t InsertNewProgram(int32_t handle, int32_t pmtPid, int32_t* index);
  int32_t SetPMTPID(int32_t handle, int32_t program, int32_t pmtPid);
  // m_bMQExisted, or -1.
  int32_t QueryMQExisted(int32_t handle);
  // 1, writing the start address only when it is above 0; -1 for an empty slot or null.
  int32_t GetMQDataStartAddress(int32_t handle, int64_t* address);
  // 1, writing each value whose pointer is not null; -1 for an empty slot.
  int32_t QueryOriginalFileSizeAndMTime(int32_t handle, uint64_t* size, int64_t* mtime);
  // Gives the session a new name (the file on disk keeps its own). 1, or -1.
  int32_t FileRename(int32_t handle, const std::string& newName);

 protected:
  // Makes the session of a new slot. Tests and the persistence layer replace it.
  virtual std::unique_ptr<MarquelOneFile> MakeSession();

 private:
  struct Slot;
  MarquelOneFile* SessionAt(int32_t handle) const;
  MQOneProgram* ProgramAt(int32_t handle, int32_t program) const;
  // The session at `handle` when it may be changed: null for an empty slot and for a
  // read-only session.
  MarquelOneFile* WritableSessionAt(int32_t handle) const;
  int32_t FindLocked(const std::string& name) const;
  void SetSlotKey(int32_t handle, const std::string& name);
  int32_t DeleteAll(MarquelOneFile* file, const TagScope& scope, int64_t start, int64_t end);
  int32_t TwoHandle(int32_t target, int32_t source, const TagScope& scope, int64_t targetStart,
                    int64_t srcStart, int64_t srcEnd, int32_t numerator, int32_t denominator,
                    bool move);

  bool ClaimedLocked(const std::string& name) const;

  mutable std::mutex table_mu_;        // the table lock
  std::condition_variable claims_cv_;  // signalled when a claim ends
  std::vector<std::string> claims_;    // files taken by ClaimClosedFile (under the table lock)
  std::unique_ptr<Slot[]> slots_;
};

}  // namespace marquel
