#include "log_format.h"

#include <locale.h>

#include <cstdio>
#include <cwchar>

namespace marquel::log::internal {

namespace {

// Makes the calling thread convert between narrow and wide text as UTF-8 for the
// lifetime of the object, without touching the process locale that others may rely on.
class Utf8ThreadLocale {
 public:
  Utf8ThreadLocale() {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    if (utf8 != static_cast<locale_t>(0)) previous_ = uselocale(utf8);
  }
  ~Utf8ThreadLocale() {
    if (previous_ != static_cast<locale_t>(0)) uselocale(previous_);
  }
  Utf8ThreadLocale(const Utf8ThreadLocale&) = delete;
  Utf8ThreadLocale& operator=(const Utf8ThreadLocale&) = delete;

 private:
  locale_t previous_ = static_cast<locale_t>(0);
};

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

int FormatNarrow(char* out, size_t capacity, const char* format, va_list args) {
  if (capacity == 0) return -1;
  out[0] = '\0';
  if (format == nullptr) return -1;
  Utf8ThreadLocale utf8;
  const int produced = vsnprintf(out, capacity, format, args);
  if (produced < 0) {
    out[0] = '\0';
    return -1;
  }
  return static_cast<size_t>(produced) < capacity ? produced : static_cast<int>(capacity - 1);
}

int FormatWide(wchar_t* out, size_t capacity, const wchar_t* format, va_list args) {
  if (capacity < 2) return -1;
  out[0] = L'\0';
  if (format == nullptr) return -1;
  // vswprintf answers -1 both for a cut and for a conversion error, and leaves a cut
  // buffer unterminated. A cut fills every place but the last, so a sentinel in the
  // second-to-last place tells the two apart.
  out[capacity - 2] = L'\0';
  Utf8ThreadLocale utf8;
  const int produced = vswprintf(out, capacity, format, args);
  if (produced >= 0) return produced;
  if (out[capacity - 2] == L'\0') {
    out[0] = L'\0';
    return -1;
  }
  out[capacity - 1] = L'\0';
  return static_cast<int>(capacity - 1);
}

std::string WideToUtf8(const wchar_t* text, size_t length) {
  std::string out;
  out.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    const auto c = static_cast<char32_t>(text[i]);
    const bool scalar = c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
    AppendUtf8(out, scalar ? c : U'\uFFFD');
  }
  return out;
}

void CutUtf8(std::string& text, size_t max_bytes) {
  if (text.size() <= max_bytes) return;
  size_t end = max_bytes;
  // Step back over continuation bytes to the start of the sequence that was split.
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  text.resize(end);
}

}  // namespace marquel::log::internal
