// marquelctl: talks to the Marquel server and to its store.
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "command.h"
#include "command_names.h"
#include "marquel/version.h"
#include "time_text.h"

int main(int argc, char** argv) {
  using namespace marquel::ctl;
  CLI::App app{
      "marquelctl - the command-line client of the Marquel tag server and its store.\n"
      "Run 'marquelctl <command> --help' for the options of a command."};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("marquelctl ") + MARQUEL_VERSION);
  app.footer(std::string(TimeFormsHelp()) + "\n" +
             "Exit status: 0 done, 1 not found or refused, 2 usage (wrong command line or input),\n"
             "3 server unreachable. See docs/cli.md.\n");
  Action run;
  AddRegCommand(app, run);
  AddCacheCommand(app, run);
  AddServerQueryCommands(app, run);
  AddServerPutCommand(app, run);
  AddServerPeriodCommands(app, run);
  AddServerStatusCommands(app, run);
  AddServerWaitCommand(app, run);
  AddExportCommand(app, run);
  AddProgramsCommand(app, run);
  AddMoveFileCommand(app, run);
  AddServerFileCommand(app, run);
  AddServerMigrateCommand(app, run);
  AddBlockCommand(app, run);
  AddDetectCommand(app, run);
  AddAnalyseCommand(app, run);
  AddPlotCommand(app, run);
  if (argc > 1 && argv[1][0] != '-') {
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands({})) names.push_back(sub->get_name());
    const std::string word = argv[1];
    if (std::find(names.begin(), names.end(), word) == names.end()) {
      const std::string nearest = NearestName(word, names);
      std::cerr << "marquelctl: no command '" << word << "'"
                << (nearest.empty() ? "" : "; did you mean " + nearest + "?") << '\n'
                << "Run 'marquelctl --help' for the commands.\n";
      return kExitUsage;
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::Success& e) {  // --version
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  return run ? run() : kExitUsage;
}
