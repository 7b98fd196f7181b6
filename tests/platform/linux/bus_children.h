#pragma once

// Children and bus handles for the tests that run a private dbus-daemon and
// its mocks: started with a clean signal mask, ended with SIGTERM and, when
// stuck, SIGKILL.

#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "e2e/app_process.h"

namespace vigilo::test {

// Starts `argv` with standard output to `out` and standard error to `err`
// (-1 leaves either as it is) and `env` ("NAME=value") added.
inline pid_t spawn(const std::vector<std::string>& argv, int out, int err, const std::vector<std::string>& env = {}) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (out >= 0) ::dup2(out, 1);
    if (err >= 0) ::dup2(err, 2);
    for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  return pid;
}

inline void endChild(pid_t& pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGTERM);
  if (!waitFor([&] { return ::waitpid(pid, nullptr, WNOHANG) == pid; }, std::chrono::milliseconds(5000))) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  pid = -1;
}

struct BusUnref {
  void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

}  // namespace vigilo::test
