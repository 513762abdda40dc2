// TransferStore: the results of bulk reads that are handed out page by page.
//
// A bulk read runs once on the server; what it found goes to a transfer's spill files (two
// unlinked temporary files) a piece at a time, and waits there until the client fetches
// it, ends the transfer, or goes away. A transfer is sized by the samples that exist: the
// elements of the answer beyond them (up to m) are zeros that no file holds. Memory is
// spent per page, never per transfer. Each client keeps a few transfers (a new one
// beyond that ends its oldest); the store keeps a bounded number and bytes in all.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace marquel::host {

// Page limits: every array of a page stays far below the bus's 64 MiB.
constexpr int32_t kMaxPageSamples = 1 << 21;  // 16 MiB of time codes
constexpr int32_t kMaxPageBytes = 32 << 20;   // raw sample bytes per page

// An unlinked temporary file in the temporary folder, appended to and read by position.
class SpillFile {
 public:
  SpillFile() = default;
  ~SpillFile();
  SpillFile(SpillFile&& other) noexcept;
  SpillFile& operator=(SpillFile&& other) noexcept;
  SpillFile(const SpillFile&) = delete;
  SpillFile& operator=(const SpillFile&) = delete;

  // Appends n bytes (making the file on first use); they go out in writes of up to
  // kBufferBytes. False when the file cannot be made or written.
  bool Append(const void* data, size_t n);
  // Reads n bytes at `offset` (writing out what is buffered first); false when they are
  // not all there.
  bool ReadAt(uint64_t offset, void* data, size_t n);
  // The bytes appended so far.
  uint64_t size() const { return size_; }

 private:
  static constexpr size_t kBufferBytes = 1 << 20;
  bool Flush();

  int fd_ = -1;
  uint64_t size_ = 0;
  std::vector<uint8_t> buffer_;
};

struct Transfer {
  std::string owner;
  bool raw = false;
  int64_t total = 0;       // the elements of the answer (m)
  int64_t stored = 0;      // of them, the samples in the files; the rest are zeros
  SpillFile heads;         // per stored sample: time code (8 bytes), value or length (4)
  SpillFile bytes;         // raw: the stored samples' bytes back to back
  int64_t next = 0;        // the first element not yet handed out
  uint64_t next_byte = 0;  // raw: where that element's bytes start
  bool Done() const { return next >= total; }
  uint64_t Bytes() const { return heads.size() + bytes.size(); }
  // Appends one sample (a raw one with its bytes; null bytes read as zeros). False on a
  // write failure.
  bool Keep(int64_t time, int32_t value, const uint8_t* data, size_t length);
};

class TransferStore {
 public:
  static constexpr size_t kMaxPerClient = 4;
  // Transfers kept for all clients together, and the bytes of their files.
  static constexpr size_t kMaxTransfers = 64;
  static constexpr uint64_t kMaxStoredBytes = uint64_t{4} << 30;

  // Whether `owner` may start a transfer now: it may when the store has room or when the
  // owner has one that a new one would end. A full store refuses (E_OUTOFMEMORY) rather
  // than end another client's transfer.
  bool Admits(const std::string& owner) const;
  // The bytes the files of all kept transfers hold.
  uint64_t StoredBytes() const { return stored_bytes_; }
  // Keeps a transfer and returns its number (never 0); a client's transfer beyond
  // kMaxPerClient ends its oldest.
  uint64_t Add(Transfer transfer);
  // The transfer with that number if `owner` made it, else null.
  Transfer* Find(const std::string& owner, uint64_t id);
  void Erase(uint64_t id);
  // Ends every transfer of a client.
  void EraseOwner(const std::string& owner);
  size_t Count() const { return transfers_.size(); }

 private:
  uint64_t next_id_ = 1;
  uint64_t stored_bytes_ = 0;
  std::map<uint64_t, Transfer> transfers_;  // by number, so oldest first
};

// Fills one page of plain columns from `t.next` on, at most `limit` samples, and moves
// t.next past them. False when the spill file cannot be read.
bool TakePlainPage(Transfer& t, int32_t limit, std::vector<int64_t>* times,
                   std::vector<int32_t>* values);

// Fills one page of raw columns from `t.next` on: at least one sample, then more while
// their bytes stay within `byte_limit` and their count within kMaxPageSamples. False when
// a spill file cannot be read.
bool TakeRawPage(Transfer& t, int32_t byte_limit, std::vector<int64_t>* times,
                 std::vector<int32_t>* lengths, std::vector<uint8_t>* bytes);

}  // namespace marquel::host
