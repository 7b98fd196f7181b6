#include "platform/command_runner.h"

#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace vigilo {

std::string joinArgs(const std::vector<std::string>& argv) {
  std::string out;
  for (const auto& a : argv) {
    if (!out.empty()) out += ' ';
    out += a;
  }
  return out;
}

CommandOutput ProcessRunner::run(const std::vector<std::string>& argv) {
  CommandOutput result;
  if (argv.empty()) return result;
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    result.output = "couldn't make a pipe";
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int err = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  if (err != 0) {
    ::close(pipeFds[0]);
    result.status = 127;
    result.output = "couldn't start " + argv[0];
    return result;
  }
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(pipeFds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (result.output.size() < (1u << 20)) result.output.append(buf, static_cast<std::size_t>(n));
  }
  ::close(pipeFds[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.status = 128 + WTERMSIG(status);
  }
  return result;
}

}  // namespace vigilo
