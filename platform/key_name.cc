// Key names of files: readable ones, and hashed ones for paths too long for those.
#include "platform/key_name.h"

#include "platform/reg_types.h"
#include "platform/text.h"
#include "sha256.h"

namespace marquel {

std::string FileKeyName(std::string_view path, bool case_sensitive) {
  std::string out;
  out.reserve(path.size() + 8);
  for (char c : path) {
    if (c == '#' && out.empty()) {
      out += "%23";
    } else if (c == '%') {
      out += "%25";
    } else if (c == '\\') {
      out += "%5C";
    } else if (c == '^') {
      out += "%5E";
    } else if (case_sensitive && c >= 'A' && c <= 'Z') {
      // The store folds case; the mark keeps "A" and "a" apart.
      out.push_back('^');
      out.push_back(c);
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::string HashedFileKeyName(std::string_view path, bool case_sensitive) {
  std::string folded(path);
  if (!case_sensitive) {
    // The store folds A-Z only, and so does a hashed name.
    for (char& c : folded) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
  }
  static const char kHex[] = "0123456789abcdef";
  std::string out = "#";
  for (uint8_t byte : Sha256(folded)) {
    out.push_back(kHex[byte >> 4]);
    out.push_back(kHex[byte & 15]);
  }
  return out;
}

std::string FittingFileKeyName(std::string_view path, bool case_sensitive) {
  std::string readable = FileKeyName(path, case_sensitive);
  if (Utf16Length(readable) <= kMaxKeyNameChars) return readable;
  return HashedFileKeyName(path, case_sensitive);
}

bool IsHashedKeyName(std::string_view keyName) {
  return !keyName.empty() && keyName[0] == '#';
}

std::string PathFromKeyName(std::string_view keyName) {
  if (IsHashedKeyName(keyName)) return std::string();
  std::string out;
  out.reserve(keyName.size());
  for (size_t i = 0; i < keyName.size(); ++i) {
    const char c = keyName[i];
    if (c == '^' && i + 1 < keyName.size()) {
      char letter = keyName[i + 1];
      if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
      if (letter >= 'A' && letter <= 'Z') {
        out.push_back(letter);
        ++i;
        continue;
      }
    }
    if (c == '%' && i + 2 < keyName.size()) {
      const char hi = keyName[i + 1];
      const char lo = keyName[i + 2];
      const char decoded = hi != '2' && hi != '5'                  ? 0
                           : hi == '2' && lo == '3'                ? '#'
                           : hi == '2' && lo == '5'                ? '%'
                           : hi == '5' && (lo == 'C' || lo == 'c') ? '\\'
                           : hi == '5' && (lo == 'E' || lo == 'e') ? '^'
                                                                   : 0;
      if (decoded != 0) {
        out.push_back(decoded);
        i += 2;
        continue;
      }
    }
    out.push_back(c);
  }
  return out;
}

}  // namespace marquel
