// The merge's safety net: the two backups, the roll-back record, and the restore.
#include <algorithm>
#include <cstring>
#include <vector>

#include "log/log.h"
#include "media/mqinfo_temp.h"
#include "merge_record.h"
#include "platform/text.h"
#include "ps_merge.h"

namespace marquel {

constexpr size_t kRecordBytes = 1056;

bool MakeMergeBackups(FileHandle media, const MergePlan& plan, MergeBackups* b) {
  if (GetMQInfoTempFileName("MQ", 0, &b->packs) == 0) return false;
  if (GetMQInfoTempFileName("MQ", 0, &b->tail) == 0) {
    RemoveFile(b->packs);
    return false;
  }
  bool ok = CopyRegionToFile(media, plan.start, plan.packs_end - plan.start, b->packs) &&
            CopyRegionToFile(media, plan.packs_end, plan.file_size - plan.packs_end, b->tail) &&
            SyncFolder(FolderOf(b->packs));
  if (!ok) RemoveMergeBackups(*b);
  return ok;
}

bool WriteRollBackRecord(const std::string& mediaPath, const MergeBackups& b, int64_t start,
                         int64_t added) {
  std::vector<uint8_t> record(kRecordBytes, 0);
  char16_t units[kRollBackPathUnits];
  if (!CopyToWideRecord(b.tail, units, kRollBackPathUnits)) return false;
  std::memcpy(record.data(), units, sizeof(units));
  if (!CopyToWideRecord(b.packs, units, kRollBackPathUnits)) return false;
  std::memcpy(record.data() + 520, units, sizeof(units));
  std::memcpy(record.data() + 1040, &start, sizeof(start));
  return WriteRollBackValues(mediaPath, kRollBackProgramStream, record, start, added);
}

bool RestoreFromBackups(FileHandle media, const MergePlan& plan, const MergeBackups& b) {
  const int64_t packs = CopyFileInto(b.packs, media, plan.start);
  if (packs < 0) return false;
  if (CopyFileInto(b.tail, media, plan.start + packs) < 0) return false;
  return SeekFile(media, plan.file_size, FILE_BEGIN) == plan.file_size && SetEndOfFile(media) &&
         SyncFileHandle(media);
}

void RemoveMergeBackups(const MergeBackups& b) {
  if (!b.packs.empty()) RemoveFile(b.packs);
  if (!b.tail.empty()) RemoveFile(b.tail);
}

}  // namespace marquel
