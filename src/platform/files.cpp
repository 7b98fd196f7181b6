#include "platform/files.h"
#include "platform/private_folder.h"
#include "platform/leftovers.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <filesystem>
#include <pwd.h>
#include <vector>
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

namespace {

// `text` in single quotes for a command line the person can paste.
std::string shellQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string userName() {
  const uid_t uid = ::getuid();
  std::vector<char> buf(16384);
  passwd pw{};
  passwd* found = nullptr;
  if (::getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found != nullptr && found->pw_name != nullptr) {
    return found->pw_name;
  }
  return std::to_string(uid);
}

Result folderProblem(const std::string& path, const struct stat& st) {
  const std::string q = shellQuoted(path);
  if (S_ISLNK(st.st_mode)) {
    return Result::fail(path + " is a symbolic link, not a folder, so Vigilo won't use it: whoever can change the "
                        "link decides where Vigilo's records go. Remove it (rm " + q + "); Vigilo makes the folder itself.",
                        ELOOP);
  }
  if (!S_ISDIR(st.st_mode)) return Result::fail(path + " isn't a folder.", ENOTDIR);
  if (st.st_uid != ::getuid()) {
    return Result::fail(path + " belongs to another user (user id " + std::to_string(st.st_uid) +
                            "), so Vigilo won't use it: that user could plant links in it or change Vigilo's "
                            "records. If it is yours, run: sudo chown -R " + userName() + " " + q +
                            "; otherwise remove it or move it aside.",
                        EPERM);
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    char bits[8];
    std::snprintf(bits, sizeof bits, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    return Result::fail(path + " can be changed by other users (its permissions are " + bits +
                            "), so Vigilo won't use it: they could plant links in it or change Vigilo's records. "
                            "Check that it holds nothing you didn't put there, then run: chmod 700 " + q,
                        EPERM);
  }
  return Result::ok();
}

}  // namespace

Result checkPrivateFolder(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return Result::fail(errnoMessage("couldn't read " + path, errno), errno);
  return folderProblem(path, st);
}

Result makePrivateFolder(const std::string& path) {
  if (path.empty()) return Result::fail("No folder was given.");
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
  // A folder someone else can change is refused, never narrowed: what they
  // planted before would stay.
  if (Result r = folderProblem(path, st); !r) return r;
  if ((st.st_mode & 07777) != kPrivateFolderMode && ::chmod(path.c_str(), kPrivateFolderMode) != 0) {
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

namespace {

// Whether `name` is one of Vigilo's temporary names, and the writer's pid
// when the name carries one.
bool isTempName(std::string_view name, std::optional<pid_t>* pid) {
  *pid = std::nullopt;
  if (name.size() > kTempSuffix.size() && name.substr(name.size() - kTempSuffix.size()) == kTempSuffix) {
    std::string_view rest = name.substr(0, name.size() - kTempSuffix.size());
    const auto dot = rest.rfind('.');
    if (dot != std::string_view::npos && dot + 1 < rest.size() && rest.size() - dot - 1 <= 9 &&
        rest.find_first_not_of("0123456789", dot + 1) == std::string_view::npos) {
      *pid = static_cast<pid_t>(std::strtol(std::string(rest.substr(dot + 1)).c_str(), nullptr, 10));
    }
    return true;
  }
  // The watchdog script's mktemp names: ".vigilo-tmp." and six characters.
  const std::string marker = std::string(kTempSuffix) + ".";
  return name.size() > marker.size() + 6 && name.substr(name.size() - 6 - marker.size(), marker.size()) == marker;
}

int removeTemps(int dirFd, std::string_view prefix, int depth, std::time_t now) {
  DIR* dir = ::fdopendir(dirFd);
  if (dir == nullptr) {
    ::close(dirFd);
    return 0;
  }
  int removed = 0;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat st {};
    if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      if (depth <= 0) continue;
      const int sub = ::openat(::dirfd(dir), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (sub >= 0) removed += removeTemps(sub, {}, depth - 1, now);
      continue;
    }
    if (!prefix.empty() && name.substr(0, prefix.size()) != prefix) continue;
    std::optional<pid_t> pid;
    if (!isTempName(name, &pid)) continue;
    const bool writerGone = pid && *pid > 0 && ::kill(*pid, 0) != 0 && errno == ESRCH;
    const bool old = now - st.st_mtime >= 60;
    if ((writerGone || old) && ::unlinkat(::dirfd(dir), entry->d_name, 0) == 0) ++removed;
  }
  ::closedir(dir);
  return removed;
}

}  // namespace

int removeLeftoverTemps(const std::string& folder, int depth, std::string_view prefix) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return 0;
  return removeTemps(fd, prefix, depth, std::time(nullptr));
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

std::string_view lastComponent(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isFolder(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_directory(path, ec);
}

bool entryExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(std::filesystem::symlink_status(path, ec));
}

}  // namespace vigilo
