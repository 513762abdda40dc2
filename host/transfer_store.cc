// TransferStore: the results of bulk reads that are handed out page by page.
#include "transfer_store.h"

#include <algorithm>

namespace marquel::host {

uint64_t TransferStore::Add(Transfer transfer) {
  size_t owned = 0;
  for (const auto& [id, t] : transfers_)
    if (t.owner == transfer.owner) ++owned;
  if (owned >= kMaxPerClient) {
    for (auto it = transfers_.begin(); it != transfers_.end(); ++it) {
      if (it->second.owner == transfer.owner) {
        transfers_.erase(it);
        break;
      }
    }
  }
  uint64_t id = next_id_++;
  transfers_.emplace(id, std::move(transfer));
  return id;
}

Transfer* TransferStore::Find(const std::string& owner, uint64_t id) {
  auto it = transfers_.find(id);
  if (it == transfers_.end() || it->second.owner != owner) return nullptr;
  return &it->second;
}

void TransferStore::Erase(uint64_t id) {
  transfers_.erase(id);
}

void TransferStore::EraseOwner(const std::string& owner) {
  for (auto it = transfers_.begin(); it != transfers_.end();) {
    if (it->second.owner == owner)
      it = transfers_.erase(it);
    else
      ++it;
  }
}

void TakePlainPage(Transfer& t, int32_t limit, std::vector<int64_t>* times,
                   std::vector<int32_t>* values) {
  size_t n = std::min<size_t>(t.plain.size() - std::min(t.next, t.plain.size()),
                              static_cast<size_t>(std::clamp(limit, 1, kMaxPageSamples)));
  times->resize(n);
  values->resize(n);
  for (size_t i = 0; i < n; ++i) {
    (*times)[i] = t.plain[t.next + i].llTimeCode;
    (*values)[i] = t.plain[t.next + i].value;
  }
  t.next += n;
}

void TakeRawPage(Transfer& t, int32_t byte_limit, std::vector<int64_t>* times,
                 std::vector<int32_t>* lengths, std::vector<uint8_t>* bytes) {
  const RawSampleColumns& c = t.columns;
  size_t budget = static_cast<size_t>(std::clamp(byte_limit, 1, kMaxPageBytes));
  size_t first = t.next;
  size_t end = first;
  size_t used = 0;
  while (end < c.size() && end - first < static_cast<size_t>(kMaxPageSamples)) {
    size_t length = static_cast<size_t>(c.lengths[end]);
    if (end > first && used + length > budget) break;
    used += length;
    ++end;
  }
  times->assign(c.times.begin() + first, c.times.begin() + end);
  lengths->assign(c.lengths.begin() + first, c.lengths.begin() + end);
  bytes->assign(c.bytes.begin() + t.next_byte, c.bytes.begin() + t.next_byte + used);
  t.next = end;
  t.next_byte += used;
}

}  // namespace marquel::host
