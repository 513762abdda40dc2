// SHA-256 of a byte string (private to the platform layer): the digest behind the hashed
// key names of paths too long for a readable one.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace marquel {

// The 32-byte SHA-256 digest of `data`.
std::array<uint8_t, 32> Sha256(std::string_view data);

}  // namespace marquel
