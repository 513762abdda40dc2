// The server's run: bus connection, the object, the event loop and the lifetime.
#include "bus_server.h"

#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>

#include "bulk_methods.h"
#include "client_registry.h"
#include "event_log.h"
#include "host_names.h"
#include "log/log.h"
#include "mq_adaptor.h"
#include "status_method.h"

namespace marquel::host {
namespace {

using Clock = std::chrono::steady_clock;

class Server {
 public:
  Server(const ServerOptions& options, int signal_fd, sdbus::IConnection& connection)
      : options_(options),
        signal_fd_(signal_fd),
        connection_(connection),
        mq_(MonitorOptions{std::chrono::milliseconds(options.monitor_interval_ms)}),
        registry_(connection, getuid()),
        bulk_(mq_, registry_),
        status_(mq_, registry_, options.service),
        adaptor_(connection, mq_, registry_) {
    bulk_.Register(adaptor_.Object());
    status_.Register(adaptor_.Object());
    adaptor_.Publish();
  }

  // Serves until a stop signal, the end of a plain server's grace, or the loss of the bus.
  void Loop();
  // Takes the object off the bus; the controller stops when the server is destroyed.
  void Revoke() { adaptor_.Revoke(); }

 private:
  void ReleaseDepartedClients();
  // Whether a plain server has been without clients for its grace; sets *wait_ms to the
  // time left.
  bool IdleExpired(int* wait_ms);
  // Reads the pending signals; true when one of them asks to stop.
  bool HandleSignals();

  ServerOptions options_;
  int signal_fd_;
  sdbus::IConnection& connection_;
  CMQInterface mq_;
  ClientRegistry registry_;
  BulkMethods bulk_;
  StatusMethod status_;
  MQAdaptor adaptor_;
  std::optional<Clock::time_point> idle_since_;
};

void Server::Loop() {
  idle_since_ = Clock::now();
  for (;;) {
    while (connection_.processPendingRequest()) {
    }
    ReleaseDepartedClients();
    // A log switched on or off in a store takes effect without a restart.
    log::ReloadSettingsIfChanged();
    int idle_wait = -1;
    if (IdleExpired(&idle_wait)) return;
    sdbus::IConnection::PollData data = connection_.getEventLoopPollData();
    int wait = data.getPollTimeout();
    if (idle_wait >= 0 && (wait < 0 || idle_wait < wait)) wait = idle_wait;
    constexpr int kReloadWaitMs = log::kReloadSeconds * 1000;
    if (wait < 0 || wait > kReloadWaitMs) wait = kReloadWaitMs;
    pollfd fds[2] = {{data.fd, data.events, 0}, {signal_fd_, POLLIN, 0}};
    if (poll(fds, 2, wait) < 0 && errno != EINTR) return;
    if ((fds[1].revents & POLLIN) && HandleSignals()) return;
  }
}

// A client that went away gives back its outstanding opens, as CloseFile(handle, 0)
// would, and its unfinished transfers.
void Server::ReleaseDepartedClients() {
  for (const ClientRegistry::Departure& d : registry_.TakeDepartures()) {
    for (int32_t handle : d.handles) mq_.CloseFile(handle, 0);
    bulk_.Forget(d.client);
  }
}

bool Server::IdleExpired(int* wait_ms) {
  if (options_.service) return false;
  if (registry_.ActiveClients() > 0) {
    idle_since_.reset();
    return false;
  }
  Clock::time_point now = Clock::now();
  if (!idle_since_) idle_since_ = now;
  auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - *idle_since_).count();
  if (elapsed >= options_.idle_grace_ms) return true;
  *wait_ms = static_cast<int>(options_.idle_grace_ms - elapsed);
  return false;
}

bool Server::HandleSignals() {
  signalfd_siginfo info;
  bool stop = false;
  while (read(signal_fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT) stop = true;
    if (info.ssi_signo == SIGUSR1) LogEvent(options_.service, "Bad service request");
  }
  return stop;
}

bool NameHasOwner(sdbus::IConnection& connection, const char* name) {
  auto bus = sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  bool owned = false;
  bus->callMethod("NameHasOwner")
      .onInterface("org.freedesktop.DBus")
      .withArguments(std::string(name))
      .storeResultsTo(owned);
  return owned;
}

}  // namespace

sigset_t ServerSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  sigaddset(&set, SIGUSR1);
  return set;
}

void BlockServerSignals() {
  sigset_t set = ServerSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

namespace {

// A number of milliseconds from the environment, up to a day; `fallback` when unset or
// not such a number.
int MillisecondsFromEnvironment(const char* name, int fallback) {
  const char* text = getenv(name);
  if (text == nullptr || *text == '\0') return fallback;
  char* end = nullptr;
  long value = strtol(text, &end, 10);
  if (*end != '\0' || value < 0 || value > 24L * 3600 * 1000) return fallback;
  return static_cast<int>(value);
}

}  // namespace

int IdleGraceFromEnvironment() {
  return MillisecondsFromEnvironment(kIdleGraceEnv, kDefaultIdleGraceMs);
}

int MonitorIntervalFromEnvironment() {
  // At least 10 ms: a round that never waits would spin.
  return std::max(10, MillisecondsFromEnvironment(kMonitorIntervalEnv, kDefaultMonitorIntervalMs));
}

int RunServer(const ServerOptions& options) {
  sigset_t signals = ServerSignals();
  int signal_fd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signal_fd < 0) {
    LogEvent(options.service, "Handler not installed");
    return 1;
  }
  int status = 0;
  try {
    std::unique_ptr<sdbus::IConnection> connection = sdbus::createSessionBusConnection();
    // A second server ends before it makes its controller, whose start-up takes over the
    // work saved in the store.
    if (NameHasOwner(*connection, kBusName)) {
      close(signal_fd);
      return 0;
    }
    Server server(options, signal_fd, *connection);
    try {
      // The name is requested without queueing once the object is complete; another
      // owner means another server is running, and this one ends at once.
      connection->requestName(kBusName);
    } catch (const sdbus::Error& e) {
      close(signal_fd);
      return e.getName() == "org.freedesktop.DBus.Error.FileExists" ? 0 : 1;
    }
    LogEvent(options.service, "Service started");
    try {
      server.Loop();
    } catch (const sdbus::Error& e) {
      // The bus went away (enterEventLoop and processPendingRequest throw then).
      fprintf(stderr, "marquel64: bus connection lost: %s\n", e.getMessage().c_str());
    }
    server.Revoke();
  } catch (const sdbus::Error& e) {
    fprintf(stderr, "marquel64: %s: %s\n", e.getName().c_str(), e.getMessage().c_str());
    status = 1;
  }
  close(signal_fd);
  if (options.service) LogEvent(options.service, "Service stopped");
  return status;
}

}  // namespace marquel::host
