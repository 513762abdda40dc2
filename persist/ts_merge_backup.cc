// The interleave's safety net: the backup of the stretch it rewrites, the roll-back record
// of type 2, and the restore.
#include <algorithm>
#include <cstring>

#include "media/mq_ts_packetizer.h"
#include "media/mqinfo_temp.h"
#include "merge_record.h"
#include "platform/text.h"
#include "ts_merge.h"

namespace marquel {
namespace {

constexpr size_t kTsRecordBytes = 536;
constexpr size_t kOffsetAt = 520;
constexpr size_t kMTimeAt = 528;

}  // namespace

bool MakeTsBackup(FileHandle media, const TsMergePlan& plan, int32_t unit, TsBackup* b) {
  *b = TsBackup{};
  if (TsUnitPrefixBytes(unit) < 0 || GetMQInfoTempFileName("MQ", 0, &b->path) == 0) return false;
  const int64_t bytes = plan.size - plan.rewrite_from;
  b->units_before_start = (plan.start - plan.rewrite_from) / unit;
  if (CopyRegionToFile(media, plan.rewrite_from, bytes, b->path) && SyncFolder(FolderOf(b->path)))
    return true;
  RemoveFile(b->path);
  b->path.clear();
  return false;
}

bool EncodeTsRollBack(const std::string& backup, int64_t offset, int64_t mtime,
                      std::vector<uint8_t>* buf) {
  std::vector<uint8_t> record(kTsRecordBytes, 0);
  char16_t units[kRollBackPathUnits];
  if (!CopyToWideRecord(backup, units, kRollBackPathUnits)) return false;
  std::memcpy(record.data(), units, sizeof(units));
  std::memcpy(record.data() + kOffsetAt, &offset, sizeof(offset));
  std::memcpy(record.data() + kMTimeAt, &mtime, sizeof(mtime));
  *buf = std::move(record);
  return true;
}

bool DecodeTsRollBack(const std::vector<uint8_t>& buf, std::string* backup, int64_t* offset,
                      int64_t* mtime) {
  if (buf.size() != kTsRecordBytes) return false;
  char16_t units[kRollBackPathUnits];
  std::memcpy(units, buf.data(), sizeof(units));
  *backup = WideRecordToUtf8(units, kRollBackPathUnits);
  std::memcpy(offset, buf.data() + kOffsetAt, sizeof(*offset));
  if (mtime != nullptr) std::memcpy(mtime, buf.data() + kMTimeAt, sizeof(*mtime));
  return *offset >= 0 && !backup->empty();
}

bool WriteTsRollBackRecord(const std::string& mediaPath, const std::string& backup, int64_t offset,
                           int64_t mtime, int64_t added) {
  std::vector<uint8_t> buf;
  return EncodeTsRollBack(backup, offset, mtime, &buf) &&
         WriteRollBackValues(mediaPath, kRollBackTransportStream, buf, offset, added);
}

bool RestoreTsFromBackup(FileHandle media, const std::string& backup, int64_t offset,
                         int64_t mtime) {
  const int64_t copied = CopyFileInto(backup, media, offset);
  if (copied < 0) return false;
  const int64_t end = offset + copied;
  return SeekFile(media, end, FILE_BEGIN) == end && SetEndOfFile(media) &&
         (mtime == 0 || SetFileModifiedTime(media, mtime)) && SyncFileHandle(media);
}

}  // namespace marquel
