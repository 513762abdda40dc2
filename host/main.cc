// marquel64: the Marquel server. "-RegServer", "-UnregServer" and "-Service" register it;
// without a switch it serves clients on the session bus.
#include <cstdio>
#include <string>
#include <vector>

#include "bus_server.h"
#include "command_line.h"
#include "registration.h"
#include "single_instance.h"
#include "startup_cleanup.h"

namespace {

constexpr const char kUsage[] =
    "Usage: marquel64 [-RegServer | -UnregServer | -Service | --help]\n"
    "\n"
    "The Marquel tag server. Without a switch it serves clients on the session bus\n"
    "(name com.halvern.Marquel64) and ends a few seconds after its last client has gone,\n"
    "unless it is registered as a service.\n"
    "\n"
    "  -RegServer    write the D-Bus activation file, so that clients start the server\n"
    "  -Service      as -RegServer, and run as a systemd user service until stopped\n"
    "  -UnregServer  remove the activation file, the service unit and the registration\n"
    "\n"
    "Switches may start with '-' or '/' and ignore letter case.\n";

// "--help", "-h" and "/?" alone print the usage. They are not server switches, so they
// are tested before anything else; any other text keeps its meaning for the switches.
bool WantsHelp(int argc, char** argv) {
  if (argc != 2) return false;
  const std::string arg = argv[1];
  return arg == "--help" || arg == "-h" || arg == "/?";
}

}  // namespace

int main(int argc, char** argv) {
  using namespace marquel::host;
  if (WantsHelp(argc, argv)) {
    fputs(kUsage, stdout);
    return 0;
  }
  // Before any thread exists, so that every thread leaves these signals to the loop.
  BlockServerSignals();

  // A second copy never runs, whatever its command line.
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

  std::vector<std::string> args(argv + 1, argv + argc);
  switch (ParseSwitch(args)) {
    case HostSwitch::kUnregServer:
      return UnregisterServer();
    case HostSwitch::kRegServer:
      return RegisterServer(ExecutablePath(), false);
    case HostSwitch::kService:
      return RegisterServer(ExecutablePath(), true);
    case HostSwitch::kNone:
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
