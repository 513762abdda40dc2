// How table results become HRESULTs: the rules R1 to R6 of the client interface.
#pragma once

#include <climits>
#include <cstdint>

#include "api/hresult.h"

namespace marquel {

// A 64-bit figure as the 32-bit number the interface reports (clamped, never wrapped).
inline int32_t Clamp32(int64_t v) {
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// Writes a value where the caller gave a place. The rules that write "without a null
// test" use this too: a missing place is skipped rather than written through.
template <typename T, typename U>
inline void Put(T* out, U value) {
  if (out) *out = static_cast<T>(value);
}

// How many elements of an array of `capacity` a result of `count` has filled.
inline size_t Written(int64_t count, int64_t capacity) {
  if (count <= 0) return 0;
  return static_cast<size_t>(count < capacity ? count : capacity);
}

// R1: E_FAIL when the table says -1.
inline HRESULT R1(int64_t result) {
  return result == -1 ? E_FAIL : S_OK;
}
// R2: E_FAIL when the table says 0 (so -1, a closed handle, counts as success).
inline HRESULT R2(int64_t result) {
  return result == 0 ? E_FAIL : S_OK;
}
// R3: S_OK only when the count equals the caller's m.
inline HRESULT R3(int64_t count, int64_t m) {
  return count == m ? S_OK : E_FAIL;
}
// R4: the result is written and S_OK returned.
inline HRESULT R4(int64_t result, int32_t* out) {
  Put(out, Clamp32(result));
  return S_OK;
}
// R5: 0 is E_FAIL with the out argument untouched; anything else is written.
inline HRESULT R5(int64_t result, int32_t* out) {
  if (result == 0) return E_FAIL;
  Put(out, Clamp32(result));
  return S_OK;
}
// R6: a missing out argument is E_FAIL; otherwise the result is written.
inline HRESULT R6(int64_t result, int32_t* out) {
  if (out == nullptr) return E_FAIL;
  *out = Clamp32(result);
  return S_OK;
}

}  // namespace marquel
