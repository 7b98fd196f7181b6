#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace vigilo {

// Where one standard stream of a started process goes.
struct SpawnStream {
  enum class To {
    Inherit,  // wherever ours goes
    Null,     // /dev/null
    Fd,       // a descriptor of ours
    File,     // a file created afresh (or emptied), 0600, never through a symbolic link
    Output,   // wherever the child's standard output goes; for the standard error only
  };
  To to = To::Inherit;
  int fd = -1;
  std::string path;

  static SpawnStream inherit() { return {}; }
  static SpawnStream null() { return {To::Null, -1, {}}; }
  static SpawnStream of(int fd) { return {To::Fd, fd, {}}; }
  static SpawnStream file(std::string path) { return {To::File, -1, std::move(path)}; }
  static SpawnStream output() { return {To::Output, -1, {}}; }
};

// How to start one process: the exact argv (argv[0] is the program's path;
// nothing searches PATH) and what it inherits from us.
struct SpawnOptions {
  std::vector<std::string> argv;
  // "NAME=value" entries; ours when unset.
  std::optional<std::vector<std::string>> environment;
  SpawnStream in, out, err;
  // Descriptors of ours handed over as {ours, the child's number}; every
  // other descriptor that is close-on-exec stays behind.
  std::vector<std::pair<int, int>> handOver;
  // A session of its own, so that it outlives our terminal and our group.
  bool newSession = false;
  // The child starts with no signal blocked, whatever our threads block.
  bool clearSignalMask = false;
  // Signals the child starts with at their default action, whatever we
  // ignore or catch.
  std::vector<int> defaultSignals;
};

// A started process, or why it couldn't be started: `error` is a sentence
// ("couldn't start /usr/bin/paplay: No such file or directory") and `code`
// the errno behind it.
struct Spawned {
  pid_t pid = -1;
  int code = 0;
  std::string error;
  explicit operator bool() const { return pid > 0; }
};

// Starts a process (no shell, no PATH search). The caller owns
// the child: it must wait for it (waitForExit) or leave that to its loop.
// Any thread.
Spawned spawnProcess(const SpawnOptions& options);

// How a child ended.
struct ExitStatus {
  int code = -1;  // its exit code, 128 + the signal that ended it, or -1 when it can't be waited for
  bool signalled = false;
  bool ok() const { return code == 0; }
};

// Waits until the child ends and reaps it; an interrupted wait is resumed.
ExitStatus waitForExit(pid_t pid);
// The same, giving up after `within` with the child left running (nothing).
std::optional<ExitStatus> waitForExit(pid_t pid, std::chrono::milliseconds within);

}  // namespace vigilo
