// The switches of marquel64's command line.
#include "command_line.h"

#include <strings.h>

namespace marquel::host {

HostSwitch ParseSwitch(const std::vector<std::string>& args) {
  std::string line;
  for (size_t i = 0; i < args.size(); ++i) {
    if (i > 0) line += ' ';
    line += args[i];
  }
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] != '-' && line[i] != '/') continue;
    const char* rest = line.c_str() + i + 1;
    if (strcasecmp(rest, "UnregServer") == 0) return HostSwitch::kUnregServer;
    if (strcasecmp(rest, "RegServer") == 0) return HostSwitch::kRegServer;
    if (strcasecmp(rest, "Service") == 0) return HostSwitch::kService;
  }
  return HostSwitch::kNone;
}

}  // namespace marquel::host
