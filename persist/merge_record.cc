// The roll-back record's key and values, and the copy of a backup back into the media
// file, shared by the program-stream merge and the transport-stream interleave.
#include "merge_record.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "persist/cache_keys.h"
#include "platform/access_reg.h"
#include "platform/crc32.h"

namespace marquel {
namespace {

constexpr size_t kCopyBytes = 1u << 20;

}  // namespace

std::string RollBackKey(const std::string& mediaPath) {
  return std::string(kRollBackRoot) + "\\" + CacheSubKeyName(mediaPath);
}

namespace {

// Bytes before a merge's offset whose CRC tells whether the file is still the merge's.
constexpr int64_t kGuardBytes = 65536;

// The guard of `media`: {bytes, CRC} of the stretch before `offset`; false when it
// cannot be read.
bool ReadGuard(FileHandle media, int64_t offset, uint8_t out[12]) {
  const int64_t bytes = std::min(offset, kGuardBytes);
  std::vector<uint8_t> region(static_cast<size_t>(bytes));
  if (bytes < 0 ||
      !ReadAllAt(media, static_cast<uint64_t>(offset - bytes), region.data(), region.size()))
    return false;
  const uint32_t crc = Crc32Ieee(region.data(), region.size());
  std::memcpy(out, &bytes, 8);
  std::memcpy(out + 8, &crc, 4);
  return true;
}

// STATE: the file's size and time before the merge, and the time its writing began.
struct MergeState {
  int64_t size = 0;
  int64_t mtime = 0;
  int64_t began = 0;
  int64_t largest = 0;
};
// A file's time is taken from a coarser clock than time(); a writer's first write may
// read up to this much before `began`.
constexpr int64_t kClockSlackSeconds = 2;

// A merge rewrites some units and drops old data units; what it may add beyond `added`
// (an information packet, an end pack, the rounding of a group) stays under this.
constexpr int64_t kSlackBytes = 1 << 20;

bool ReadState(FileHandle media, int64_t added, MergeState* state) {
  FileStatusRecord status;
  if (added < 0 || FileHandleStatus(media, &status) != 0) return false;
  state->size = status.size;
  state->mtime = status.mtime;
  state->began = static_cast<int64_t>(time(nullptr));
  state->largest = status.size + added + kSlackBytes;
  return true;
}

}  // namespace

bool WriteRollBackValues(const std::string& mediaPath, uint32_t type,
                         const std::vector<uint8_t>& buf, int64_t offset, int64_t added) {
  uint8_t guard[12];
  MergeState state;
  FileHandle media = OpenRegularFile(mediaPath, GENERIC_READ);
  const bool read = media != kInvalidFileHandle && ReadGuard(media, offset, guard) &&
                    ReadState(media, added, &state);
  if (media != kInvalidFileHandle) CloseFileHandle(media);
  if (!read) return false;
  RollBackRecord record;
  record.media = mediaPath;
  record.type = type;
  record.buf = buf;
  record.guard.assign(guard, guard + sizeof guard);
  const uint8_t* s = reinterpret_cast<const uint8_t*>(&state);
  record.state.assign(s, s + sizeof state);
  const bool ok = StoreRollBackValues(RollBackKey(mediaPath), record);
  if (!ok) DeleteRollBackRecord(mediaPath);
  return ok;
}

bool StoreRollBackValues(const std::string& key, const RollBackRecord& r) {
  AccessReg reg;
  auto set = [&reg](const char* name, const std::vector<uint8_t>& bytes) {
    return bytes.empty() ||
           reg.SetValue(name, bytes.data(), REG_BINARY, static_cast<uint32_t>(bytes.size()));
  };
  return reg.CreateKey(HKEY_CURRENT_USER, key.c_str()) &&
         reg.Open(HKEY_CURRENT_USER, key.c_str()) && set("BUF", r.buf) && set("GUARD", r.guard) &&
         set("STATE", r.state) && reg.SetString("PATH", r.media.c_str()) &&
         reg.SetDword("TYPE", r.type);
}

bool RollBackStillTheMergesFile(const std::vector<uint8_t>& guard,
                                const std::vector<uint8_t>& state, FileHandle media,
                                int64_t offset) {
  uint8_t now[12];
  if (!guard.empty() && (guard.size() != sizeof now || !ReadGuard(media, offset, now) ||
                         std::memcmp(guard.data(), now, sizeof now) != 0))
    return false;
  if (state.empty()) return true;
  MergeState was;
  FileStatusRecord is;
  if (state.size() != sizeof was || FileHandleStatus(media, &is) != 0) return false;
  std::memcpy(&was, state.data(), sizeof was);
  const bool untouched = is.size == was.size && is.mtime == was.mtime;
  const bool written = is.size >= offset && is.size <= was.largest &&
                       is.mtime >= was.began - kClockSlackSeconds;
  return untouched || written;
}

bool DeleteRollBackRecord(const std::string& mediaPath) {
  AccessReg reg;
  const std::string key = RollBackKey(mediaPath);
  if (!reg.Open(HKEY_CURRENT_USER, key.c_str())) return true;
  reg.Close();
  return reg.DeleteKey(HKEY_CURRENT_USER, key.c_str());
}

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

}  // namespace marquel
