// The switches of marquel64's command line.
#pragma once

#include <string>
#include <vector>

namespace marquel::host {

enum class HostSwitch { kNone, kUnregServer, kRegServer, kService };

// Finds the switch of a command line. The arguments after the program name are joined
// with single spaces into one text. At every "-" or "/" of that text, the rest of the
// text up to its end is compared without regard to ASCII case with "UnregServer",
// "RegServer" and "Service"; the first position that matches one decides. So a switch
// followed by more text matches nothing, and "-x -RegServer" is RegServer.
HostSwitch ParseSwitch(const std::vector<std::string>& args);

// What a whole command line asks for.
enum class HostAction { kServe, kRegServer, kService, kUnregServer, kHelp, kVersion, kUsageError };

// No arguments serve. "--help", "-h" or "/?" alone ask for the usage, "--version" alone
// for the version. Otherwise ParseSwitch decides; a command line in which it finds no
// switch is a usage error (it would otherwise start a server nobody asked for).
HostAction ParseCommandLine(const std::vector<std::string>& args);

}  // namespace marquel::host
