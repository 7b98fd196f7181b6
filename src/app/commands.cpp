#include "app/commands.h"

#include <cstdlib>

#include "commands/channel.h"
#include "commands/cli.h"
#include "panel/panel_command.h"
#include "platform/linux/host_processes.h"
#include "platform/linux/linux_platform.h"
#include "platform/sim/sim_laptop.h"
#include "remote/pair_command.h"

namespace vigilo {
namespace {

// The machine the tool reads and puts back when it works without the app
// (`doctor`, `rescue`): the one the app folder records, since its records
// describe changes made there; else the simulated laptop named by
// VIGILO_SIMULATE; else this machine's own backend.
std::unique_ptr<Platform> toolPlatform(Clock& clock, RunLoop& loop) {
  const std::string folder = toolAppFolder();
  std::string simulate;
  if (auto recorded = recordedMachine(folder)) {
    simulate = *recorded;
  } else if (const char* env = std::getenv("VIGILO_SIMULATE"); env != nullptr && *env != '\0') {
    simulate = env;
  }
  if (!simulate.empty()) return makeSimPlatform(clock, loop, SimPlatformOptions{simulate, folder, hostProcessInfo});
  return makeLinuxPlatform(clock, loop, LinuxPlatformOptions{});
}

// The real machine's process table.
std::unique_ptr<Processes> hostProcesses() { return makeHostProcesses(); }

}  // namespace

int vigiloMain(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args[0] == "app") return runApp(std::vector<std::string>(args.begin() + 1, args.end()));
  // The watchdog script runs "<executable> cli watchdog".
  if (!args.empty() && args[0] == "cli") args.erase(args.begin());
  // Pairing is a person's act at the terminal, so it stays out of the help.
  if (!args.empty() && args[0] == "pair") {
    return runPair(std::vector<std::string>(args.begin() + 1, args.end()), toolAppFolder());
  }
  // The panel window, started by the app for `open` and `snapshot`.
  if (!args.empty() && args[0] == "panel") {
    return runPanel(std::vector<std::string>(args.begin() + 1, args.end()), toolAppFolder());
  }
  return runCli(args, ToolMachine{toolPlatform, hostProcesses});
}

}  // namespace vigilo
