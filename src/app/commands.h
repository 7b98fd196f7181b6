#pragma once

#include <string>
#include <vector>

namespace vigilo {

// The whole executable: picks the subcommand from one table and runs it.
int vigiloMain(int argc, char** argv);

// `vigilo app [--simulate FILE] [--preview]`: the engine on the main run
// loop until SIGINT or SIGTERM.
int runApp(const std::vector<std::string>& args);

}  // namespace vigilo
