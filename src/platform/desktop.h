#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/run_loop.h"

namespace vigilo {

// Where alerts go on this machine: a desktop notification and a sound. Both
// may be missing; `missing` then says so in a sentence for `doctor`.
class AlertOutlets {
 public:
  virtual ~AlertOutlets() = default;
  // Posts a notification; false when nobody took it (dropped silently).
  virtual bool note(const std::string& title, const std::string& body) = 0;
  // Plays the named sound of the desktop's sound theme; false when it can't.
  virtual bool play(const std::string& name) = 0;
  // What this machine lacks for alerts, one sentence each.
  virtual std::vector<std::string> missing() = 0;
  // Why notifications can't show right now (no bus, no daemon), or nothing
  // when they can. May block for a bus round trip.
  virtual std::optional<std::string> notesUnavailable() { return std::nullopt; }
};

// What the tray icon shows, first match wins: the one-time setup is missing,
// a guard lets the laptop sleep although something wants it awake, it is
// kept awake in mode Always, kept awake for work or a hold, or it sleeps
// normally.
enum class TrayIcon { NeedsSetup, Guarded, AwakeAlways, AwakeForWork, SleepsNormally };

// The icon's name in the icon theme (data/icons/hicolor/scalable/apps).
std::string_view iconName(TrayIcon icon);

// What clicking a menu item asks of the app: one request of the command
// center, or "quit" (the app's own shutdown, which puts everything back).
struct TrayAction {
  std::string cmd;
  nlohmann::json args = nlohmann::json::object();
};

// One entry of the quick menu. `key` names the item for as long as it means
// the same thing (a hold's item keeps the hold's id in it), so a click that
// arrives after the menu changed never lands on a different item.
struct TrayMenuItem {
  enum class Kind { Standard, Separator };
  enum class Toggle { None, Radio };
  std::string key;
  Kind kind = Kind::Standard;
  std::string label;
  bool enabled = true;
  Toggle toggle = Toggle::None;
  bool checked = false;
  std::optional<TrayAction> action;
  std::vector<TrayMenuItem> children;  // non-empty: a submenu
};

// Everything the tray item shows.
struct TrayView {
  TrayIcon icon = TrayIcon::SleepsNormally;
  std::string tooltip;  // the status line
  std::string title;    // the text beside the icon (menuBarTitle); may be empty
  std::vector<TrayMenuItem> menu;
};

// The item with `key` anywhere in `menu`, or null.
const TrayMenuItem* findMenuItem(const std::vector<TrayMenuItem>& menu, std::string_view key);

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

// The hotkey that cycles the mode, bound through whatever the desktop offers
// for global shortcuts. Binding may involve the person (a dialog), so it
// never holds up the loop.
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

// The desktop around the app: where alerts, the tray item and the hotkey
// go. Each may be missing on this machine; the make functions then still
// give an object whose problem() says why.
class Desktop {
 public:
  Desktop() = default;
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;
  virtual ~Desktop() = default;

  // Notifications and the chime.
  virtual std::unique_ptr<AlertOutlets> alerts() = 0;
  // The tray item: `view` gives what to show; `act` runs a clicked item's
  // action and is always called from the loop.
  virtual std::unique_ptr<Tray> tray(RunLoop& loop, std::function<TrayView()> view,
                                     std::function<void(const TrayAction&)> act) = 0;
  // Binds the hotkey; `pressed` runs on `loop`'s thread at each press.
  virtual std::unique_ptr<Hotkey> hotkey(RunLoop& loop, std::function<void()> pressed) = 0;
  // For `vigilo doctor`, without the app: nothing when a tray item / the
  // hotkey can be had, else the sentence why not. Each waits at most about a
  // second.
  virtual std::optional<std::string> trayUnavailable() = 0;
  virtual std::optional<std::string> hotkeyUnavailable() = 0;
};

}  // namespace vigilo
