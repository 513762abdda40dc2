// MergeIntoProgramStream: the rewrite from the merge start, between backups made durable
// before and removed after.
#include <chrono>
#include <cstring>

#include "log/log.h"
#include "media/ps_pack_walker.h"
#include "merge_output.h"
#include "persist/cache_sweep.h"
#include "ps_merge.h"

namespace marquel {
namespace {

double MillisecondsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
}

// The stream packs of a backup file, in order; own packs are passed over.
class StreamPackSource {
 public:
  StreamPackSource(FileHandle file, bool mpeg1)
      : file_(file), walker_(file, 0, GetFileSize64(file), mpeg1) {}
  // Peeks at the next stream pack; false when there is none.
  bool Peek(PackSpan* span) {
    while (!ready_ && walker_.Next(&next_)) ready_ = !next_.own_data;
    if (ready_) *span = next_;
    return ready_;
  }
  bool Copy(MergeOutput* out, std::vector<uint8_t>* scratch) {
    ready_ = false;
    scratch->resize(next_.length);
    return ReadAllAt(file_, static_cast<uint64_t>(next_.offset), scratch->data(), next_.length) &&
           out->Put(scratch->data(), next_.length);
  }
  bool failed() const { return walker_.failed(); }

 private:
  FileHandle file_;
  PsPackWalker walker_;
  PackSpan next_;
  bool ready_ = false;
};

struct Sources {
  FileHandle data_packs;
  uint32_t data_pack_size;
  int64_t data_left;
  int64_t data_read = 0;
};

// Writes up to kMergeGroupDataPacks data packs with clocks stepped from `previous`
// towards `next`.
bool WriteDataGroup(Sources* s, const PackClock& previous, const PackClock& next, MergeOutput* out,
                    std::vector<uint8_t>* scratch) {
  const uint32_t count =
      static_cast<uint32_t>(std::min<int64_t>(kMergeGroupDataPacks, s->data_left));
  scratch->resize(s->data_pack_size);
  for (uint32_t i = 1; i <= count; ++i) {
    if (!ReadAllAt(s->data_packs, static_cast<uint64_t>(s->data_read), scratch->data(),
                   s->data_pack_size))
      return false;
    WritePackClock(scratch->data(), scratch->size(), SteppedClock(previous, next, i, count));
    if (!out->Put(scratch->data(), scratch->size())) return false;
    s->data_read += s->data_pack_size;
    --s->data_left;
  }
  return true;
}

struct Rewritten {
  int64_t merged_end = 0;
  PackClock last_clock;
};

// The merged region, then the tail's stream packs.
bool RewriteFromStart(const PsMergeRequest& r, const MergePlan& plan, FileHandle packs,
                      FileHandle tail, MergeOutput* out, Rewritten* done) {
  Sources s{r.data_packs, r.data_pack_size, r.data_pack_count};
  StreamPackSource stream(packs, r.mpeg1);
  std::vector<uint8_t> scratch;
  PackClock previous = plan.clock_before;
  PackSpan next;
  while (s.data_left > 0 || stream.Peek(&next)) {
    const bool more = stream.Peek(&next);
    if (s.data_left > 0 &&
        !WriteDataGroup(&s, previous, more ? next.clock : previous, out, &scratch))
      return false;
    for (uint32_t i = 0; i < plan.group_stream_packs && stream.Peek(&next); ++i) {
      if (!stream.Copy(out, &scratch)) return false;
      previous = next.clock;
    }
  }
  if (stream.failed()) return false;
  done->merged_end = out->Position();
  StreamPackSource rest(tail, r.mpeg1);
  while (rest.Peek(&next)) {
    if (!rest.Copy(out, &scratch)) return false;
  }
  done->last_clock = previous;
  return !rest.failed();
}

}  // namespace

