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

HostAction ParseCommandLine(const std::vector<std::string>& args) {
  if (args.empty()) return HostAction::kServe;
  if (args.size() == 1) {
    const std::string& arg = args[0];
    if (arg == "--help" || arg == "-h" || arg == "/?") return HostAction::kHelp;
    if (arg == "--version") return HostAction::kVersion;
  }
  switch (ParseSwitch(args)) {
    case HostSwitch::kUnregServer:
      return HostAction::kUnregServer;
    case HostSwitch::kRegServer:
      return HostAction::kRegServer;
    case HostSwitch::kService:
      return HostAction::kService;
    case HostSwitch::kNone:
      break;
  }
  // The original server started whatever its command line said; a Linux user expects an
  // unknown switch to be refused with the usage instead.
  return HostAction::kUsageError;
}

}  // namespace marquel::host
