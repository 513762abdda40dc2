// The crash harness's helpers: servers started with a fault, the saved home, and the
// checks of the media file, the store and the tags a client reads back.
#include "crash_harness.h"

#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "bus_fixture.h"

namespace marquel::test {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

TagSet SampleTags(int programs, size_t bulk_bytes) {
  TagSet set;
  for (int32_t p = 0; p < programs; ++p) {
    ProgramTags tags;
    // Two plain tags over the whole clip, one sparse and 4 bits wide; times in 100 ns.
    for (int32_t i = 0; i < 200; ++i)
      tags.plain[16].push_back({int64_t{i} * 100000, i * 3 + 1 + p * 1000});
    for (int32_t i = 0; i < 40; ++i)
      tags.plain[20].push_back({int64_t{i} * 330000 + 7, (i + p) % 16});
    // Raw samples from 1 byte up to 120, each with its own pattern.
    for (int32_t i = 0; i < 24; ++i) {
      std::vector<uint8_t> bytes(static_cast<size_t>(1 + (i * 37) % 120));
      for (size_t k = 0; k < bytes.size(); ++k) bytes[k] = static_cast<uint8_t>(i * 11 + k + p);
      tags.raw[29][int64_t{i} * 250000 + 3] = std::move(bytes);
    }
    // The bulk: a linear congruential pattern, seeded per program.
    uint32_t state = 12345u + static_cast<uint32_t>(p) * 7919u;
    constexpr size_t kPiece = 64 * 1024;
    for (size_t i = 0; i * kPiece < bulk_bytes; ++i) {
      std::vector<uint8_t> bytes(kPiece);
      for (uint8_t& b : bytes) {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
      }
      tags.raw[32][static_cast<int64_t>(i) * 400000 + 11] = std::move(bytes);
    }
    set.programs.push_back(std::move(tags));
  }
  return set;
}

void PrintTo(const CrashMedium& medium, std::ostream* os) {
  *os << medium.source << " x" << medium.copies << ", " << medium.programs << " program(s), "
      << medium.bulk_bytes << " bytes";
}

bool MakeMedium(const std::string& source, int copies, const std::string& dest) {
  const std::vector<uint8_t> clip = FileBytes(source);
  if (clip.empty()) return false;
  std::ofstream out(dest, std::ios::binary | std::ios::trunc);
  for (int i = 0; i < copies && out; ++i)
    out.write(reinterpret_cast<const char*>(clip.data()),
              static_cast<std::streamsize>(clip.size()));
  out.close();
  return static_cast<bool>(out);
}

std::string InsertTags(IMarquelClient& client, int32_t h, const TagSet& tags) {
  // Programs past the first are made with PMT PIDs of their own.
  if (tags.programs.size() > 1 && client.SetPMTPID(h, 0, 0x1000) != S_OK)
    return "the PMT PID of program 0 cannot be set";
  for (size_t p = 1; p < tags.programs.size(); ++p) {
    int32_t index = -1;
    if (client.InsertNewProgram(h, 0x1000 + static_cast<int32_t>(p), &index) != S_OK ||
        index != static_cast<int32_t>(p))
      return "program " + std::to_string(p) + " cannot be made";
  }
  for (size_t p = 0; p < tags.programs.size(); ++p) {
    const int32_t program = static_cast<int32_t>(p);
    for (const auto& [tag, samples] : tags.programs[p].plain) {
      if (client.InsertDataPeriod2(h, program, tag, samples.data(),
                                   static_cast<int32_t>(samples.size())) != S_OK)
        return "the insert of tag " + std::to_string(tag) + " failed";
    }
    for (const auto& [tag, samples] : tags.programs[p].raw) {
      for (const auto& [time, bytes] : samples) {
        if (client.InsertRawDataOne2(h, program, tag, time, static_cast<int32_t>(bytes.size()),
                                     bytes.data()) != S_OK)
          return "the insert of raw tag " + std::to_string(tag) + " failed";
      }
    }
  }
  return "";
}

namespace {

// Sets or clears one variable of this process (the child inherits it).
void SetOrClear(const char* name, const std::string& value) {
  if (value.empty()) {
    unsetenv(name);
  } else {
    setenv(name, value.c_str(), 1);
  }
}

}  // namespace

pid_t StartServer(const std::string& fault, const std::string& count_file, int interval_ms,
                  const std::string& log_path) {
  SetOrClear("MARQUEL_FAULT_AT", fault);
  SetOrClear("MARQUEL_FAULT_COUNT", count_file);
  setenv("MARQUEL_MONITOR_INTERVAL_MS", std::to_string(interval_ms).c_str(), 1);
  // The server stays up between the harness's calls.
  setenv("MARQUEL_IDLE_GRACE_MS", "600000", 1);
  Child child = Spawn({Marquel64Path()}, log_path);
  unsetenv("MARQUEL_FAULT_AT");
  unsetenv("MARQUEL_FAULT_COUNT");
  if (child.pid < 0) return -1;
  close(child.stdin_fd);
  const pid_t pid = child.pid;
  bool up = WaitUntil(
      [&] {
        if (ServerPid() == pid) return true;
        int status = 0;
        return waitpid(pid, &status, WNOHANG) == pid;  // died before owning the name
      },
      kLong);
  if (!up || ServerPid() != pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
  }
  return pid;
}

bool StopServerProcess(pid_t pid) {
  if (pid <= 0) return true;
  kill(pid, SIGTERM);
  int status = 0;
  if (WaitForExit(pid, kLong, &status)) return true;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return false;
}

int MoveDone(IMarquelClient& client, const std::string& path) {
  int32_t done = 0;
  if (client.IsWriteToFileDone(path.c_str(), &done) != S_OK) return -1;
  return done == 1 ? 1 : 0;
}

namespace {

// Copies a folder with its files' modification times: a cache knows its media file by
// size and time, and a copy with a new time would be another file to the server.
void CopyTree(const fs::path& from, const fs::path& to) {
  fs::copy(from, to, fs::copy_options::recursive);
  for (const auto& entry : fs::recursive_directory_iterator(from)) {
    if (entry.is_regular_file())
      fs::last_write_time(to / fs::relative(entry.path(), from), entry.last_write_time());
  }
}

}  // namespace

void SaveHome(const std::string& home, const std::vector<std::string>& names,
              const std::string& snapshot) {
  fs::remove_all(snapshot);
  fs::create_directories(snapshot);
  for (const std::string& name : names) CopyTree(home + "/" + name, snapshot + "/" + name);
}

void RestoreHome(const std::string& snapshot, const std::vector<std::string>& names,
                 const std::string& home) {
  for (const std::string& name : names) {
    fs::remove_all(home + "/" + name);
    CopyTree(snapshot + "/" + name, home + "/" + name);
  }
}

std::vector<std::string> ListFiles(const std::string& home, const std::vector<std::string>& names) {
  std::vector<std::string> files;
  for (const std::string& name : names) {
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(home + "/" + name, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (it->is_regular_file()) files.push_back(fs::relative(it->path(), home).string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<uint8_t> FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

size_t FirstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  return static_cast<size_t>(
      std::mismatch(a.begin(), a.begin() + std::min(a.size(), b.size()), b.begin()).first -
      a.begin());
}

int RollBackRecords(const std::string& store) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(store.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return -1;
  }
  sqlite3_busy_timeout(db, 5000);  // the running server may be writing
  // The records are the sub-keys of every key named RollBack.
  const char* sql =
      "SELECT count(*) FROM keys WHERE parent IN (SELECT id FROM keys WHERE name = 'RollBack')";
  sqlite3_stmt* statement = nullptr;
  int count = -1;
  if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) == SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW)
    count = sqlite3_column_int(statement, 0);
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return count;
}

namespace {

void CheckPlain(IMarquelClient& client, int32_t h, int32_t program, int32_t tag,
                const std::vector<MarquelOneTag>& want, std::vector<std::string>* bad) {
  int32_t n = 0;
  if (client.QueryOneTagSize2(h, program, tag, &n) != S_OK ||
      n != static_cast<int32_t>(want.size())) {
    bad->push_back("tag " + std::to_string(tag) + " holds " + std::to_string(n) + " samples, not " +
                   std::to_string(want.size()));
    return;
  }
  std::vector<MarquelOneTag> got(static_cast<size_t>(n));
  if (client.GetDataAll2(h, program, tag, n, got.data()) != S_OK) {
    bad->push_back("tag " + std::to_string(tag) + " cannot be read");
    return;
  }
  for (size_t i = 0; i < want.size(); ++i) {
    if (got[i].llTimeCode != want[i].llTimeCode || got[i].value != want[i].value) {
      bad->push_back("tag " + std::to_string(tag) + " sample " + std::to_string(i) + " differs");
      return;
    }
  }
}

void CheckRaw(IMarquelClient& client, int32_t h, int32_t program, int32_t tag,
              const std::map<int64_t, std::vector<uint8_t>>& want, std::vector<std::string>* bad) {
  for (const auto& [time, bytes] : want) {
    std::vector<uint8_t> got(bytes.size());
    if (client.GetRawDataOne2(h, program, tag, time, static_cast<int32_t>(got.size()),
                              got.data()) != S_OK ||
        got != bytes) {
      bad->push_back("raw tag " + std::to_string(tag) + " at " + std::to_string(time) +
                     " is lost or differs");
      return;
    }
  }
}

// Whether the open handle holds no tag in any program of `tags`.
bool HoldsNone(IMarquelClient& client, int32_t h, const TagSet& tags) {
  for (size_t p = 0; p < tags.programs.size(); ++p) {
    // A program past the first that the file does not have holds nothing either.
    int32_t count = -1;
    const bool asked = client.QueryOneFileTagCount2(h, static_cast<int32_t>(p), &count) == S_OK;
    if (p == 0 ? !asked || count != 0 : asked && count > 0) return false;
  }
  return true;
}

}  // namespace

std::vector<std::string> CheckTagsThroughBus(IMarquelClient& client, const std::string& path,
                                             const TagSet& tags, int32_t* from_file,
                                             bool none_is_fine) {
  std::vector<std::string> bad;
  int32_t h = -1;
  if (client.InitialFile(path.c_str(), 0, 0, &h) != S_OK) {
    bad.push_back("the file cannot be opened");
    return bad;
  }
  *from_file = -1;
  client.QueryMQDataStatus(h, from_file);
  if (!(none_is_fine && HoldsNone(client, h, tags))) {
    for (size_t p = 0; p < tags.programs.size(); ++p) {
      const int32_t program = static_cast<int32_t>(p);
      for (const auto& [tag, samples] : tags.programs[p].plain)
        CheckPlain(client, h, program, tag, samples, &bad);
      for (const auto& [tag, samples] : tags.programs[p].raw)
        CheckRaw(client, h, program, tag, samples, &bad);
    }
  }
  // A read-only close: it must not change the file or leave anything behind.
  if (client.CloseFile(h, 1) != S_OK) bad.push_back("the close after reading failed");
  return bad;
}

}  // namespace marquel::test
