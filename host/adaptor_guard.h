// The boundary of every bus method: no exception but the refusal of a caller leaves it.
#pragma once

#include <sdbus-c++/sdbus-c++.h>
#include <new>
#include <stdexcept>
#include <tuple>

#include "api/hresult.h"

namespace marquel::host {

// A reply that carries only a failure HRESULT (other outputs empty).
template <typename R>
struct FailureReply {
  static R Make(HRESULT hr) {
    R reply{};
    std::get<0>(reply) = hr;
    return reply;
  }
};
template <>
struct FailureReply<int32_t> {
  static int32_t Make(HRESULT hr) { return hr; }
};

// Runs a method body: memory exhaustion answers E_OUTOFMEMORY, any other failure E_FAIL;
// bus errors (the refusal of a caller) go through as bus errors.
template <typename R, typename F>
R Guarded(F&& body) {
  try {
    return body();
  } catch (const sdbus::Error&) {
    throw;
  } catch (const std::bad_alloc&) {
    return FailureReply<R>::Make(E_OUTOFMEMORY);
  } catch (const std::exception&) {
    return FailureReply<R>::Make(E_FAIL);
  }
}

}  // namespace marquel::host
