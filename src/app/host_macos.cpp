// The host functions for a build on a Mac: the macOS backend over the real
// command lines plus the native pieces, the Mac's desktop, setup and words.

#include "app/host.h"

#include "engine/log.h"
#include "platform/macos/mac_desktop.h"
#include "platform/macos/mac_platform.h"
#include "platform/macos/native/mac_native.h"
#include "platform/macos/path_sockets.h"
#include "platform/macos/posix_run_loop.h"
#include "platform/sim/sim_laptop.h"

namespace vigilo {

// The Mac has no eventfd, signalfd or inotify: its main loop is the POSIX
// one, whose file watches compare modification times.
std::unique_ptr<RunLoop> makePollRunLoop(const Clock& clock) { return makePosixRunLoop(clock); }

// Nor abstract socket names: the request channel's sockets are files in a
// folder of the user's own.
std::unique_ptr<Notifications> makeSocketNotifications(const std::string& appFolder, RunLoop* loop) {
  return makePathSocketNotifications(appFolder, loop);
}
std::unique_ptr<Notifications> makeSocketNotifications(const std::string& appFolder, RunLoop* loop,
                                                       std::function<void(const std::string& problem)> onProblem) {
  return makePathSocketNotifications(appFolder, loop, std::move(onProblem));
}
std::string socketNameFor(const std::string& appFolder) { return pathSocketFor(appFolder, ""); }
std::optional<SocketPeer> listenerOf(const std::string& appFolder, const std::string& name) {
  return pathSocketListener(appFolder, name);
}

namespace host {
namespace {

CommandRunner& commandLines() {
  static ProcessRunner runner;
  return runner;
}

}  // namespace

std::unique_ptr<Platform> makePlatform(Clock& clock, RunLoop& loop, const std::string& simulateFile,
                                       const std::string& appFolder, std::function<void(const std::string&)> say) {
  if (!simulateFile.empty()) {
    static auto table = makeMacProcesses(commandLines());
    auto lookup = [](std::int32_t pid) { return table->info(pid); };
    return makeSimPlatform(clock, loop, SimPlatformOptions{simulateFile, appFolder, lookup, std::move(say)});
  }
  MacPlatformOptions options;
  options.runner = &commandLines();
  options.log = [](const std::string& line) { logLine(line); };
  options.native = makeMacNative();
  return makeMacPlatform(clock, loop, std::move(options));
}

double clockSpeed(const std::string& simulateFile) {
  return simulateFile.empty() ? 1.0 : simClockSpeed(simulateFile);
}

std::unique_ptr<Processes> makeProcesses() { return makeMacProcesses(commandLines(), makeMacNative()); }

std::unique_ptr<Desktop> makeDesktop() { return makeMacDesktop(commandLines()); }

// A launch agent runs in the person's login session, which already has
// everything the desktop needs.
std::vector<std::string> joinDesktopSession() { return {}; }

std::unique_ptr<Setup> makeSetup(SetupContext context, CommandRunner& runner) {
  return std::make_unique<MacSetup>(std::move(context), runner);
}

const MachineWords& words() {
  static const MachineWords mac;
  return mac;
}

}  // namespace host
}  // namespace vigilo
