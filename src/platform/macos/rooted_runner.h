#pragma once

#include <string>
#include <vector>

#include "platform/command_runner.h"

namespace vigilo {

// Runs each command line from under `root`, a folder that stands in for the
// Mac's "/": "/usr/bin/pmset -g" runs "<root>/usr/bin/pmset -g". A program
// with no stand-in there is never looked for elsewhere: the command fails
// with status 127, as one that can't be started. This is how the Linux build
// runs the macOS backend on the simulated Mac's tools
// (tests/platform/macos/fake-bin/), never touching the real machine.
class RootedRunner final : public CommandRunner {
 public:
  explicit RootedRunner(std::string root) : root_(std::move(root)) {}
  CommandOutput run(const std::vector<std::string>& argv) override;

 private:
  std::string root_;
  ProcessRunner real_;
};

}  // namespace vigilo
