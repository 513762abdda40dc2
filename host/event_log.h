// The server's event messages ("Service started", ...).
#pragma once

namespace marquel::host {

// Writes one line: as a service to standard error (which the journal keeps), otherwise
// to standard output. printf-style.
void LogEvent(bool as_service, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace marquel::host
