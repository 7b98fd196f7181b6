#include "platform/manual_run_loop.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vigilo {
TimerId ManualRunLoop::every(double interval, double /*tolerance*/, std::function<void()> fn) {
  if (!(interval >= kMinTimerInterval)) interval = kMinTimerInterval;
  const TimerId id = next_++;
  timers_.emplace(id, Timer{clock_.monotonic() + interval, interval, std::move(fn)});
  return id;
}

TimerId ManualRunLoop::after(double delay, std::function<void()> fn) {
  if (!(delay > 0)) delay = 0;
  const TimerId id = next_++;
  timers_.emplace(id, Timer{clock_.monotonic() + delay, 0, std::move(fn)});
  return id;
}

void ManualRunLoop::cancel(TimerId id) { timers_.erase(id); }

void ManualRunLoop::post(std::function<void()> fn) {
  std::lock_guard<std::mutex> lock(postedMutex_);
  posted_.push_back(std::move(fn));
}

WatchId ManualRunLoop::watchFile(const std::string& path, std::function<void()> fn) {
  const WatchId id = next_++;
  fileWatches_.emplace(id, std::make_pair(path, std::move(fn)));
  return id;
}

WatchId ManualRunLoop::watchReadable(int fd, std::function<void()> fn) {
  const WatchId id = next_++;
  fdWatches_.emplace(id, std::make_pair(fd, std::move(fn)));
  return id;
}

void ManualRunLoop::unwatch(WatchId id) {
  fileWatches_.erase(id);
  fdWatches_.erase(id);
}

void ManualRunLoop::onSignal(int signo, std::function<void()> fn) { signals_[signo] = std::move(fn); }

void ManualRunLoop::run() {
  while (!stopped_.exchange(false)) {
    std::function<void()> fn;
    {
      std::lock_guard<std::mutex> lock(postedMutex_);
      if (posted_.empty()) return;
      fn = std::move(posted_.front());
      posted_.erase(posted_.begin());
    }
    fn();
  }
}

void ManualRunLoop::advance(double seconds) {
  const double end = clock_.monotonic() + std::max(0.0, seconds);
  drainPosted();
  for (;;) {
    // The earliest due timer; on a tie the older one (map order, strict <).
    auto next = timers_.end();
    for (auto it = timers_.begin(); it != timers_.end(); ++it) {
      if (it->second.due > end) continue;
      if (next == timers_.end() || it->second.due < next->second.due) next = it;
    }
    if (next == timers_.end()) break;

    Timer& timer = next->second;
    // A deadline already behind the clock (scheduled in the past, or the
    // clock was moved directly) fires now; time never goes back.
    if (timer.due > clock_.monotonic()) clock_.advance(timer.due - clock_.monotonic());
    std::function<void()> fn;
    if (timer.interval > 0) {
      // A copy: the callback may cancel its own timer.
      fn = timer.fn;
      timer.due = nextBeat(timer.due, timer.interval, clock_.monotonic());
    } else {
      fn = std::move(timer.fn);
      timers_.erase(next);
    }
    fn();
    drainPosted();
  }
  if (end > clock_.monotonic()) clock_.advance(end - clock_.monotonic());
}

void ManualRunLoop::drainPosted() {
  for (;;) {
    std::vector<std::function<void()>> batch;
    {
      std::lock_guard<std::mutex> lock(postedMutex_);
      batch.swap(posted_);
    }
    if (batch.empty()) return;
    for (auto& fn : batch) fn();
  }
}

void ManualRunLoop::fileChanged(const std::string& path) {
  std::vector<WatchId> ids;
  for (const auto& [id, watch] : fileWatches_) {
    if (watch.first == path) ids.push_back(id);
  }
  for (WatchId id : ids) {
    auto it = fileWatches_.find(id);
    if (it == fileWatches_.end()) continue;  // unwatched by an earlier callback
    auto fn = it->second.second;
    fn();
  }
}

void ManualRunLoop::fdReadable(int fd) {
  std::vector<WatchId> ids;
  for (const auto& [id, watch] : fdWatches_) {
    if (watch.first == fd) ids.push_back(id);
  }
  for (WatchId id : ids) {
    auto it = fdWatches_.find(id);
    if (it == fdWatches_.end()) continue;
    auto fn = it->second.second;
    fn();
  }
}

void ManualRunLoop::raise(int signo) {
  auto it = signals_.find(signo);
  if (it == signals_.end()) return;
  auto fn = it->second;
  fn();
}

}  // namespace vigilo
