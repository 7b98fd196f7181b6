#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/desktop.h"

namespace vigilo {

// The tray on the desktop's session bus (StatusNotifierItem with a DBusMenu
// quick menu). `iconThemePath` is a folder holding the icons by theme
// layout, or empty.
std::unique_ptr<Tray> makeSessionTray(RunLoop& loop, std::function<TrayView()> view,
                                      std::function<void(const TrayAction&)> act, std::string iconThemePath);
// Nothing when a tray item can be shown, else the one line why not. Waits
// at most about a second.
std::optional<std::string> sessionTrayUnavailable();

// The global hotkey (Ctrl+Alt+Super+A) through the desktop portal's
// GlobalShortcuts on the session bus. The bus work runs on a thread of its
// own, so the loop never waits on the portal (which may be showing the
// person a dialog).
std::unique_ptr<Hotkey> makePortalHotkey(RunLoop& loop, std::function<void()> pressed);
// Nothing when the desktop offers global shortcuts, else the sentence why
// the hotkey isn't available.
std::optional<std::string> portalHotkeyUnavailable();

// The Linux desktop: freedesktop notifications and sounds, the
// StatusNotifierItem tray and the portal's hotkey.
std::unique_ptr<Desktop> makeLinuxDesktop();

}  // namespace vigilo
