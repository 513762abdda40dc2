// The entry points: debug output, file and alert, narrow and wide.
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "log/log.h"
#include "log_format.h"
#include "log_settings.h"

namespace marquel::log {

namespace {

// Taken by a static initialiser, so the stamps count from process start.
const int64_t g_start_time = static_cast<int64_t>(time(nullptr));

int64_t SystemClock() {
  return static_cast<int64_t>(time(nullptr));
}

// Writes all of a line to a descriptor; a line written in one call stays whole when
// several threads or processes share the descriptor.
void WriteAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t done = write(fd, data, length);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return;  // nowhere to report a failing standard error
    data += done;
    length -= static_cast<size_t>(done);
  }
}

// The default sink; the journal's entries are made before it (EmitDebugLine), since they
// carry no date and time prefix.
void DefaultSink(const char* line, size_t length) {
  if (DefaultTarget() == Target::kStateFile && internal::AppendToStateFile(line, length)) return;
  WriteAll(STDERR_FILENO, line, length);
}

std::atomic<DebugSink> g_sink{&DefaultSink};
std::atomic<Clock> g_clock{&SystemClock};

void EndWithLineFeed(std::string& text) {
  if (text.empty() || text.back() != '\n') text += '\n';
}

// "YYYY-MM-DD hh:mm:ss " of the clock's time in local time, when the setting asks for it.
std::string WallClockPrefix() {
  if (internal::g_wall_clock.load(std::memory_order_relaxed) == 0) return std::string();
  const time_t now = static_cast<time_t>(Now());
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) return std::string();
  char text[64];
  const size_t n = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S ", &local);
  return std::string(text, n);
}

void EmitDebugLine(const std::string& message) {
  std::string line = "[Marquel";
  line += kVersionTag;
  line += "] ";
  line += message;
  EndWithLineFeed(line);
  const DebugSink sink = g_sink.load();
  if (sink == &DefaultSink && DefaultTarget() == Target::kJournal && internal::SendToJournal(line))
    return;
  const std::string prefixed = WallClockPrefix() + line;
  sink(prefixed.data(), prefixed.size());
}

// Appends one stamped line to the log file, opened and closed for this entry alone.
void EmitFileLine(std::string message) {
  EndWithLineFeed(message);
  const std::string name = internal::FileName();
  // The log never fails towards its caller: a missing or unwritable file (or an empty
  // name) simply drops the entry.
  if (name.empty()) return;
  FILE* file = fopen(name.c_str(), "a");
  if (file == nullptr) return;
  int64_t e = Now() - StartTime();
  // A clock set back before the start would give negative fields; keep them in range.
  e %= 86400;
  if (e < 0) e += 86400;
  fprintf(file, "%s[%02d:%02d:%02d] %s", WallClockPrefix().c_str(), static_cast<int>(e / 3600),
          static_cast<int>((e % 3600) / 60), static_cast<int>(e % 60), message.c_str());
  fclose(file);
}

// Formats a wide message and gives its UTF-8 text; -1 when the format is invalid.
int FormatWideToUtf8(std::string& text, const wchar_t* format, va_list args) {
  wchar_t buffer[kMessageChars];
  const int produced = internal::FormatWide(buffer, kMessageChars, format, args);
  if (produced < 0) return -1;
  text = internal::WideToUtf8(buffer, static_cast<size_t>(produced));
  return produced;
}

int FormatNarrowToString(std::string& text, const char* format, va_list args) {
  char buffer[kMessageChars];
  const int produced = internal::FormatNarrow(buffer, kMessageChars, format, args);
  if (produced < 0) return -1;
  text.assign(buffer, static_cast<size_t>(produced));
  return produced;
}

void EmitAlert(const std::string& message) {
  std::string line = "Alert!: " + message;
  EndWithLineFeed(line);
  WriteAll(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

int DebugPrint(const char* format, ...) {
  std::string message;
  va_list args;
  va_start(args, format);
  const int produced = FormatNarrowToString(message, format, args);
  va_end(args);
  if (produced >= 0) EmitDebugLine(message);
  return produced;
}

int DebugPrintW(const wchar_t* format, ...) {
  std::string message;
  va_list args;
  va_start(args, format);
  const int produced = FormatWideToUtf8(message, format, args);
  va_end(args);
  if (produced >= 0) EmitDebugLine(message);
  return produced;
}

int FilePrint(const char* format, ...) {
  std::string message;
  va_list args;
  va_start(args, format);
  const int produced = FormatNarrowToString(message, format, args);
  va_end(args);
  if (produced >= 0) EmitFileLine(std::move(message));
  return produced;
}

int FilePrintW(const wchar_t* format, ...) {
  std::string message;
  va_list args;
  va_start(args, format);
  const int produced = FormatWideToUtf8(message, format, args);
  va_end(args);
  if (produced < 0) return -1;
  // The converted text keeps the bound of the narrow form: 4095 bytes, then the line
  // feed that EmitFileLine adds when the cut took it away.
  internal::CutUtf8(message, kMessageChars - 1);
  EmitFileLine(std::move(message));
  return produced;
}

int Alert(const char* format, ...) {
  std::string message;
  va_list args;
  va_start(args, format);
  const int produced = FormatNarrowToString(message, format, args);
  va_end(args);
  if (produced >= 0) EmitAlert(message);
  return produced;
}

int AlertW(const wchar_t* format, ...) {
  std::string message;
  va_list args;
  va_start(args, format);
  const int produced = FormatWideToUtf8(message, format, args);
  va_end(args);
  if (produced >= 0) EmitAlert(message);
  return produced;
}

DebugSink SetDebugSink(DebugSink sink) {
  return g_sink.exchange(sink != nullptr ? sink : &DefaultSink);
}

Clock SetClock(Clock clock) {
  return g_clock.exchange(clock != nullptr ? clock : &SystemClock);
}

int64_t Now() {
  return g_clock.load()();
}

int64_t StartTime() {
  return g_start_time;
}

}  // namespace marquel::log
