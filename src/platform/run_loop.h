#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/clock.h"

namespace vigilo {

using TimerId = std::uint64_t;
using WatchId = std::uint64_t;

// A repeating timer shorter than this would keep a loop busy (and `every(0,
// ...)` would make a manual loop fire forever); shorter requests are
// lengthened to it.
inline constexpr double kMinTimerInterval = 0.001;

// The next beat of a repeating timer that was due at `due` and fires at
// `now`. Beats stay on the grid of the first deadline so they do not drift;
// when the loop fell more than a whole interval behind (the machine slept,
// the process was stopped) the missed beats are skipped, not fired as a
// burst.
double nextBeat(double due, double interval, double now);

// The main thread's run loop. Everything Vigilo's engine does happens in a
// callback of this loop, one at a time, so engine state needs no locks.
// Every method but `post` and `stop` must be called on the loop's thread.
class RunLoop {
 public:
  RunLoop() = default;
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;
  virtual ~RunLoop() = default;

  // Calls `fn` every `interval` seconds; `tolerance` lets the loop fire late
  // by up to that much to save wake-ups. The first call comes one interval
  // from now.
  virtual TimerId every(double interval, double tolerance, std::function<void()> fn) = 0;
  // Calls `fn` once, `delay` seconds from now.
  virtual TimerId after(double delay, std::function<void()> fn) = 0;
  // Cancels a timer; unknown or finished ids are ignored.
  virtual void cancel(TimerId id) = 0;

  // Runs `fn` on the loop's thread soon. Safe from any thread.
  virtual void post(std::function<void()> fn) = 0;

  // Calls `fn` after the file at `path` is written, extended, renamed or
  // deleted (including an editor's save-by-rename). Watching a file that does
  // not exist yet watches for its creation. Spurious calls are possible: the
  // handler compares what it cares about.
  virtual WatchId watchFile(const std::string& path, std::function<void()> fn) = 0;
  // Calls `fn` whenever `fd` is readable; the caller keeps owning `fd`.
  virtual WatchId watchReadable(int fd, std::function<void()> fn) = 0;
  virtual void unwatch(WatchId id) = 0;

  // Calls `fn` on the loop's thread when signal `signo` arrives; the signal
  // handler itself does no work.
  virtual void onSignal(int signo, std::function<void()> fn) = 0;

  // Runs until `stop`. `stop` is safe from any thread.
  virtual void run() = 0;
  virtual void stop() = 0;
};

// The real loop for Linux and the simulated laptop: poll(2) over an eventfd for
// wake-ups, inotify and signalfd. Throws std::runtime_error when its eventfd or
// signalfd cannot be created; without inotify (the user's instances used up)
// file watches stay silent.
//
// `onSignal` blocks the signal in the calling thread and reads it from a
// signalfd. Call it on the main thread before any other thread starts: only
// threads started later inherit the blocked mask, and a thread that leaves
// the signal unblocked takes it with the default action. The signal stays
// blocked after the loop is gone, and children inherit the mask through
// fork and exec, so code that starts processes resets it in the child.
// SIGKILL, SIGSTOP and invalid numbers throw std::invalid_argument.
std::unique_ptr<RunLoop> makePollRunLoop(const Clock& clock);

}  // namespace vigilo
