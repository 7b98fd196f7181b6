#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vigilo {

// Where to look for the person's desktop session. The defaults are the
// real places; a test puts its own bus and runtime folder here.
struct DesktopSessionPlaces {
  // This user's runtime folder (userRuntimeFolder()); empty when none.
  std::string runtimeFolder;
  // The system bus, for logind; empty for the default one.
  std::string systemBus;
};

// One environment variable, name and value.
using EnvironmentEntry = std::pair<std::string, std::string>;

// The variables a program on the person's desktop needs
// (XDG_RUNTIME_DIR, DBUS_SESSION_BUS_ADDRESS, DISPLAY, WAYLAND_DISPLAY,
// XAUTHORITY) that `current` lacks, found from the user id rather than
// from the caller: the runtime folder and its "bus" socket, then the
// environment that the desktop exported to the systemd user manager
// (org.freedesktop.systemd1.Manager's Environment on that bus), then the
// login session logind shows as this user's display. Each bus round trip
// is bounded by a short time-out. `current` gives a variable's value or
// null; a variable it has, even empty, is never overridden.
std::vector<EnvironmentEntry> desktopSessionGaps(const DesktopSessionPlaces& places,
                                                 const char* (*current)(const char* name));

}  // namespace vigilo
