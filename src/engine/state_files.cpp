#include "engine/state_files.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace vigilo {
namespace {

constexpr std::string_view kTempSuffix = ".vigilo-tmp";

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

bool writeFileDurably(const std::string& path, std::string_view data, std::optional<mode_t> mode) {
  const std::string tmp = path + std::string(kTempSuffix);
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode.value_or(0644));
  if (fd < 0) return false;
  // open() applies the umask; an explicit mode is meant exactly.
  bool ok = (!mode || ::fchmod(fd, *mode) == 0) && writeAll(fd, data) && ::fsync(fd) == 0;
  ok = (::close(fd) == 0) && ok;
  if (ok && ::rename(tmp.c_str(), path.c_str()) == 0) return true;
  ::unlink(tmp.c_str());
  return false;
}

std::optional<std::string> readWholeFile(const std::string& path, std::size_t limit) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<std::size_t>(st.st_size) > limit) {
    ::close(fd);
    return std::nullopt;
  }
  std::string out;
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    if (out.size() > limit) {
      ::close(fd);
      return std::nullopt;
    }
  }
  ::close(fd);
  return out;
}

StateFiles::StateFiles(std::string dir) : dir_(std::move(dir)) {}

std::string StateFiles::path(std::string_view name) const {
  return dir_ + "/" + std::string(name);
}

bool StateFiles::ensureDir() const {
  std::error_code ec;
  std::filesystem::create_directories(dir_, ec);
  return std::filesystem::is_directory(dir_, ec);
}

bool StateFiles::writeDurably(std::string_view name, std::string_view data, std::optional<mode_t> mode) const {
  if (!ensureDir()) return false;
  return writeFileDurably(path(name), data, mode);
}

bool StateFiles::touch(std::string_view name) const {
  if (!ensureDir()) return false;
  const std::string p = path(name);
  int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = ::futimens(fd, nullptr) == 0;
  return (::close(fd) == 0) && ok;
}

bool StateFiles::remove(std::string_view name) const {
  if (::unlink(path(name).c_str()) == 0) return true;
  return errno == ENOENT || errno == ENOTDIR;
}

bool StateFiles::exists(std::string_view name) const {
  struct stat st {};
  return ::stat(path(name).c_str(), &st) == 0;
}

std::optional<std::string> StateFiles::read(std::string_view name, std::size_t limit) const {
  return readWholeFile(path(name), limit);
}

std::optional<Time> StateFiles::modified(std::string_view name) const {
  struct stat st {};
  if (::stat(path(name).c_str(), &st) != 0) return std::nullopt;
  return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
}

}  // namespace vigilo
