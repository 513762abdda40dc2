// InterleaveIntoTransportStream, behind ProcessMQInterLeaveInTS: the programs' packet
// files, the backup and record made durable, the rewrite, and the read-back check that
// decides whether the data counts as in the file.
#include <cinttypes>
#include <cstring>

#include "log/log.h"
#include "media/mq_ts_packetizer.h"
#include "merge_record.h"
#include "mpeg_pack_writer.h"
#include "persist/cache_sweep.h"
#include "persist/marquel_one_file.h"
#include "platform/temp_folders.h"
#include "tags/block_format.h"
#include "ts_in_file_store.h"
#include "ts_merge.h"

namespace marquel {
namespace {

// The programs' packet files, in the process's temporary folder (an ended process's
// folder is removed with them), removed with the object.
struct PacketFiles {
  std::vector<std::string> paths;
  ~PacketFiles() {
    for (const std::string& p : paths) RemoveFile(p);
  }
};

// Writes the program's block as MQ packets into a new "MQT" file.
bool WritePacketFile(MQOneProgram& program, int32_t unit, uint16_t pid, PacketFiles* files) {
  const std::string folder = ProcessTempFolder();
  std::string path;
  if (folder.empty() || MakeTempFileName(folder, "MQT", 0, &path) == 0) return false;
  files->paths.push_back(path);
  FileHandle out = OpenRegularFile(path, GENERIC_READ | GENERIC_WRITE);
  if (out == kInvalidFileHandle) return false;
  uint64_t at = 0;
  MQTsPacketizer packetizer(unit, pid, [&](const uint8_t* bytes, size_t n) {
    if (!WriteAllAt(out, at, bytes, n)) return false;
    at += n;
    return true;
  });
  const bool ok =
      ForEachProgramBlockChunk(program, MQTsPacketizer::kBlockBytes,
                               [&](const uint8_t* b, size_t n) { return packetizer.Feed(b, n); }) &&
      packetizer.Finish() && packetizer.PacketCount() > 0;
  return CloseFileHandle(out) && ok;
}

// The data counts as in the file only when the open's check finds every program, with the
// PID and PMT PIDs written, and each block reads back with the header that was written.
bool ReadsBack(FileHandle media, const TsMergeInput& in, const TsMergePlan& plan,
               int64_t* dataStart) {
  MQTsInfo info;
  std::vector<InFileProgram> found;
  std::vector<std::vector<uint8_t>> headers;  // as the check read each block, CRCs right
  if (!FindTsInFileData(media, in.unit, in.first_offset, in.session, &info, &found, &headers) ||
      info.mq_pid != plan.mq_pid || found.size() != plan.programs.size())
    return false;
  for (size_t i = 0; i < found.size(); ++i) {
    ProgramBuffer* written = in.programs[plan.programs[i]]->HeaderBuffer();
    if (found[i].pmt_pid != plan.pmt_pids[i] || written == nullptr ||
        std::memcmp(headers[i].data(), written->bytes.data(), kBlockHeaderSize) != 0)
      return false;
  }
  *dataStart = found[0].start;
  return true;
}

// Puts the file back from the backup; when even that fails the record and the backup
// stay for the roll-back at the next start.
void Undo(FileHandle media, const TsMergeInput& in, const TsMergePlan& plan, const TsBackup& b,
          int64_t mtime) {
  if (RestoreTsFromBackup(media, b.path, plan.rewrite_from, mtime)) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: '%s' restored from its backup", in.session,
           in.media_path.c_str());
    if (DeleteRollBackRecord(in.media_path)) RemoveFile(b.path);
    return;
  }
  MQ_LOG("[%d] ProcessMQInterLeaveInTS: '%s' could not be restored; its roll-back record stays",
         in.session, in.media_path.c_str());
}

