// ClientRegistry: admission of callers and the lifetime of client connections.
#include "client_registry.h"

#include <algorithm>

namespace marquel::host {

ClientRegistry::ClientRegistry(sdbus::IConnection& connection, uid_t own_uid)
    : connection_(connection),
      own_uid_(own_uid),
      uid_lookup_([](const sdbus::Message& m) { return m.getCredsUid(); }),
      bus_(sdbus::createProxy(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus")) {}

ClientRegistry::~ClientRegistry() {
  watches_.clear();
}

std::string ClientRegistry::Admit(const sdbus::Message& message) {
  std::string client = message.getSender();
  std::optional<bool> admitted = tracker_.Admission(client);
  if (!admitted) {
    // Asked once per client: the answer comes from the bus daemon, not the message.
    admitted = uid_lookup_(message) == own_uid_;
    tracker_.Add(client, *admitted);
    Watch(client);
  }
  if (!*admitted)
    throw sdbus::Error("org.freedesktop.DBus.Error.AccessDenied",
                       "the server serves only the user it runs as");
  return client;
}

// The match is in place before the reply to the first call goes out, so the client's end
// cannot be missed afterwards; a client that ended even before that is found by asking
// whether its name still has an owner.
void ClientRegistry::Watch(const std::string& client) {
  std::string rule =
      "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
      "member='NameOwnerChanged',arg0='" +
      client + "'";
  watches_[client] = connection_.addMatch(rule, [this](sdbus::Message& signal) {
    std::string name, old_owner, new_owner;
    signal >> name >> old_owner >> new_owner;
    if (new_owner.empty() && std::find(gone_.begin(), gone_.end(), name) == gone_.end())
      gone_.push_back(name);
  });
  bool has_owner = true;
  bus_->callMethod("NameHasOwner")
      .onInterface("org.freedesktop.DBus")
      .withArguments(client)
      .storeResultsTo(has_owner);
  if (!has_owner && std::find(gone_.begin(), gone_.end(), client) == gone_.end())
    gone_.push_back(client);
}

std::vector<ClientRegistry::Departure> ClientRegistry::TakeDepartures() {
  std::vector<Departure> departures;
  std::vector<std::string> gone;
  gone.swap(gone_);
  for (const std::string& client : gone) {
    watches_.erase(client);
    departures.push_back(Departure{client, tracker_.Remove(client)});
  }
  return departures;
}

}  // namespace marquel::host
