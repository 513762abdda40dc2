// The server's run: bus connection, the object, the event loop and the lifetime.
#pragma once

#include <signal.h>

namespace marquel::host {

struct ServerOptions {
  // A service runs until SIGTERM; a plain server ends when its last client has gone.
  bool service = false;
  // How long a plain server waits without clients before it ends.
  int idle_grace_ms = 5000;
  // Time between two rounds of the close monitor.
  int monitor_interval_ms = 10000;
};

// The signals the loop handles (SIGTERM and SIGINT stop it; SIGHUP is ignored; SIGUSR1 is
// an unknown request). They must be blocked in every thread, so BlockServerSignals runs
// first thing in main, before any thread exists.
sigset_t ServerSignals();
void BlockServerSignals();

// The idle grace from the environment ($MARQUEL_IDLE_GRACE_MS), else the default.
int IdleGraceFromEnvironment();
// MARQUEL_MONITOR_INTERVAL_MS, at least 10; 10000 when unset or not a number up to a day.
int MonitorIntervalFromEnvironment();

// Connects to the session bus, publishes the object, takes the bus name and serves calls
// one at a time on this thread until stopped. Returns the exit status: 0 also when
// another server already owns the name, and when the bus goes away.
int RunServer(const ServerOptions& options);

}  // namespace marquel::host
