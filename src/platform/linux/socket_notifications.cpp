#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/unique_fd.h"
#include "platform/notifications.h"
#include "platform/socket_listener.h"
#include "platform/text.h"

namespace vigilo {
namespace {

// A request is a small JSON text; anything bigger is not one of ours.
constexpr std::size_t kMaxPayload = 256 * 1024;
// The tool writes its request as soon as it has connected: a connection
// that is still incomplete after this long is dropped, so idle connections
// cannot keep others waiting.
constexpr double kClientTimeout = 1.0;
// Connections kept open at once, waiting for the rest of their request.
// Every waiting connection is taken from the kernel's queue at once and read
// straight away, so a tool's request (written whole right after connecting)
// is served as it comes; when the slots are full, the connection that has
// waited longest, one that sent nothing first, gives its slot up. A program
// that floods the address with idle connections therefore only ever delays
// the others by the time it takes to accept and close its own.
constexpr std::size_t kMaxClients = 128;
// Connections taken from the queue in one turn of the loop, so a flood
// cannot keep the loop from its other work.
constexpr int kAcceptsPerTurn = 4096;
// Pauses between attempts to take an address another process holds.
constexpr double kFirstRetry = 0.25;
constexpr double kLongestRetry = 2.0;
// How long sending a request may wait for the app to read it (a stopped app
// never does).
constexpr int kPostTimeoutSeconds = 3;

// A short, stable name for an app folder's path.
std::string keyFor(const std::string& appFolder) { return shortHash(appFolder); }

// The same folder named two ways ("~/x/", "~/x", through a link) must give
// one address.
std::string canonicalFolder(const std::string& appFolder) {
  std::error_code ec;
  auto absolute = std::filesystem::absolute(appFolder, ec);
  if (ec) return appFolder;
  auto canonical = std::filesystem::weakly_canonical(absolute, ec);
  std::string text = (ec ? absolute : canonical).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

// An abstract socket address (Linux): no file, so nothing to clean up, no
// folder another user could plant first, and no path-length limit from a
// deep app folder. The name follows from the user id and the app folder
// alone, never from the caller's environment.
socklen_t fillAddress(const std::string& name, sockaddr_un& addr) {
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  const std::size_t n = std::min(name.size(), sizeof addr.sun_path - 1);
  std::memcpy(addr.sun_path + 1, name.data(), n);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
}

std::optional<uid_t> peerUid(int fd) {
  ucred cred{};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return std::nullopt;
  return cred.uid;
}

// Connects to `name`; on success the peer is a process of this user. Never
// waits for a place in the app's queue: when it is full (the app stopped
// or swamped) this fails at once, and a tool that needs an answer retries
// within its own time, while a hook just goes on.
Result connectTo(const std::string& name, UniqueFd& out) {
  sockaddr_un addr{};
  const socklen_t len = fillAddress(name, addr);
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) return Result::fail(errnoMessage("couldn't create a socket", errno), errno);
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), len);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    const int err = errno;
    if (err == ENOENT || err == ECONNREFUSED) return Result::fail("Vigilo isn't running.", err);
    if (err == EAGAIN || err == EINPROGRESS) return Result::fail("Vigilo is too busy to take the request.", err);
    return Result::fail(errnoMessage("couldn't reach Vigilo", err), err);
  }
  // Someone else's program listening at our address gets nothing from us.
  auto uid = peerUid(fd.get());
  if (!uid || *uid != ::getuid()) {
    return Result::fail("A program of another user answers at Vigilo's address, so nothing was sent to it.", EPERM);
  }
  // Sending a large request may wait for the app to read, within a bound.
  ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
  timeval limit{kPostTimeoutSeconds, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  out = std::move(fd);
  return Result::ok();
}

class SocketNotifications final : public Notifications {
 public:
  SocketNotifications(std::string appFolder, RunLoop* loop,
                      std::function<void(const std::string&)> onProblem = nullptr)
      : prefix_(socketNameFor(appFolder)), loop_(loop), problemChanged_(std::move(onProblem)) {}
  ~SocketNotifications() override { stopObserving(); }

  Result observe(const std::string& name, std::function<void(std::string)> handler) override {
    if (loop_ == nullptr) return Result::fail("Observing needs the app's run loop.");
    Result r = listen(name, handler);
    if (r.code() != EADDRINUSE) return r;
    // Someone holds the address, maybe only for a moment: keep trying, and
    // say so meanwhile.
    pending_[name] = Pending{std::move(handler), kFirstRetry, 0, r.message()};
    scheduleRetry(name);
    return Result::fail(r.message() + "; Vigilo keeps trying to take it", EADDRINUSE);
  }

