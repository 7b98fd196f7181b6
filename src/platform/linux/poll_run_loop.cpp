#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/result.h"
#include "platform/linux/unique_fd.h"
#include "platform/run_loop.h"

namespace vigilo {
namespace {

// The longest single wait in poll(2). poll's timeout runs on CLOCK_MONOTONIC,
// which stands still while the machine is suspended; if the injected clock
// counts suspended time, a wait cut short now and then notices the jump
// after a resume instead of sleeping out the whole old timeout.
constexpr double kMaxWaitSeconds = 10.0;

// Splits a watched path into the folder inotify watches and the name whose
// events count.
std::pair<std::string, std::string> folderAndName(const std::string& path) {
  std::filesystem::path p(path);
  if (!p.has_filename()) p = p.parent_path();  // "dir/file/"
  std::string folder = p.parent_path().string();
  if (folder.empty()) folder = ".";
  return {folder, p.filename().string()};
}

class PollRunLoop final : public RunLoop {
 public:
  explicit PollRunLoop(const Clock& clock);

  TimerId every(double interval, double tolerance, std::function<void()> fn) override;
  TimerId after(double delay, std::function<void()> fn) override;
  void cancel(TimerId id) override;
  void post(std::function<void()> fn) override;
  WatchId watchFile(const std::string& path, std::function<void()> fn) override;
  WatchId watchReadable(int fd, std::function<void()> fn) override;
  void unwatch(WatchId id) override;
  void onSignal(int signo, std::function<void()> fn) override;
  void run() override;
  void stop() override;

 private:
  // Callbacks are shared so that one stays alive while it runs even if it
  // cancels or replaces itself.
  using Callback = std::shared_ptr<const std::function<void()>>;
  struct Timer {
    double due;
    double interval;   // 0 for one-shot
    double tolerance;  // how late it may fire to share a wake-up
    Callback fn;
  };
  struct FileWatch {
    int wd;  // -1 when the folder is missing or its watch is gone
    std::string name;
    Callback fn;
  };
  struct FdWatch {
    int fd;
    Callback fn;
  };

  TimerId addTimer(double delay, double interval, double tolerance, std::function<void()> fn);
  double wakeAt() const;
  void wake();
  int pollTimeoutMs() const;
  void runPosted();
  void deliverSignals();
  void deliverFileEvents();
  void deliverReadable(WatchId id, short revents);
  void fireDueTimers();

  const Clock& clock_;
  UniqueFd wakeFd_;     // eventfd: post() and stop() from other threads
  UniqueFd inotifyFd_;  // empty when the user's inotify instances ran out
  UniqueFd signalFd_;
  sigset_t signalMask_;

  std::uint64_t nextId_ = 1;  // shared by timers and watches
  std::map<TimerId, Timer> timers_;
  std::set<std::pair<double, TimerId>> deadlines_;
  std::map<WatchId, FileWatch> fileWatches_;
  std::map<WatchId, FdWatch> fdWatches_;
  std::map<int, Callback> signals_;

  std::mutex postedMutex_;
  std::vector<std::function<void()>> posted_;
  std::atomic<bool> stopRequested_{false};
};

PollRunLoop::PollRunLoop(const Clock& clock) : clock_(clock) {
  wakeFd_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wakeFd_) throw std::runtime_error(errnoMessage("The run loop cannot create its wake-up eventfd", errno));

