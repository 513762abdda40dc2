// RollBackInterruptedMerges: the records of merges a killed server left, undone at start.
#include "persist/merge_rollback.h"

#include <cstring>
#include <string>
#include <vector>

#include "log/log.h"
#include "merge_record.h"
#include "platform/access_reg.h"
#include "platform/text.h"
#include "ps_merge.h"
#include "ts_merge.h"

namespace marquel {
namespace {

struct RollBackRecord {
  std::string media;
  uint32_t type = 0;
  MergeBackups backups;   // type 1
  std::string ts_backup;  // type 2
  int64_t ts_mtime = 0;   // type 2: the file's modified time before the merge
  int64_t offset = -1;
};

bool DecodeBuf(const std::vector<uint8_t>& buf, RollBackRecord* r) {
  if (r->type == kRollBackTransportStream)
    return DecodeTsRollBack(buf, &r->ts_backup, &r->offset, &r->ts_mtime);
  if (r->type != kRollBackProgramStream || buf.size() != 1056) return false;
  r->backups.tail = WideRecordToUtf8(reinterpret_cast<const char16_t*>(buf.data()), 260);
  r->backups.packs = WideRecordToUtf8(reinterpret_cast<const char16_t*>(buf.data() + 520), 260);
  std::memcpy(&r->offset, buf.data() + 1040, sizeof(r->offset));
  return r->offset >= 0;
}

bool ReadRecord(const std::string& key, RollBackRecord* r) {
  AccessReg reg;
  if (!reg.Open(HKEY_CURRENT_USER, key.c_str())) return false;
  uint32_t kind = 0;
  std::vector<uint8_t> buf;
  char path[4096];
  if (!reg.QueryDword("TYPE", &r->type) || !reg.QueryValue("BUF", &kind, &buf) ||
      !reg.QueryString("PATH", path, sizeof path))
    return false;
  r->media = path;
  return DecodeBuf(buf, r);
}

int64_t SizeOf(const std::string& path) {
  FileStatusRecord status;
  return FileStatus(path, &status) == 0 ? status.size : -1;
}

// Whether the backups are there to restore from.
bool HasBackups(const RollBackRecord& r) {
  if (r.type == kRollBackTransportStream) return SizeOf(r.ts_backup) >= 0;
  return SizeOf(r.backups.packs) >= 0 && SizeOf(r.backups.tail) >= 0;
}

enum class Restored { kYes, kFailed, kChangedSince };

// Copies the backups back (synced before the caller deletes them); kYes when the file is
// as it was before the merge. A file whose bytes before the offset are no longer those
// the merge began with was changed by someone else since: copying old bytes into it would
// damage it, so it is left alone.
Restored Restore(const std::string& key, const RollBackRecord& r) {
  FileHandle media = OpenRegularFile(r.media, GENERIC_READ | GENERIC_WRITE);
  if (media == kInvalidFileHandle) return Restored::kFailed;
  if (!RollBackGuardHolds(key, media, r.offset)) {
    CloseFileHandle(media);
    return Restored::kChangedSince;
  }
  bool ok;
  if (r.type == kRollBackTransportStream) {
    ok = RestoreTsFromBackup(media, r.ts_backup, r.offset, r.ts_mtime);
  } else {
    const int64_t packs = SizeOf(r.backups.packs);
    const int64_t tail = SizeOf(r.backups.tail);
    MergePlan plan;
    plan.start = r.offset;
    plan.packs_end = r.offset + packs;
    plan.file_size = r.offset + packs + tail;
    ok = RestoreFromBackups(media, plan, r.backups);
  }
  CloseFileHandle(media);
  return ok ? Restored::kYes : Restored::kFailed;
}

void RemoveBackups(const RollBackRecord& r) {
  if (r.type == kRollBackTransportStream) {
    RemoveFile(r.ts_backup);
  } else {
    RemoveMergeBackups(r.backups);
  }
}

}  // namespace

int RollBackInterruptedMerges() {
  std::vector<std::string> names;
  {
    AccessReg root;
    if (!root.Open(HKEY_CURRENT_USER, kRollBackRoot)) return 0;
    char name[1024];
    for (uint32_t i = 0; root.EnumKey(i, name, sizeof name); ++i) names.push_back(name);
  }
  int restored = 0;
  for (const std::string& name : names) {
    const std::string key = std::string(kRollBackRoot) + "\\" + name;
    RollBackRecord r;
    const bool known = ReadRecord(key, &r);
    MQ_LOG("MQCtrl: RollBackToOrg(%s)", known ? r.media.c_str() : name.c_str());
    if (known && HasBackups(r)) {
      // A file that is not there now (a volume not mounted) is restored at a later start:
      // the backups are the only copy of its old bytes.
      const Restored done = IsRegularFile(r.media) ? Restore(key, r) : Restored::kFailed;
      if (done == Restored::kChangedSince) {
        MQ_LOG(
            "MQCtrl: RollBackToOrg(%s): the file was changed by another program since the "
            "merge was cut short; it is left alone, and the record and the backups of its "
            "old bytes are kept",
            r.media.c_str());
        continue;
      }
      if (done == Restored::kFailed) {
        // The backups are the only copy of the old bytes: both stay for the next start.
        MQ_LOG("MQCtrl: RollBackToOrg(%s) failed, kept for the next start", r.media.c_str());
        continue;
      }
      MQ_LOG("MQCtrl: RollBackToOrg() OK");
      ++restored;
    }
    // Restored, or nothing to restore it with: the record has done its work either way.
    AccessReg reg;
    if (reg.DeleteKey(HKEY_CURRENT_USER, key.c_str()) && known) RemoveBackups(r);
  }
  return restored;
}

}  // namespace marquel
