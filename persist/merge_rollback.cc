// RollBackInterruptedMerges: the records of merges a killed server left, undone at start.
#include "persist/merge_rollback.h"

#include <cstring>
#include <string>
#include <vector>

#include "log/log.h"
#include "platform/access_reg.h"
#include "platform/text.h"
#include "merge_record.h"
#include "ps_merge.h"

namespace marquel {
namespace {

struct RollBackRecord {
  std::string media;
  MergeBackups backups;
  int64_t offset = -1;
};

bool ReadRecord(const std::string& key, RollBackRecord* r) {
  AccessReg reg;
  if (!reg.Open(HKEY_CURRENT_USER, key.c_str())) return false;
  uint32_t type = 0, kind = 0;
  std::vector<uint8_t> buf;
  char path[4096];
  if (!reg.QueryDword("TYPE", &type) || type != 1 || !reg.QueryValue("BUF", &kind, &buf) ||
      buf.size() != 1056 || !reg.QueryString("PATH", path, sizeof path))
    return false;
  r->media = path;
  r->backups.tail = WideRecordToUtf8(reinterpret_cast<const char16_t*>(buf.data()), 260);
  r->backups.packs = WideRecordToUtf8(reinterpret_cast<const char16_t*>(buf.data() + 520), 260);
  std::memcpy(&r->offset, buf.data() + 1040, sizeof(r->offset));
  return r->offset >= 0;
}

int64_t SizeOf(const std::string& path) {
  FileStatusRecord status;
  return FileStatus(path, &status) == 0 ? status.size : -1;
}

// Whether both backups are there to restore from.
bool HasBackups(const RollBackRecord& r) {
  return SizeOf(r.backups.packs) >= 0 && SizeOf(r.backups.tail) >= 0;
}

// Copies the backups back; true when the file is as it was before the merge.
bool Restore(const RollBackRecord& r) {
  const int64_t packs = SizeOf(r.backups.packs);
  const int64_t tail = SizeOf(r.backups.tail);
  FileHandle media = OpenRegularFile(r.media, GENERIC_READ | GENERIC_WRITE);
  if (media == kInvalidFileHandle) return false;
  MergePlan plan;
  plan.start = r.offset;
  plan.packs_end = r.offset + packs;
  plan.file_size = r.offset + packs + tail;
  const bool ok = RestoreFromBackups(media, plan, r.backups);
  CloseFileHandle(media);
  return ok;
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
      if (!IsRegularFile(r.media) || !Restore(r)) {
        // The backups are the only copy of the old bytes: both stay for the next start.
        MQ_LOG("MQCtrl: RollBackToOrg(%s) failed, kept for the next start", r.media.c_str());
        continue;
      }
      MQ_LOG("MQCtrl: RollBackToOrg() OK");
      ++restored;
    }
    // Restored, or nothing to restore it with: the record has done its work either way.
    AccessReg reg;
    if (reg.DeleteKey(HKEY_CURRENT_USER, key.c_str()) && known) RemoveMergeBackups(r.backups);
  }
  return restored;
}

}  // namespace marquel
