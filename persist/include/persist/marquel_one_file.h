// MarquelOneFile: the session of one open media file.
//
// A session owns the file's programs (MQOneProgram, program 0 first, at most 8), its
// tag selection, its reference count and the facts its open records. This is the
// session's skeleton: the open handles a missing file and an existing file of the type it
// is given; format detection and loading of stored data plug in at LoadExisting. The
// closes are virtual so that the close policy (and tests) can replace them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "persist/cache_sources.h"
#include "platform/files.h"
#include "tags/mq_one_program.h"

namespace marquel {

class MarquelOneFile {
 public:
  static constexpr int32_t kMaxPrograms = 8;
  // The session number of sessions made outside the open-file table (tool calls, monitor).
  static constexpr int32_t kDetachedSessionNumber = -5203;

  MarquelOneFile();
  virtual ~MarquelOneFile();
  MarquelOneFile(const MarquelOneFile&) = delete;
  MarquelOneFile& operator=(const MarquelOneFile&) = delete;

  // --- Identity ------------------------------------------------------------------------

  // The handle (slot index), which is also the session number of log lines.
  int32_t Handle() const { return handle_; }
  void SetHandle(int32_t handle) { handle_ = handle; }
  // The file name as the client gave it (UTF-8).
  const std::string& FileName() const { return file_name_; }
  void SetFileName(const std::string& name) { file_name_ = name; }

  // Reference count, changed with atomic operations; each returns a plain read of the
  // count after its change.
  int32_t AddRef();
  int32_t Release();
  int32_t RefCount() const;

  // --- Tag selection -------------------------------------------------------------------

  // Sets the selection (bReadOnly, and the tag ids to load: all when nTags < 1 or pnTags
  // is null). Reads at most nTags ids.
  void SetTagSelection(int32_t bReadOnly, int32_t nTags, const int32_t* pnTags);
  // Whether the given selection differs from the one held.
  bool TagSelectionDiffers(int32_t bReadOnly, int32_t nTags, const int32_t* pnTags) const;
  // The tag-acceptance callback of the programs: whether a stored tag is loaded. Only a
  // read-only session loads just its selection; a writable one loads every tag, because
  // its close rewrites the whole block.
  bool AcceptsTag(int32_t tagId) const;
  // Whether the session was opened read-only: its close writes nothing, so the table
  // refuses every change to it.
  bool ReadOnly() const { return read_only_.load(std::memory_order_acquire); }

  // --- Open and close ------------------------------------------------------------------

  // Opens the session. Makes program 0 (PMT PID 0) when missing. A missing media file with
  // nType 0, or with a number that is no format code (media/file_type.h), gives -1: no
  // cache could keep its tags. With a format code the session takes nType, start address
  // -1 and zero identity words, and returns 1. An existing file that cannot be read logs
  // "[%d] can not read %s" and gives -1; otherwise LoadExisting decides.
  int Open(int32_t nType, int32_t bLoad, int32_t bQueryOnly);

  // The close of the last reference: the close policy, CloseFile.
  virtual int32_t Close(int32_t bWriteToCache);
  virtual int32_t CloseVOB();
  virtual int32_t CloseVCDOrSVCD();

  // --- Programs ------------------------------------------------------------------------

  int32_t ProgramCount() const { return program_count_.load(std::memory_order_acquire); }
  // The program at `index`, or null when the index is not below the count.
  MQOneProgram* Program(int32_t index);
  // The index of the program with `pmtPid`, or -1.
  int32_t FindProgram(int32_t pmtPid) const;
  // Reports the index of the program with `pmtPid` in *index, making it after the last
  // one when missing. 1, or -1 when 8 programs exist already (or index is null).
  int InsertNewProgram(int32_t pmtPid, int32_t* index);
  // Writes the PMT PID of every program in index order. 1, or -1 when nTotal is not the
  // program count or pids is null.
  int GetPMTPIDs(int32_t nTotal, int32_t* pids) const;
  // 1, or -1 when `index` is not below the program count.
  int SetPMTPID(int32_t index, int32_t pmtPid);

