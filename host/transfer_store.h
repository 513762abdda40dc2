// TransferStore: the results of bulk reads that are handed out page by page.
//
// A bulk read runs once on the server; what does not fit its first page waits here until
// the client fetches it, ends the transfer, or goes away. Each client may keep a few
// transfers; a new one beyond that ends its oldest.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "api/mq_interface.h"

namespace marquel::host {

// Page limits: every array of a page stays far below the bus's 64 MiB.
constexpr int32_t kMaxPageSamples = 1 << 21;  // 16 MiB of time codes
constexpr int32_t kMaxPageBytes = 32 << 20;   // raw sample bytes per page

struct Transfer {
  std::string owner;
  bool raw = false;
  std::vector<MarquelOneTag> plain;  // plain samples
  RawSampleColumns columns;          // raw samples
  size_t next = 0;                   // the first sample not yet handed out
  size_t next_byte = 0;              // raw: where that sample's bytes start
  size_t Size() const { return raw ? columns.size() : plain.size(); }
  bool Done() const { return next >= Size(); }
};

class TransferStore {
 public:
  static constexpr size_t kMaxPerClient = 4;

  // Keeps a transfer and returns its number (never 0).
  uint64_t Add(Transfer transfer);
  // The transfer with that number if `owner` made it, else null.
  Transfer* Find(const std::string& owner, uint64_t id);
  void Erase(uint64_t id);
  // Ends every transfer of a client.
  void EraseOwner(const std::string& owner);
  size_t Count() const { return transfers_.size(); }

 private:
  uint64_t next_id_ = 1;
  std::map<uint64_t, Transfer> transfers_;  // by number, so oldest first
};

// Fills one page of plain columns from `t.next` on, at most `limit` samples, and moves
// t.next past them.
void TakePlainPage(Transfer& t, int32_t limit, std::vector<int64_t>* times,
                   std::vector<int32_t>* values);

// Fills one page of raw columns from `t.next` on: at least one sample, then more while
// their bytes stay within `byte_limit` and their count within kMaxPageSamples.
void TakeRawPage(Transfer& t, int32_t byte_limit, std::vector<int64_t>* times,
                 std::vector<int32_t>* lengths, std::vector<uint8_t>* bytes);

}  // namespace marquel::host
