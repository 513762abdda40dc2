// The server's diagnostic log.
//
// Off unless a store turns it on ("DumpMQInfo2" under "Software\Halvern\Common\Marquel"
// of the user's or the machine store) or MARQUEL_LOG=1 does. When on, each entry becomes
// one line either in the debug output (standard error, the journal under systemd, or the
// state log file of a bus-activated server; see SetDebugSink) or, with "DumpToFile", in
// the file named by "DumpFileName". Call sites use MQ_LOG / MQ_LOGW, which test Enabled() first
// so that nothing is evaluated or formatted while the log is off:
//
//   MQ_LOG("[%d] CloseFile ref %d", session, refs);
//   MQ_LOGW(L"MQOneProgram[%d] open %ls", number, name);
//
// Debug-output lines read "[Marquel2.0] <message>", file lines "[hh:mm:ss] <message>"
// where the stamp is the time since the process started (wrapping after 24 hours). With
// the wall-clock setting both get "YYYY-MM-DD hh:mm:ss " (local time) in front; journal
// entries never do, the journal stamps them itself. Each
// line ends with exactly one line feed added when the message lacks it. Messages longer
// than 4095 characters are cut, never overflowed. Wide messages are written as UTF-8.
//
// The entry points take no lock and never fail towards the caller.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace marquel::log {

namespace internal {
extern std::atomic<int32_t> g_enabled;
extern std::atomic<int32_t> g_to_file;
}  // namespace internal

// The "log enabled" setting ("DumpMQInfo2" non-zero).
inline bool Enabled() {
  return internal::g_enabled.load(std::memory_order_relaxed) != 0;
}
// The "log to file" setting ("DumpToFile" non-zero).
inline bool ToFile() {
  return internal::g_to_file.load(std::memory_order_relaxed) != 0;
}

// Characters a message is formatted into, terminator included.
constexpr size_t kMessageChars = 4096;
// Bytes of "DumpFileName", terminator included.
constexpr size_t kFileNameBytes = 260;
// The version tag of debug-output lines.
constexpr const char kVersionTag[] = "2.0";

// The settings. All are zero / empty at process start.
struct Settings {
  int32_t enabled = 0;
  int32_t to_file = 0;
  std::string file_name;   // at most kFileNameBytes - 1 bytes
  int32_t wall_clock = 0;  // non-zero: lines start with the local date and time
};

// The store value that switches the date and time prefix (a 32-bit number, 0 = off).
constexpr const char kWallClockValue[] = "LogTime";
// The environment of the server process: MARQUEL_LOG (a number, non-zero = on),
// MARQUEL_LOG_FILE (a file name: file output to it) and MARQUEL_LOG_TIME (0 = no prefix).
constexpr const char kLogEnv[] = "MARQUEL_LOG";
constexpr const char kLogFileEnv[] = "MARQUEL_LOG_FILE";
constexpr const char kLogTimeEnv[] = "MARQUEL_LOG_TIME";

// Reads the settings from the key "Software\Halvern\Common\Marquel" of the user's store
// and then of the machine store, whose values win where both have one: "DumpMQInfo2",
// "DumpToFile" and "LogTime" as 32-bit numbers, "DumpFileName" as text, taken when
// "DumpToFile" is non-zero (the name is emptied once a key could be opened). A value that
// is missing or unreadable leaves its setting as it was; keys that cannot be opened leave
// all three. The prefix setting starts on. Then the environment overrides: MARQUEL_LOG,
// MARQUEL_LOG_FILE (at most 259 bytes), MARQUEL_LOG_TIME.
void LoadSettings();
// Reads the settings afresh (from zero, then as LoadSettings) when a store file changed
// since they were last read; looks at most once per kReloadSeconds (two clock reads and a
// few stat calls otherwise). True when it read them. The server calls it from its loop.
bool ReloadSettingsIfChanged();
constexpr int kReloadSeconds = 2;
// The settings in force.
Settings CurrentSettings();
// Replaces the settings (tools and tests); a longer file name is cut to 259 bytes.
void ApplySettings(const Settings& settings);

