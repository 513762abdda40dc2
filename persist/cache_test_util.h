// Helpers shared by the cache and session tests.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "log/log.h"
#include "log/log_capture.h"
#include "persist/cache_writer.h"
#include "persist/merge_rollback.h"
#include "platform/env.h"
#include "platform/files.h"
#include "testsupport/fresh_home.h"

namespace marquel::cachetest {

using Bytes = std::vector<uint8_t>;

inline Bytes ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteAll(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// A file of `size` bytes whose content is a pattern derived from `seed`.
inline std::string MakeFile(const std::string& name, size_t size, uint8_t seed) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
  std::string path = test::TestPath(name);
  WriteAll(path, bytes);
  return path;
}

// A block writer that writes the given blocks, one per index.
inline CacheBlockWriter BytesWriter(const std::vector<Bytes>& blocks) {
  return [blocks](size_t index, FileHandle file) -> int32_t {
    if (index >= blocks.size()) return -1;
    uint32_t written = 0;
    const Bytes& b = blocks[index];
    return WriteFile(file, b.data(), static_cast<uint32_t>(b.size()), &written) ? 1 : -1;
  };
}

// A block writer that behaves like a full disk: half the block goes out, then it fails.
inline CacheBlockWriter DiskFullWriter(const Bytes& block) {
  return [block](size_t, FileHandle file) -> int32_t {
    uint32_t written = 0;
    WriteFile(file, block.data(), static_cast<uint32_t>(block.size() / 2), &written);
    return -1;
  };
}

// The cache folder of the running test.
// What the controller does with the roll-back records at its start and in its first
// round: takes them (their keys go) and rolls each file back. The files restored.
inline int RollBackAsAtStart() {
  const std::vector<RollBackRecord> records = ReadRollBackRecords();
  DeleteRollBackRecords(records);
  int restored = 0;
  for (const RollBackRecord& r : records) restored += RollBackToOrg(r) == RollBackOutcome::kRestored;
  return restored;
}

inline std::string CacheFolder() {
  return CurrentEnv()->AppDataFolder() + "/Halvern/MQInfo";
}

// Files in a folder (names only), sorted.
std::vector<std::string> FolderFiles(const std::string& folder);

// The media identity words of a file (size, modification time).
inline void IdentityOf(const std::string& path, uint64_t identity[2]) {
  FileStatusRecord st;
  FileStatus(path, &st);
  identity[0] = static_cast<uint64_t>(st.size);
  identity[1] = static_cast<uint64_t>(st.mtime);
}

using log::LogCapture;

// An Env whose volumes all report the given file-system name.
class FakeVolumeEnv : public Env {
 public:
  explicit FakeVolumeEnv(std::string name) : name_(std::move(name)) {}
  std::string FileSystemName(const std::string&) override { return name_; }

 private:
  std::string name_;
};

// Installs an Env for the life of the object.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env* env) { SetEnvForTesting(env); }
  ~ScopedEnv() { SetEnvForTesting(nullptr); }
};

// Limits the size of files this process writes to `bytes` while alive, the limit's signal
// ignored, so a write past it fails as on a full disk. ok() says whether it took.
class ScopedFileSizeLimit {
 public:
  explicit ScopedFileSizeLimit(size_t bytes) {
    getrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = old_;
    limit.rlim_cur = bytes;
    ok_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
  }
  ~ScopedFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, SIG_DFL);
  }
  bool ok() const { return ok_; }

 private:
  struct rlimit old_;
  bool ok_ = false;
};

// Points XDG_DATA_HOME (the store and the cache folder) at a new folder in memory
// (/dev/shm) while alive, when there is one, so that tests making thousands of store
// writes do not wait for the disk's sync on each. Restores and removes it afterwards.
class ScopedMemoryDataHome {
 public:
  ScopedMemoryDataHome();
  ~ScopedMemoryDataHome();

 private:
  std::string saved_;
  std::string made_;
};

// The path of a test media file made by tests/media/make_media.sh.
inline std::string MediaSource(const std::string& name) {
  return std::string(MARQUEL_TEST_MEDIA_DIR) + "/" + name;
}

// Copies a test media file into the test's folder under `as` and returns its path.
std::string CopyMedia(const std::string& name, const std::string& as);

// A write request of `kind` for the media file at `path`, with its identity words.
inline CacheWriteRequest Request(CacheKind kind, const std::string& path) {
  CacheWriteRequest r;
  r.kind = kind;
  r.media_path = path;
  IdentityOf(path, r.identity);
  return r;
}

// A VR write request with the side file wanted, for a new DVD file of `size` bytes at
// disc/VIDEO_TS/VTS_01_1.VOB (its side file: disc/MQINFO/VTS_01_1.VOB.mq).
inline CacheWriteRequest SideFileRequest(size_t size, uint8_t seed) {
  MakeFolder(test::TestPath("disc"));
  MakeFolder(test::TestPath("disc/VIDEO_TS"));
  CacheWriteRequest r = Request(CacheKind::kVR, MakeFile("disc/VIDEO_TS/VTS_01_1.VOB", size, seed));
  r.side_file = true;
  return r;
}

}  // namespace marquel::cachetest
