// RollBackToOrg and the records it works from: the merges a killed server left half done,
// read from the store at the controller's start and undone in the monitor's first round.
#include "persist/merge_rollback.h"

#include <cstring>

#include "log/log.h"
#include "merge_record.h"
#include "platform/access_reg.h"
#include "platform/text.h"
#include "ps_merge.h"
#include "ts_merge.h"

namespace marquel {
namespace {

// What BUF says, by type.
struct Decoded {
  MergeBackups backups;   // type 1
  std::string ts_backup;  // type 2
  int64_t ts_mtime = 0;   // type 2: the file's modified time before the merge
  int64_t offset = -1;
};

bool Decode(const RollBackRecord& r, Decoded* d) {
  if (r.type == kRollBackTransportStream)
    return DecodeTsRollBack(r.buf, &d->ts_backup, &d->offset, &d->ts_mtime);
  if (r.type != kRollBackProgramStream || r.buf.size() != 1056) return false;
  d->backups.tail = WideRecordToUtf8(reinterpret_cast<const char16_t*>(r.buf.data()), 260);
  d->backups.packs =
      WideRecordToUtf8(reinterpret_cast<const char16_t*>(r.buf.data() + 520), 260);
  std::memcpy(&d->offset, r.buf.data() + 1040, sizeof(d->offset));
  return d->offset >= 0;
}

bool ReadRecord(const std::string& key, RollBackRecord* r) {
  AccessReg reg;
  if (!reg.Open(HKEY_CURRENT_USER, key.c_str())) return false;
  uint32_t kind = 0;
  char path[4096];
  if (!reg.QueryDword("TYPE", &r->type) || !reg.QueryValue("BUF", &kind, &r->buf) ||
      !reg.QueryString("PATH", path, sizeof path))
    return false;
  r->media = path;
  reg.QueryValue("GUARD", &kind, &r->guard);  // both absent in older records
  reg.QueryValue("STATE", &kind, &r->state);
  return true;
}

int64_t SizeOf(const std::string& path) {
  FileStatusRecord status;
  return FileStatus(path, &status) == 0 ? status.size : -1;
}

bool HasBackups(const RollBackRecord& r, const Decoded& d) {
  if (r.type == kRollBackTransportStream) return SizeOf(d.ts_backup) >= 0;
  return SizeOf(d.backups.packs) >= 0 && SizeOf(d.backups.tail) >= 0;
}

// Copies the backups back, cuts the file at its old end and syncs it.
bool CopyBack(FileHandle media, const RollBackRecord& r, const Decoded& d) {
  if (r.type == kRollBackTransportStream)
    return RestoreTsFromBackup(media, d.ts_backup, d.offset, d.ts_mtime);
  MergePlan plan;
  plan.start = d.offset;
  plan.packs_end = d.offset + SizeOf(d.backups.packs);
  plan.file_size = plan.packs_end + SizeOf(d.backups.tail);
  return RestoreFromBackups(media, plan, d.backups);
}

void PutU32(std::vector<uint8_t>* out, uint32_t v) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(&v);
  out->insert(out->end(), p, p + sizeof v);
}

void PutField(std::vector<uint8_t>* out, const void* data, size_t size) {
  PutU32(out, static_cast<uint32_t>(size));
  const uint8_t* p = static_cast<const uint8_t*>(data);
  out->insert(out->end(), p, p + size);
}

bool TakeField(const std::vector<uint8_t>& in, size_t* at, std::vector<uint8_t>* field) {
  uint32_t size = 0;
  if (in.size() - *at < sizeof size) return false;
  std::memcpy(&size, in.data() + *at, sizeof size);
  *at += sizeof size;
  if (in.size() - *at < size) return false;
  field->assign(in.begin() + static_cast<std::ptrdiff_t>(*at),
                in.begin() + static_cast<std::ptrdiff_t>(*at + size));
  *at += size;
  return true;
}

}  // namespace