// Backup and record, durable before the file is touched; false leaves nothing behind.
bool SecureTail(FileHandle media, const TsMergeInput& in, const TsMergePlan& plan, int64_t mtime,
                const PacketFiles& packets, TsBackup* backup) {
  // The backup has a cache file's shape: a sweep must not take it before the record
  // names it.
  CacheWriteLock lock;
  if (!MakeTsBackup(media, plan, in.unit, backup)) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: can not make the backup", in.session);
    return false;
  }
  int64_t added = 0;  // the data packets: what the interleave adds to the file
  for (const std::string& p : packets.paths) {
    FileStatusRecord status;
    added += FileStatus(p, &status) == 0 ? status.size : 0;
  }
  if (!WriteTsRollBackRecord(in.media_path, backup->path, plan.rewrite_from, mtime, added)) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: can not write the roll-back record", in.session);
    RemoveFile(backup->path);
    return false;
  }
  return true;
}

int32_t Interleave(FileHandle media, const TsMergeInput& in, int64_t* dataStart) {
  TsMergePlan plan;
  if (!PlanTsMerge(in, media, &plan)) return 0;
  MQ_LOG("[%d] ProcessMQInterLeaveInTS: MQ PID %u, rewrite from %" PRId64
         ", interleave from %" PRId64 " of %" PRId64 " bytes",
         in.session, plan.mq_pid, plan.rewrite_from, plan.start, plan.size);
  PacketFiles packets;
  for (size_t i : plan.programs) {
    if (!WritePacketFile(*in.programs[i], in.unit, plan.mq_pid, &packets)) {
      MQ_LOG("[%d] ProcessMQInterLeaveInTS: can not write the MQ packets of program %zu",
             in.session, i);
      return 0;
    }
  }
  // The time before the merge goes into the record: a restore gives it back, so that the
  // cache, which knows the file by size and time, still finds it.
  FileStatusRecord status;
  if (FileStatus(in.media_path, &status) != 0) return 0;
  TsBackup backup;
  if (!SecureTail(media, in, plan, status.mtime, packets, &backup)) return 0;
  const TsRewriteSources sources{&packets.paths, &backup, status.mtime};
  const bool written = RewriteTransportStream(media, in, plan, sources);
  if (!written || !ReadsBack(media, in, plan, dataStart)) {
    MQ_LOG("[%d] MergeMQAndOrgFile failed", in.session);
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: the data %s", in.session,
           written ? "did not read back" : "could not be written");
    Undo(media, in, plan, backup, status.mtime);
    return 0;
  }
  // The file is whole and synced. A record that cannot be deleted would copy the old
  // bytes back at the next start, so the data must not count as in the file.
  if (!DeleteRollBackRecord(in.media_path)) {
    MQ_LOG("[%d] ProcessMQInterLeaveInTS: can not delete the roll-back record", in.session);
    Undo(media, in, plan, backup, status.mtime);
    return 0;
  }
  RemoveFile(backup.path);
  return 1;
}

}  // namespace

int32_t InterleaveIntoTransportStream(const TsMergeInput& in, int64_t* dataStart) {
  MQ_LOG("[%d] ProcessMQInterLeaveInTS", in.session);
  FileHandle media = OpenRegularFile(in.media_path, GENERIC_READ | GENERIC_WRITE);
  if (media == kInvalidFileHandle) {
    MQ_LOG("[%d] can not open '%s' as read/write", in.session, in.media_path.c_str());
    return 0;
  }
  const int32_t result = Interleave(media, in, dataStart);
  CloseFileHandle(media);
  return result;
}

TsMergeInput TransportStreamStore::MergeInputOf(MarquelOneFile& f) {
  TsMergeInput in;
  in.media_path = f.file_name_;
  in.session = f.handle_;
  in.unit = static_cast<int32_t>(f.ts_packet_size_);
  in.first_offset = f.ts_first_packet_offset_;
  in.original_size = f.identity_[0];
  in.original_mtime = static_cast<int64_t>(f.identity_[1]);
  for (int32_t i = 0; i < f.ProgramCount(); ++i) in.programs.push_back(f.Program(i));
  return in;
}

int32_t TransportStreamStore::Merge(MarquelOneFile& f, int32_t) {
  int64_t start = -1;
  const int32_t result = InterleaveIntoTransportStream(MergeInputOf(f), &start);
  if (result == 1) f.mq_start_address_ = start;  // where the data begins now
  return result;
}

}  // namespace marquel
