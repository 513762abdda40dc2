// marquel64: the Marquel server. "-RegServer", "-UnregServer" and "-Service" register it;
// without a switch it serves clients on the session bus.
#include <cstdio>
#include <string>
#include <vector>

#include "bus_server.h"
#include "command_line.h"
#include "marquel/version.h"
#include "registration.h"
#include "single_instance.h"
#include "startup_cleanup.h"

namespace {

constexpr const char kUsage[] =
    "Usage: marquel64 [-RegServer | -UnregServer | -Service | --help | --version]\n"
    "\n"
    "The Marquel tag server. Without a switch it serves clients on the session bus\n"
    "(name com.halvern.Marquel64) and ends a few seconds after its last client has gone,\n"
    "unless it is registered as a service.\n"
    "\n"
    "  -RegServer    write the D-Bus activation file, so that clients start the server\n"
    "  -Service      as -RegServer, and run as a systemd user service until stopped\n"
    "  -UnregServer  stop the service, remove the activation file, the service unit and\n"
    "                the registration\n"
    "  --version     print the version\n"
    "\n"
    "Switches may start with '-' or '/' and ignore letter case.\n";

// The registration switches touch only files and the store, so they run whether or not a
// server is running; one line says what they did.
int RunSwitch(marquel::host::HostAction action) {
  using namespace marquel::host;
  std::string report;
  int status = 0;
  if (action == HostAction::kUnregServer)
    status = UnregisterServer(&report);
  else
    status = RegisterServer(ExecutablePath(), action == HostAction::kService, &report);
  if (status == 0)
    printf("marquel64: %s\n", report.c_str());
  else
    fprintf(stderr, "marquel64: the registration failed (status %d)\n", status);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace marquel::host;
  const std::vector<std::string> args(argv + 1, argv + argc);
  const HostAction action = ParseCommandLine(args);
  switch (action) {
    case HostAction::kHelp:
      fputs(kUsage, stdout);
      return 0;
    case HostAction::kVersion:
      printf("marquel64 %s\n", MARQUEL_VERSION);
      return 0;
    case HostAction::kUsageError:
      fputs(kUsage, stderr);
      return 2;
    case HostAction::kRegServer:
    case HostAction::kService:
    case HostAction::kUnregServer:
      // The original took its single-instance mutex first, so a running server made these
      // switches do nothing; they now work beside it.
      return RunSwitch(action);
    case HostAction::kServe:
      break;
  }
  // Before any thread exists, so that every thread leaves these signals to the loop.
  BlockServerSignals();

  // A second serving copy never runs.
  SingleInstanceLock lock;
  std::string lock_error;
  bool sole_server = false;
  switch (lock.Acquire(&lock_error)) {
    case SingleInstanceLock::Result::kHeldElsewhere:
      return 0;
    case SingleInstanceLock::Result::kUnavailable:
      // Without a lock file the bus name alone keeps a second server out.
      fprintf(stderr, "marquel64: %s\n", lock_error.c_str());
      break;
    case SingleInstanceLock::Result::kAcquired:
      sole_server = true;
      break;
  }

  bool service = false;
  if (uint32_t error = ReadServiceMode(&service)) return static_cast<int>(error);
  if (sole_server) RemoveLeftoversOfKilledProcesses();
  ServerOptions options;
  options.service = service;
  options.idle_grace_ms = IdleGraceFromEnvironment();
  options.monitor_interval_ms = MonitorIntervalFromEnvironment();
  return RunServer(options);
}
