#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/run_loop.h"
#include "ui/tray_model.h"

namespace vigilo {

// The tray item beside the clock: an icon showing the state, the status line
// as its tooltip, the menu-bar text beside it and the quick menu. It lives
// on the loop's thread and never blocks it.
class Tray {
 public:
  Tray() = default;
  Tray(const Tray&) = delete;
  Tray& operator=(const Tray&) = delete;
  virtual ~Tray() = default;

  // Reads the view again and tells the desktop what changed; cheap when
  // nothing did. Call it after every evaluation.
  virtual void refresh() = 0;
  // Empty while the item is shown (or still being set up); otherwise one
  // line saying why the desktop shows no tray item.
  virtual std::string problem() const = 0;
};

// The tray on the desktop's session bus (StatusNotifierItem with a DBusMenu
// quick menu). `view` gives what to show; `act` runs a clicked item's action
// and is always called from the loop, never inside a bus callback.
// `iconThemePath` is a folder holding the icons by theme layout, or empty.
std::unique_ptr<Tray> makeSessionTray(RunLoop& loop, std::function<TrayView()> view,
                                      std::function<void(const TrayAction&)> act, std::string iconThemePath);

// For `vigilo doctor`, without the app: nothing when a tray item can be
// shown, else the one line why not. Waits at most about a second.
std::optional<std::string> trayUnavailable();

}  // namespace vigilo
