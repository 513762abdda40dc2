// Bounded message formatting shared by the log's entry points (private to log/).
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace marquel::log::internal {

// Formats into out[0 .. capacity-1], always terminated; output beyond the buffer is cut.
// Returns the characters stored, or -1 when the format or an argument cannot be
// converted (out is then empty). %s in wide formats and %ls in narrow ones convert as
// UTF-8 whatever the process locale.
int FormatNarrow(char* out, size_t capacity, const char* format, va_list args);
int FormatWide(wchar_t* out, size_t capacity, const wchar_t* format, va_list args);

// UTF-8 of a wide (UTF-32) text of `length` characters. Values that are no Unicode scalar
// (surrogates, above U+10FFFF) become U+FFFD.
std::string WideToUtf8(const wchar_t* text, size_t length);

// Cuts `text` to at most max_bytes bytes without splitting a UTF-8 sequence.
void CutUtf8(std::string& text, size_t max_bytes);

}  // namespace marquel::log::internal
