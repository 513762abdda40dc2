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

// Exit statuses shared by all subcommands (docs/cli.md lists them).
constexpr int kExitOk = 0;
constexpr int kExitNotFound = 1;     // the key, value, file or entry does not exist
constexpr int kExitRefused = 1;      // the server, the store or a file refused the operation
constexpr int kExitUsage = 2;        // the command line or its input is wrong
constexpr int kExitUnreachable = 3;  // the session bus or the server cannot be reached

using Action = std::function<int()>;

// The store commands: marquelctl reg set|get|delete|list.
void AddRegCommand(CLI::App& app, Action& run);
void AddCacheCommand(CLI::App& app, Action& run);          // cache list | show FILE | delete FILE
void AddServerQueryCommands(CLI::App& app, Action& run);   // tags | get | intervals FILE ...
void AddServerPutCommand(CLI::App& app, Action& run);      // put FILE --tag T ...
void AddServerPeriodCommands(CLI::App& app, Action& run);  // delete | shift | copy | move
void AddServerStatusCommands(CLI::App& app, Action& run);  // status [FILE...]
void AddServerWaitCommand(CLI::App& app, Action& run);     // wait FILE
void AddExportCommand(CLI::App& app, Action& run);         // export FILE --format F
void AddProgramsCommand(CLI::App& app, Action& run);       // programs FILE
void AddMoveFileCommand(CLI::App& app, Action& run);       // mv OLD NEW
void AddServerFileCommand(CLI::App& app, Action& run);     // file FILE [--script P] OPS...
void AddServerMigrateCommand(CLI::App& app, Action& run);  // migrate FILE...
void AddDetectCommand(CLI::App& app, Action& run);         // detect FILE [--json]
void AddAnalyseCommand(CLI::App& app, Action& run);        // analyse FILE [--out DIR]
void AddBlockCommand(CLI::App& app, Action& run);          // block dump FILE [--json]

// plot FILE -o PICTURE.svg [--program N] [--width PX]
void AddPlotCommand(CLI::App& app, Action& run);

}  // namespace marquel::ctl
