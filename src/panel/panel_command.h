#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vigilo {

// `vigilo panel [--page P] [--snapshot FILE.png] [--control-fd N]`: loads
// the panel module (libvigilo-panel.so beside the executable, which links
// GTK) and runs the window in this process, talking to the app of
// `appFolder` over the request channel. Not in the help: the app starts it
// for `open` and `snapshot`. Gives the exit status.
int runPanel(const std::vector<std::string>& args, const std::string& appFolder);

// The panel module's path beside this executable.
std::string panelModulePath();

// For `vigilo doctor` and the app: nothing when this build can show the
// panel here, else one line saying why not.
std::optional<std::string> panelUnavailable();

// Whether a graphical session is reachable from this process's environment.
bool graphicalSession();

}  // namespace vigilo