  // An empty mask for now; onSignal widens it.
  sigemptyset(&signalMask_);
  signalFd_.reset(::signalfd(-1, &signalMask_, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signalFd_) throw std::runtime_error(errnoMessage("The run loop cannot create its signalfd", errno));

  // inotify instances are limited per user (fs.inotify.max_user_instances).
  // Without one, file watches never fire and callers fall back on their
  // timers, as they do for a folder that does not exist.
  inotifyFd_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
}

TimerId PollRunLoop::addTimer(double delay, double interval, double tolerance, std::function<void()> fn) {
  const TimerId id = nextId_++;
  const double due = clock_.monotonic() + delay;
  timers_.emplace(id, Timer{due, interval, tolerance, std::make_shared<const std::function<void()>>(std::move(fn))});
  deadlines_.emplace(due, id);
  return id;
}

// Each deadline of its own would cost a wake-up of poll: the app's tick and
// the platform's polls share one by firing within their tolerance.
TimerId PollRunLoop::every(double interval, double tolerance, std::function<void()> fn) {
  if (!(interval >= kMinTimerInterval)) interval = kMinTimerInterval;  // also catches NaN
  if (!(tolerance > 0)) tolerance = 0;
  return addTimer(interval, interval, std::min(tolerance, interval), std::move(fn));
}

TimerId PollRunLoop::after(double delay, std::function<void()> fn) {
  if (!(delay > 0)) delay = 0;
  return addTimer(delay, 0, 0, std::move(fn));
}

// The latest moment by which no timer is later than its tolerance allows;
// the wake-up comes when the last timer due by then is due, so every timer
// due by then fires in the same pass. A lone timer fires when due.
double PollRunLoop::wakeAt() const {
  double latest = std::numeric_limits<double>::infinity();
  for (const auto& [id, timer] : timers_) latest = std::min(latest, timer.due + timer.tolerance);
  double wake = deadlines_.begin()->first;
  for (const auto& [due, id] : deadlines_) {
    if (due > latest) break;
    wake = due;
  }
  return wake;
}

void PollRunLoop::cancel(TimerId id) {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  deadlines_.erase({it->second.due, id});
  timers_.erase(it);
}

void PollRunLoop::post(std::function<void()> fn) {
  {
    std::lock_guard<std::mutex> lock(postedMutex_);
    posted_.push_back(std::move(fn));
  }
  wake();
}

void PollRunLoop::stop() {
  stopRequested_ = true;
  wake();
}

void PollRunLoop::wake() {
  const std::uint64_t one = 1;
  // Fails only with EAGAIN when the counter is saturated, and then the fd is
  // readable already.
  const ssize_t written = ::write(wakeFd_.get(), &one, sizeof one);
  (void)written;
}

// inotify watches folders, not names: a watch on the file itself would follow
// the old inode when an editor saves by writing a new file and renaming it
// over, and cannot exist before the file does.
WatchId PollRunLoop::watchFile(const std::string& path, std::function<void()> fn) {
  auto [folder, name] = folderAndName(path);
  int wd = -1;
  if (inotifyFd_) {
    // Adding the same folder again returns the existing watch descriptor, so
    // watches of several files in one folder share it.
    // Not IN_ATTRIB: a change of times or permissions is no change of
    // content, and the heartbeat beside the watched files changes its times
    // every tick.
    constexpr std::uint32_t kMask = IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE |
                                    IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    wd = ::inotify_add_watch(inotifyFd_.get(), folder.c_str(), kMask);
  }
  const WatchId id = nextId_++;
  fileWatches_.emplace(id, FileWatch{wd, std::move(name), std::make_shared<const std::function<void()>>(std::move(fn))});
  return id;
}

WatchId PollRunLoop::watchReadable(int fd, std::function<void()> fn) {
  const WatchId id = nextId_++;
  fdWatches_.emplace(id, FdWatch{fd, std::make_shared<const std::function<void()>>(std::move(fn))});
  return id;
}

void PollRunLoop::unwatch(WatchId id) {
  if (fdWatches_.erase(id) > 0) return;
  auto it = fileWatches_.find(id);
  if (it == fileWatches_.end()) return;
  const int wd = it->second.wd;
  fileWatches_.erase(it);
  if (wd < 0) return;
  for (const auto& [otherId, watch] : fileWatches_) {
    if (watch.wd == wd) return;  // the folder is still watched for another file
  }
  ::inotify_rm_watch(inotifyFd_.get(), wd);
}

// A blocked signal stays pending until the signalfd reads it, so nothing runs
// in signal-handler context (signalfd(2)). Unblocking on destruction is left
// out on purpose: a signal arriving between close and unblock would take its
// default action.
void PollRunLoop::onSignal(int signo, std::function<void()> fn) {
  sigset_t one;
  sigemptyset(&one);
  if (signo == SIGKILL || signo == SIGSTOP || sigaddset(&one, signo) != 0) {
    throw std::invalid_argument("The run loop cannot catch signal " + std::to_string(signo) + ".");
  }
  sigaddset(&signalMask_, signo);
  const int err = ::pthread_sigmask(SIG_BLOCK, &one, nullptr);
  if (err != 0) throw std::runtime_error(errnoMessage("The run loop cannot block signal " + std::to_string(signo), err));
  if (::signalfd(signalFd_.get(), &signalMask_, 0) < 0) {
    throw std::runtime_error(errnoMessage("The run loop cannot listen for signal " + std::to_string(signo), errno));
  }
  signals_[signo] = std::make_shared<const std::function<void()>>(std::move(fn));
}

int PollRunLoop::pollTimeoutMs() const {
  if (deadlines_.empty()) return -1;
  const double wait = (wakeAt() - clock_.monotonic()) / clock_.rate();
  if (wait <= 0) return 0;
  if (wait >= kMaxWaitSeconds) return static_cast<int>(kMaxWaitSeconds * 1000);
  // Rounded up: waking a fraction early would only poll again with 0.
  return static_cast<int>(std::ceil(wait * 1000));
}

// A stop takes effect once the events of the current wait are delivered, so
// nothing already read from the kernel is lost; what is left (later timers,
// posted work) waits for the next run().
void PollRunLoop::run() {
  std::vector<pollfd> fds;
  std::vector<WatchId> fdIds;
  while (!stopRequested_.exchange(false)) {
    fds.clear();
    fdIds.clear();
    fds.push_back({wakeFd_.get(), POLLIN, 0});
    fds.push_back({signalFd_.get(), POLLIN, 0});
    fds.push_back({inotifyFd_.get(), POLLIN, 0});  // poll ignores -1
    for (const auto& [id, watch] : fdWatches_) {
      fds.push_back({watch.fd, POLLIN, 0});
      fdIds.push_back(id);
    }

    if (::poll(fds.data(), fds.size(), pollTimeoutMs()) < 0) {
      // EINTR: a signal the app handles the classic way; ENOMEM: transient.
      if (errno == EINTR || errno == EAGAIN || errno == ENOMEM) continue;
      throw std::runtime_error(errnoMessage("The run loop cannot wait for events", errno));
    }

    if (fds[0].revents != 0) runPosted();
    if (fds[1].revents != 0) deliverSignals();
    if (fds[2].revents != 0) deliverFileEvents();
    for (std::size_t i = 0; i < fdIds.size(); ++i) {
      if (fds[3 + i].revents != 0) deliverReadable(fdIds[i], fds[3 + i].revents);
    }
    fireDueTimers();
  }
}

void PollRunLoop::runPosted() {
  // Reset the counter before taking the queue: a post that lands after the
  // swap writes the eventfd again and wakes the next poll.
  std::uint64_t count = 0;
  const ssize_t got = ::read(wakeFd_.get(), &count, sizeof count);
  (void)got;
  std::vector<std::function<void()>> batch;
  {
    std::lock_guard<std::mutex> lock(postedMutex_);
    batch.swap(posted_);
  }
  for (auto& fn : batch) fn();
}

void PollRunLoop::deliverSignals() {
  std::vector<int> arrived;
  signalfd_siginfo info;
  for (;;) {
    const ssize_t got = ::read(signalFd_.get(), &info, sizeof info);
    if (got == static_cast<ssize_t>(sizeof info)) {
      arrived.push_back(static_cast<int>(info.ssi_signo));
    } else if (got < 0 && errno == EINTR) {
      continue;
    } else {
      break;  // EAGAIN: all read
    }
  }
  for (int signo : arrived) {
    auto it = signals_.find(signo);
    if (it == signals_.end()) continue;
    Callback fn = it->second;
    (*fn)();
  }
}

void PollRunLoop::deliverFileEvents() {
  // One call per watch however many events a save produced (an in-place
  // write alone gives IN_MODIFY and IN_CLOSE_WRITE).
  std::set<WatchId> changed;
  alignas(inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t got = ::read(inotifyFd_.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // EAGAIN: all read
    for (ssize_t offset = 0; offset < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);

      if (event->mask & IN_Q_OVERFLOW) {
        // Events were dropped: any file may have changed.
        for (const auto& [id, watch] : fileWatches_) changed.insert(id);
        continue;
      }
      // The folder itself went away: its files are gone with it.
      const bool wholeFolder = (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0;
      const std::string_view name = event->len > 0 ? std::string_view(event->name) : std::string_view();
      for (auto& [id, watch] : fileWatches_) {
        if (watch.wd != event->wd) continue;
        if (wholeFolder || (!name.empty() && name == watch.name)) changed.insert(id);
        // The kernel dropped the watch (folder deleted, or unwatched): its
        // descriptor must not be removed again, and may be reused.
        if (event->mask & IN_IGNORED) watch.wd = -1;
      }
    }
  }
  for (WatchId id : changed) {
    auto it = fileWatches_.find(id);
    if (it == fileWatches_.end()) continue;  // unwatched by an earlier callback
    Callback fn = it->second.fn;
    (*fn)();
  }
}

void PollRunLoop::deliverReadable(WatchId id, short revents) {
  auto it = fdWatches_.find(id);
  if (it == fdWatches_.end()) return;  // unwatched by an earlier callback
  if (revents & POLLNVAL) {
    // The owner closed the fd without unwatching it; polling it again would
    // return at once forever.
    fdWatches_.erase(it);
    return;
  }
  Callback fn = it->second.fn;
  (*fn)();
}

void PollRunLoop::fireDueTimers() {
  // One reading of the clock for the whole pass. Timers created during the
  // pass wait for the next one, so a callback that schedules `after(0)` again
  // and again cannot keep the loop from polling.
  const double now = clock_.monotonic();
  // Woken early by something else: the due timers may still wait for the
  // shared wake-up.
  if (deadlines_.empty() || now < wakeAt()) return;
  const TimerId firstNew = nextId_;
  auto it = deadlines_.begin();
  while (it != deadlines_.end() && it->first <= now) {
    const TimerId id = it->second;
    if (id >= firstNew) {
      ++it;
      continue;
    }
    deadlines_.erase(it);
    auto timer = timers_.find(id);
    Callback fn = timer->second.fn;
    if (timer->second.interval > 0) {
      // Re-armed before the call, so the callback may cancel it.
      timer->second.due = nextBeat(timer->second.due, timer->second.interval, now);
      deadlines_.emplace(timer->second.due, id);
    } else {
      timers_.erase(timer);
    }
    (*fn)();
    it = deadlines_.begin();  // the callback may have changed any timer
  }
}

}  // namespace

std::unique_ptr<RunLoop> makePollRunLoop(const Clock& clock) {
  return std::make_unique<PollRunLoop>(clock);
}

}  // namespace vigilo
