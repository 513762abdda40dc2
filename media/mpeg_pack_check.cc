#include "media/mpeg_pack_check.h"

#include <cstddef>
#include <new>

namespace marquel {

bool MpegPackList::PushFront(const MpegPackRecord& record) {
  auto* copy = new (std::nothrow) MpegPackRecord(record);
  if (copy == nullptr) return false;
  copy->next = head_;
  head_ = copy;
  ++count_;
  return true;
}

// Frees iteratively: a list of a long stream holds hundreds of thousands of records.
void MpegPackList::Clear() {
  while (head_ != nullptr) {
    MpegPackRecord* next = head_->next;
    delete head_;
    head_ = next;
  }
  count_ = 0;
}

std::vector<const MpegPackRecord*> MpegPackList::InStreamOrder() const {
  std::vector<const MpegPackRecord*> out(count_);
  size_t i = count_;
  for (const MpegPackRecord* r = head_; r != nullptr && i > 0; r = r->next) out[--i] = r;
  return out;
}

}  // namespace marquel
