#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands/cli_args.h"  // parseDuration
#include "platform/platform.h"

namespace vigilo {

// The help text, exactly as `vigilo help` prints it on a Mac.
extern const char* const kHelpText;
// The help text in this machine's words.
std::string helpText(const MachineWords& words);

// The real machine's process table, for tools that look at the processes
// around them (the hook walking up to its agent); null when unreadable.
using ProcessesFactory = std::function<std::unique_ptr<Processes>()>;

// What the tool needs from the machine, given by the executable.
// A command run on the machine itself rather than through the app
// (`doctor`, `rescue`, `setup`, `watchdog`): given the app folder and a test
// of the switches given ("--yes").
struct LocalCommand {
  std::string name;
  std::function<int(const std::string& folder, const std::function<bool(const std::string&)>& has)> run;
};

struct ToolMachine {
  ProcessesFactory hostProcesses;
  std::vector<LocalCommand> local;
  // How this machine is named in the tool's own texts (help, MCP).
  MachineWords words;
};

// `vigilo <command> ...`: the terminal front end. Nearly every command is
// one request to the running app; the local ones work without it.
// Gives the process's exit status.
int runCli(const std::vector<std::string>& args, ToolMachine machine);

// The app folder the tool talks to: VIGILO_HOME, else
// ${XDG_DATA_HOME:-~/.local/share}/vigilo.
std::string toolAppFolder();

}  // namespace vigilo
