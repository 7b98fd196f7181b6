#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/unique_fd.h"
#include "platform/notifications.h"

namespace vigilo {
namespace {

// A request is a small JSON text; anything bigger is not one of ours.
constexpr std::size_t kMaxPayload = 1024 * 1024;
// A client that connects and then says nothing is dropped after this long.
constexpr double kClientTimeout = 5.0;
constexpr std::size_t kMaxClients = 64;

// FNV-1a: a short, stable name for an app folder's path.
std::string keyFor(const std::string& appFolder) {
  std::uint64_t h = 1469598103934665603ull;
  for (unsigned char c : appFolder) {
    h ^= c;
    h *= 1099511628211ull;
  }
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
  return buf;
}

// Makes `path` a folder of ours that only we can enter. Refuses a folder
// owned by someone else, where another user could listen in our place.
Result makePrivateFolder(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    return Result::fail(errnoMessage("couldn't create " + path, errno), errno);
  }
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return Result::fail(errnoMessage("couldn't read " + path, errno), errno);
  if (!S_ISDIR(st.st_mode) || st.st_uid != ::getuid()) {
    return Result::fail(path + " belongs to another user or is not a folder, so Vigilo won't use it.");
  }
  if ((st.st_mode & 0077) != 0 && ::chmod(path.c_str(), 0700) != 0) {
    return Result::fail(errnoMessage("couldn't make " + path + " private", errno), errno);
  }
  return Result::ok();
}

std::string runtimeBase() {
  const char* xdg = std::getenv("XDG_RUNTIME_DIR");
  if (xdg != nullptr && *xdg == '/') return std::string(xdg) + "/vigilo";
  return "/tmp/vigilo-" + std::to_string(::getuid());
}

Result prepareFolder(const std::string& appFolder) {
  // The shared runtime folder refuses links and other users' folders.
  std::string problem;
  if (runtimeFolder(&problem).empty()) return Result::fail(problem);
  return makePrivateFolder(socketFolderFor(appFolder));
}

std::string socketPath(const std::string& appFolder, const std::string& name) {
  return socketFolderFor(appFolder) + "/" + name + ".sock";
}

bool fillAddress(const std::string& path, sockaddr_un& addr) {
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return true;
}

class SocketNotifications final : public Notifications {
 public:
  SocketNotifications(std::string appFolder, RunLoop* loop) : appFolder_(std::move(appFolder)), loop_(loop) {}
  ~SocketNotifications() override { stopObserving(); }

  Result observe(const std::string& name, std::function<void(std::string)> handler) override {
    if (loop_ == nullptr) return Result::fail("Observing needs the app's run loop.");
    if (Result r = prepareFolder(appFolder_); !r) return r;
    const std::string path = socketPath(appFolder_, name);
    sockaddr_un addr{};
    if (!fillAddress(path, addr)) return Result::fail("The socket path " + path + " is too long.");
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return Result::fail(errnoMessage("couldn't create a socket", errno), errno);
    // One app per folder holds the folder's lock, so a socket file left here
    // is a dead app's.
    ::unlink(path.c_str());
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      return Result::fail(errnoMessage("couldn't listen at " + path, errno), errno);
    }
    if (::listen(fd.get(), 128) != 0) return Result::fail(errnoMessage("couldn't listen at " + path, errno), errno);
    Listener l;
    l.path = path;
    l.handler = std::move(handler);
    l.fd = std::move(fd);
    const int raw = l.fd.get();
    l.watch = loop_->watchReadable(raw, [this, raw] { acceptAll(raw); });
    listeners_.emplace(raw, std::move(l));
    return Result::ok();
  }

  void stopObserving() override {
    for (auto& [fd, client] : clients_) {
      loop_->unwatch(client.watch);
      loop_->cancel(client.timer);
    }
    clients_.clear();
    for (auto& [fd, l] : listeners_) {
      loop_->unwatch(l.watch);
      ::unlink(l.path.c_str());
    }
    listeners_.clear();
  }

  Result post(const std::string& name, const std::string& payload) override {
    const std::string path = socketPath(appFolder_, name);
    sockaddr_un addr{};
    if (!fillAddress(path, addr)) return Result::fail("The socket path " + path + " is too long.");
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return Result::fail(errnoMessage("couldn't create a socket", errno), errno);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      const int err = errno;
      if (err == ENOENT || err == ECONNREFUSED) return Result::fail("Vigilo isn't running.", err);
      return Result::fail(errnoMessage("couldn't reach Vigilo at " + path, err), err);
    }
    std::string_view rest = payload;
    while (!rest.empty()) {
      ssize_t n = ::send(fd.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
      if (n < 0) {
        if (errno == EINTR) continue;
        return Result::fail(errnoMessage("couldn't send to Vigilo", errno), errno);
      }
      rest.remove_prefix(static_cast<std::size_t>(n));
    }
    ::shutdown(fd.get(), SHUT_WR);
    return Result::ok();
  }

 private:
  struct Listener {
    std::string path;
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
  };

  void acceptAll(int listenFd) {
    for (;;) {
      UniqueFd fd(::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (fd.get() < 0) return;  // EAGAIN: no more waiting
      ucred cred{};
      socklen_t len = sizeof cred;
      // Only the same user may drive this user's Vigilo.
      if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != ::getuid()) continue;
      if (clients_.size() >= kMaxClients) continue;
      const int raw = fd.get();
      Client c;
      c.fd = std::move(fd);
      c.listener = listenFd;
      c.watch = loop_->watchReadable(raw, [this, raw] { readClient(raw); });
      c.timer = loop_->after(kClientTimeout, [this, raw] { dropClient(raw); });
      clients_.emplace(raw, std::move(c));
    }
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

  std::string appFolder_;
  RunLoop* loop_;
  std::map<int, Listener> listeners_;
  std::map<int, Client> clients_;
};

}  // namespace

std::string socketFolderFor(const std::string& appFolder) { return runtimeBase() + "/" + keyFor(appFolder); }

std::unique_ptr<Notifications> makeSocketNotifications(const std::string& appFolder, RunLoop* loop) {
  return std::make_unique<SocketNotifications>(appFolder, loop);
}

}  // namespace vigilo
