// How every marquelctl command reports an error and writes bytes, with or without --json.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace marquel::ctl {

// {"error": {"message": message}}.
nlohmann::json ErrorJson(const std::string& message);

// Tells the user about a failure that is not an HRESULT (usage, files): a line on
// standard error, or with `json` an ErrorJson object on standard output. Returns status.
int ReportError(bool json, const std::string& message, int status);

// Bytes as lower-case hex digits, two per byte.
std::string Hex(const uint8_t* data, size_t n);

}  // namespace marquel::ctl
