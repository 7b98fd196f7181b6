#pragma once

#include <string>
#include <vector>

namespace vigilo {

// What one command left behind: its exit status (128 + the signal when a
// signal ended it, 127 when it could not be started) and its standard output
// and error, interleaved as written.
struct CommandOutput {
  int status = -1;
  std::string output;
  bool ok() const { return status == 0; }
  // The output without its trailing line breaks and blanks, for messages.
  std::string said() const {
    std::string out = output;
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' ')) out.pop_back();
    return out;
  }
};

// Runs an exact command line, argv[0] being the program's full path. The one
// place the setup and the watchdog start other programs, so that tests check
// the exact argv they would run. Synchronous; the standard input is empty.
class CommandRunner {
 public:
  CommandRunner() = default;
  CommandRunner(const CommandRunner&) = delete;
  CommandRunner& operator=(const CommandRunner&) = delete;
  virtual ~CommandRunner() = default;
  virtual CommandOutput run(const std::vector<std::string>& argv) = 0;
};

// Starts real processes (fork and exec, no shell), waits for them and reads
// their output (at most 1 MiB is kept).
class ProcessRunner final : public CommandRunner {
 public:
  CommandOutput run(const std::vector<std::string>& argv) override;
};

// The argv joined by spaces, for logs ("Vigilo: launchctl bootstrap ... failed").
std::string joinArgs(const std::vector<std::string>& argv);

}  // namespace vigilo