  // --- Facts recorded by the open ------------------------------------------------------

  int32_t FileType() const { return file_type_; }
  int64_t MQStartAddress() const { return mq_start_address_; }
  // The unit size of a transport stream (188, 192 or 204) as the open found it; else 0.
  uint32_t TsPacketSize() const { return ts_packet_size_; }
  int32_t m_bMQExisted = 0;
  int32_t DataSource() const { return data_source_; }
  uint64_t OriginalSize() const { return identity_[0]; }
  int64_t OriginalMTime() const { return static_cast<int64_t>(identity_[1]); }

  // --- Caches and close policy (session_open.cc, session_close.cc, session_write*.cc,
  // --- session_cache_delete.cc) ------------------------------------------------------

  // The close policy of the last reference: writes the tags to the cache of the file's
  // format and says whether a move into the media file is pending. MQ_SUCCESS,
  // MQ_AUTOPROCESSFAIL or MQ_ERR. Close() calls it.
  int32_t CloseFile(int32_t bWriteToCache);
  // Persists an MPEG-1, MPEG-2, VCD or SVCD session: to the temp cache (bCache non-zero)
  // or into the media file (through WriteMPEGFile). 1, 2 (written, but the file could
  // only be opened for reading) or -1.
  int32_t WriteToFile(int32_t bCache);
  // Removes the temp-cache and TS-cache entries of `path` (with their cache files) and
  // the entry named by CacheEntryKey(). 1, or -1 when that key cannot be deleted.
  int32_t ForceDeleteCacheData(const std::string& path);
  // Whether at least one program store holds a tag.
  bool HasTags();

  // --- Moving cached data into the media file (session_migrate.cc) ------------------

  // Moves the cached tags of `path` into the file itself: a program stream's temp-cache
  // entry (ProcessMQInterLeave), or every program of a transport stream's TS-cache entry
  // that matches the file as it is now (ProcessMQInterLeaveInTS). Returns 1 when they
  // were moved (*moved true), and also when there was nothing to move or the file cannot
  // take them: a format other than MPEG-2, SVCD and TS, no cache entry, or a predicted
  // size strictly above its FAT volume's limit (the data then stays in its cache). -1
  // when the move failed: a missing or unreadable file, no owner write permission, cached
  // tags that cannot be read, or a failed merge, which leaves the file as it was and the
  // cache in place. bRemoveCache non-zero removes the cache entry and its files after a
  // move.
  int32_t MoveCacheDataToOrgFile(const std::string& path, int32_t bRemoveCache,
                                 bool* moved = nullptr);
  // Merges program 0's block into the media file in place from the MQ start address
  // back (persist/ps_merge.h), and reads it back from the file before it counts. 1, or
  // -1 with the file as it was.
  int32_t ProcessMQInterLeave(int32_t bHasMQ);
  // Interleaves the data of every program that holds some into the transport stream's
  // last packets in place, as MQ packets on one private PID closed by the information
  // packet (persist/ts_in_file_store.h), and reads it back from the file before it
  // counts. The session gives the file name, its programs with their PMT PIDs, the unit
  // size and first-packet offset, the original size and time and the MQ start address.
  // 1, or 0 with the file as it was.
  int32_t ProcessMQInterLeaveInTS();
  // The cache file and the cache entry key (under the current user's root) the open
  // found or the close wrote; empty when none.
  const std::string& CacheFilePath() const { return cache_file_path_; }
  const std::string& CacheEntryKey() const { return cache_entry_key_; }
  void SetCacheEntryKey(const std::string& key) { cache_entry_key_ = key; }
  // 1 when the programs of a transport stream were learnt at open.
  int32_t TsProgramsKnown() const { return ts_programs_known_; }

