// Cache benchmark through the bus to a real server (the same private world as the ipc
// bench, bus_world.h): opening a cached file while the caches are big, and closing a file
// into the cache.
//
// Prints one line per figure:
//   BENCH <name> <value> <unit> ratio=<r> goal=<g> <pass|short>
//   open_with_big_cache  median InitialFile of a cached file with 10,000 entries in each
//                        cache kind; ratio against the median with 10 entries (goal <= 1.2,
//                        and every median <= 0.5 ms)
//   close_1m_to_cache    CloseFile(h, 1) of 1,000,000 samples over 20 tags, the cache file
//                        written and synced; ratio against write() and fsync() of as many
//                        bytes to a plain file (goal <= 3)
// Lines starting with "#" give the figures behind them. The filler entries are written
// straight into the store file in one transaction (the store's schema, docs/store.md),
// since thousands of single writes each synced to disk would take minutes.
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>

#include "bus_world.h"
#include "marquel/marquel_client.h"
#include "persist/cache_keys.h"
#include "persist/cache_records.h"
#include "platform/access_reg.h"
#include "platform/reg_types.h"

namespace {

using Clock = std::chrono::steady_clock;
using marquel::CacheKind;

void Report(const char* name, double value, const char* unit, double ratio, double goal,
            bool pass) {
  std::printf("BENCH %s %.3f %s ratio=%.3f goal=%g %s\n", name, value, unit, ratio, goal,
              pass ? "pass" : "short");
  std::fflush(stdout);
}

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

bool Exec(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// The key id of `path` ("a\b\c") in the per-user store; 0 when missing.
int64_t KeyId(sqlite3* db, const std::string& path) {
  int64_t id = 0;
  size_t from = 0;
  while (from <= path.size()) {
    size_t sep = path.find('\\', from);
    if (sep == std::string::npos) sep = path.size();
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, "SELECT id FROM keys WHERE parent = ?1 AND name = ?2", -1, &s, nullptr);
    sqlite3_bind_int64(s, 1, id);
    sqlite3_bind_text(s, 2, path.data() + from, static_cast<int>(sep - from), SQLITE_TRANSIENT);
    id = sqlite3_step(s) == SQLITE_ROW ? sqlite3_column_int64(s, 0) : 0;
    sqlite3_finalize(s);
    if (id == 0) return 0;
    from = sep + 1;
  }
  return id;
}

bool PutValue(sqlite3* db, int64_t key, const char* name, int type, const void* data, int size) {
  sqlite3_stmt* s = nullptr;
  sqlite3_prepare_v2(db, "INSERT INTO vals(key, name, type, data) VALUES(?1, ?2, ?3, ?4)", -1, &s,
                     nullptr);
  sqlite3_bind_int64(s, 1, key);
  sqlite3_bind_text(s, 2, name, -1, SQLITE_STATIC);
  sqlite3_bind_int(s, 3, type);
  sqlite3_bind_blob(s, 4, data, size, SQLITE_TRANSIENT);
  const bool ok = sqlite3_step(s) == SQLITE_DONE;
  sqlite3_finalize(s);
  return ok;
}

// Adds entries of `kind` numbered [from, to) for files that do not exist, each with a
// fingerprint no real file here has.
bool AddFillers(sqlite3* db, CacheKind kind, int from, int to) {
  const int64_t base = KeyId(db, marquel::CacheBaseKey(kind));
  if (base == 0) return false;
  for (int i = from; i < to; ++i) {
    const std::string media = "/filler/" + std::to_string(i) + ".mpg";
    std::vector<uint8_t> record;
    if (kind == CacheKind::kTemp) {
      marquel::TempCacheRecord r;
      r.media_path = media;
      r.cache_path = "/filler/MQ1.tmp";
      marquel::EncodeTempRecord(r, &record);
    } else {
      marquel::CacheFileRecord r;
      r.media_path = media;
      r.cache_path = "/filler/MQ1.tmp";
      marquel::EncodeFileRecord(r, &record);
    }
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO keys(parent, name) VALUES(?1, ?2)", -1, &s, nullptr);
    sqlite3_bind_int64(s, 1, base);
    sqlite3_bind_text(s, 2, media.c_str(), -1, SQLITE_TRANSIENT);
    const bool made = sqlite3_step(s) == SQLITE_DONE;
    sqlite3_finalize(s);
    const int64_t key = sqlite3_last_insert_rowid(db);
    const uint32_t id = static_cast<uint32_t>(i) % marquel::kCacheIdCount;
    const uint32_t content = 0x80000000u + static_cast<uint32_t>(i);
    if (!made || !PutValue(db, key, marquel::kIdValue, marquel::REG_DWORD, &id, 4) ||
        !PutValue(db, key, marquel::kContentInfoValue, marquel::REG_DWORD, &content, 4) ||
        !PutValue(db, key, marquel::CacheRecordValue(kind), marquel::REG_BINARY, record.data(),
                  static_cast<int>(record.size()))) {
      return false;
    }
  }
  return true;
}

// Brings every cache kind from `from` to `to` filler entries.
bool GrowCaches(int from, int to) {
  for (int k = 0; k < marquel::kCacheKindCount; ++k) {
    marquel::AccessReg().CreateKey(marquel::HKEY_CURRENT_USER,
                                   marquel::CacheBaseKey(static_cast<CacheKind>(k)));
  }
  sqlite3* db = nullptr;
  const std::string path = marquel::StoreFilePath(marquel::HKEY_CURRENT_USER);
  bool ok = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK;
  sqlite3_busy_timeout(db, 5000);
  ok = ok && Exec(db, "BEGIN IMMEDIATE");
  for (int k = 0; ok && k < marquel::kCacheKindCount; ++k) {
    ok = AddFillers(db, static_cast<CacheKind>(k), from, to);
  }
  ok = ok && Exec(db, "COMMIT");
  sqlite3_close(db);
  return ok;
}

// Writes a media file of 1 MB that has a content fingerprint.
std::string MakeMedia(const std::string& name) {
  std::string path = std::string(getenv("TMPDIR")) + "/" + name;
  std::string bytes(1 << 20, '\0');
  const size_t seed = std::hash<std::string>()(name);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>((i * 131) ^ (i >> 9) ^ seed);
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

int OpenWithBigCache(marquel::IMarquelClient& client) {
  const std::string file = MakeMedia("cached.mpg");
  int32_t h = -1;
  if (client.InitialFile(file.c_str(), 0, 0, &h) != marquel::S_OK) return 2;
  if (client.InsertDataOne(h, 40, 0, 7) != marquel::S_OK) return 2;
  if (client.CloseFile(h, 1) != marquel::S_OK) return 2;
  int have = 0;
  std::vector<double> medians;
  for (int size : {10, 100, 1000, 10000}) {
    if (!GrowCaches(have, size)) return 5;
    have = size;
    std::vector<double> times;
    for (int round = 0; round < 200; ++round) {
      auto start = Clock::now();
      if (client.InitialFile(file.c_str(), 0, 0, &h) != marquel::S_OK) return 2;
      times.push_back(Seconds(start) * 1000);
      int32_t value = 0;
      if (round == 0 && (client.GetDataOne(h, 40, 0, &value) != marquel::S_OK || value != 7))
        return 6;  // the tags did not come from the cache
      client.CloseFile(h, 0);
    }
    medians.push_back(Median(times));
    // A file new to the cache is looked up by its fingerprint among every entry of its kind.
    const std::string fresh = MakeMedia("new" + std::to_string(size) + ".mpg");
    auto start = Clock::now();
    const bool opened = client.InitialFile(fresh.c_str(), 0, 0, &h) == marquel::S_OK;
    const double freshMs = Seconds(start) * 1000;
    if (opened) client.CloseFile(h, 0);
    std::printf("# open_with_big_cache entries=%d median %.3f ms; a new file %.3f ms%s\n", size,
                medians.back(), freshMs, opened ? "" : " (failed)");
  }
  const double ratio = medians.back() / medians.front();
  const bool fast = *std::max_element(medians.begin(), medians.end()) <= 0.5;
  Report("open_with_big_cache", medians.back(), "ms", ratio, 1.2, fast && ratio <= 1.2);
  return 0;
}

// The biggest file of the private world's cache folder: the one the close wrote.
uintmax_t BiggestCacheFile(const std::string& root) {
  uintmax_t biggest = 0;
  for (const auto& e : std::filesystem::recursive_directory_iterator(root)) {
    const std::string name = e.path().filename().string();
    if (e.is_regular_file() && name.rfind("MQ", 0) == 0 && name.size() > 4 &&
        name.compare(name.size() - 4, 4, ".tmp") == 0) {
      biggest = std::max(biggest, e.file_size());
    }
  }
  return biggest;
}

// Seconds to write `bytes` bytes to a new file in 1 MiB pieces and fsync it.
double PlainWrite(const std::string& path, uintmax_t bytes) {
  std::vector<char> piece(1 << 20, 'x');
  auto start = Clock::now();
  int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  for (uintmax_t done = 0; fd >= 0 && done < bytes;) {
    const size_t n = static_cast<size_t>(std::min<uintmax_t>(piece.size(), bytes - done));
    if (write(fd, piece.data(), n) != static_cast<ssize_t>(n)) break;
    done += n;
  }
  if (fd >= 0) {
    fsync(fd);
    close(fd);
  }
  const double seconds = Seconds(start);
  unlink(path.c_str());
  return seconds;
}

int CloseToCache(marquel::IMarquelClient& client, const std::string& root) {
  const int kTags = 20, kEach = 50000;
  std::vector<marquel::MarquelOneTag> samples(kEach);
  for (int32_t i = 0; i < kEach; ++i) samples[i] = marquel::MarquelOneTag{int64_t{i} * 400000, i};
  std::vector<double> closes, plains;
  for (int round = 0; round < 3; ++round) {
    const std::string file = MakeMedia("close" + std::to_string(round) + ".mpg");
    int32_t h = -1;
    if (client.InitialFile(file.c_str(), 0, 0, &h) != marquel::S_OK) return 3;
    // Tags of plain samples: an id the block writes as raw bytes refuses them, and is
    // skipped.
    int tags = 0;
    for (int32_t id = 40; tags < kTags && id < 255; ++id) {
      tags += client.InsertDataPeriod(h, id, samples.data(), kEach) == marquel::S_OK;
    }
    if (tags < kTags) {
      std::fprintf(stderr, "open_cache: only %d tags took samples\n", tags);
      return 2;
    }
    auto start = Clock::now();
    const auto hr = client.CloseFile(h, 1);
    if (hr != marquel::S_OK) {
      std::fprintf(stderr, "open_cache: CloseFile: %x\n", static_cast<unsigned>(hr));
      return 2;
    }
    closes.push_back(Seconds(start));
    const uintmax_t bytes = BiggestCacheFile(root);
    if (bytes == 0) return 7;
    plains.push_back(PlainWrite(std::string(getenv("TMPDIR")) + "/plain.bin", bytes));
    std::printf("# close_1m_to_cache cache file %ju bytes, close %.1f ms, plain %.1f ms\n", bytes,
                closes.back() * 1000, plains.back() * 1000);
  }
  const double close = Median(closes), plain = Median(plains);
  Report("close_1m_to_cache", close * 1000, "ms", close / plain, 3, close / plain <= 3);
  return 0;
}

int Bench(const std::string& root) {
  std::string error;
  auto client = marquel::CreateMarquelClient(&error);
  if (!client) {
    std::fprintf(stderr, "open_cache: %s\n", error.c_str());
    return 4;
  }
  int status = OpenWithBigCache(*client);
  if (status == 0) status = CloseToCache(*client, root);
  return status;
}

}  // namespace

int main() {
  benchworld::World world;
  if (!benchworld::MakeWorld(&world)) {
    std::fprintf(stderr, "open_cache: cannot set up the private bus\n");
    benchworld::EndWorld(&world);
    return 1;
  }
  int status = Bench(world.root);
  if (status != 0) std::fprintf(stderr, "open_cache: a step failed (%d)\n", status);
  benchworld::EndWorld(&world);
  return status;
}
