// ClientRegistry: admission of callers and the lifetime of client connections.
//
// On a client's first call the registry asks the bus once for the caller's user id and
// keeps the answer; a caller of another user is refused with AccessDenied on this and
// every later call. It then watches the client's unique name (one NameOwnerChanged match
// per client, on arg0) and notices when the connection goes. Departures are collected and
// handed to the server's loop, which releases the client's outstanding opens outside the
// bus dispatch.
#pragma once

#include <sys/types.h>

#include <sdbus-c++/sdbus-c++.h>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client_tracker.h"

namespace marquel::host {

class ClientRegistry {
 public:
  using UidLookup = std::function<uid_t(const sdbus::Message&)>;

  // `connection` is the server's; `own_uid` the user the server runs as.
  ClientRegistry(sdbus::IConnection& connection, uid_t own_uid);
  ~ClientRegistry();

  // Replaces how a caller's user id is found (tests). The default asks the bus.
  void SetUidLookup(UidLookup lookup) { uid_lookup_ = std::move(lookup); }

  // Admits the sender of `message` and returns its unique name; throws sdbus::Error
  // org.freedesktop.DBus.Error.AccessDenied for a caller of another user.
  std::string Admit(const sdbus::Message& message);

  void Opened(const std::string& client, int32_t handle, bool new_session) {
    tracker_.RecordOpen(client, handle, new_session);
  }
  void Closed(const std::string& client, int32_t handle) { tracker_.RecordClose(client, handle); }

  struct Departure {
    std::string client;
    std::vector<int32_t> handles;  // outstanding opens to release, one per open
  };
  // The clients that went since the last call, forgotten now.
  std::vector<Departure> TakeDepartures();
  bool HasDepartures() const { return !gone_.empty(); }

  // Admitted clients still connected: the server's lock count.
  size_t ActiveClients() const { return tracker_.ActiveClients(); }
  const ClientTracker& Tracker() const { return tracker_; }

 private:
  void Watch(const std::string& client);

  sdbus::IConnection& connection_;
  uid_t own_uid_;
  UidLookup uid_lookup_;
  ClientTracker tracker_;
  std::map<std::string, sdbus::Slot> watches_;
  std::vector<std::string> gone_;
  std::unique_ptr<sdbus::IProxy> bus_;
};

}  // namespace marquel::host
