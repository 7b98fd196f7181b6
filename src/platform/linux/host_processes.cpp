#include "platform/linux/host_processes.h"

#include <cctype>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "platform/files.h"
#include "platform/linux/procfs_text.h"

namespace vigilo {
namespace {

std::string linkTarget(const std::string& path) {
  char buf[4096];
  ssize_t n = ::readlink(path.c_str(), buf, sizeof buf - 1);
  return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

// A /proc file read whole. Their sizes show as 0, so unlike readWholeFile
// there is nothing to learn from fstat, and the read that would return 0 is
// skipped: two calls fewer per file, which the hook's walk up its parents
// pays for at every level.
std::optional<std::string> readProcFile(const std::string& path, std::size_t limit) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  std::string out;
  char buf[4096];
  bool ok = true;
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    if (out.size() > limit) {
      ok = false;
      break;
    }
    // These files hand over all they have up to the size asked for, so a
    // short read is their end.
    if (static_cast<std::size_t>(n) < sizeof buf) break;
  }
  ::close(fd);
  if (!ok) return std::nullopt;
  return out;
}

std::optional<ProcessInfo> readProcess(std::int32_t pid, bool withCwd) {
  if (pid < 1) return std::nullopt;
  const std::string base = "/proc/" + std::to_string(pid);
  auto statText = readProcFile(base + "/stat", 65536);
  if (!statText) return std::nullopt;
  auto stat = parseProcStat(*statText);
  static const std::optional<std::int64_t> bootTime = [] {
    auto text = readProcFile("/proc/stat", 1 << 20);
    return text ? bootTimeFromProcStat(*text) : std::nullopt;
  }();
  if (!stat || !bootTime) return std::nullopt;
  const long ticks = ::sysconf(_SC_CLK_TCK);
  ProcessInfo info;
  info.pid = stat->pid;
  info.ppid = stat->ppid;
  info.startMicros = startMicros(*bootTime, stat->starttime, ticks);
  info.cpuMicros = ticksToMicros(stat->utime + stat->stime, ticks);
  info.stopped = stat->state == 'T';
  info.path = exePathFromLink(linkTarget(base + "/exe"));
  if (auto cmdline = readProcFile(base + "/cmdline", 1 << 20)) info.args = splitCmdline(*cmdline);
  if (info.path.empty() && !info.args.empty()) info.path = info.args.front();
  if (withCwd) info.cwd = linkTarget(base + "/cwd");
  return info;
}

class HostProcesses final : public Processes {
 public:
  std::optional<ProcessInfo> info(std::int32_t pid) override { return hostProcessInfo(pid); }
  std::optional<ProcessInfo> identity(std::int32_t pid) override { return readProcess(pid, false); }
  std::vector<ProcessInfo> list() override {
    std::vector<ProcessInfo> out;
    DIR* dir = ::opendir("/proc");
    if (dir == nullptr) return out;
    while (dirent* e = ::readdir(dir)) {
      if (!std::isdigit(static_cast<unsigned char>(e->d_name[0]))) continue;
      if (auto p = hostProcessInfo(static_cast<std::int32_t>(std::strtol(e->d_name, nullptr, 10)))) {
        out.push_back(std::move(*p));
      }
    }
    ::closedir(dir);
    return out;
  }
  Result stop(std::int32_t) override { return readOnly(); }
  Result resume(std::int32_t) override { return readOnly(); }
  Result slow(std::int32_t) override { return readOnly(); }
  Result unslow(std::int32_t) override { return readOnly(); }

 private:
  static Result readOnly() { return Result::fail("This tool only reads processes; the app changes them."); }
};

}  // namespace

std::optional<ProcessInfo> hostProcessInfo(std::int32_t pid) { return readProcess(pid, true); }

std::unique_ptr<Processes> makeHostProcesses() { return std::make_unique<HostProcesses>(); }

}  // namespace vigilo
