#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/desktop.h"
#include "platform/platform.h"
#include "platform/run_loop.h"
#include "safety/setup.h"

namespace vigilo {

// The one place that knows which backend this build runs on: every other
// file asks for what it needs through these. One definition per kind of
// machine, chosen by the build (host_linux.cpp, host_macos.cpp).
namespace host {

// The machine itself, or the simulated laptop of `simulateFile`, for the
// app and for the tools that read and put back without it. `say` hears the
// simulated laptop's own news (its wake timer).
std::unique_ptr<Platform> makePlatform(Clock& clock, RunLoop& loop, const std::string& simulateFile,
                                       const std::string& appFolder,
                                       std::function<void(const std::string&)> say = nullptr);
// How fast the simulated laptop of `simulateFile` runs its clock (1 for the
// real machine): the app picks its clock before it reads the laptop.
double clockSpeed(const std::string& simulateFile);
// The real machine's process table, for tools that look at the processes
// around them (the hook walking up to its agent); null when unreadable.
std::unique_ptr<Processes> makeProcesses();
// The desktop around the app: alerts, tray, hotkey. The simulated laptop's
// person sits at this machine's desktop, so it serves both.
std::unique_ptr<Desktop> makeDesktop();
// Fills in this process's environment with what a program on the person's
// desktop needs and the caller didn't pass on (an agent starts `vigilo mcp`
// with little more than HOME and PATH): the session bus, the runtime folder
// and the display, found from the user id. Call before any thread starts;
// children (the panel) inherit it. The names it set, for the log.
std::vector<std::string> joinDesktopSession();
// The one-time setup (the watchdog and the sleep permission) of this kind
// of machine.
std::unique_ptr<Setup> makeSetup(SetupContext context, CommandRunner& runner);
// This machine's words, where no platform could be started.
const MachineWords& words();

}  // namespace host
}  // namespace vigilo