 protected:
  // The in-file steps below are handed to the store of the file's container kind
  // (persist/in_file_store.h); a format without one keeps its data in the caches.
  //
  // The in-file check: whether the open media file carries MQ data,
  // where, and with which identity words. For program streams (format codes 1 to 5) the
  // end record is looked for at the file's end (media/mq_end_record.h); the file has data
  // only when the record holds and the block at its start address reads back with every
  // CRC right, into program 0's buffers. The identity words are the record's original
  // size and time. A damaged record or block is logged and answered "none".
  virtual MQDataInFile CheckMQDataInFile(FileHandle file);
  // Writes program 0's finalised block into the media file open for reading and writing
  // (session_write_mpeg.cc): the stream's last clock is read from the 64 KiB before
  // `startAddress`, the file is cut there (which removes the data of an earlier write),
  // and the block follows as 0xFA packs of the format's size, closed by the end record
  // (startAddress, originalMTime, originalSize, -1), and synced to the disk. Returns 1
  // when the data is in the file. 0 when nothing was written (no program or block, no
  // buffers, a negative address, a failed cut). When the address is not where the file's
  // own data begins, or a write fails (the file is then cut back to the address), the
  // block goes to the temp cache instead and that writer's answer is returned: 1 kept
  // there, else 0 or -1.
  virtual int32_t WriteMPEGFile(FileHandle file, int64_t startAddress, int64_t originalMTime,
                                uint64_t originalSize);

 public:
  // Writes program 0's finalised block as a pack stream of its own into `out` from offset
  // 0, packs of the format's size with `muxRate` and a zero clock, without an end record
  // (the in-place interleave merges it into the media file). Returns 1 when the stream
  // is written (not synced: the merge syncs the media file), when there is no block, and also when a write fails
  // (the stream is then cut short, and the merge's read-back refuses it); 0 when the
  // muxer cannot be made.
  int32_t GenerateMQTempMPEGData(FileHandle out, uint32_t muxRate);

 protected:
  std::string cache_file_path_;
  std::string cache_entry_key_;
  int32_t ts_programs_known_ = 0;
  uint32_t ts_packet_size_ = 0;
  uint32_t ts_first_packet_offset_ = 0;
  // Cleared when reading the block out of the media file fails.
  int32_t read_from_file_ok_ = 1;

  // Opens an existing, readable media file: detects its type, finds the stored data (in
  // the file, in the caches), chooses the source, loads it and converts it into the
  // program stores (session_open.cc). 1, the conversion's result, or -1.
  virtual int LoadExisting(int32_t nType, int32_t bLoad, int32_t bQueryOnly);

  int32_t file_type_ = 0;
  int64_t mq_start_address_ = -1;
  int32_t data_source_ = 0;
  uint64_t identity_[2] = {0, 0};

 private:
  friend class SessionSteps;          // the open and close steps (session_steps.h)
  friend class ProgramStreamStore;    // the in-file store of program streams
  friend class TransportStreamStore;  // the in-file store of transport streams
  int32_t MoveIntoProgramStream(FileHandle file, const FileStatusRecord& status, int64_t limit,
                                int32_t bRemoveCache, bool* moved);
  int32_t MoveIntoTransportStream(FileHandle file, const FileStatusRecord& status, int64_t limit,
                                  int32_t bRemoveCache, bool* moved);
  void MakeProgramZero();

  int32_t handle_ = -1;
  std::string file_name_;
  std::atomic<int32_t> ref_count_{0};
  std::atomic<bool> read_only_{false};
  bool select_all_ = true;
  std::vector<int32_t> selected_tags_;
  // Programs are only ever added, into fixed slots, and published by the count, so that a
  // reader on another thread never sees a slot move.
  std::mutex programs_mu_;
  std::unique_ptr<MQOneProgram> programs_[kMaxPrograms];
  std::atomic<int32_t> program_count_{0};
};

}  // namespace marquel
