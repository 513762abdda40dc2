// marquelctl: talks to the Marquel server and to its store.
#include <iostream>

#include "command.h"

int main(int argc, char** argv) {
  using namespace marquel::ctl;
  CLI::App app{
      "marquelctl - the command-line client of the Marquel tag server and its store.\n"
      "Run 'marquelctl <command> --help' for the options of a command."};
  app.require_subcommand(1);
  Action run;
  AddRegCommand(app, run);
  AddCacheCommand(app, run);
  AddServerQueryCommands(app, run);
  AddServerPutCommand(app, run);
  AddServerPeriodCommands(app, run);
  AddServerStatusCommands(app, run);
  AddServerFileCommand(app, run);
  AddServerMigrateCommand(app, run);
  AddBlockCommand(app, run);
  AddDetectCommand(app, run);
  AddAnalyseCommand(app, run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  return run ? run() : kExitUsage;
}
