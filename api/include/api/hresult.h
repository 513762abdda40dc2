// The HRESULT values the server's methods answer with.
#pragma once

#include <cstdint>

// The client library's marquel/hresult.h defines the same values under the same guard, so
// that a program may include both.
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
