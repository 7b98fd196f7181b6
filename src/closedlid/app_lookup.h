#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace vigilo {

// The app bundles of the running processes (one per bundle), read through
// the platform and else from the bundle's Info.plist on disk.
std::vector<AppBundle> runningApps(Platform& platform);

// Finds an app among the running and the installed ones by its name, bundle
// id or ".app" path (names and ids without regard to case). Nothing when no
// app matches.
std::optional<AppBundle> findApp(Platform& platform, const std::string& query);

}  // namespace vigilo
