#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/command_runner.h"
#include "platform/platform.h"

namespace vigilo {

// What only Apple's frameworks offer, supplied by the Mac build's native
// files (src/platform/macos/native/). Every member may be empty: the backend
// then falls back to the command lines, or says plainly that the feature is
// missing. Built only on a Mac, so none of it has run in this project's tests
// until the macOS workflow has.
struct MacNative {
  // Energy the process has used so far (proc_pid_rusage's ri_energy_nj).
  std::function<std::optional<std::uint64_t>(std::int32_t pid)> energyNanojoules;
  // Darwin background priority on (true) or off for a process.
  std::function<Result(std::int32_t pid, bool background)> setBackground;
  // The built-in display's brightness through DisplayServices, 0.0 ... 1.0.
  std::function<std::optional<double>()> brightness;
  std::function<Result(double level)> setBrightness;
  // A "PreventUserIdleDisplaySleep" power assertion held (true) or released.
  std::function<Result(bool on)> holdDisplayAwake;
  // Will-sleep and did-wake from IOKit's root-domain interest notifications,
  // delivered through `post` on the main loop; returns false when it can't
  // register.
  std::function<bool(std::function<void(bool willSleep)> post)> watchSleepWake;
  // The names of the pieces this build has, for `vigilo doctor`.
  std::vector<std::string> pieces;
};

struct MacPlatformOptions {
  // Runs every command line; must outlive the platform.
  CommandRunner* runner = nullptr;
  // Hears the log line of a privileged command that failed.
  std::function<void(const std::string&)> log;
  MacNative native;
  // The user whose console session's lock flag is read; -1 is this process's.
  long uid = -1;
};

// A Mac, through its command lines (pmset, ioreg, ps, tmutil, defaults,
// xcrun) run by `options.runner`, plus the native pieces it is given. `clock`
// and `loop` must outlive the platform; every call is made on the loop's
// thread. The lid and the power source are polled: a Mac sends no
// notification for either that a command line can wait for.
std::unique_ptr<Platform> makeMacPlatform(Clock& clock, RunLoop& loop, MacPlatformOptions options);

// The Mac's process table alone, for the short-lived tools that only look at
// the processes around them. `runner` must outlive it.
std::unique_ptr<Processes> makeMacProcesses(CommandRunner& runner, MacNative native = {});

// "~/Library/Application Support/Vigilo".
std::string macAppFolder();

}  // namespace vigilo
