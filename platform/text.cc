#include "platform/text.h"

#include <cstdint>
#include <cstring>

namespace marquel {
namespace {

// Decodes one UTF-8 sequence at text[i]. Returns its length and stores the code point,
// or returns 0 when the bytes there are not valid UTF-8 (overlong forms, surrogates and
// values above U+10FFFF are invalid).
size_t DecodeOne(std::string_view text, size_t i, char32_t* cp) {
  const auto b0 = static_cast<unsigned char>(text[i]);
  if (b0 < 0x80) {
    *cp = b0;
    return 1;
  }
  size_t len;
  char32_t value;
  char32_t min;
  if ((b0 & 0xE0) == 0xC0) {
    len = 2, value = b0 & 0x1F, min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    len = 3, value = b0 & 0x0F, min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    len = 4, value = b0 & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (i + len > text.size()) return 0;
  for (size_t k = 1; k < len; ++k) {
    const auto b = static_cast<unsigned char>(text[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    value = (value << 6) | (b & 0x3F);
  }
  if (value < min || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  *cp = value;
  return len;
}

void AppendUtf8(char32_t cp, std::string* out) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

template <typename Sink>
void WalkUtf8(std::string_view text, Sink sink) {
  size_t i = 0;
  while (i < text.size()) {
    char32_t cp;
    size_t len = DecodeOne(text, i, &cp);
    if (len == 0) {
      // An invalid byte is carried as a lone low surrogate so it can be restored.
      sink(static_cast<char32_t>(0xDC00 + static_cast<unsigned char>(text[i])));
      len = 1;
    } else {
      sink(cp);
    }
    i += len;
  }
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  WalkUtf8(text, [&out](char32_t cp) {
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  });
  return out;
}

std::string Utf16ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char32_t u = text[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      AppendUtf8(0x10000 + ((u - 0xD800) << 10) + (text[i + 1] - 0xDC00), &out);
      ++i;
    } else if (u >= 0xDC80 && u <= 0xDCFF) {
      out.push_back(static_cast<char>(u - 0xDC00));  // a byte carried from Utf8ToUtf16
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      AppendUtf8(0xFFFD, &out);
    } else {
      AppendUtf8(u, &out);
    }
  }
  return out;
}

bool IsValidUtf8(std::string_view text) {
  char32_t cp;
  for (size_t i = 0; i < text.size();) {
    size_t len = DecodeOne(text, i, &cp);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

size_t Utf16Length(std::string_view text) {
  size_t n = 0;
  WalkUtf8(text, [&n](char32_t cp) { n += cp >= 0x10000 ? 2 : 1; });
  return n;
}

bool CopyToWideRecord(std::string_view text, char16_t* record, size_t capacity) {
  if (record == nullptr || capacity == 0) return false;
  std::memset(record, 0, capacity * sizeof(char16_t));
  std::u16string wide = Utf8ToUtf16(text);
  if (wide.size() + 1 > capacity) return false;
  std::memcpy(record, wide.data(), wide.size() * sizeof(char16_t));
  return true;
}

std::string WideRecordToUtf8(const char16_t* record, size_t capacity) {
  if (record == nullptr) return std::string();
  size_t n = 0;
  while (n < capacity && record[n] != 0) ++n;
  return Utf16ToUtf8(std::u16string_view(record, n));
}

std::string AsciiLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = AsciiToLower(c);
  return out;
}

int CompareIgnoreCase(std::u16string_view a, std::u16string_view b) {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; ++i) {
    int ca = AsciiToLower(a[i]);
    int cb = AsciiToLower(b[i]);
    if (ca != cb) return ca - cb;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

int CompareIgnoreCase(std::string_view a, std::string_view b) {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; ++i) {
    int ca = static_cast<unsigned char>(AsciiToLower(a[i]));
    int cb = static_cast<unsigned char>(AsciiToLower(b[i]));
    if (ca != cb) return ca - cb;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

}  // namespace marquel
