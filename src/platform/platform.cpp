#include "platform/platform.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace vigilo {

std::string appFolderFor(const Platform& platform) {
  const char* home = std::getenv("VIGILO_HOME");
  if (home != nullptr && *home != '\0') return home;
  return platform.defaultAppFolder();
}

std::string xdgAppFolder() {
  const char* data = std::getenv("XDG_DATA_HOME");
  if (data != nullptr && data[0] == '/') return std::string(data) + "/vigilo";
  const char* home = std::getenv("HOME");
  std::string base = home != nullptr && *home != '\0' ? home : "";
  if (base.empty()) {
    const passwd* pw = ::getpwuid(::getuid());
    base = pw != nullptr && pw->pw_dir != nullptr ? pw->pw_dir : "/tmp";
  }
  return base + "/.local/share/vigilo";
}

const MachineWords& Platform::words() const {
  static const MachineWords mac;
  return mac;
}

WakeScheduler& Platform::wakeAlarm() {
  static NoWakeAlarm none("This machine can't wake itself at a set time.");
  return none;
}

}  // namespace vigilo
