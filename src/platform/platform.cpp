#include "platform/platform.h"

#include <cstdlib>

namespace vigilo {

std::string appFolderFor(const Platform& platform) {
  const char* home = std::getenv("VIGILO_HOME");
  if (home != nullptr && *home != '\0') return home;
  return platform.defaultAppFolder();
}

}  // namespace vigilo
