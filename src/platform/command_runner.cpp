#include "platform/command_runner.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "platform/spawn.h"

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
  SpawnOptions options;
  options.argv = argv;
  options.in = SpawnStream::null();
  options.out = SpawnStream::of(pipeFds[1]);
  options.err = SpawnStream::of(pipeFds[1]);
  const Spawned child = spawnProcess(options);
  ::close(pipeFds[1]);
  if (!child) {
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
  result.status = waitForExit(child.pid).code;
  return result;
}

}  // namespace vigilo
