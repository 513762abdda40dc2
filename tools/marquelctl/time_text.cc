// marquelctl's decimal numbers and time forms.
#include "time_text.h"

#include <cctype>
#include <cstdlib>
#include <vector>

namespace marquel::ctl {
namespace {

TimeFormat g_output_format = TimeFormat::kTicks;

bool AllDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s)
    if (!isdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

// Adds the unsigned digits of `s` to *acc (acc = acc*10 + d), false on overflow.
bool AccumulateDigits(const std::string& s, int64_t* acc) {
  for (char c : s) {
    if (__builtin_mul_overflow(*acc, 10, acc) || __builtin_add_overflow(*acc, c - '0', acc))
      return false;
  }
  return true;
}

// Whole units plus a decimal fraction, in ticks: `unit` ticks per whole unit, and
// `places` (log10 of unit) fraction digits that still make whole ticks.
bool ScaledTicks(const std::string& whole, const std::string& fraction, int64_t unit, size_t places,
                 int64_t* out, std::string* error) {
  int64_t units = 0;
  if (!AccumulateDigits(whole, &units) || __builtin_mul_overflow(units, unit, out)) {
    *error = "does not fit in 64 bits of ticks";
    return false;
  }
  for (size_t i = places; i < fraction.size(); ++i) {
    if (fraction[i] != '0') {
      *error = "is finer than one tick (100 ns)";
      return false;
    }
  }
  int64_t part = 0;
  std::string digits = fraction.substr(0, places);
  digits.resize(places, '0');
  AccumulateDigits(digits, &part);  // at most 7 digits: no overflow
  if (__builtin_add_overflow(*out, part, out)) {
    *error = "does not fit in 64 bits of ticks";
    return false;
  }
  return true;
}

// "W" or "W.F" into its two digit strings.
bool SplitDecimal(const std::string& text, std::string* whole, std::string* fraction) {
  size_t dot = text.find('.');
  *whole = text.substr(0, dot);
  *fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
  if (!AllDigits(*whole)) return false;
  return dot == std::string::npos || AllDigits(*fraction);
}

bool ParseClock(const std::string& text, int64_t* out, std::string* error) {
  std::vector<std::string> fields;
  for (size_t from = 0;;) {
    size_t colon = text.find(':', from);
    fields.push_back(text.substr(from, colon - from));
    if (colon == std::string::npos) break;
    from = colon + 1;
  }
  std::string whole, fraction;
  if (fields.size() > 3 || !SplitDecimal(fields.back(), &whole, &fraction)) {
    *error = "is not a time (H:MM:SS.F or M:SS.F)";
    return false;
  }
  int64_t seconds = 0, minutes = 0, hours = 0;
  AccumulateDigits(whole.substr(0, 3), &seconds);
  if (whole.size() > 2 || seconds >= 60) {
    *error = "has seconds beyond 59";
    return false;
  }
  std::string m = fields[fields.size() - 2];
  if (!AllDigits(m) || m.size() > 2 || (AccumulateDigits(m, &minutes), minutes >= 60)) {
    *error = "has minutes beyond 59 or that are not a number";
    return false;
  }
  if (fields.size() == 3 && (!AllDigits(fields[0]) || !AccumulateDigits(fields[0], &hours))) {
    *error = "has hours that are not a number";
    return false;
  }
  int64_t total_minutes = 0;
  if (__builtin_mul_overflow(hours, 60, &total_minutes) ||
      __builtin_add_overflow(total_minutes, minutes, &total_minutes) ||
      __builtin_mul_overflow(total_minutes, 60, &total_minutes) ||
      __builtin_add_overflow(total_minutes, seconds, &total_minutes)) {
    *error = "does not fit in 64 bits of ticks";
    return false;
  }
  return ScaledTicks(std::to_string(total_minutes), fraction, kTicksPerSecond, 7, out, error);
}

bool ParseUnsignedTime(const std::string& text, int64_t* out, std::string* error) {
  std::string whole, fraction;
  if (text.find(':') != std::string::npos) return ParseClock(text, out, error);
  auto ends_with = [&](const char* suffix) {
    std::string s(suffix);
    return text.size() > s.size() && text.compare(text.size() - s.size(), s.size(), s) == 0;
  };
  if (ends_with("ms")) {
    if (SplitDecimal(text.substr(0, text.size() - 2), &whole, &fraction))
      return ScaledTicks(whole, fraction, kTicksPerSecond / 1000, 4, out, error);
  } else if (ends_with("s")) {
    if (SplitDecimal(text.substr(0, text.size() - 1), &whole, &fraction))
      return ScaledTicks(whole, fraction, kTicksPerSecond, 7, out, error);
  } else if (SplitDecimal(text, &whole, &fraction)) {
    if (!fraction.empty()) {
      *error = "is a fraction of a tick (plain numbers are 100 ns ticks)";
      return false;
    }
    return ScaledTicks(whole, "", 1, 0, out, error);
  }
  *error = "is not a time (ticks, 62.5s, 1500ms or 01:02:03.5)";
  return false;
}

}  // namespace

bool ParseDecimal(const std::string& text, int64_t* out) {
  bool negative = !text.empty() && (text[0] == '-' || text[0] == '+');
  std::string digits = negative ? text.substr(1) : text;
  if (!AllDigits(digits)) return false;
  negative = negative && text[0] == '-';
  // Accumulate negatively so that INT64_MIN fits.
  int64_t v = 0;
  for (char c : digits) {
    if (__builtin_mul_overflow(v, 10, &v) || __builtin_sub_overflow(v, c - '0', &v)) return false;
  }
  if (!negative && v == INT64_MIN) return false;
  *out = negative ? v : -v;
  return true;
}

bool ParseTime(const std::string& text, int64_t* ticks, std::string* error) {
  bool negative = !text.empty() && text[0] == '-';
  int64_t magnitude = 0;
  std::string why;
  if (!ParseUnsignedTime(negative ? text.substr(1) : text, &magnitude, &why)) {
    *error = "'" + text + "' " + why;
    return false;
  }
  *ticks = negative ? -magnitude : magnitude;
  return true;
}

bool ParseTimeFormat(const std::string& text, TimeFormat* out) {
  if (text == "ticks")
    *out = TimeFormat::kTicks;
  else if (text == "seconds")
    *out = TimeFormat::kSeconds;
  else if (text == "hms")
    *out = TimeFormat::kHms;
  else
    return false;
  return true;
}

std::string FormatTime(int64_t ticks, TimeFormat format) {
  if (format == TimeFormat::kTicks) return std::to_string(ticks);
  const bool negative = ticks < 0;
  // INT64_MIN has no positive counterpart; unsigned arithmetic keeps it exact.
  uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(ticks) : static_cast<uint64_t>(ticks);
  uint64_t seconds = magnitude / kTicksPerSecond;
  std::string fraction = std::to_string(magnitude % kTicksPerSecond + kTicksPerSecond).substr(1);
  while (!fraction.empty() && fraction.back() == '0') fraction.pop_back();
  std::string out = negative ? "-" : "";
  if (format == TimeFormat::kSeconds) {
    out += std::to_string(seconds);
  } else {
    char clock[64];
    snprintf(clock, sizeof clock, "%llu:%02llu:%02llu",
             static_cast<unsigned long long>(seconds / 3600),
             static_cast<unsigned long long>(seconds / 60 % 60),
             static_cast<unsigned long long>(seconds % 60));
    out += clock;
  }
  if (!fraction.empty()) out += "." + fraction;
  return format == TimeFormat::kSeconds ? out + "s" : out;
}

TimeFormat OutputTimeFormat() {
  return g_output_format;
}

void SetOutputTimeFormat(TimeFormat format) {
  g_output_format = format;
}

const char* TimeFormsHelp() {
  return "Times: 1234567 (ticks of 100 ns), 62.5s, 1500ms or 01:02:03.5, with an optional "
         "'-'; numbers are decimal.";
}

CLI::Validator DecimalNumber() {
  return CLI::Validator(
      [](std::string& value) -> std::string {
        int64_t v = 0;
        if (!ParseDecimal(value, &v)) return "'" + value + "' is not a decimal number";
        value = std::to_string(v);
        return "";
      },
      "DECIMAL");
}

CLI::Validator TimeValue() {
  return CLI::Validator(
      [](std::string& value) -> std::string {
        int64_t ticks = 0;
        std::string error;
        if (!ParseTime(value, &ticks, &error)) return error;
        value = std::to_string(ticks);
        return "";
      },
      "TIME");
}

}  // namespace marquel::ctl
