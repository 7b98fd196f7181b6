#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/run_loop.h"

namespace vigilo {

// A run loop for tests: time moves only through `advance`, which fires every
// timer that falls due, in order, moving the ManualClock to each deadline.
// File events and readable fds are delivered only when a test says so.
class ManualRunLoop final : public RunLoop {
 public:
  explicit ManualRunLoop(ManualClock& clock) : clock_(clock) {}

  TimerId every(double interval, double tolerance, std::function<void()> fn) override;
  TimerId after(double delay, std::function<void()> fn) override;
  void cancel(TimerId id) override;
  void post(std::function<void()> fn) override;
  WatchId watchFile(const std::string& path, std::function<void()> fn) override;
  WatchId watchReadable(int fd, std::function<void()> fn) override;
  void unwatch(WatchId id) override;
  void onSignal(int signo, std::function<void()> fn) override;
  void run() override;
  void stop() override { stopped_ = true; }

  // Moves the clock forward by `seconds`, running posted work and every timer
  // due on the way. A repeating timer left more than an interval behind by a
  // direct move of the clock (a simulated sleep) fires once, not once per
  // missed beat, as in the real loop.
  void advance(double seconds);
  // Runs work posted so far.
  void drainPosted();
  // Delivers a file event to every watcher of `path`.
  void fileChanged(const std::string& path);
  // Calls the watchers of `fd`, as the real loop does when it is readable.
  void fdReadable(int fd);
  // Delivers signal `signo` as the real loop would.
  void raise(int signo);
  // Number of live timers (to check that cancelled ones are gone).
  std::size_t timerCount() const { return timers_.size(); }

 private:
  struct Timer {
    double due;
    double interval;  // 0 for one-shot
    std::function<void()> fn;
  };
  ManualClock& clock_;
  TimerId next_ = 1;
  std::map<TimerId, Timer> timers_;
  std::mutex postedMutex_;  // post() is safe from any thread
  std::vector<std::function<void()>> posted_;
  std::map<WatchId, std::pair<std::string, std::function<void()>>> fileWatches_;
  std::map<WatchId, std::pair<int, std::function<void()>>> fdWatches_;
  std::map<int, std::function<void()>> signals_;
  std::atomic<bool> stopped_{false};
};

}  // namespace vigilo
