#include "app/host.h"

#include <cstdlib>

#include "platform/linux/desktop_session.h"
#include "platform/linux/host_processes.h"
#include "platform/linux/linux_desktop.h"
#include "platform/linux/linux_platform.h"
#include "platform/runtime_folder.h"
#include "platform/sim/sim_laptop.h"

namespace vigilo::host {

std::unique_ptr<Platform> makePlatform(Clock& clock, RunLoop& loop, const std::string& simulateFile,
                                       const std::string& appFolder, std::function<void(const std::string&)> say) {
  if (!simulateFile.empty()) {
    return makeSimPlatform(clock, loop, SimPlatformOptions{simulateFile, appFolder, hostProcessInfo, std::move(say)});
  }
  return makeLinuxPlatform(clock, loop, LinuxPlatformOptions{});
}

double clockSpeed(const std::string& simulateFile) {
  return simulateFile.empty() ? 1.0 : simClockSpeed(simulateFile);
}

std::unique_ptr<Processes> makeProcesses() { return makeHostProcesses(); }

std::unique_ptr<Desktop> makeDesktop() { return makeLinuxDesktop(); }

std::vector<std::string> joinDesktopSession() {
  std::vector<std::string> set;
  DesktopSessionPlaces places;
  places.runtimeFolder = userRuntimeFolder();
  for (const auto& [name, value] : desktopSessionGaps(places, [](const char* n) -> const char* { return std::getenv(n); })) {
    if (::setenv(name.c_str(), value.c_str(), 0) == 0) set.push_back(name + "=" + value);
  }
  return set;
}

std::unique_ptr<Setup> makeSetup(SetupContext context, CommandRunner& runner) {
  return std::make_unique<LinuxSetup>(std::move(context), runner);
}

const MachineWords& words() { return linuxMachineWords(); }

}  // namespace vigilo::host
