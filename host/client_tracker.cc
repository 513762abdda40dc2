// ClientTracker: what the server remembers of each client connection.
#include "client_tracker.h"

namespace marquel::host {

ClientTracker::ClientTracker() : generation_(kSlots, 0) {}

std::optional<bool> ClientTracker::Admission(const std::string& client) const {
  auto it = clients_.find(client);
  if (it == clients_.end()) return std::nullopt;
  return it->second.admitted;
}

void ClientTracker::Add(const std::string& client, bool admitted) {
  clients_[client].admitted = admitted;
}

size_t ClientTracker::ActiveClients() const {
  size_t n = 0;
  for (const auto& [name, client] : clients_)
    if (client.admitted) ++n;
  return n;
}

void ClientTracker::RecordOpen(const std::string& client, int32_t handle, bool new_session) {
  if (!ValidHandle(handle)) return;
  if (new_session) ++generation_[handle];
  clients_[client].opens.push_back(Open{handle, generation_[handle]});
}

void ClientTracker::RecordClose(const std::string& client, int32_t handle) {
  auto it = clients_.find(client);
  if (it == clients_.end() || !ValidHandle(handle)) return;
  auto& opens = it->second.opens;
  for (auto o = opens.begin(); o != opens.end(); ++o) {
    if (o->handle == handle && o->generation == generation_[handle]) {
      opens.erase(o);
      return;
    }
  }
}

std::vector<int32_t> ClientTracker::CurrentOpens(const std::string& client) const {
  std::vector<int32_t> handles;
  auto it = clients_.find(client);
  if (it == clients_.end()) return handles;
  for (const Open& o : it->second.opens)
    if (o.generation == generation_[o.handle]) handles.push_back(o.handle);
  return handles;
}

std::vector<int32_t> ClientTracker::Remove(const std::string& client) {
  std::vector<int32_t> handles = CurrentOpens(client);
  clients_.erase(client);
  return handles;
}

uint64_t ClientTracker::Generation(int32_t handle) const {
  return ValidHandle(handle) ? generation_[handle] : 0;
}

}  // namespace marquel::host
