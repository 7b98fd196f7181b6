#include "platform/linux/desktop_alerts.h"

#include "platform/linux/session_bus.h"
#include "platform/spawn.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <vector>

namespace vigilo {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";


std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= dirs.size()) {
    std::size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    const std::string candidate = dirs.substr(start, end - start) + "/" + name;
    if (end > start && ::access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return {};
}

// The theme's event name for a chime: macOS's "Glass" is the theme's
// "complete"; other names are taken as event names.
std::string eventName(const std::string& sound) {
  if (sound.empty() || sound == "Glass") return "complete";
  std::string out;
  for (unsigned char c : sound) {
    if (std::isalnum(c) || c == '-') out.push_back(static_cast<char>(std::tolower(c)));
  }
  return out.empty() ? "complete" : out;
}


class DesktopAlerts final : public AlertOutlets {
 public:
  explicit DesktopAlerts(DesktopAlertOptions o) : o_(std::move(o)) {}

  bool note(const std::string& title, const std::string& body) override {
    Bus bus = connect();
    if (!bus) return false;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    // The installed icon's name, and the desktop entry that names the app in
    // the daemon's list and settings.
    const int r = sd_bus_call_method(bus.get(), kService, kPath, kService, "Notify", &error, nullptr, "susssasa{sv}i",
                                     "Vigilo", 0u, "vigilo", title.c_str(), body.c_str(), 0, 1, "desktop-entry", "s",
                                     "vigilo", -1);
    sd_bus_error_free(&error);
    return r >= 0;
  }

  bool play(const std::string& name) override {
    const std::string event = eventName(name);
    const std::string file = o_.soundsDir + "/" + event + ".oga";
    if (std::string p = findProgram("canberra-gtk-play"); !p.empty()) return run({p, "-i", event});
    if (::access(file.c_str(), R_OK) != 0) return false;
    for (const char* player : {"paplay", "pw-play"}) {
      if (std::string p = findProgram(player); !p.empty()) return run({p, file});
    }
    return false;
  }

  std::optional<std::string> notesUnavailable() override {
    Bus bus = connect();
    if (!bus) return "No desktop session bus, so alerts can't show as desktop notifications.";
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_call_method(bus.get(), kService, kPath, kService, "GetServerInformation", &error, &reply, "");
    sd_bus_error_free(&error);
    if (reply) sd_bus_message_unref(reply);
    if (r < 0) return "No notification daemon answers on the session bus, so alerts show only in Vigilo's output.";
    return std::nullopt;
  }

  std::vector<std::string> missing() override {
    std::vector<std::string> out;
    if (auto why = notesUnavailable()) out.push_back(*why);
    const bool theme = ::access((o_.soundsDir + "/complete.oga").c_str(), R_OK) == 0;
    const bool player =
        !findProgram("canberra-gtk-play").empty() || !findProgram("paplay").empty() || !findProgram("pw-play").empty();
    if (!theme || !player) {
      out.push_back(std::string("The chime can't play: ") +
                    (!theme ? "the freedesktop sound theme (sound-theme-freedesktop) isn't installed"
                            : "no sound player (canberra-gtk-play, paplay or pw-play) is installed") +
                    ".");
    }
    return out;
  }

 private:
  Bus connect() { return connectSessionBus(sessionBusAddress(o_.busAddress), 3'000'000); }

  // Runs a player to its end, silently; its output goes nowhere.
  static bool run(std::vector<std::string> argv) {
    SpawnOptions options;
    options.argv = std::move(argv);
    options.out = SpawnStream::null();
    options.err = SpawnStream::null();
    // The app blocks signals for its loop; the player starts with none blocked.
    options.clearSignalMask = true;
    const Spawned player = spawnProcess(options);
    return player && waitForExit(player.pid).ok();
  }

  DesktopAlertOptions o_;
};

}  // namespace

std::unique_ptr<AlertOutlets> makeDesktopAlerts(DesktopAlertOptions options) {
  return std::make_unique<DesktopAlerts>(std::move(options));
}

}  // namespace vigilo
