#pragma once

#include <optional>
#include <string>

namespace vigilo {

// The absolute path of the running executable, as the system knows it (not
// argv[0], which the caller chooses); nothing when it can't be read. Hooks,
// the watchdog and the agents' entries name this file, and the app starts
// the panel and other tools from it.
std::optional<std::string> ownExecutable();

}  // namespace vigilo
