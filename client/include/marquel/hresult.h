// HRESULT values of the Marquel interfaces, and their names for messages.
#pragma once

// The headers use std::variant and inline constexpr values: a program of an older standard
// gets this message instead of errors deep inside them.
#if !defined(__cplusplus) || __cplusplus < 201703L
#error "The Marquel client headers need C++17 or later: compile with -std=c++17 or -std=c++20"
#endif

#include <cstdint>

// The server's api/hresult.h defines the same values under the same guard, so that a
// program may include both.
#ifndef MARQUEL_HRESULT_VALUES
#define MARQUEL_HRESULT_VALUES
namespace marquel {
using HRESULT = int32_t;
constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
}  // namespace marquel
#endif

namespace marquel {

// The caller runs as another user than the server (the bus answered AccessDenied).
constexpr HRESULT E_ACCESSDENIED = static_cast<HRESULT>(0x80070005u);
// The client library could not reach the server: no session bus, the server could not be
// started, or the call timed out. The server never answers this itself.
constexpr HRESULT E_SERVER_UNAVAILABLE = static_cast<HRESULT>(0x800706BAu);

inline bool Succeeded(HRESULT hr) {
  return hr >= 0;
}
inline bool Failed(HRESULT hr) {
  return hr < 0;
}

// "S_OK", "E_FAIL", ... or "0x%08X" style text for other values (static storage for the
// known names; unknown values come back as "unknown").
const char* HresultName(HRESULT hr);

// A sentence that tells a user what the value means.
const char* HresultText(HRESULT hr);

}  // namespace marquel