  std::string problem() const {
    std::string text;
    for (const auto& [name, p] : pending_) {
      if (text.empty()) text = p.reason + "; Vigilo keeps trying to take it";
    }
    return text;
  }

  void stopObserving() override {
    if (loop_ == nullptr) return;
    for (auto& [name, p] : pending_) loop_->cancel(p.timer);
    pending_.clear();
    if (acceptPause_ != 0) loop_->cancel(acceptPause_);
    acceptPause_ = 0;
    for (auto& [fd, client] : clients_) {
      loop_->unwatch(client.watch);
      loop_->cancel(client.timer);
    }
    clients_.clear();
    for (auto& [fd, l] : listeners_) {
      if (l.watch != 0) loop_->unwatch(l.watch);
    }
    listeners_.clear();
  }

  Result post(const std::string& name, const std::string& payload) override {
    UniqueFd fd;
    if (Result r = connectTo(prefix_ + name, fd); !r) return r;
    std::string_view rest = payload;
    while (!rest.empty()) {
      ssize_t n = ::send(fd.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return Result::fail("Vigilo is too busy to take the request.", errno);
        return Result::fail(errnoMessage("couldn't send to Vigilo", errno), errno);
      }
      rest.remove_prefix(static_cast<std::size_t>(n));
    }
    ::shutdown(fd.get(), SHUT_WR);
    return Result::ok();
  }

 private:
  struct Listener {
    std::function<void(std::string)> handler;
    UniqueFd fd;
    WatchId watch = 0;
  };
  struct Client {
    UniqueFd fd;
    int listener = -1;
    std::string data;
    WatchId watch = 0;
    TimerId timer = 0;
    std::uint64_t order = 0;
  };
  struct Pending {
    std::function<void(std::string)> handler;
    double pause = kFirstRetry;
    TimerId timer = 0;
    std::string reason;
  };

