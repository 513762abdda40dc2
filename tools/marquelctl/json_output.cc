// Error reports and hex text shared by marquelctl's commands.
#include "json_output.h"

#include <iostream>

namespace marquel::ctl {

nlohmann::json ErrorJson(const std::string& message) {
  return {{"error", {{"message", message}}}};
}

int ReportError(bool json, const std::string& message, int status) {
  if (json)
    std::cout << ErrorJson(message).dump(2) << '\n';
  else
    std::cerr << "marquelctl: " << message << '\n';
  return status;
}

std::string Hex(const uint8_t* data, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out.push_back(kDigits[data[i] >> 4]);
    out.push_back(kDigits[data[i] & 15]);
  }
  return out;
}

}  // namespace marquel::ctl
