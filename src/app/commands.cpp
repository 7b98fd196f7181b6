#include "app/commands.h"

#include <cstdlib>

#include "app/host.h"
#include "app/tools.h"
#include "commands/cli.h"
#include "commands/command_table.h"
#include "panel/panel_command.h"
#include "remote/pair_command.h"

namespace vigilo {

int vigiloMain(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (auto answered = answerHelp(args, kBuildVersion, host::words())) return *answered;
  if (!args.empty() && args[0] == "app") return runApp(std::vector<std::string>(args.begin() + 1, args.end()));
  // The watchdog script runs "<executable> cli watchdog".
  if (!args.empty() && args[0] == "cli") args.erase(args.begin());
  // Pairing is a person's act at the terminal, so it stays out of the help.
  if (!args.empty() && args[0] == "pair") {
    return runPair(std::vector<std::string>(args.begin() + 1, args.end()), toolAppFolder(), host::words().machine);
  }
  // The panel window, started by the app for `open` and `snapshot`.
  if (!args.empty() && args[0] == "panel") {
    return runPanel(std::vector<std::string>(args.begin() + 1, args.end()), toolAppFolder());
  }
  ToolMachine machine;
  machine.hostProcesses = host::makeProcesses;
  machine.words = host::words();
  machine.local = {
      {"doctor", [](const std::string& folder, const SwitchTest& has) { return runDoctor(folder, has("--json")); }},
      {"rescue", [](const std::string& folder, const SwitchTest&) { return runRescue(folder); }},
      // Not in the help: the one-time setup, and what the watchdog script runs.
      {"setup", [](const std::string& folder, const SwitchTest& has) { return runSetup(folder, has); }},
      {"watchdog", [](const std::string& folder, const SwitchTest&) { return runWatchdog(folder); }},
  };
  return runCli(args, std::move(machine));
}

}  // namespace vigilo
