#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/command_runner.h"

namespace vigilo::test {

// Records every command line; `answer` decides what each one gives back
// (success with no output unless told otherwise).
class RecordingRunner final : public CommandRunner {
 public:
  CommandOutput run(const std::vector<std::string>& argv) override {
    calls.push_back(argv);
    return answer ? answer(argv) : CommandOutput{0, ""};
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& c : calls) out.push_back(joinArgs(c));
    return out;
  }
  std::vector<std::vector<std::string>> calls;
  std::function<CommandOutput(const std::vector<std::string>&)> answer;
};

}  // namespace vigilo::test
