// The log settings and their loading from the stores and the environment.
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>

#include "log/log.h"
#include "log_settings.h"
#include "platform/access_reg.h"

namespace marquel::log {

namespace internal {

std::atomic<int32_t> g_enabled{0};
std::atomic<int32_t> g_to_file{0};
std::atomic<int32_t> g_wall_clock{0};

namespace {

// The name is read by every file entry while a tool or test may replace it; the lock
// keeps each reader's copy whole. The flags are plain atomics: one test per call site.
std::mutex& NameMutex() {
  static std::mutex mutex;
  return mutex;
}
char g_file_name[kFileNameBytes] = {};

}  // namespace

std::string FileName() {
  std::lock_guard<std::mutex> lock(NameMutex());
  return std::string(g_file_name);
}

}  // namespace internal

namespace {

constexpr char kSettingsKey[] = "Software\\Halvern\\Common\\Marquel";

// What one store's key holds; a value that is missing or unreadable stays unset.
struct StoreValues {
  bool key_open = false;
  std::optional<uint32_t> enabled, to_file, wall_clock;
  std::optional<std::string> file_name;
};

StoreValues ReadStore(RegRoot root) {
  StoreValues v;
  AccessReg reg(root, kSettingsKey);
  if (!reg.IsOpen()) return v;
  v.key_open = true;
  uint32_t number = 0;
  if (reg.QueryDword("DumpMQInfo2", &number)) v.enabled = number;
  if (reg.QueryDword("DumpToFile", &number)) v.to_file = number;
  if (reg.QueryDword(kWallClockValue, &number)) v.wall_clock = number;
  // QueryString fails for a missing, unreadable or too long (over 259 bytes) name.
  char name[kFileNameBytes] = {};
  if (reg.QueryString("DumpFileName", name, kFileNameBytes)) v.file_name = name;
  return v;
}

// A number from the environment: nullopt when unset, empty or not a number.
std::optional<int32_t> EnvironmentNumber(const char* variable) {
  const char* text = getenv(variable);
  if (text == nullptr || *text == '\0') return std::nullopt;
  char* end = nullptr;
  const long value = strtol(text, &end, 10);
  if (*end != '\0') return std::nullopt;
  return value != 0 ? 1 : 0;
}

void StoreName(const std::string& name) {
  std::lock_guard<std::mutex> lock(internal::NameMutex());
  const size_t length = std::min(name.size(), kFileNameBytes - 1);
  std::memcpy(internal::g_file_name, name.data(), length);
  internal::g_file_name[length] = '\0';
}

}  // namespace

namespace internal {

Settings ReadSettings(Settings settings) {
  // The user's store first, then the machine store, whose values win where both have one.
  // The original read the machine store alone, which only root can write; reading the
  // user's own store too lets a user switch the log on for the server they run.
  const StoreValues user = ReadStore(HKEY_CURRENT_USER);
  const StoreValues machine = ReadStore(HKEY_LOCAL_MACHINE);
  // The date and time prefix is on unless a store or the environment turns it off.
  settings.wall_clock = 1;
  for (const StoreValues* v : {&user, &machine}) {
    if (v->enabled) settings.enabled = static_cast<int32_t>(*v->enabled);
    if (v->to_file) settings.to_file = static_cast<int32_t>(*v->to_file);
    if (v->wall_clock) settings.wall_clock = *v->wall_clock != 0 ? 1 : 0;
  }
  // The name is emptied once a key is being read and taken only for file output.
  if (user.key_open || machine.key_open) {
    settings.file_name.clear();
    if (settings.to_file != 0)
      settings.file_name = machine.file_name ? *machine.file_name : user.file_name.value_or("");
  }
  // The environment of the server process overrides both stores.
  if (auto on = EnvironmentNumber(kLogEnv)) settings.enabled = *on;
  const char* file = getenv(kLogFileEnv);
  if (file != nullptr && *file != '\0' && strlen(file) < kFileNameBytes) {
    settings.to_file = 1;
    settings.file_name = file;
  }
  if (auto stamp = EnvironmentNumber(kLogTimeEnv)) settings.wall_clock = *stamp;
  return settings;
}

}  // namespace internal

void LoadSettings() {
  ApplySettings(internal::ReadSettings(CurrentSettings()));
  internal::NoteStoresRead();
}

Settings CurrentSettings() {
  Settings settings;
  settings.enabled = internal::g_enabled.load(std::memory_order_relaxed);
  settings.to_file = internal::g_to_file.load(std::memory_order_relaxed);
  settings.file_name = internal::FileName();
  settings.wall_clock = internal::g_wall_clock.load(std::memory_order_relaxed);
  return settings;
}

void ApplySettings(const Settings& settings) {
  internal::g_enabled.store(settings.enabled, std::memory_order_relaxed);
  internal::g_to_file.store(settings.to_file, std::memory_order_relaxed);
  internal::g_wall_clock.store(settings.wall_clock, std::memory_order_relaxed);
  StoreName(settings.file_name);
}

}  // namespace marquel::log
