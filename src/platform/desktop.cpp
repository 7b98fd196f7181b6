#include "platform/desktop.h"

namespace vigilo {

std::string_view iconName(TrayIcon icon) {
  switch (icon) {
    case TrayIcon::NeedsSetup: return "vigilo-setup";
    case TrayIcon::Guarded: return "vigilo-guard";
    case TrayIcon::AwakeAlways: return "vigilo-awake-always";
    case TrayIcon::AwakeForWork: return "vigilo-awake-work";
    case TrayIcon::SleepsNormally: return "vigilo-sleeps";
  }
  return "vigilo-sleeps";
}

const TrayMenuItem* findMenuItem(const std::vector<TrayMenuItem>& menu, std::string_view key) {
  for (const TrayMenuItem& i : menu) {
    if (i.key == key) return &i;
    if (const TrayMenuItem* found = findMenuItem(i.children, key)) return found;
  }
  return nullptr;
}

}  // namespace vigilo
