// The three log settings and their loading from the machine store.
#include <algorithm>
#include <cstring>
#include <mutex>

#include "log/log.h"
#include "log_settings.h"
#include "platform/access_reg.h"

namespace marquel::log {

namespace internal {

std::atomic<int32_t> g_enabled{0};
std::atomic<int32_t> g_to_file{0};

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

}  // namespace

void LoadSettings() {
  AccessReg reg(HKEY_LOCAL_MACHINE, kSettingsKey);
  if (!reg.IsOpen()) return;  // every setting keeps its value
  // Each number is taken only when it could be read; a missing value changes nothing.
  uint32_t value = 0;
  if (reg.QueryDword("DumpMQInfo2", &value)) {
    internal::g_enabled.store(static_cast<int32_t>(value), std::memory_order_relaxed);
  }
  if (reg.QueryDword("DumpToFile", &value)) {
    internal::g_to_file.store(static_cast<int32_t>(value), std::memory_order_relaxed);
  }
  // The name is emptied once the settings are being read and is read only for file
  // output; QueryString empties the buffer itself, so a missing, unreadable or too long
  // (over 259 bytes) "DumpFileName" leaves it empty and file entries are then dropped.
  std::lock_guard<std::mutex> lock(internal::NameMutex());
  internal::g_file_name[0] = '\0';
  if (internal::g_to_file.load(std::memory_order_relaxed) != 0) {
    reg.QueryString("DumpFileName", internal::g_file_name, kFileNameBytes);
    internal::g_file_name[kFileNameBytes - 1] = '\0';
  }
}

Settings CurrentSettings() {
  Settings settings;
  settings.enabled = internal::g_enabled.load(std::memory_order_relaxed);
  settings.to_file = internal::g_to_file.load(std::memory_order_relaxed);
  settings.file_name = internal::FileName();
  return settings;
}

void ApplySettings(const Settings& settings) {
  internal::g_enabled.store(settings.enabled, std::memory_order_relaxed);
  internal::g_to_file.store(settings.to_file, std::memory_order_relaxed);
  std::lock_guard<std::mutex> lock(internal::NameMutex());
  const size_t length = std::min(settings.file_name.size(), kFileNameBytes - 1);
  std::memcpy(internal::g_file_name, settings.file_name.data(), length);
  internal::g_file_name[length] = '\0';
}

}  // namespace marquel::log
