// com.halvern.Marquel.Status1: one read-only method that tells how the server is doing.
//
//   Status() -> s json
//
// The interface is written down in api/marquel_status.xml, apart from api/marquel.xml so
// that the interfaces there stay as they are. The answer is one JSON text (see
// StatusJson in status_report.h), at most kMaxStatusBytes long: the server's pid, mode,
// version and uptime, its open files by name with their handles, programs and memory
// figures, the memory figure and the resident memory in bytes, and every pending move
// with its state ("cached" or "moving"). It changes nothing. Callers are admitted as for
// every other method (a caller of another user is refused with AccessDenied).
#pragma once

#include <sdbus-c++/sdbus-c++.h>
#include <chrono>

#include "api/mq_interface.h"
#include "client_registry.h"
#include "status_report.h"

namespace marquel::host {

constexpr const char* kStatusInterface = "com.halvern.Marquel.Status1";

class StatusMethod {
 public:
  StatusMethod(CMQInterface& mq, ClientRegistry& registry, bool service)
      : mq_(mq), registry_(registry), service_(service) {}

  // Registers Status on `object` (before its registration is finished).
  void Register(sdbus::IObject& object);
  // What Status answers now.
  StatusFacts Gather();

 private:
  CMQInterface& mq_;
  ClientRegistry& registry_;
  bool service_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace marquel::host
