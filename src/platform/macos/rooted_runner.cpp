#include "platform/macos/rooted_runner.h"

#include <unistd.h>

namespace vigilo {

CommandOutput RootedRunner::run(const std::vector<std::string>& argv) {
  if (argv.empty() || argv[0].empty() || argv[0][0] != '/' || argv[0].find("/../") != std::string::npos) {
    return CommandOutput{127, "Only full paths are run under the stand-in root.\n"};
  }
  std::vector<std::string> rooted = argv;
  rooted[0] = root_ + argv[0];
  if (::access(rooted[0].c_str(), X_OK) != 0) {
    return CommandOutput{127, argv[0] + " has no stand-in under " + root_ + ".\n"};
  }
  return real_.run(rooted);
}

}  // namespace vigilo
