#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "engine/config.h"
#include "platform/run_loop.h"

namespace vigilo {

// The mode a press of the hotkey moves to: Off → When Busy → Always → Off.
Mode nextMode(Mode mode);
// The request text of a mode ("off", "auto", "always").
const char* modeRequestText(Mode mode);

// The global hotkey (Ctrl+Alt+Super+A) that cycles the mode, bound through
// the desktop portal's GlobalShortcuts on the session bus. The bus work runs
// on a thread of its own, so the loop never waits on the portal (which may
// be showing the person a dialog).
class Hotkey {
 public:
  Hotkey() = default;
  Hotkey(const Hotkey&) = delete;
  Hotkey& operator=(const Hotkey&) = delete;
  virtual ~Hotkey() = default;
  // Nothing while the hotkey is bound or still being bound; otherwise one
  // sentence saying why it isn't available. Safe from any thread.
  virtual std::optional<std::string> problem() const = 0;
};

// Binds the hotkey; `pressed` runs on `loop`'s thread at each press.
std::unique_ptr<Hotkey> makePortalHotkey(RunLoop& loop, std::function<void()> pressed);

// For `vigilo doctor`, without the app: nothing when the desktop offers
// global shortcuts, else the sentence why the hotkey isn't available.
std::optional<std::string> hotkeyUnavailable();

}  // namespace vigilo
