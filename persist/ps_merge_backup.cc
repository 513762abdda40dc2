// The merge's safety net: the two backups, the roll-back record, and the restore.
#include <algorithm>
#include <cstring>
#include <vector>

#include "log/log.h"
#include "media/mqinfo_temp.h"
#include "persist/cache_keys.h"
#include "platform/access_reg.h"
#include "platform/text.h"
#include "ps_merge.h"

namespace marquel {
namespace {

constexpr char kRollBackKey[] = "Software\\Halvern\\Marquel\\RollBack\\";
constexpr size_t kRecordBytes = 1056;
constexpr size_t kPathUnits = 260;
constexpr size_t kCopyBytes = 1u << 20;

std::string RollBackKey(const std::string& mediaPath) {
  return kRollBackKey + CacheSubKeyName(mediaPath);
}

// Copies `count` bytes from `from` at `at` to the new file `to`, and syncs it.
bool CopyRegionToFile(FileHandle from, int64_t at, int64_t count, const std::string& to) {
  FileHandle out = OpenFileHandle(to, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, kInvalidFileHandle);
  if (out == kInvalidFileHandle) return false;
  std::vector<uint8_t> buffer(static_cast<size_t>(std::min<int64_t>(kCopyBytes, count)));
  bool ok = true;
  for (int64_t done = 0; ok && done < count;) {
    size_t n = static_cast<size_t>(std::min<int64_t>(kCopyBytes, count - done));
    ok = ReadAllAt(from, static_cast<uint64_t>(at + done), buffer.data(), n) &&
         WriteAllAt(out, static_cast<uint64_t>(done), buffer.data(), n);
    done += static_cast<int64_t>(n);
  }
  ok = ok && SyncFileHandle(out);
  return CloseFileHandle(out) && ok;
}

// Copies the whole file `from` into `media` at `at`; returns the bytes copied, or -1.
int64_t CopyFileInto(const std::string& from, FileHandle media, int64_t at) {
  FileHandle in = OpenRegularFile(from, GENERIC_READ);
  if (in == kInvalidFileHandle) return -1;
  const int64_t size = GetFileSize64(in);
  std::vector<uint8_t> buffer(kCopyBytes);
  bool ok = size >= 0;
  for (int64_t done = 0; ok && done < size;) {
    size_t n = static_cast<size_t>(std::min<int64_t>(kCopyBytes, size - done));
    ok = ReadAllAt(in, static_cast<uint64_t>(done), buffer.data(), n) &&
         WriteAllAt(media, static_cast<uint64_t>(at + done), buffer.data(), n);
    done += static_cast<int64_t>(n);
  }
  CloseFileHandle(in);
  return ok ? size : -1;
}

std::string FolderOf(const std::string& path) {
  return path.substr(0, path.find_last_of('/'));
}

}  // namespace

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

bool WriteRollBackRecord(const std::string& mediaPath, const MergeBackups& b, int64_t start) {
  std::vector<uint8_t> record(kRecordBytes, 0);
  char16_t units[kPathUnits];
  if (!CopyToWideRecord(b.tail, units, kPathUnits)) return false;
  std::memcpy(record.data(), units, sizeof(units));
  if (!CopyToWideRecord(b.packs, units, kPathUnits)) return false;
  std::memcpy(record.data() + 520, units, sizeof(units));
  std::memcpy(record.data() + 1040, &start, sizeof(start));
  const std::string key = RollBackKey(mediaPath);
  AccessReg reg;
  bool ok = reg.CreateKey(HKEY_CURRENT_USER, key.c_str()) &&
            reg.Open(HKEY_CURRENT_USER, key.c_str()) &&
            reg.SetValue("BUF", record.data(), REG_BINARY, kRecordBytes) &&
            reg.SetString("PATH", mediaPath.c_str()) && reg.SetDword("TYPE", 1);
  reg.Close();
  if (!ok) DeleteRollBackRecord(mediaPath);
  return ok;
}

bool DeleteRollBackRecord(const std::string& mediaPath) {
  AccessReg reg;
  const std::string key = RollBackKey(mediaPath);
  if (!reg.Open(HKEY_CURRENT_USER, key.c_str())) return true;
  reg.Close();
  return reg.DeleteKey(HKEY_CURRENT_USER, key.c_str());
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