  Result listen(const std::string& name, const std::function<void(std::string)>& handler) {
    const std::string address = prefix_ + name;
    sockaddr_un addr{};
    const socklen_t len = fillAddress(address, addr);
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return Result::fail(errnoMessage("couldn't create a socket", errno), errno);
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), len) != 0) {
      const int err = errno;
      if (err == EADDRINUSE) return Result::fail(squatter(address), err);
      return Result::fail(errnoMessage("couldn't listen for Vigilo's requests", err), err);
    }
    if (::listen(fd.get(), SOMAXCONN) != 0) {
      return Result::fail(errnoMessage("couldn't listen for Vigilo's requests", errno), errno);
    }
    Listener l;
    l.handler = handler;
    l.fd = std::move(fd);
    const int raw = l.fd.get();
    listeners_.emplace(raw, std::move(l));
    resume(raw);
    return Result::ok();
  }

  void scheduleRetry(const std::string& name) {
    auto it = pending_.find(name);
    if (it == pending_.end()) return;
    it->second.timer = loop_->after(it->second.pause, [this, name] { retry(name); });
  }

  void retry(const std::string& name) {
    auto it = pending_.find(name);
    if (it == pending_.end()) return;
    Result r = listen(name, it->second.handler);
    if (r) {
      pending_.erase(it);
      problemChanged();
      return;
    }
    it->second.pause = std::min(it->second.pause * 2, kLongestRetry);
    const bool changed = r.message() != it->second.reason;
    it->second.reason = r.message();
    scheduleRetry(name);
    if (changed) problemChanged();
  }

  void problemChanged() {
    if (problemChanged_) problemChanged_(problem());
  }

  // Says who holds `address` when it cannot be ours.
  static std::string squatter(const std::string& address) {
    sockaddr_un addr{};
    const socklen_t len = fillAddress(address, addr);
    // Never waits: a holder with a full queue must not stall the app.
    UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    std::optional<uid_t> uid;
    if (probe.get() >= 0 && ::connect(probe.get(), reinterpret_cast<sockaddr*>(&addr), len) == 0) {
      uid = peerUid(probe.get());
    }
    if (uid && *uid != ::getuid()) {
      return "another user's program (user id " + std::to_string(*uid) +
             ") holds Vigilo's request address for this folder; ask an administrator to stop it";
    }
    ucred cred{};
    socklen_t credLen = sizeof cred;
    if (uid && ::getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &cred, &credLen) == 0 && cred.pid > 0) {
      return "another program (process " + std::to_string(cred.pid) +
             ") holds Vigilo's request address for this folder; stop it (kill " + std::to_string(cred.pid) + ")";
    }
    return "another program holds Vigilo's request address for this folder";
  }

  void resume(int listenFd) {
    auto it = listeners_.find(listenFd);
    if (it == listeners_.end() || it->second.watch != 0) return;
    it->second.watch = loop_->watchReadable(listenFd, [this, listenFd] { acceptAll(listenFd); });
  }

  void pauseAll() {
    for (auto& [fd, l] : listeners_) {
      if (l.watch != 0) loop_->unwatch(l.watch);
      l.watch = 0;
    }
  }

  void acceptAll(int listenFd) {
    for (int n = 0; n < kAcceptsPerTurn; ++n) {
      UniqueFd fd(::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (fd.get() < 0) {
        // Out of descriptors: the queue stays readable, so look again a
        // little later instead of spinning.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pauseAccepting();
        return;  // EAGAIN: no more waiting
      }
      // Only the same user may drive this user's Vigilo.
      auto uid = peerUid(fd.get());
      if (!uid || *uid != ::getuid()) continue;
      if (clients_.size() >= kMaxClients) evictOne();
      const int raw = fd.get();
      Client c;
      c.fd = std::move(fd);
      c.listener = listenFd;
      c.order = ++accepted_;
      c.watch = loop_->watchReadable(raw, [this, raw] { readClient(raw); });
      c.timer = loop_->after(kClientTimeout, [this, raw] { dropClient(raw); });
      clients_.emplace(raw, std::move(c));
      // A tool has usually written its whole request by now: serve it at
      // once rather than behind the idle ones.
      readClient(raw);
    }
  }

  // Frees the slot of the connection that has waited longest, preferring
  // one that has sent nothing.
  void evictOne() {
    int victim = -1;
    std::uint64_t oldest = 0;
    bool victimIdle = false;
    for (const auto& [fd, c] : clients_) {
      const bool idle = c.data.empty();
      if (victim < 0 || (idle && !victimIdle) || (idle == victimIdle && c.order < oldest)) {
        victim = fd;
        oldest = c.order;
        victimIdle = idle;
      }
    }
    if (victim >= 0) dropClient(victim);
  }

  void pauseAccepting() {
    if (acceptPause_ != 0) return;
    pauseAll();
    acceptPause_ = loop_->after(0.1, [this] {
      acceptPause_ = 0;
      for (auto& [lfd, l] : listeners_) resume(lfd);
    });
  }

  void readClient(int fd) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) return;
    char buf[65536];
    for (;;) {
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n > 0) {
        it->second.data.append(buf, static_cast<std::size_t>(n));
        if (it->second.data.size() > kMaxPayload) {
          dropClient(fd);
          return;
        }
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      break;  // end of the payload, or an error
    }
    std::string payload = std::move(it->second.data);
    const int listener = it->second.listener;
    dropClient(fd);
    auto l = listeners_.find(listener);
    if (l != listeners_.end() && !payload.empty()) l->second.handler(std::move(payload));
  }

  void dropClient(int fd) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) return;
    loop_->unwatch(it->second.watch);
    loop_->cancel(it->second.timer);
    clients_.erase(it);
  }

  std::string prefix_;
  RunLoop* loop_;
  std::map<int, Listener> listeners_;
  std::map<int, Client> clients_;
  std::map<std::string, Pending> pending_;
  std::function<void(const std::string&)> problemChanged_;
  std::uint64_t accepted_ = 0;
  TimerId acceptPause_ = 0;
};

}  // namespace

std::string socketNameFor(const std::string& appFolder) {
  return "vigilo-" + std::to_string(::getuid()) + "-" + keyFor(canonicalFolder(appFolder)) + "/";
}

std::optional<SocketPeer> listenerOf(const std::string& appFolder, const std::string& name) {
  sockaddr_un addr{};
  const socklen_t len = fillAddress(socketNameFor(appFolder) + name, addr);
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0 || ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), len) != 0) return std::nullopt;
  ucred cred{};
  socklen_t credLen = sizeof cred;
  if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &credLen) != 0) return std::nullopt;
  return SocketPeer{cred.pid, cred.uid};
}

std::unique_ptr<Notifications> makeSocketNotifications(const std::string& appFolder, RunLoop* loop) {
  return std::make_unique<SocketNotifications>(appFolder, loop);
}

std::unique_ptr<Notifications> makeSocketNotifications(const std::string& appFolder, RunLoop* loop,
                                                       std::function<void(const std::string&)> onProblem) {
  return std::make_unique<SocketNotifications>(appFolder, loop, std::move(onProblem));
}

}  // namespace vigilo
