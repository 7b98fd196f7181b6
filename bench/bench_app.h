#pragma once

// The benchmarks that time a running app start it here: `vigilo app` on a
// simulated laptop in a temporary VIGILO_HOME, its output thrown away. A
// bench never starts an app on the real machine.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

#include "commands/channel.h"

extern char** environ;

namespace vigilo::bench {

class BenchApp {
 public:
  // Starts the app and waits up to 5 s for it to hold its folder; `pid()`
  // is 0 when it couldn't be started.
  BenchApp() {
    char tmpl[] = "/tmp/vigilo-bench-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) return;
    folder_ = tmpl;
    home_ = folder_ + "/home";
    std::filesystem::create_directories(home_);
    ::setenv("VIGILO_HOME", home_.c_str(), 1);
    ::setenv(kNoAutostartVariable, "1", 1);
    std::vector<std::string> argv{VIGILO_BINARY, "app", "--simulate", folder_ + "/laptop.json"};
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
    if (::posix_spawn(&pid_, args[0], &quiet, nullptr, args.data(), environ) != 0) pid_ = 0;
    posix_spawn_file_actions_destroy(&quiet);
    for (int i = 0; pid_ > 0 && i < 500 && !runningApp(home_); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~BenchApp() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
    if (!folder_.empty()) std::filesystem::remove_all(folder_);
  }
  BenchApp(const BenchApp&) = delete;
  BenchApp& operator=(const BenchApp&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& home() const { return home_; }

 private:
  std::string folder_, home_;
  pid_t pid_ = 0;
};

}  // namespace vigilo::bench
