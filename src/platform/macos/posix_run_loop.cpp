#include "platform/macos/posix_run_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vigilo {
namespace {

// poll's timeout stands still while the Mac sleeps; waits are cut short so
// that a clock that counts sleep is noticed soon after a wake.
constexpr double kMaxWaitSeconds = 10.0;

// Where each caught signal's handler writes: one pipe per signal, that of
// the loop that asked for it last, kept as the descriptor plus one so that
// the zero of static storage means none. Atomic because a handler may run
// at any moment.
std::atomic<int> gSignalPipe[NSIG];

void onSignalArrived(int signo) {
  const int saved = errno;
  if (signo > 0 && signo < NSIG) {
    const int fd = gSignalPipe[signo].load() - 1;
    const unsigned char byte = static_cast<unsigned char>(signo);
    if (fd >= 0) {
      const ssize_t n = ::write(fd, &byte, 1);
      (void)n;
    }
  }
  errno = saved;
}

bool makePipe(int fds[2]) {
  if (::pipe(fds) != 0) return false;
  for (int i = 0; i < 2; ++i) {
    ::fcntl(fds[i], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[i], F_SETFL, ::fcntl(fds[i], F_GETFL) | O_NONBLOCK);
  }
  return true;
}

void drain(int fd, std::vector<unsigned char>* into = nullptr) {
  unsigned char buffer[256];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;
    if (into != nullptr) into->insert(into->end(), buffer, buffer + got);
  }
}

// What a file watch compares: a file that appears, goes, or is written or
// replaced changes at least one of these.
struct Stamp {
  bool exists = false;
  std::int64_t seconds = 0, nanos = 0, size = 0;
  std::uint64_t inode = 0;
  bool operator==(const Stamp&) const = default;
};

Stamp stampOf(const std::string& path) {
  struct stat st {};
  Stamp s;
  if (::stat(path.c_str(), &st) != 0) return s;
  s.exists = true;
#ifdef __APPLE__
  s.seconds = st.st_mtimespec.tv_sec;
  s.nanos = st.st_mtimespec.tv_nsec;
#else
  s.seconds = st.st_mtim.tv_sec;
  s.nanos = st.st_mtim.tv_nsec;
#endif
  s.size = st.st_size;
  s.inode = st.st_ino;
  return s;
}

class PosixRunLoop final : public RunLoop {
 public:
  PosixRunLoop(const Clock& clock, double fileCheck) : clock_(clock), fileCheck_(fileCheck) {
    if (!makePipe(wake_) || !makePipe(signal_)) {
      throw std::runtime_error(std::string("The run loop can't create its pipes: ") + std::strerror(errno));
    }
  }
  ~PosixRunLoop() override {
    for (const auto& [signo, fn] : signals_) {
      int mine = signal_[1] + 1;
      gSignalPipe[signo].compare_exchange_strong(mine, 0);
    }
    for (int fd : {wake_[0], wake_[1], signal_[0], signal_[1]}) ::close(fd);
  }

  TimerId every(double interval, double tolerance, std::function<void()> fn) override {
    if (!(interval >= kMinTimerInterval)) interval = kMinTimerInterval;
    if (!(tolerance > 0)) tolerance = 0;
    return addTimer(interval, interval, std::min(tolerance, interval), std::move(fn));
  }
  TimerId after(double delay, std::function<void()> fn) override {
    if (!(delay > 0)) delay = 0;
    return addTimer(delay, 0, 0, std::move(fn));
  }
  void cancel(TimerId id) override {
    auto it = timers_.find(id);
    if (it == timers_.end()) return;
    deadlines_.erase({it->second.due, id});
    timers_.erase(it);
  }
  void post(std::function<void()> fn) override {
    {
      std::lock_guard<std::mutex> lock(postedMutex_);
      posted_.push_back(std::move(fn));
    }
    wake();
  }
  WatchId watchFile(const std::string& path, std::function<void()> fn) override {
    const WatchId id = nextId_++;
    files_.emplace(id, FileWatch{path, stampOf(path), share(std::move(fn))});
    return id;
  }
  WatchId watchReadable(int fd, std::function<void()> fn) override {
    const WatchId id = nextId_++;
    fds_.emplace(id, FdWatch{fd, share(std::move(fn))});
    return id;
  }
  void unwatch(WatchId id) override {
    if (fds_.erase(id) == 0) files_.erase(id);
  }
  void onSignal(int signo, std::function<void()> fn) override {
    if (signo <= 0 || signo >= NSIG || signo == SIGKILL || signo == SIGSTOP) {
      throw std::invalid_argument("The run loop cannot catch signal " + std::to_string(signo) + ".");
    }
    signals_[signo] = share(std::move(fn));
    gSignalPipe[signo].store(signal_[1] + 1);
    struct sigaction action {};
    action.sa_handler = onSignalArrived;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (::sigaction(signo, &action, nullptr) != 0) {
      throw std::runtime_error("The run loop can't catch signal " + std::to_string(signo) + ": " +
                               std::strerror(errno));
    }
  }
  void stop() override {
    stopRequested_ = true;
    wake();
  }