// The four entry points. They format the message into kMessageChars characters and
// return how many characters that produced (after any cut), or -1 when the format
// itself is invalid (nothing is written then). They do not test Enabled(): the caller
// does, as MQ_LOG does.
//
// Debug output: writes "[Marquel2.0] <message>" plus a line feed when missing to the
// debug sink, in one call.
int DebugPrint(const char* format, ...) __attribute__((format(printf, 1, 2)));
int DebugPrintW(const wchar_t* format, ...);
// File: appends "[hh:mm:ss] <message>" plus a line feed when missing to the log file,
// opening and closing it for this one entry. hh = (e mod 86400) / 3600,
// mm = (e mod 3600) / 60, ss = e mod 60, e = Now() - StartTime() in seconds.
int FilePrint(const char* format, ...) __attribute__((format(printf, 1, 2)));
int FilePrintW(const wchar_t* format, ...);

// Alerts: write "Alert!: <message>" and a line feed to standard error. Nothing in the
// server calls them; they stand for the message box of a desktop build.
int Alert(const char* format, ...) __attribute__((format(printf, 1, 2)));
int AlertW(const wchar_t* format, ...);

// Where debug-output lines go. The sink gets one whole line (line feed included) per
// entry. The default picks its place on each entry (DefaultTarget): the journal, the
// state log file, or standard error with one write.
using DebugSink = void (*)(const char* line, size_t length);
// Installs `sink` (nullptr restores the default) and returns the previous one.
DebugSink SetDebugSink(DebugSink sink);

enum class Target { kStandardError, kJournal, kStateFile };
// Under systemd (JOURNAL_STREAM or INVOCATION_ID set) the journal; started by D-Bus
// activation without systemd (DBUS_STARTER_ADDRESS set), whose output would be lost, the
// state log file; otherwise standard error.
Target DefaultTarget();
// $XDG_STATE_HOME/marquel/marquel64.log, else ~/.local/state/marquel/marquel64.log;
// empty without either. Past kStateFileMaxBytes it is renamed to "<name>.1" (replacing an
// older one) before the next line.
std::string StateLogPath();
constexpr int64_t kStateFileMaxBytes = 16 << 20;

// Hands one journal entry's fields ("MESSAGE=...", "PRIORITY=7",
// "SYSLOG_IDENTIFIER=marquel64") to the journal; negative on failure, and the line then
// goes to standard error. The default is sd_journal_sendv.
using JournalSender = int (*)(const std::string* fields, size_t count);
// Installs `sender` (nullptr restores the default) and returns the previous one.
JournalSender SetJournalSender(JournalSender sender);

// The time source of the file stamps, in seconds; the default is time(nullptr).
using Clock = int64_t (*)();
// Installs `clock` (nullptr restores the default) and returns the previous one.
Clock SetClock(Clock clock);
// Seconds of the clock now.
int64_t Now();
// The calendar time (time(nullptr)) taken once when the process started.
int64_t StartTime();

}  // namespace marquel::log

// Logs a printf-style narrow message when the log is on; formats nothing otherwise.
#define MQ_LOG(format, ...)                                            \
  do {                                                                 \
    if (::marquel::log::Enabled()) {                                   \
      if (::marquel::log::ToFile())                                    \
        ::marquel::log::FilePrint(format __VA_OPT__(, ) __VA_ARGS__);  \
      else                                                             \
        ::marquel::log::DebugPrint(format __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                  \
  } while (0)

// As MQ_LOG with a wide (wchar_t) format.
#define MQ_LOGW(format, ...)                                            \
  do {                                                                  \
    if (::marquel::log::Enabled()) {                                    \
      if (::marquel::log::ToFile())                                     \
        ::marquel::log::FilePrintW(format __VA_OPT__(, ) __VA_ARGS__);  \
      else                                                              \
        ::marquel::log::DebugPrintW(format __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                   \
  } while (0)
