// The log's settings as the entry points read them (private to log/).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "log/log.h"

namespace marquel::log::internal {

// A copy of the "log file name" setting.
std::string FileName();

// The "date and time prefix" setting.
extern std::atomic<int32_t> g_wall_clock;

// The settings the stores and the environment make of `settings` (LoadSettings without
// applying them), so that a reload never passes through "off".
Settings ReadSettings(Settings settings);

// Remembers what the store files look like now, so that a reload can tell a change.
void NoteStoresRead();

// Sends one debug line (its line feed is dropped) to the journal with the log's
// priority and identifier. False when the journal refused it.
bool SendToJournal(const std::string& line);
// Appends one line to the state log file; false when it cannot be written.
bool AppendToStateFile(const char* line, size_t length);

}  // namespace marquel::log::internal
