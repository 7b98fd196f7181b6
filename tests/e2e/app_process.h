#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>
#include <sys/types.h>

namespace vigilo::test {

// The real `vigilo` binary run as a child process, its output going to a file.
class AppProcess {
 public:
  // Starts `vigilo args...` with VIGILO_HOME set to `home`, plus `env`
  // ("NAME=value" entries); `binary` is the build's unless an installed
  // copy is tested.
  AppProcess(const std::vector<std::string>& args, const std::string& home, const std::string& outputFile,
             const std::vector<std::string>& env = {}, const std::string& binary = VIGILO_BINARY);
  ~AppProcess();
  AppProcess(const AppProcess&) = delete;
  AppProcess& operator=(const AppProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int signo);
  // Waits for the exit; the exit status, or -1 when it did not end in time.
  // A death by signal gives 128 + the signal number. Once ended, it stays
  // the answer.
  int wait(std::chrono::milliseconds limit);
  std::string output() const;

 private:
  pid_t pid_ = -1;
  std::string outputFile_;
  bool reaped_ = false;
  int exit_ = -1;
};

// Runs the real `vigilo args...` to its end (at most 30 s) and gives its exit
// status with what it printed (standard output, then standard error).
struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};
ToolRun runTool(const std::vector<std::string>& args, const std::string& home, const std::vector<std::string>& env = {},
                const std::string& binary = VIGILO_BINARY);
// The same with `input` on its standard input (written from another thread,
// so a tool that stops reading early never blocks the test).
ToolRun runToolWithInput(const std::vector<std::string>& args, const std::string& home, const std::string& input,
                         const std::vector<std::string>& env = {});

// Installs the build (as it is: nothing is rebuilt) into the staging root
// `root` for the prefix /usr, as a package would (DESTDIR); empty on
// success, else cmake's output.
std::string installBuild(const std::string& root);

// Runs `command` through /bin/sh; its exit status and what it printed
// (standard output and error together).
struct ShellRun {
  int status = -1;
  std::string out;
};
ShellRun shell(const std::string& command);

// Polls `done` every 20 ms until it holds or `limit` passes.
bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit);

}  // namespace vigilo::test
