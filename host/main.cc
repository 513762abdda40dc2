// marquel64: the Marquel server. "-RegServer", "-UnregServer" and "-Service" register it;
// without a switch it serves clients on the session bus.
#include <cstdio>
#include <string>
#include <vector>

#include "bus_server.h"
#include "command_line.h"
#include "registration.h"
#include "single_instance.h"

int main(int argc, char** argv) {
  using namespace marquel::host;
  // Before any thread exists, so that every thread leaves these signals to the loop.
  BlockServerSignals();

  // A second copy never runs, whatever its command line.
  SingleInstanceLock lock;
  std::string lock_error;
  switch (lock.Acquire(&lock_error)) {
    case SingleInstanceLock::Result::kHeldElsewhere:
      return 0;
    case SingleInstanceLock::Result::kUnavailable:
      // Without a lock file the bus name alone keeps a second server out.
      fprintf(stderr, "marquel64: %s\n", lock_error.c_str());
      break;
    case SingleInstanceLock::Result::kAcquired:
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
  ServerOptions options;
  options.service = service;
  options.idle_grace_ms = IdleGraceFromEnvironment();
  return RunServer(options);
}
