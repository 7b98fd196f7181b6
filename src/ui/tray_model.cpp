#include "ui/tray_model.h"

#include "engine/engine.h"
#include "platform/text.h"

namespace vigilo {
namespace {

using Item = TrayMenuItem;

// Long hold reasons would make the menu as wide as the screen.
constexpr std::size_t kMaxReasonBytes = 60;

std::string shortened(const std::string& text) { return cutUtf8(text, kMaxReasonBytes); }

Item separator(std::string key) {
  Item i;
  i.key = std::move(key);
  i.kind = Item::Kind::Separator;
  return i;
}

Item command(std::string key, std::string label, std::string cmd, nlohmann::json args = nlohmann::json::object()) {
  Item i;
  i.key = std::move(key);
  i.label = std::move(label);
  i.action = TrayAction{std::move(cmd), std::move(args)};
  return i;
}

Item radio(std::string key, std::string label, bool checked, std::string cmd, nlohmann::json args) {
  Item i = command(std::move(key), std::move(label), std::move(cmd), std::move(args));
  i.toggle = Item::Toggle::Radio;
  i.checked = checked;
  return i;
}

Item label(std::string key, std::string text) {
  Item i;
  i.key = std::move(key);
  i.label = std::move(text);
  i.enabled = false;
  return i;
}

}  // namespace

TrayView trayView(const Engine& engine) {
  TrayView v;
  const Config& c = engine.config();
  if (!engine.setupReady()) {
    v.icon = TrayIcon::NeedsSetup;
  } else if (engine.wantsHold() && engine.blockedReason()) {
    v.icon = TrayIcon::Guarded;
  } else if (engine.holding() && c.mode == Mode::On) {
    v.icon = TrayIcon::AwakeAlways;
  } else if (engine.holding()) {
    v.icon = TrayIcon::AwakeForWork;
  } else {
    v.icon = TrayIcon::SleepsNormally;
  }
  v.tooltip = engine.statusLine();
  v.title = engine.menuBarTitle();

  auto& m = v.menu;
  m.push_back(label("status", v.tooltip));
  m.push_back(separator("sep-mode"));
  m.push_back(radio("mode-off", "Off", c.mode == Mode::Off, "mode", {{"mode", "off"}}));
  m.push_back(radio("mode-auto", "When Busy", c.mode == Mode::Auto, "mode", {{"mode", "auto"}}));
  m.push_back(radio("mode-always", "Always", c.mode == Mode::On, "mode", {{"mode", "always"}}));
  m.push_back(command("always-1h", "Always for 1 h", "mode", {{"mode", "always"}, {"minutes", 60}}));
  m.push_back(command("always-2h", "Always for 2 h", "mode", {{"mode", "always"}, {"minutes", 120}}));
  if (auto until = engine.onUntil()) {
    m.push_back(label("always-until", "Awake until " + formatShortTime(*until)));
  }
  m.push_back(separator("sep-sleep"));
  m.push_back(command("sleep-now", "Let It Sleep Now", "sleep_now"));

  Item presets = label("presets", "While the Lid Is Closed");
  presets.enabled = true;
  const std::pair<Preset, const char*> names[] = {
      {Preset::MaxBattery, "Max Battery"}, {Preset::Balanced, "Balanced"}, {Preset::FullSpeed, "Full Speed"}};
  for (const auto& [preset, name] : names) {
    const std::string text(toText(preset));
    presets.children.push_back(radio("preset-" + text, name, c.preset == preset, "preset", {{"preset", text}}));
  }
  m.push_back(std::move(presets));

  const auto& holds = engine.holds();
  if (!holds.empty()) {
    m.push_back(separator("sep-holds"));
    m.push_back(label("holds", holds.size() == 1 ? "1 hold keeps it awake" :
                                                   std::to_string(holds.size()) + " holds keep it awake"));
    for (const Hold& h : holds) {
      std::string text = "Release “" + shortened(h.reason) + "”";
      if (h.until) text += " (until " + formatShortTime(*h.until) + ")";
      m.push_back(command("hold:" + h.id, text, "release", {{"id", h.id}}));
    }
    if (holds.size() > 1) m.push_back(command("release-all", "Release All", "release", {{"all", true}}));
  }

  m.push_back(separator("sep-app"));
  m.push_back(command("open", "Open Vigilo…", "open"));
  m.push_back(command("quit", "Quit Vigilo", "quit"));
  return v;
}

}  // namespace vigilo
