#include "platform/macos/path_sockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string_view>
#include <utility>

#include "platform/result.h"
#include "platform/text.h"

namespace vigilo {
namespace {

constexpr std::size_t kMaxPayload = 256 * 1024;
constexpr double kClientTimeout = 1.0;
constexpr std::size_t kMaxClients = 128;
constexpr int kAcceptsPerTurn = 4096;
constexpr double kFirstRetry = 0.25;
constexpr double kLongestRetry = 2.0;
constexpr int kPostTimeoutSeconds = 3;

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  Fd& operator=(Fd&& o) noexcept {
    if (this != &o) {
      reset();
      fd_ = std::exchange(o.fd_, -1);
    }
    return *this;
  }
  ~Fd() { reset(); }
  int get() const { return fd_; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// A stream socket, non-blocking and closed on exec, made the portable way
// (the Mac has no SOCK_NONBLOCK or SOCK_CLOEXEC); writing to a peer that
// went away gives EPIPE, never SIGPIPE.
Fd streamSocket() {
  Fd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
  if (fd.get() < 0) return fd;
  ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
  ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
#ifdef SO_NOSIGPIPE
  int one = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one);
#endif
  return fd;
}

#ifndef MSG_NOSIGNAL
constexpr int kNoSignal = 0;  // SO_NOSIGPIPE does it
#else
constexpr int kNoSignal = MSG_NOSIGNAL;
#endif

std::optional<SocketPeer> peerOf(int fd) {
#ifdef __APPLE__
  uid_t uid = 0;
  gid_t gid = 0;
  if (::getpeereid(fd, &uid, &gid) != 0) return std::nullopt;
  pid_t pid = 0;
  socklen_t len = sizeof pid;
  if (::getsockopt(fd, SOL_LOCAL, LOCAL_PEERPID, &pid, &len) != 0) pid = 0;
  return SocketPeer{pid, uid};
#else
  ucred cred{};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return std::nullopt;
  return SocketPeer{cred.pid, cred.uid};
#endif
}

bool sameUser(int fd) {
  auto peer = peerOf(fd);
  return peer && peer->uid == ::getuid();
}

std::string keyFor(const std::string& appFolder) {
  std::error_code ec;
  auto absolute = std::filesystem::absolute(appFolder, ec);
  std::string text = appFolder;
  if (!ec) {
    auto canonical = std::filesystem::weakly_canonical(absolute, ec);
    text = (ec ? absolute : canonical).lexically_normal().string();
  }
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return shortHash(text);
}

std::string socketFolder() { return "/tmp/vigilo-" + std::to_string(::getuid()); }

// The folder, made and checked; the reason in plain English when it can't
// be used.
Result ensureFolder() {
  const std::string folder = socketFolder();
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    return Result::fail(errnoMessage("couldn't create " + folder, errno), errno);
  }
  struct stat st {};
  if (::lstat(folder.c_str(), &st) != 0) return Result::fail(errnoMessage("couldn't look at " + folder, errno), errno);
  if (!S_ISDIR(st.st_mode)) return Result::fail(folder + " isn't a folder, so Vigilo won't use it.", ENOTDIR);
  if (st.st_uid != ::getuid()) return Result::fail(folder + " belongs to another user, so Vigilo won't use it.", EPERM);
  if ((st.st_mode & 0777) != 0700 && ::chmod(folder.c_str(), 0700) != 0) {
    return Result::fail(errnoMessage("couldn't make " + folder + " private", errno), errno);
  }
  return Result::ok();
}

bool fill(const std::string& path, sockaddr_un& addr) {
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.data(), path.size());
  return true;
}

// Connects without waiting; the error number when it can't.
int connectTo(const std::string& path, Fd& fd) {
  sockaddr_un addr{};
  if (!fill(path, addr)) return ENAMETOOLONG;
  fd = streamSocket();
  if (fd.get() < 0) return errno;
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : errno;
}

class PathSockets final : public Notifications {
 public:
  PathSockets(const std::string& appFolder, RunLoop* loop, std::function<void(const std::string&)> onProblem)
      : appFolder_(appFolder), loop_(loop), problemChanged_(std::move(onProblem)) {}
  ~PathSockets() override { stopObserving(); }

  Result observe(const std::string& name, std::function<void(std::string)> handler) override {
    if (loop_ == nullptr) return Result::fail("Observing needs the app's run loop.");
    Result r = listen(name, handler);
    if (r.code() != EADDRINUSE) return r;
    pending_[name] = Pending{std::move(handler), kFirstRetry, 0, r.message()};
    scheduleRetry(name);
    return Result::fail(r.message() + "; Vigilo keeps trying to take it", EADDRINUSE);
  }

  void stopObserving() override {
    if (loop_ == nullptr) return;
    for (auto& [name, p] : pending_) loop_->cancel(p.timer);
    pending_.clear();
    for (auto& [fd, c] : clients_) {
      loop_->unwatch(c.watch);
      loop_->cancel(c.timer);
    }
    clients_.clear();
    for (auto& [fd, l] : listeners_) {
      loop_->unwatch(l.watch);
      // Only a file that is still ours: another app may have taken it over.
      struct stat st {};
      if (::stat(l.path.c_str(), &st) == 0 && st.st_ino == l.inode) ::unlink(l.path.c_str());
    }
    listeners_.clear();
  }

