#include "platform/linux/linux_desktop.h"

#include <filesystem>

#include "platform/linux/desktop_alerts.h"
#include "platform/own_program.h"

namespace vigilo {
namespace {

// The icons beside the executable in a checkout (build/vigilo and
// data/icons); installed icons are found by the desktop's theme.
std::string trayIconFolder() {
  const auto exe = ownExecutable();
  if (!exe) return {};
  std::error_code ec;
  const auto icons = (std::filesystem::path(*exe).parent_path().parent_path() / "data" / "icons").lexically_normal();
  return std::filesystem::is_directory(icons, ec) ? icons.string() : std::string();
}

class LinuxDesktop final : public Desktop {
 public:
  std::unique_ptr<AlertOutlets> alerts() override { return makeDesktopAlerts(); }
  std::unique_ptr<Tray> tray(RunLoop& loop, std::function<TrayView()> view,
                             std::function<void(const TrayAction&)> act) override {
    return makeSessionTray(loop, std::move(view), std::move(act), trayIconFolder());
  }
  std::unique_ptr<Hotkey> hotkey(RunLoop& loop, std::function<void()> pressed) override {
    return makePortalHotkey(loop, std::move(pressed));
  }
  std::optional<std::string> trayUnavailable() override { return sessionTrayUnavailable(); }
  std::optional<std::string> hotkeyUnavailable() override { return portalHotkeyUnavailable(); }
};

}  // namespace

std::unique_ptr<Desktop> makeLinuxDesktop() { return std::make_unique<LinuxDesktop>(); }

}  // namespace vigilo
