#include "platform/spawn.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/result.h"

extern char** environ;

namespace vigilo {
namespace {

// The spawn's attribute and file-action objects, destroyed on every path.
struct SpawnParts {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  std::vector<int> copies;
  SpawnParts() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
  }
  ~SpawnParts() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    for (int fd : copies) ::close(fd);
  }
  SpawnParts(const SpawnParts&) = delete;
  SpawnParts& operator=(const SpawnParts&) = delete;
};

ExitStatus decode(int status) {
  if (WIFEXITED(status)) return {WEXITSTATUS(status), false};
  if (WIFSIGNALED(status)) return {128 + WTERMSIG(status), true};
  return {};
}

// The session and signal choices of `o` in `attr`.
void setAttributes(posix_spawnattr_t& attr, const SpawnOptions& o) {
  short flags = 0;
  if (o.clearSignalMask) {
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    flags |= POSIX_SPAWN_SETSIGMASK;
  }
  if (!o.defaultSignals.empty()) {
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int s : o.defaultSignals) sigaddset(&defaults, s);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    flags |= POSIX_SPAWN_SETSIGDEF;
  }
  if (o.newSession) flags |= POSIX_SPAWN_SETSID;
  posix_spawnattr_setflags(&attr, flags);
}

}  // namespace

Spawned spawnProcess(const SpawnOptions& o) {
  Spawned result;
  const std::string program = o.argv.empty() ? std::string("a program") : o.argv[0];
  auto fail = [&](int code, std::string why = {}) {
    result.code = code;
    result.error = why.empty() ? errnoMessage("couldn't start " + program, code) : "couldn't start " + program + ": " + why;
    return result;
  };
  if (o.argv.empty()) return fail(EINVAL, "no program was named");
  if (o.in.to == SpawnStream::To::Output || o.out.to == SpawnStream::To::Output) {
    return fail(EINVAL, "only the standard error can follow the standard output");
  }

  SpawnParts parts;
  // Every descriptor of ours goes over as a close-on-exec copy numbered above
  // all the child's numbers: one dup2 then never overwrites the source of the
  // next, and a descriptor handed over under its own number still loses
  // close-on-exec (a dup2 onto itself would keep it).
  int floor = 3;
  for (const auto& [ours, theirs] : o.handOver) floor = std::max(floor, theirs + 1);
  auto copyOf = [&](int fd) {
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, floor);
    if (copy >= 0) parts.copies.push_back(copy);
    return copy;
  };

  const SpawnStream* streams[] = {&o.in, &o.out, &o.err};
  for (int n = 0; n < 3; ++n) {
    const SpawnStream& s = *streams[n];
    int rc = 0;
    switch (s.to) {
      case SpawnStream::To::Inherit:
        break;
      case SpawnStream::To::Null:
        rc = posix_spawn_file_actions_addopen(&parts.actions, n, "/dev/null", n == 0 ? O_RDONLY : O_WRONLY, 0);
        break;
      case SpawnStream::To::Fd: {
        const int copy = copyOf(s.fd);
        if (copy < 0) return fail(errno);
        rc = posix_spawn_file_actions_adddup2(&parts.actions, copy, n);
        break;
      }
      case SpawnStream::To::File: {
        const int flags = n == 0 ? O_RDONLY | O_NOFOLLOW : O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW;
        rc = posix_spawn_file_actions_addopen(&parts.actions, n, s.path.c_str(), flags, 0600);
        break;
      }
      case SpawnStream::To::Output:
        rc = posix_spawn_file_actions_adddup2(&parts.actions, STDOUT_FILENO, n);
        break;
    }
    if (rc != 0) return fail(rc);
  }
  for (const auto& [ours, theirs] : o.handOver) {
    const int copy = copyOf(ours);
    if (copy < 0) return fail(errno);
    if (int rc = posix_spawn_file_actions_adddup2(&parts.actions, copy, theirs); rc != 0) return fail(rc);
  }

  setAttributes(parts.attr, o);

  std::vector<char*> argv;
  for (const auto& a : o.argv) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  if (o.environment) {
    for (const auto& e : *o.environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
  }
  pid_t pid = -1;
  const int rc = ::posix_spawn(&pid, argv[0], &parts.actions, &parts.attr, argv.data(),
                               o.environment ? envp.data() : environ);
  if (rc != 0) return fail(rc);
  result.pid = pid;
  return result;
}

ExitStatus waitForExit(pid_t pid) {
  int status = 0;
  for (;;) {
    if (::waitpid(pid, &status, 0) == pid) return decode(status);
    if (errno != EINTR) return {};
  }
}

std::optional<ExitStatus> waitForExit(pid_t pid, std::chrono::milliseconds within) {
  const auto deadline = std::chrono::steady_clock::now() + within;
  // Most tools end within milliseconds: look often at first, then every 20 ms.
  auto pause = std::chrono::milliseconds(1);
  int status = 0;
  for (;;) {
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) return decode(status);
    if (done < 0 && errno != EINTR) return ExitStatus{};
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::milliseconds(20));
  }
}

}  // namespace vigilo
