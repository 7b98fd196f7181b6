#include "platform/files.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vigilo {
namespace {

constexpr std::string_view kTempSuffix = ".vigilo-tmp";

// Closes the descriptor on every path out.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

}  // namespace

namespace {
Result writeFile(const std::string& path, std::string_view data, std::optional<mode_t> mode, bool sync);
}

Result writeFileDurably(const std::string& path, std::string_view data, std::optional<mode_t> mode) {
  return writeFile(path, data, mode, true);
}

Result writeFileAtomically(const std::string& path, std::string_view data) {
  return writeFile(path, data, std::nullopt, false);
}

namespace {

Result writeFile(const std::string& path, std::string_view data, std::optional<mode_t> mode, bool sync) {
  const std::string tmp = path + std::string(kTempSuffix);
  Fd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode.value_or(0644)));
  if (fd.get() < 0) return Result::fail(errnoMessage("couldn't create " + tmp, errno), errno);
  auto failed = [&](const std::string& what) {
    const int err = errno;
    ::unlink(tmp.c_str());
    return Result::fail(errnoMessage(what + " " + tmp, err), err);
  };
  // open() applies the umask; an explicit mode is meant exactly.
  if (mode && ::fchmod(fd.get(), *mode) != 0) return failed("couldn't set the permissions of");
  while (!data.empty()) {
    ssize_t n = ::write(fd.get(), data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return failed("couldn't write");
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  if (sync && ::fsync(fd.get()) != 0) return failed("couldn't flush");
  if (::close(fd.release()) != 0) return failed("couldn't close");
  if (::rename(tmp.c_str(), path.c_str()) != 0) return failed("couldn't rename");
  return Result::ok();
}

}  // namespace

std::optional<std::string> readWholeFile(const std::string& path, std::size_t limit) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (fd.get() < 0) return std::nullopt;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || static_cast<std::size_t>(st.st_size) > limit) {
    return std::nullopt;
  }
  std::string out;
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    if (out.size() > limit) return std::nullopt;
  }
  return out;
}

std::optional<std::string> findExecutable(const std::string& name) {
  if (name.empty()) return std::nullopt;
  if (name.find('/') != std::string::npos) {
    if (::access(name.c_str(), X_OK) == 0) return name;
    return std::nullopt;
  }
  const char* path = std::getenv("PATH");
  const std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= dirs.size()) {
    std::size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    if (end > start) {
      std::string candidate = dirs.substr(start, end - start) + "/" + name;
      struct stat st {};
      if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0) {
        return candidate;
      }
    }
    start = end + 1;
  }
  return std::nullopt;
}

}  // namespace vigilo
