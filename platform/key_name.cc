#include "platform/key_name.h"

namespace marquel {

std::string FileKeyName(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path) {
    if (c == '%') {
      out += "%25";
    } else if (c == '\\') {
      out += "%5C";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::string PathFromKeyName(std::string_view keyName) {
  std::string out;
  out.reserve(keyName.size());
  for (size_t i = 0; i < keyName.size(); ++i) {
    if (keyName[i] == '%' && i + 2 < keyName.size()) {
      char hi = keyName[i + 1];
      char lo = keyName[i + 2];
      if (hi == '2' && lo == '5') {
        out.push_back('%');
        i += 2;
        continue;
      }
      if (hi == '5' && (lo == 'C' || lo == 'c')) {
        out.push_back('\\');
        i += 2;
        continue;
      }
    }
    out.push_back(keyName[i]);
  }
  return out;
}

}  // namespace marquel
