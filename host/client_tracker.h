// ClientTracker: what the server remembers of each client connection.
//
// A client is known from its first call on: whether it was admitted (same user as the
// server), and which of its opens are still outstanding. An open is remembered with the
// session identity of its slot, a generation number that changes whenever a slot gets a
// new session, so that a client that goes away releases only the opens it made, never a
// slot that was freed and filled again since.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace marquel::host {

class ClientTracker {
 public:
  static constexpr int32_t kSlots = 2048;

  ClientTracker();

  // The admission of a known client; nothing for a client not seen before.
  std::optional<bool> Admission(const std::string& client) const;
  // Remembers a client and its admission.
  void Add(const std::string& client, bool admitted);
  // Clients that were admitted and have not gone.
  size_t ActiveClients() const;

  // A client opened `handle`; `new_session` when the open filled the slot afresh.
  void RecordOpen(const std::string& client, int32_t handle, bool new_session);
  // A client gave back one reference of `handle`.
  void RecordClose(const std::string& client, int32_t handle);
  // Outstanding opens of a client, oldest first, whose session is still the one it opened.
  std::vector<int32_t> CurrentOpens(const std::string& client) const;
  // Forgets a client and returns its outstanding opens of sessions still current, one
  // entry per open (a handle opened twice is listed twice).
  std::vector<int32_t> Remove(const std::string& client);

  // The session identity of a slot.
  uint64_t Generation(int32_t handle) const;

 private:
  struct Open {
    int32_t handle;
    uint64_t generation;
  };
  struct Client {
    bool admitted = false;
    std::vector<Open> opens;
  };
  static bool ValidHandle(int32_t handle) { return handle >= 0 && handle < kSlots; }

  std::map<std::string, Client> clients_;
  std::vector<uint64_t> generation_;
};

}  // namespace marquel::host