  void run() override {
    std::vector<pollfd> fds;
    std::vector<WatchId> ids;
    while (!stopRequested_.exchange(false)) {
      fds.clear();
      ids.clear();
      fds.push_back({wake_[0], POLLIN, 0});
      fds.push_back({signal_[0], POLLIN, 0});
      for (const auto& [id, watch] : fds_) {
        fds.push_back({watch.fd, POLLIN, 0});
        ids.push_back(id);
      }
      if (::poll(fds.data(), static_cast<nfds_t>(fds.size()), timeoutMs()) < 0) {
        if (errno == EINTR || errno == EAGAIN || errno == ENOMEM) continue;
        throw std::runtime_error(std::string("The run loop cannot wait for events: ") + std::strerror(errno));
      }
      if (fds[0].revents != 0) runPosted();
      if (fds[1].revents != 0) deliverSignals();
      for (std::size_t i = 0; i < ids.size(); ++i) {
        if (fds[2 + i].revents != 0) deliverReadable(ids[i], fds[2 + i].revents);
      }
      checkFiles();
      fireDueTimers();
    }
  }

 private:
  using Callback = std::shared_ptr<const std::function<void()>>;
  struct Timer {
    double due, interval, tolerance;
    Callback fn;
  };
  struct FileWatch {
    std::string path;
    Stamp stamp;
    Callback fn;
  };
  struct FdWatch {
    int fd;
    Callback fn;
  };

  static Callback share(std::function<void()> fn) {
    return std::make_shared<const std::function<void()>>(std::move(fn));
  }

  TimerId addTimer(double delay, double interval, double tolerance, std::function<void()> fn) {
    const TimerId id = nextId_++;
    const double due = clock_.monotonic() + delay;
    timers_.emplace(id, Timer{due, interval, tolerance, share(std::move(fn))});
    deadlines_.emplace(due, id);
    return id;
  }

  void wake() {
    const unsigned char one = 1;
    const ssize_t n = ::write(wake_[1], &one, 1);  // a full pipe is readable already
    (void)n;
  }

  double wakeAt() const {
    double latest = std::numeric_limits<double>::infinity();
    for (const auto& [id, timer] : timers_) latest = std::min(latest, timer.due + timer.tolerance);
    double at = deadlines_.begin()->first;
    for (const auto& [due, id] : deadlines_) {
      if (due > latest) break;
      at = due;
    }
    return at;
  }

  // File watches are checked on the real clock, whatever the injected one
  // does: a fast simulated clock mustn't make them spin.
  int timeoutMs() const {
    double wait = files_.empty() ? kMaxWaitSeconds : fileCheck_;
    if (!deadlines_.empty()) wait = std::min(wait, (wakeAt() - clock_.monotonic()) / clock_.rate());
    if (wait <= 0) return 0;
    wait = std::min(wait, kMaxWaitSeconds);
    const bool forever = deadlines_.empty() && files_.empty();
    return forever ? -1 : static_cast<int>(std::ceil(wait * 1000));
  }

  void runPosted() {
    drain(wake_[0]);
    std::vector<std::function<void()>> batch;
    {
      std::lock_guard<std::mutex> lock(postedMutex_);
      batch.swap(posted_);
    }
    for (auto& fn : batch) fn();
  }

  void deliverSignals() {
    std::vector<unsigned char> arrived;
    drain(signal_[0], &arrived);
    for (unsigned char signo : arrived) {
      auto it = signals_.find(signo);
      if (it == signals_.end()) continue;
      Callback fn = it->second;
      (*fn)();
    }
  }

  void deliverReadable(WatchId id, short revents) {
    auto it = fds_.find(id);
    if (it == fds_.end()) return;
    if (revents & POLLNVAL) {
      fds_.erase(it);
      return;
    }
    Callback fn = it->second.fn;
    (*fn)();
  }

  void checkFiles() {
    std::vector<WatchId> changed;
    for (auto& [id, watch] : files_) {
      Stamp now = stampOf(watch.path);
      if (now == watch.stamp) continue;
      watch.stamp = now;
      changed.push_back(id);
    }
    for (WatchId id : changed) {
      auto it = files_.find(id);
      if (it == files_.end()) continue;
      Callback fn = it->second.fn;
      (*fn)();
    }
  }

  void fireDueTimers() {
    const double now = clock_.monotonic();
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
        timer->second.due = nextBeat(timer->second.due, timer->second.interval, now);
        deadlines_.emplace(timer->second.due, id);
      } else {
        timers_.erase(timer);
      }
      (*fn)();
      it = deadlines_.begin();
    }
  }

  const Clock& clock_;
  const double fileCheck_;
  int wake_[2] = {-1, -1};
  int signal_[2] = {-1, -1};
  std::uint64_t nextId_ = 1;
  std::map<TimerId, Timer> timers_;
  std::set<std::pair<double, TimerId>> deadlines_;
  std::map<WatchId, FileWatch> files_;
  std::map<WatchId, FdWatch> fds_;
  std::map<int, Callback> signals_;
  std::mutex postedMutex_;
  std::vector<std::function<void()>> posted_;
  std::atomic<bool> stopRequested_{false};
};

}  // namespace

std::unique_ptr<RunLoop> makePosixRunLoop(const Clock& clock, double fileCheckSeconds) {
  if (!(fileCheckSeconds > 0)) fileCheckSeconds = 1.0;
  return std::make_unique<PosixRunLoop>(clock, fileCheckSeconds);
}

}  // namespace vigilo
