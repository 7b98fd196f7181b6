#include "platform/macos/mac_desktop.h"

#include <string>
#include <vector>

namespace vigilo {

std::string appleScriptString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) >= 0x20) out += c;
    }
  }
  return out + "\"";
}

namespace {

constexpr const char* kNoInterface =
    "This build of Vigilo has no menu-bar interface of its own; use the vigilo command or the panel.";

class MacAlerts final : public AlertOutlets {
 public:
  explicit MacAlerts(CommandRunner& runner) : runner_(runner) {}
  bool note(const std::string& title, const std::string& body) override {
    const std::string script =
        "display notification " + appleScriptString(body) + " with title " + appleScriptString(title);
    return runner_.run({"/usr/bin/osascript", "-e", script}).ok();
  }
  // Only the system's own sounds, by a plain name.
  bool play(const std::string& name) override {
    if (name.empty() || name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 ") !=
                            std::string::npos) {
      return false;
    }
    return runner_.run({"/usr/bin/afplay", "/System/Library/Sounds/" + name + ".aiff"}).ok();
  }
  std::vector<std::string> missing() override { return {}; }

 private:
  CommandRunner& runner_;
};

class NoTray final : public Tray {
 public:
  void refresh() override {}
  std::string problem() const override { return kNoInterface; }
};

class NoHotkey final : public Hotkey {
 public:
  std::optional<std::string> problem() const override {
    return std::string("The ⌃⌥⌘A hotkey belongs to the Mac app's interface, which this build doesn't have.");
  }
};

class MacDesktop final : public Desktop {
 public:
  explicit MacDesktop(CommandRunner& runner) : runner_(runner) {}
  std::unique_ptr<AlertOutlets> alerts() override { return std::make_unique<MacAlerts>(runner_); }
  std::unique_ptr<Tray> tray(RunLoop&, std::function<TrayView()>, std::function<void(const TrayAction&)>) override {
    return std::make_unique<NoTray>();
  }
  std::unique_ptr<Hotkey> hotkey(RunLoop&, std::function<void()>) override { return std::make_unique<NoHotkey>(); }
  std::optional<std::string> trayUnavailable() override { return std::string(kNoInterface); }
  std::optional<std::string> hotkeyUnavailable() override { return NoHotkey().problem(); }

 private:
  CommandRunner& runner_;
};

}  // namespace

std::unique_ptr<Desktop> makeMacDesktop(CommandRunner& runner) { return std::make_unique<MacDesktop>(runner); }

}  // namespace vigilo
