#pragma once

#include <memory>
#include <string>

#include "platform/desktop.h"

namespace vigilo {

struct DesktopAlertOptions {
  // The session bus; empty means DBUS_SESSION_BUS_ADDRESS, else
  // "unix:path=$XDG_RUNTIME_DIR/bus".
  std::string busAddress;
  // Where the freedesktop sound theme lives.
  std::string soundsDir = "/usr/share/sounds/freedesktop/stereo";
};

// Alerts on a Linux desktop: org.freedesktop.Notifications on the session
// bus, and the chime from the freedesktop sound theme played with
// canberra-gtk-play, paplay or pw-play, whichever is installed. Calls may
// block for a moment (a bus round trip, a short sound): run them off the
// main thread.
std::unique_ptr<AlertOutlets> makeDesktopAlerts(DesktopAlertOptions options = {});

}  // namespace vigilo