namespace {

struct OpenBackups {
  FileHandle packs = kInvalidFileHandle;
  FileHandle tail = kInvalidFileHandle;
  ~OpenBackups() {
    if (packs != kInvalidFileHandle) CloseFileHandle(packs);
    if (tail != kInvalidFileHandle) CloseFileHandle(tail);
  }
};

// Rewrites the file from the merge start and syncs it. False on any failure.
bool Rewrite(const PsMergeRequest& r, const MergePlan& plan, const MergeBackups& backups,
             PsMergeResult* result) {
  OpenBackups open;
  open.packs = OpenRegularFile(backups.packs, GENERIC_READ);
  open.tail = OpenRegularFile(backups.tail, GENERIC_READ);
  if (open.packs == kInvalidFileHandle || open.tail == kInvalidFileHandle) return false;
  auto started = std::chrono::steady_clock::now();
  MergeOutput out(r.media, plan.start);
  Rewritten done;
  std::vector<uint8_t> end_pack;
  if (!RewriteFromStart(r, plan, open.packs, open.tail, &out, &done) ||
      !r.end_pack(plan.start, done.merged_end, done.last_clock, &end_pack) ||
      !out.Put(end_pack.data(), end_pack.size()) || !out.Flush())
    return false;
  const int64_t end = out.Position();
  MQ_LOG("[%d] ProcessMQInterLeave: wrote %lld bytes in %.1f ms", r.session,
         static_cast<long long>(end - plan.start), MillisecondsSince(started));
  started = std::chrono::steady_clock::now();
  if (SeekFile(r.media, end, FILE_BEGIN) != end || !SetEndOfFile(r.media) ||
      !SyncFileHandle(r.media))
    return false;
  MQ_LOG("[%d] ProcessMQInterLeave: cut and synced in %.1f ms", r.session,
         MillisecondsSince(started));
  result->group_stream_packs = plan.group_stream_packs;
  result->merge_start = plan.start;
  result->merged_end = done.merged_end;
  result->new_size = end;
  return true;
}

// Puts the file back as it was; when even that fails the record and backups stay, for
// the roll-back at the next start.
void UndoRewrite(const PsMergeRequest& r, const MergePlan& plan, const MergeBackups& backups) {
  if (RestoreFromBackups(r.media, plan, backups)) {
    MQ_LOG("[%d] ProcessMQInterLeave: '%s' restored from its backups", r.session,
           r.media_path.c_str());
    if (DeleteRollBackRecord(r.media_path)) RemoveMergeBackups(backups);
    return;
  }
  MQ_LOG("[%d] ProcessMQInterLeave: '%s' could not be restored; its roll-back record stays",
         r.session, r.media_path.c_str());
}

}  // namespace

int32_t MergeIntoProgramStream(const PsMergeRequest& r, PsMergeResult* result) {
  PsMergeResult ignored;
  if (result == nullptr) result = &ignored;
  MergePlan plan;
  if (r.data_pack_count < 0 || !r.end_pack || !PlanMerge(r, &plan)) return -1;
  MQ_LOG("ProcessMQInterLeave: [%d] The merge start time is about %lld", r.session,
         static_cast<long long>(plan.clock_before.base * 1000 / 9));
  MQ_LOG(
      "[%d] ProcessMQInterLeave: merge from %lld over %lld stream packs, %u per data pack, "
      "tail %lld bytes",
      r.session, static_cast<long long>(plan.start), static_cast<long long>(plan.stream_packs),
      plan.group_stream_packs, static_cast<long long>(plan.file_size - plan.packs_end));
  auto started = std::chrono::steady_clock::now();
  MergeBackups backups;
  {
    // The backups have the cache files' shape: a sweep must not take them before the
    // record names them.
    CacheWriteLock lock;
    if (!MakeMergeBackups(r.media, plan, &backups)) {
      MQ_LOG("[%d] ProcessMQInterLeave: can not make the backups", r.session);
      return -1;
    }
    // Every data pack and the end pack: what the merge can add to the file.
    const int64_t added = (r.data_pack_count + 1) * static_cast<int64_t>(r.data_pack_size);
    if (!WriteRollBackRecord(r.media_path, backups, plan.start, added)) {
      MQ_LOG("[%d] ProcessMQInterLeave: can not write the roll-back record", r.session);
      RemoveMergeBackups(backups);
      return -1;
    }
  }
  MQ_LOG("[%d] ProcessMQInterLeave: backups and roll-back record synced in %.1f ms", r.session,
         MillisecondsSince(started));
  if (!Rewrite(r, plan, backups, result) || (r.verify && !r.verify(plan.start))) {
    MQ_LOG("[%d] ProcessMQInterLeave: the merge of '%s' failed", r.session, r.media_path.c_str());
    UndoRewrite(r, plan, backups);
    return -1;
  }
  // The file is whole and synced: the safety net goes. A record that cannot be deleted
  // makes the next start copy the old bytes back, so the merge must not count as done:
  // the caller keeps its cache, and the move is made again after the roll-back.
  if (!DeleteRollBackRecord(r.media_path)) {
    MQ_LOG("[%d] ProcessMQInterLeave: can not delete the roll-back record", r.session);
    return -1;
  }
  RemoveMergeBackups(backups);
  return 1;
}

}  // namespace marquel
