// Text conversion and comparison.
//
// File names travel as UTF-8 on this platform, while client records keep names as UTF-16
// (char16_t). The conversions here are lossless for every byte string: a byte that is not
// part of valid UTF-8 becomes the lone surrogate U+DC80 + byte, and turns back into that
// byte, so a Linux file name with any bytes survives the round trip.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace marquel {

// UTF-8 (or any bytes) to UTF-16, as described above.
std::u16string Utf8ToUtf16(std::string_view text);
// UTF-16 to UTF-8. Lone surrogates U+DC80..U+DCFF give back the original byte; any other
// lone surrogate becomes U+FFFD.
std::string Utf16ToUtf8(std::u16string_view text);
// Whether `text` is valid UTF-8.
bool IsValidUtf8(std::string_view text);
// The number of UTF-16 code units Utf8ToUtf16(text) gives, without building it.
size_t Utf16Length(std::string_view text);

// Copies `text` as UTF-16 into a fixed record of `capacity` units, zero-terminated and
// zero-filled after the text. False (record left all zero) when it does not fit with its
// terminator: a name is never cut.
bool CopyToWideRecord(std::string_view text, char16_t* record, size_t capacity);
// The text of a fixed UTF-16 record, up to its first zero or `capacity` units.
std::string WideRecordToUtf8(const char16_t* record, size_t capacity);

// ASCII case folding as the C locale does it: only A-Z and a-z change.
inline char AsciiToLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}
inline char16_t AsciiToLower(char16_t c) {
  return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c;
}
inline char AsciiToUpper(char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
}
std::string AsciiLower(std::string_view text);

// Compares as _wcsicmp does in the default locale: code unit by code unit after folding
// A-Z to a-z. Negative, zero or positive.
int CompareIgnoreCase(std::u16string_view a, std::u16string_view b);
// The same on UTF-8 bytes (equality agrees with the UTF-16 form).
int CompareIgnoreCase(std::string_view a, std::string_view b);
inline bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  return CompareIgnoreCase(a, b) == 0;
}

}  // namespace marquel