std::vector<RollBackRecord> ReadRollBackRecords() {
  std::vector<std::string> names;
  {
    AccessReg root;
    if (!root.Open(HKEY_CURRENT_USER, kRollBackRoot)) return {};
    char name[1024];
    for (uint32_t i = 0; root.EnumKey(i, name, sizeof name); ++i) names.push_back(name);
  }
  std::vector<RollBackRecord> records;
  for (const std::string& name : names) {
    RollBackRecord r;
    if (ReadRecord(std::string(kRollBackRoot) + "\\" + name, &r)) {
      r.key_name = name;
      records.push_back(std::move(r));
    } else {
      MQ_LOG("MQCtrl: roll-back record '%s' cannot be read; left in the store", name.c_str());
    }
  }
  return records;
}

void DeleteRollBackRecords(const std::vector<RollBackRecord>& records) {
  for (const RollBackRecord& r : records) {
    const std::string key = std::string(kRollBackRoot) + "\\" + r.key_name;
    if (!r.key_name.empty()) AccessReg().DeleteKey(HKEY_CURRENT_USER, key.c_str());
  }
  AccessReg root;
  char name[1024];
  const bool empty = root.Open(HKEY_CURRENT_USER, kRollBackRoot) && !root.EnumKey(0, name, sizeof name);
  root.Close();
  if (empty) AccessReg().DeleteKey(HKEY_CURRENT_USER, kRollBackRoot);
}

bool KeepRollBackRecord(const RollBackRecord& r) {
  return StoreRollBackValues(r.key_name.empty()
                                 ? RollBackKey(r.media)
                                 : std::string(kRollBackRoot) + "\\" + r.key_name,
                             r);
}

std::vector<uint8_t> PackRollBackRecord(const RollBackRecord& r) {
  std::vector<uint8_t> out;
  PutU32(&out, r.type);
  PutField(&out, r.media.data(), r.media.size());
  PutField(&out, r.key_name.data(), r.key_name.size());
  PutField(&out, r.buf.data(), r.buf.size());
  PutField(&out, r.guard.data(), r.guard.size());
  PutField(&out, r.state.data(), r.state.size());
  return out;
}

bool UnpackRollBackRecord(const std::vector<uint8_t>& in, RollBackRecord* r) {
  size_t at = sizeof r->type;
  std::vector<uint8_t> media, key;
  if (in.size() < at) return false;
  std::memcpy(&r->type, in.data(), sizeof r->type);
  if (!TakeField(in, &at, &media) || !TakeField(in, &at, &key) || !TakeField(in, &at, &r->buf) ||
      !TakeField(in, &at, &r->guard) || !TakeField(in, &at, &r->state) || at != in.size())
    return false;
  r->media.assign(media.begin(), media.end());
  r->key_name.assign(key.begin(), key.end());
  return !r->media.empty();
}

RollBackOutcome RollBackToOrg(const RollBackRecord& r) {
  Decoded d;
  if (!Decode(r, &d) || !HasBackups(r, d)) return RollBackOutcome::kNoBackups;
  FileHandle media = OpenRegularFile(r.media, GENERIC_READ | GENERIC_WRITE);
  if (media == kInvalidFileHandle) return RollBackOutcome::kFailed;
  if (!RollBackStillTheMergesFile(r.guard, r.state, media, d.offset)) {
    CloseFileHandle(media);
    // Copying old bytes into a file someone else has written since would damage it.
    KeepRollBackRecord(r);
    MQ_LOG(
        "MQCtrl: RollBackToOrg(%s): the file was changed by another program since the "
        "merge was cut short; it is left alone, and the record and the backups of its old "
        "bytes are kept",
        r.media.c_str());
    return RollBackOutcome::kChangedSince;
  }
  const bool restored = CopyBack(media, r, d);
  CloseFileHandle(media);
  if (!restored) return RollBackOutcome::kFailed;
  DiscardRollBackBackups(r);  // the restored file is synced: the backups have done their work
  MQ_LOG("MQCtrl: RollBackToOrg() OK");
  return RollBackOutcome::kRestored;
}

void DiscardRollBackBackups(const RollBackRecord& r) {
  Decoded d;
  if (!Decode(r, &d)) return;
  if (r.type == kRollBackTransportStream) {
    RemoveFile(d.ts_backup);
  } else {
    RemoveMergeBackups(d.backups);
  }
}

}  // namespace marquel
