#pragma once

#include <functional>
#include <string>
#include <vector>

#include "safety/setup.h"

namespace vigilo {

// `vigilo setup [--yes]` and `vigilo setup --remove`: installs or removes
// the command link, the watchdog and (on Linux, with the person's consent,
// as root through pkexec) the polkit rule, printing what was done. `ask`
// puts a yes-or-no question to the person; it is not called with `yes`.
// Gives the exit status.
int runSetupCommand(Setup& setup, bool remove, bool yes, const std::function<bool(const std::string&)>& ask);

// Asks on the terminal; "no" when standard input is no terminal.
bool askOnTerminal(const std::string& question);

}  // namespace vigilo
