#include "platform/linux/desktop_session.h"

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>

#include "platform/linux/session_bus.h"

namespace vigilo {
namespace {

// A session that doesn't answer within this is not worth waiting for at
// start: the app runs without it and says what is missing.
constexpr std::uint64_t kSessionCallTimeoutMicros = 500'000;

constexpr const char* kWanted[] = {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY"};

bool isSocket(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

struct ErrorFree {
  sd_bus_error e = SD_BUS_ERROR_NULL;
  ~ErrorFree() { sd_bus_error_free(&e); }
};

// A property of type `signature` read through org.freedesktop.DBus.Properties;
// the reply positioned inside the variant, or null.
Message getProperty(sd_bus* bus, const char* service, const char* path, const char* interface, const char* name,
                    const char* signature) {
  ErrorFree error;
  sd_bus_message* raw = nullptr;
  if (sd_bus_call_method(bus, service, path, "org.freedesktop.DBus.Properties", "Get", &error.e, &raw, "ss",
                         interface, name) < 0) {
    return nullptr;
  }
  Message reply(raw);
  if (sd_bus_message_enter_container(raw, 'v', signature) < 0) return nullptr;
  return reply;
}

// What the desktop exported to the user manager ("systemctl --user
// import-environment", or dbus-update-activation-environment --systemd,
// which GNOME, KDE and most sessions run at login).
std::map<std::string, std::string> managerEnvironment(const std::string& busAddress) {
  std::map<std::string, std::string> found;
  Bus bus = connectSessionBus(busAddress, kSessionCallTimeoutMicros);
  if (!bus) return found;
  Message reply = getProperty(bus.get(), "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                              "org.freedesktop.systemd1.Manager", "Environment", "as");
  if (!reply || sd_bus_message_enter_container(reply.get(), 'a', "s") < 0) return found;
  const char* entry = nullptr;
  while (sd_bus_message_read(reply.get(), "s", &entry) > 0 && entry != nullptr) {
    const std::string text = entry;
    const auto eq = text.find('=');
    if (eq != std::string::npos && eq > 0) found[text.substr(0, eq)] = text.substr(eq + 1);
  }
  return found;
}

Bus connectSystemBus(const std::string& address) {
  if (!address.empty()) return connectSessionBus(address, kSessionCallTimeoutMicros);
  sd_bus* raw = nullptr;
  if (sd_bus_open_system(&raw) < 0) return nullptr;
  Bus bus(raw);
  if (sd_bus_set_method_call_timeout(raw, kSessionCallTimeoutMicros) < 0) return nullptr;
  return bus;
}

// The graphical login session logind names as this user's display: its X
// display, or the compositor's usual socket for a Wayland session.
std::map<std::string, std::string> loginSessionDisplay(const DesktopSessionPlaces& places) {
  std::map<std::string, std::string> found;
  Bus bus = connectSystemBus(places.systemBus);
  if (!bus) return found;
  ErrorFree error;
  sd_bus_message* raw = nullptr;
  if (sd_bus_call_method(bus.get(), "org.freedesktop.login1", "/org/freedesktop/login1",
                         "org.freedesktop.login1.Manager", "GetUser", &error.e, &raw, "u",
                         static_cast<std::uint32_t>(::getuid())) < 0) {
    return found;
  }
  Message user(raw);
  const char* userPath = nullptr;
  if (sd_bus_message_read(raw, "o", &userPath) < 0 || userPath == nullptr) return found;
  Message display = getProperty(bus.get(), "org.freedesktop.login1", userPath, "org.freedesktop.login1.User",
                                "Display", "(so)");
  const char* id = nullptr;
  const char* sessionPath = nullptr;
  if (!display || sd_bus_message_read(display.get(), "(so)", &id, &sessionPath) < 0 || sessionPath == nullptr ||
      std::string(sessionPath) == "/") {
    return found;
  }
  auto text = [&](const char* name) {
    Message m = getProperty(bus.get(), "org.freedesktop.login1", sessionPath, "org.freedesktop.login1.Session", name,
                            "s");
    const char* value = nullptr;
    return m && sd_bus_message_read(m.get(), "s", &value) >= 0 && value != nullptr ? std::string(value)
                                                                                    : std::string();
  };
  if (const std::string x = text("Display"); !x.empty()) found["DISPLAY"] = x;
  if (text("Type") == "wayland" && !places.runtimeFolder.empty() && isSocket(places.runtimeFolder + "/wayland-0")) {
    found["WAYLAND_DISPLAY"] = "wayland-0";
  }
  return found;
}

}  // namespace

std::vector<EnvironmentEntry> desktopSessionGaps(const DesktopSessionPlaces& places,
                                                 const char* (*current)(const char* name)) {
  std::vector<EnvironmentEntry> gaps;
  auto has = [&](const char* name) { return current(name) != nullptr; };
  auto value = [&](const char* name) { return has(name) ? std::string(current(name)) : std::string(); };

  std::string runtime = value("XDG_RUNTIME_DIR");
  if (!has("XDG_RUNTIME_DIR") && !places.runtimeFolder.empty()) {
    runtime = places.runtimeFolder;
    gaps.emplace_back("XDG_RUNTIME_DIR", runtime);
  }
  std::string bus = value("DBUS_SESSION_BUS_ADDRESS");
  if (!has("DBUS_SESSION_BUS_ADDRESS") && !runtime.empty() && isSocket(runtime + "/bus")) {
    bus = "unix:path=" + runtime + "/bus";
    gaps.emplace_back("DBUS_SESSION_BUS_ADDRESS", bus);
  }

  bool missing = false;
  for (const char* name : kWanted) missing = missing || !has(name);
  if (!missing) return gaps;
  std::map<std::string, std::string> found = bus.empty() ? std::map<std::string, std::string>{} : managerEnvironment(bus);
  if (found.count("DISPLAY") == 0 && found.count("WAYLAND_DISPLAY") == 0) {
    for (auto& [name, v] : loginSessionDisplay({runtime, places.systemBus})) found.emplace(name, v);
  }
  for (const char* name : kWanted) {
    if (auto it = found.find(name); !has(name) && it != found.end() && !it->second.empty()) {
      gaps.emplace_back(name, it->second);
    }
  }
  return gaps;
}

}  // namespace vigilo
