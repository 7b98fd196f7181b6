#pragma once

#include <string>
#include <vector>

namespace vigilo {

// The whole executable: `vigilo app ...` runs the app, everything else is
// the command-line tool.
int vigiloMain(int argc, char** argv);

// "0.1.0 (commit 1a2b3c4)": the project's version and, when built from git,
// the commit. Defined in a file the build writes (build_version.cpp) and
// linked into the executable alone, so a new commit relinks only `vigilo`.
extern const char* const kBuildVersion;

// `vigilo app [--simulate FILE] [--preview]`: the engine on the main run
// loop until SIGINT, SIGTERM or SIGHUP, or a `quit` request.
int runApp(const std::vector<std::string>& args);

}  // namespace vigilo