  Result post(const std::string& name, const std::string& payload) override {
    Fd fd;
    const int err = connectTo(pathSocketFor(appFolder_, name), fd);
    if (err == ENOENT || err == ECONNREFUSED) return Result::fail("Vigilo isn't running.", err);
    if (err == EAGAIN || err == EINPROGRESS) return Result::fail("Vigilo is too busy to take the request.", err);
    if (err != 0) return Result::fail(errnoMessage("couldn't reach Vigilo", err), err);
    if (!sameUser(fd.get())) {
      return Result::fail("A program of another user answers at Vigilo's address, so nothing was sent to it.", EPERM);
    }
    ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    timeval limit{kPostTimeoutSeconds, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    std::string_view rest = payload;
    while (!rest.empty()) {
      const ssize_t n = ::send(fd.get(), rest.data(), rest.size(), kNoSignal);
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
    Fd fd;
    WatchId watch = 0;
    std::string path;
    ino_t inode = 0;
  };
  struct Client {
    Fd fd;
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

  std::string problem() const {
    return pending_.empty() ? "" : pending_.begin()->second.reason + "; Vigilo keeps trying to take it";
  }

  Result listen(const std::string& name, const std::function<void(std::string)>& handler) {
    if (Result r = ensureFolder(); !r) return r;
    const std::string path = pathSocketFor(appFolder_, name);
    sockaddr_un addr{};
    if (!fill(path, addr)) return Result::fail("The socket path " + path + " is too long.", ENAMETOOLONG);
    Fd fd = streamSocket();
    if (fd.get() < 0) return Result::fail(errnoMessage("couldn't create a socket", errno), errno);
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      if (errno != EADDRINUSE) return Result::fail(errnoMessage("couldn't listen for Vigilo's requests", errno), errno);
      // A file is there: someone listens, or a crash left it.
      Fd probe;
      const int err = connectTo(path, probe);
      if (err == 0 || err == EAGAIN || err == EINPROGRESS) return Result::fail(holder(probe.get()), EADDRINUSE);
      ::unlink(path.c_str());
      if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        return Result::fail(errnoMessage("couldn't listen for Vigilo's requests", errno), errno);
      }
    }
    if (::listen(fd.get(), SOMAXCONN) != 0) {
      return Result::fail(errnoMessage("couldn't listen for Vigilo's requests", errno), errno);
    }
    struct stat st {};
    ::stat(path.c_str(), &st);
    Listener l{handler, std::move(fd), 0, path, st.st_ino};
    const int raw = l.fd.get();
    l.watch = loop_->watchReadable(raw, [this, raw] { acceptAll(raw); });
    listeners_.emplace(raw, std::move(l));
    return Result::ok();
  }

  static std::string holder(int probe) {
    auto peer = probe >= 0 ? peerOf(probe) : std::nullopt;
    if (peer && peer->uid != ::getuid()) {
      return "another user's program (user id " + std::to_string(peer->uid) +
             ") holds Vigilo's request address for this folder; ask an administrator to stop it";
    }
    if (peer && peer->pid > 0) {
      return "another program (process " + std::to_string(peer->pid) +
             ") holds Vigilo's request address for this folder; stop it (kill " + std::to_string(peer->pid) + ")";
    }
    return "another program holds Vigilo's request address for this folder";
  }

  void scheduleRetry(const std::string& name) {
    auto it = pending_.find(name);
    if (it != pending_.end()) it->second.timer = loop_->after(it->second.pause, [this, name] { retry(name); });
  }

  void retry(const std::string& name) {
    auto it = pending_.find(name);
    if (it == pending_.end()) return;
    Result r = listen(name, it->second.handler);
    if (r) {
      pending_.erase(it);
      if (problemChanged_) problemChanged_(problem());
      return;
    }
    it->second.pause = std::min(it->second.pause * 2, kLongestRetry);
    const bool changed = r.message() != it->second.reason;
    it->second.reason = r.message();
    scheduleRetry(name);
    if (changed && problemChanged_) problemChanged_(problem());
  }

  void acceptAll(int listenFd) {
    for (int n = 0; n < kAcceptsPerTurn; ++n) {
      Fd fd(::accept(listenFd, nullptr, nullptr));
      if (fd.get() < 0) return;  // EAGAIN, or out of descriptors until some close
      ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
      ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
      // Only the same user may drive this user's Vigilo.
      if (!sameUser(fd.get())) continue;
      if (clients_.size() >= kMaxClients) evictOne();
      const int raw = fd.get();
      Client c;
      c.fd = std::move(fd);
      c.listener = listenFd;
      c.order = ++accepted_;
      c.watch = loop_->watchReadable(raw, [this, raw] { readClient(raw); });
      c.timer = loop_->after(kClientTimeout, [this, raw] { dropClient(raw); });
      clients_.emplace(raw, std::move(c));
      readClient(raw);
    }
  }

  // The connection that has waited longest gives its slot up, one that has
  // sent nothing first.
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

  void readClient(int fd) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) return;
    char buf[65536];
    for (;;) {
      const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
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
      break;
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

  std::string appFolder_;
  RunLoop* loop_;
  std::function<void(const std::string&)> problemChanged_;
  std::map<int, Listener> listeners_;
  std::map<int, Client> clients_;
  std::map<std::string, Pending> pending_;
  std::uint64_t accepted_ = 0;
};

}  // namespace

std::string pathSocketFor(const std::string& appFolder, const std::string& name) {
  return socketFolder() + "/" + keyFor(appFolder) + "-" + name;
}

std::optional<SocketPeer> pathSocketListener(const std::string& appFolder, const std::string& name) {
  Fd fd;
  if (connectTo(pathSocketFor(appFolder, name), fd) != 0) return std::nullopt;
  return peerOf(fd.get());
}

std::unique_ptr<Notifications> makePathSocketNotifications(const std::string& appFolder, RunLoop* loop,
                                                           std::function<void(const std::string&)> onProblem) {
  return std::make_unique<PathSockets>(appFolder, loop, std::move(onProblem));
}

}  // namespace vigilo
