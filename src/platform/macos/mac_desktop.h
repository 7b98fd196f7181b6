#pragma once

#include <memory>

#include "platform/command_runner.h"
#include "platform/desktop.h"

namespace vigilo {

// The Mac's desktop as far as command lines reach: notifications through
// osascript's "display notification", the chime through afplay. The menu-bar
// item and the global hotkey belong to the Mac app's own interface, which
// this build doesn't have: they say so. `runner` must outlive the desktop.
std::unique_ptr<Desktop> makeMacDesktop(CommandRunner& runner);

// The AppleScript text literal for `text`: quoted, with backslashes and
// quotes escaped and line breaks kept as "\n", so no text can end the
// literal early.
std::string appleScriptString(const std::string& text);

}  // namespace vigilo
