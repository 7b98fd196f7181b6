#include "app/host.h"

#include <cstdlib>
#include <string_view>

#include "platform/linux/desktop_session.h"
#include "platform/linux/host_processes.h"
#include "platform/linux/linux_desktop.h"
#include "platform/linux/linux_platform.h"
#include "platform/macos/mac_platform.h"
#include "platform/macos/rooted_runner.h"
#include "platform/runtime_folder.h"
#include "platform/sim/sim_laptop.h"

namespace vigilo::host {
namespace {

// For tests only, and not shown in any help: VIGILO_PLATFORM=macos-cli runs
// the macOS backend on the Mac's command lines found under VIGILO_MAC_ROOT
// (the simulated Mac's stand-in tools), with the Mac's setup and watchdog.
// The variable passes to the watchdog and its tools like any other, so they
// all act on the same simulated Mac.
bool simulatedMacTools() {
  const char* platform = std::getenv("VIGILO_PLATFORM");
  return platform != nullptr && std::string_view(platform) == "macos-cli";
}

CommandRunner& simulatedMacRunner() {
  static RootedRunner runner([] {
    const char* root = std::getenv("VIGILO_MAC_ROOT");
    return std::string(root != nullptr && root[0] == '/' ? root : "/nonexistent-mac-root");
  }());
  return runner;
}

}  // namespace

std::unique_ptr<Platform> makePlatform(Clock& clock, RunLoop& loop, const std::string& simulateFile,
                                       const std::string& appFolder, std::function<void(const std::string&)> say) {
  if (!simulateFile.empty()) {
    return makeSimPlatform(clock, loop, SimPlatformOptions{simulateFile, appFolder, hostProcessInfo, std::move(say)});
  }
  if (simulatedMacTools()) {
    MacPlatformOptions options;
    options.runner = &simulatedMacRunner();
    options.log = std::move(say);
    return makeMacPlatform(clock, loop, std::move(options));
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
  if (simulatedMacTools()) return std::make_unique<MacSetup>(std::move(context), simulatedMacRunner());
  return std::make_unique<LinuxSetup>(std::move(context), runner);
}

const MachineWords& words() {
  static const MachineWords mac;
  return simulatedMacTools() ? mac : linuxMachineWords();
}

}  // namespace vigilo::host
