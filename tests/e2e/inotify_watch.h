#pragma once

// The changes made to the files of one folder (writes, new times, new,
// removed and renamed files; not reads), as inotify reports them.

#include <sys/inotify.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vigilo::test {

class InotifyWatch {
 public:
  explicit InotifyWatch(const std::string& folder) : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    const std::uint32_t mask = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                               IN_MOVED_TO | IN_DELETE_SELF;
    if (fd_ >= 0 && ::inotify_add_watch(fd_, folder.c_str(), mask) < 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  ~InotifyWatch() {
    if (fd_ >= 0) ::close(fd_);
  }
  InotifyWatch(const InotifyWatch&) = delete;
  InotifyWatch& operator=(const InotifyWatch&) = delete;

  bool ok() const { return fd_ >= 0; }
  // The changes so far, by the name of the file changed; without waiting.
  const std::vector<std::string>& names() {
    alignas(inotify_event) char buf[16 * 1024];
    for (ssize_t n; fd_ >= 0 && (n = ::read(fd_, buf, sizeof buf)) > 0;) {
      for (ssize_t at = 0; at < n;) {
        const auto* e = reinterpret_cast<const inotify_event*>(buf + at);
        names_.emplace_back(e->len > 0 ? e->name : ".");
        at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
      }
    }
    return names_;
  }
  void clear() {
    names();
    names_.clear();
  }

 private:
  int fd_ = -1;
  std::vector<std::string> names_;
};

}  // namespace vigilo::test
