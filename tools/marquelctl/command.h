// How marquelctl's subcommands plug into its main().
//
// Each subcommand file offers one Add<Name>Command function that adds its CLI11
// subcommand to the application and, when that subcommand is chosen on the command line,
// stores in `run` the action to perform. main() parses, then calls `run`, whose result
// is the process exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace marquel::ctl {

// Exit statuses shared by all subcommands.
constexpr int kExitOk = 0;
constexpr int kExitNotFound = 1;  // the key, value, file or entry does not exist
constexpr int kExitUsage = 2;     // the command line is wrong
constexpr int kExitFailure = 3;   // the operation failed (server, store or file error)

using Action = std::function<int()>;

// The store commands: marquelctl reg set|get|delete|list.
void AddRegCommand(CLI::App& app, Action& run);

}  // namespace marquel::ctl
