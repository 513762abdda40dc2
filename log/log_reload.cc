// The log settings follow the stores while the server runs: a change is picked up within
// a few seconds, without a restart, and looking for one costs a few stat calls. The
// write-ahead logs change with the server's own store writes, so a busy server reads its
// settings again about every kReloadSeconds.
#include <sys/stat.h>

#include <chrono>
#include <mutex>
#include <string>

#include "log/log.h"
#include "log_settings.h"
#include "platform/access_reg.h"

namespace marquel::log {
namespace {

// What the store files look like: for each store its database and write-ahead log, by
// identity, size and modification time. SQLite writes a commit to one of the two.
std::string StoresFingerprint() {
  std::string print;
  for (RegRoot root : {HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE}) {
    const std::string db = StoreFilePath(root);
    for (const std::string& path : {db, db + "-wal"}) {
      struct stat st;
      if (db.empty() || stat(path.c_str(), &st) != 0) {
        print += "-;";
        continue;
      }
      print += std::to_string(st.st_ino) + ',' + std::to_string(st.st_size) + ',' +
               std::to_string(st.st_mtim.tv_sec) + '.' + std::to_string(st.st_mtim.tv_nsec) + ';';
    }
  }
  return print;
}

std::mutex g_mutex;  // guards the two below
std::string g_last_print;
std::chrono::steady_clock::time_point g_last_look;

}  // namespace

namespace internal {

void NoteStoresRead() {
  const std::string print = StoresFingerprint();
  std::lock_guard<std::mutex> lock(g_mutex);
  g_last_print = print;
  g_last_look = std::chrono::steady_clock::now();
}

}  // namespace internal

bool ReloadSettingsIfChanged() {
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    const auto now = std::chrono::steady_clock::now();
    if (now - g_last_look < std::chrono::seconds(kReloadSeconds)) return false;
    g_last_look = now;
  }
  const std::string print = StoresFingerprint();
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (print == g_last_print) return false;
  }
  // From zero, so that a value taken out of a store switches its setting off again; the
  // new settings replace the old in one step, so no line is dropped on the way.
  ApplySettings(internal::ReadSettings(Settings()));
  // The print is taken again after the read: reading folds the write-ahead log into the
  // store file, which would otherwise count as a change at the next look.
  internal::NoteStoresRead();
  return true;
}

}  // namespace marquel::log
