// How marquelctl reads and writes numbers and times.
//
// Numbers are decimal everywhere ("010" is ten). A time is one of
//   ticks          1234567          (1 tick = 100 ns)
//   seconds        62.5s
//   milliseconds   1500ms
//   clock          01:02:03.5 or 2:03.5 (hours unbounded, minutes and seconds below 60)
// with an optional leading '-'. A time that is not a whole number of ticks, or does not
// fit in 64 bits, is refused.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>

namespace marquel::ctl {

constexpr int64_t kTicksPerSecond = 10000000;

// Parses a decimal integer with an optional sign; false for anything else or an overflow.
bool ParseDecimal(const std::string& text, int64_t* out);

// Parses a time in one of the forms above into ticks; false with *error saying why not.
bool ParseTime(const std::string& text, int64_t* ticks, std::string* error);

enum class TimeFormat { kTicks, kSeconds, kHms };
// "ticks", "seconds" or "hms"; false for another word.
bool ParseTimeFormat(const std::string& text, TimeFormat* out);
// A time in the chosen form; seconds and hms forms read back through ParseTime.
std::string FormatTime(int64_t ticks, TimeFormat format);

// The output form chosen by --time-format for this run (ticks unless chosen).
TimeFormat OutputTimeFormat();
void SetOutputTimeFormat(TimeFormat format);

// One line for a command's help: the time forms and their unit.
const char* TimeFormsHelp();

// CLI11 transforms: a decimal integer option (leading zeros dropped so that CLI11 does not
// read octal), and a time option (rewritten to its ticks).
CLI::Validator DecimalNumber();
CLI::Validator TimeValue();

}  // namespace marquel::ctl
