#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace vigilo {

class Engine;

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

// Everything the tray item shows, worked out from the engine alone.
struct TrayView {
  TrayIcon icon = TrayIcon::SleepsNormally;
  std::string tooltip;  // the status line
  std::string title;    // the text beside the icon (menuBarTitle); may be empty
  std::vector<TrayMenuItem> menu;
};

// Must be called on the engine's thread; reads only.
TrayView trayView(const Engine& engine);

// The item with `key` anywhere in `menu`, or null.
const TrayMenuItem* findMenuItem(const std::vector<TrayMenuItem>& menu, std::string_view key);

}  // namespace vigilo
