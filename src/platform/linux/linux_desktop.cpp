#include "platform/linux/linux_desktop.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/linux/desktop_alerts.h"
#include "platform/own_program.h"

namespace vigilo {
namespace {

// Where the tray host finds the tray's icons: `themePath` is the folder to
// hand it as IconThemePath (empty when the desktop's own icon theme has
// them); `missing` says why no picture can be shown, or is empty.
struct TrayIcons {
  std::string themePath;
  std::string missing;
};

bool hasIcons(const std::filesystem::path& iconsFolder) {
  std::error_code ec;
  return std::filesystem::is_regular_file(iconsFolder / "hicolor" / "scalable" / "apps" / "vigilo.svg", ec);
}

TrayIcons trayIcons() {
  std::vector<std::string> looked;
  if (const auto exe = ownExecutable()) {
    const auto prefix = std::filesystem::path(*exe).parent_path().parent_path();
    // Installed (bin/vigilo beside share/icons), then a checkout (build/vigilo
    // beside data/icons).
    for (const auto& folder : {prefix / "share" / "icons", prefix / "data" / "icons"}) {
      const auto normal = folder.lexically_normal();
      if (hasIcons(normal)) return {normal.string(), ""};
      looked.push_back(normal.string());
    }
  }
  // The icon theme's own folders (scripts/install-user-service copies them
  // to the first).
  const char* home = std::getenv("HOME");
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  std::vector<std::string> dataDirs;
  if (dataHome != nullptr && *dataHome == '/') {
    dataDirs.emplace_back(dataHome);
  } else if (home != nullptr && *home != '\0') {
    dataDirs.push_back(std::string(home) + "/.local/share");
  }
  const char* dirs = std::getenv("XDG_DATA_DIRS");
  std::string list = dirs != nullptr && *dirs != '\0' ? dirs : "/usr/local/share:/usr/share";
  for (std::size_t start = 0; start <= list.size();) {
    std::size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    if (end > start) dataDirs.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  for (const auto& d : dataDirs) {
    if (hasIcons(std::filesystem::path(d) / "icons")) return {"", ""};
  }
  std::string where;
  for (const auto& l : looked) where += l + ", ";
  return {"", "the tray icon has no picture: Vigilo's icons aren't installed (looked in " + where +
                  "and the icon theme's folders); install them with cmake --install or scripts/install-user-service"};
}

// The tray item, saying so when the desktop can't draw its icon.
class IconCheckedTray final : public Tray {
 public:
  IconCheckedTray(std::unique_ptr<Tray> inner, std::string missing)
      : inner_(std::move(inner)), missing_(std::move(missing)) {}
  void refresh() override { inner_->refresh(); }
  std::string problem() const override {
    std::string p = inner_->problem();
    return p.empty() ? missing_ : p;
  }

 private:
  std::unique_ptr<Tray> inner_;
  std::string missing_;
};

class LinuxDesktop final : public Desktop {
 public:
  std::unique_ptr<AlertOutlets> alerts() override { return makeDesktopAlerts(); }
  std::unique_ptr<Tray> tray(RunLoop& loop, std::function<TrayView()> view,
                             std::function<void(const TrayAction&)> act) override {
    TrayIcons icons = trayIcons();
    return std::make_unique<IconCheckedTray>(makeSessionTray(loop, std::move(view), std::move(act), icons.themePath),
                                             icons.missing);
  }
  std::unique_ptr<Hotkey> hotkey(RunLoop& loop, std::function<void()> pressed) override {
    return makePortalHotkey(loop, std::move(pressed));
  }
  std::optional<std::string> trayUnavailable() override {
    if (auto session = sessionTrayUnavailable()) return session;
    if (std::string missing = trayIcons().missing; !missing.empty()) return missing;
    return std::nullopt;
  }
  std::optional<std::string> hotkeyUnavailable() override { return portalHotkeyUnavailable(); }
};

}  // namespace

std::unique_ptr<Desktop> makeLinuxDesktop() { return std::make_unique<LinuxDesktop>(); }

}  // namespace vigilo
