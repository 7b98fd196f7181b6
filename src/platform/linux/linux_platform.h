#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/platform.h"

namespace vigilo {

struct LinuxPlatformOptions {
  // Prefix for /sys and /proc, so tests can point the readings at a fixture
  // tree; "" reads the real ones. Signals and priority changes always act
  // on the real processes.
  std::string root;
  // D-Bus address of the bus where logind lives; "" is the default system
  // bus (DBUS_SYSTEM_BUS_ADDRESS, else /run/dbus/system_bus_socket).
  std::string systemBus;
  // The app folder, where the old priorities of slowed processes are kept
  // until they are put back; "" is the usual one (VIGILO_HOME, else XDG).
  std::string appFolder;
};

// The record of the priorities slowed processes had, in the app folder.
inline constexpr std::string_view kSlowedPrioritiesFile = "slowed-priorities";

// The real Linux machine: logind's inhibitor lock as the sleep switch,
// /sys/class/power_supply, /sys/class/thermal, /proc/acpi/button/lid and
// /proc for the readings, signals and reversible priority changes for
// process control. Nothing it lacks is faked: `capabilities()` says what
// is missing and why. `clock` and `loop` must outlive the platform; every
// call must be made on the loop's thread.
std::unique_ptr<Platform> makeLinuxPlatform(Clock& clock, RunLoop& loop, LinuxPlatformOptions options);

// How the Linux backend names the machine and its mechanisms.
const MachineWords& linuxMachineWords();

// A private folder for this user's runtime files (Vigilo's sockets need none):
// "$XDG_RUNTIME_DIR/vigilo", else "/tmp/vigilo-<uid>", created 0700 when
// missing. Empty when no safe folder can be had (one that exists but is a
// symbolic link, not a folder, or owned by another user is refused, never
// used); `problem` then says why in plain English.
std::string runtimeFolder(std::string* problem = nullptr);

}  // namespace vigilo
