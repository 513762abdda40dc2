// The server's event messages.
#include "event_log.h"

#include <cstdarg>
#include <cstdio>

namespace marquel::host {

void LogEvent(bool as_service, const char* format, ...) {
  char message[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(message, sizeof message, format, args);
  va_end(args);
  FILE* out = as_service ? stderr : stdout;
  fprintf(out, "%s\n", message);
  fflush(out);
}

}  // namespace marquel::host
