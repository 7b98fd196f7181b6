#pragma once

#include <string>
#include <vector>

namespace vigilo {

// The whole executable: `vigilo app ...` runs the app, everything else is
// the command-line tool.
int vigiloMain(int argc, char** argv);

// `vigilo app [--simulate FILE] [--preview]`: the engine on the main run
// loop until SIGINT, SIGTERM or SIGHUP, or a `quit` request.
int runApp(const std::vector<std::string>& args);

}  // namespace vigilo
