#include "block_sinks.h"

#include <algorithm>

namespace marquel {

// Counts the whole bytes written so far into the buffers; the pending bits stay in the
// accumulators.
void BufferSink::Commit() {
  if (tag_at_ == nullptr) return;
  tag_buffer_->CommitTail(static_cast<size_t>(tag_at_ - tag_buffer_->WritableTail(0)));
  length_buffer_->CommitTail(static_cast<size_t>(lengths_.at - length_buffer_->WritableTail(0)));
  data_buffer_->CommitTail(static_cast<size_t>(data_.at - data_buffer_->WritableTail(0)));
}

BufferSink BufferSink::Grown(BufferSink sink, size_t entries, size_t extra) {
  sink.Grow(entries, extra);
  return sink;
}

void BufferSink::Grow(size_t entries, size_t extra) {
  Commit();
  // All the room a buffer has, or more when that is too little for this step (the buffer
  // then grows by doubling, so growth stays geometric and a reused buffer does not grow).
  auto room = [](BitBuffer* b, size_t need) {
    size_t have = b->capacity() > b->size() ? b->capacity() - b->size() : 0;
    return std::max(need, have);
  };
  size_t tag_room = room(tag_buffer_, entries);
  size_t length_room = room(length_buffer_, entries + 8);
  size_t data_room = room(data_buffer_, entries * 8 + extra + 8);
  tag_at_ = tag_buffer_->WritableTail(tag_room);
  tag_end_ = tag_at_ + tag_room;
  lengths_.at = length_buffer_->WritableTail(length_room);
  length_end_ = lengths_.at + length_room;
  data_.at = data_buffer_->WritableTail(data_room);
  data_end_ = data_.at + data_room;
}

void BufferSink::Finish() {
  Grow(1, 0);  // room for the padded last bytes
  lengths_.Flush();
  data_.Flush();
  Commit();
  tag_at_ = nullptr;
}

}  // namespace marquel
