#include "platform/files.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
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

bool moveInto(const std::string& from, const std::string& to) {
#ifdef RENAME_EXCHANGE
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0) {
    if (::unlink(from.c_str()) == 0) return true;
    // `to` was a folder: put both back and let rename refuse it as usual.
    ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE);
  }
  // No old file to swap with, or a filesystem that can't swap.
#endif
  return ::rename(from.c_str(), to.c_str()) == 0;
}

namespace {

Result writeFile(const std::string& path, std::string_view data, std::optional<mode_t> mode, bool sync) {
  // One temporary name per process, created exclusively and never through a
  // link: a file or link planted at that name (another program's, or one a
  // crash left) is removed, not written through, so nothing outside the
  // target's folder can be overwritten in its place.
  const std::string tmp = path + "." + std::to_string(::getpid()) + std::string(kTempSuffix);
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const mode_t bits = mode.value_or(kPrivateFileMode);
  int raw = ::open(tmp.c_str(), flags, bits);
  if (raw < 0 && errno == EEXIST && ::unlink(tmp.c_str()) == 0) raw = ::open(tmp.c_str(), flags, bits);
  Fd fd(raw);
  if (fd.get() < 0) return Result::fail(errnoMessage("couldn't create " + tmp, errno), errno);
  auto failed = [&](const std::string& what) {
    const int err = errno;
    ::unlink(tmp.c_str());
    return Result::fail(errnoMessage(what + " " + tmp, err), err);
  };
  // open() applies the umask; the mode is meant exactly.
  if (::fchmod(fd.get(), bits) != 0) return failed("couldn't set the permissions of");
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
  const bool moved = sync ? ::rename(tmp.c_str(), path.c_str()) == 0 : moveInto(tmp, path);
  if (!moved) return failed("couldn't rename");
  return Result::ok();
}

}  // namespace

Result writeFileDurably(const std::string& path, std::string_view data, std::optional<mode_t> mode) {
  return writeFile(path, data, mode, true);
}

Result writeFileAtomically(const std::string& path, std::string_view data) {
  return writeFile(path, data, std::nullopt, false);
}

Result makePrivateFolder(const std::string& path) {
  if (path.empty()) return Result::fail("No folder was given.");
  std::error_code ec;
  // Parents that are missing are made private too; existing ones are left
  // as their owner set them.
  // The folder itself first: it almost always has its parents already, and
  // an agent's hook comes here on every prompt.
  if (::mkdir(path.c_str(), kPrivateFolderMode) != 0 && errno == ENOENT) {
    const std::filesystem::path target(path);
    std::filesystem::path partial;
    for (const auto& part : target) {
      partial /= part;
      if (::mkdir(partial.c_str(), kPrivateFolderMode) != 0 && errno != EEXIST) {
        return Result::fail(errnoMessage("couldn't create " + partial.string(), errno), errno);
      }
    }
  }
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return Result::fail(errnoMessage("couldn't read " + path, errno), errno);
  if (!S_ISDIR(st.st_mode)) return Result::fail(path + " isn't a folder.");
  // A shared sticky folder (/tmp named as the app folder) is never narrowed:
  // other people's programs rely on it.
  if (st.st_uid == ::getuid() && (st.st_mode & S_ISVTX) == 0 && (st.st_mode & 0777) != kPrivateFolderMode &&
      ::chmod(path.c_str(), kPrivateFolderMode) != 0) {
    return Result::fail(errnoMessage("couldn't make " + path + " private", errno), errno);
  }
  return Result::ok();
}

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
    // A folder is "executable" to access() but cannot be run.
    struct stat st {};
    if (::stat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(name.c_str(), X_OK) == 0) return name;
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
