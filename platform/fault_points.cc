// Numbered fault points: the environment is read once, before main, and a point that is
// not armed costs one branch. The count file is written with raw system calls so that
// writing it passes no point itself.
#include "platform/fault_points.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace marquel {
namespace fault_detail {
bool g_armed = false;
}  // namespace fault_detail

namespace {

enum class FaultAction { kNone, kKill, kFail };

std::atomic<uint64_t> g_passed{0};
uint64_t g_at = 0;
FaultAction g_action = FaultAction::kNone;
// The count file's path; fixed-size so that the exit handler needs no allocation.
char g_countPath[4096] = {};
bool g_exitHookSet = false;

// Parses "<n>:kill" or "<n>:fail" with n >= 1; false for anything else.
bool ParseAt(const std::string& at, uint64_t* n, FaultAction* action) {
  size_t colon = at.find(':');
  if (colon == 0 || colon == std::string::npos || colon > 18) return false;
  uint64_t value = 0;
  for (size_t i = 0; i < colon; ++i) {
    if (at[i] < '0' || at[i] > '9') return false;
    value = value * 10 + static_cast<uint64_t>(at[i] - '0');
  }
  std::string what = at.substr(colon + 1);
  if (value == 0 || (what != "kill" && what != "fail")) return false;
  *n = value;
  *action = what == "kill" ? FaultAction::kKill : FaultAction::kFail;
  return true;
}

void WriteCountFile() {
  if (g_countPath[0] == '\0') return;
  int fd = ::open(g_countPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return;
  char text[32];
  int len =
      std::snprintf(text, sizeof text, "%llu\n", static_cast<unsigned long long>(g_passed.load()));
  if (len > 0) {
    ssize_t put = ::write(fd, text, static_cast<size_t>(len));
    (void)put;
  }
  ::close(fd);
}

__attribute__((constructor)) void ReadFaultEnvironment() {
  const char* at = std::getenv("MARQUEL_FAULT_AT");
  const char* count = std::getenv("MARQUEL_FAULT_COUNT");
  if (at == nullptr && count == nullptr) return;
  ConfigureFaultPoints(at != nullptr ? at : "", count != nullptr ? count : "");
}

}  // namespace

namespace fault_detail {
bool PassArmed() {
  uint64_t n = g_passed.fetch_add(1) + 1;
  if (n != g_at) return true;
  if (g_action == FaultAction::kKill) {
    ::kill(::getpid(), SIGKILL);
    ::_exit(137);  // not reached: SIGKILL cannot be caught
  }
  if (g_action == FaultAction::kFail) {
    errno = EIO;
    return false;
  }
  return true;
}
}  // namespace fault_detail

void ConfigureFaultPoints(const std::string& at, const std::string& countPath) {
  g_passed = 0;
  g_at = 0;
  g_action = FaultAction::kNone;
  if (!at.empty() && !ParseAt(at, &g_at, &g_action)) g_at = 0;
  g_countPath[0] = '\0';
  if (countPath.size() < sizeof g_countPath) {
    std::memcpy(g_countPath, countPath.c_str(), countPath.size() + 1);
  }
  if (g_countPath[0] != '\0' && !g_exitHookSet) {
    g_exitHookSet = std::atexit(WriteCountFile) == 0;
  }
  fault_detail::g_armed = g_action != FaultAction::kNone || g_countPath[0] != '\0';
}

uint64_t FaultPointsPassed() {
  return g_passed.load();
}

}  // namespace marquel
