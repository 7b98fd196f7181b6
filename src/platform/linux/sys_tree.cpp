#include "platform/linux/sys_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "platform/files.h"

namespace vigilo {
namespace {

// How long a listing of a device folder is kept; one that found nothing (no
// lid, no backlight, no battery) is kept longer, as such a device seldom
// comes later.
constexpr double kDeviceListSeconds = 10.0;
constexpr double kNoDeviceListSeconds = 60.0;

// Up to `limit` bytes from the start of an open file.
std::optional<std::string> headOf(int fd, std::size_t limit) {
  std::string out(limit, '\0');
  ssize_t n;
  do {
    n = ::pread(fd, out.data(), limit, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return std::nullopt;
  out.resize(static_cast<std::size_t>(n));
  return out;
}

// A folder name of /proc that is a pid, else 0.
std::int32_t pidOfName(const char* name) {
  std::int32_t pid = 0;
  int digits = 0;
  for (const char* c = name; *c != '\0'; ++c, ++digits) {
    if (*c < '0' || *c > '9' || digits == 9) return 0;
    pid = pid * 10 + (*c - '0');
  }
  return digits > 0 ? pid : 0;
}

}  // namespace

std::optional<std::string> SysTree::read(std::string_view p, std::size_t limit) const {
  return readWholeFile(path(p), limit);
}

std::optional<std::string> SysTree::link(std::string_view p) const {
  char buf[4096];
  const ssize_t n = ::readlink(path(p).c_str(), buf, sizeof buf);
  if (n <= 0 || static_cast<std::size_t>(n) >= sizeof buf) return std::nullopt;
  return std::string(buf, static_cast<std::size_t>(n));
}

std::vector<std::string> SysTree::list(std::string_view folder) const {
  std::vector<std::string> out;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path(folder).c_str()), ::closedir);
  if (!dir) return out;
  while (const dirent* e = ::readdir(dir.get())) {
    std::string name = e->d_name;
    if (name != "." && name != "..") out.push_back(std::move(name));
  }
  std::sort(out.begin(), out.end());
  return out;
}

// Kept for up to kDeviceListSeconds (kNoDeviceListSeconds when empty) on the
// machine itself: devices come and go seldom, and the tick and the
// platform's polls read them several times a tick. sysfs keeps no
// modification time to tell a change by, hence the age. A fixture tree is
// listed every time.
const std::vector<std::string>& SysTree::devices(std::string_view folder) const {
  auto at = devices_.find(folder);
  if (at == devices_.end()) at = devices_.emplace(std::string(folder), DeviceFolder{}).first;
  DeviceFolder& kept = at->second;
  const auto now = std::chrono::steady_clock::now();
  const double keep = kept.names.empty() ? kNoDeviceListSeconds : kDeviceListSeconds;
  if (real() && kept.listed && now - kept.listedAt < std::chrono::duration<double>(keep)) {
    return kept.names;
  }
  kept.names = list(folder);
  kept.listed = true;
  kept.listedAt = now;
  return kept.names;
}

std::vector<std::pair<std::int32_t, ino_t>> SysTree::processFolders() const {
  std::vector<std::pair<std::int32_t, ino_t>> out;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path("/proc").c_str()), ::closedir);
  if (!dir) return out;
  while (const dirent* e = ::readdir(dir.get())) {
    if (const std::int32_t pid = pidOfName(e->d_name); pid > 0) out.emplace_back(pid, e->d_ino);
  }
  // The machine's /proc lists in pid order already; a fixture may not.
  if (!std::is_sorted(out.begin(), out.end())) std::sort(out.begin(), out.end());
  return out;
}

std::optional<ProcStat> SysTree::stat(std::int32_t pid) const {
  char file[512];
  const int len = std::snprintf(file, sizeof file, "%s/proc/%d/stat", root_.c_str(), pid);
  if (len <= 0 || static_cast<std::size_t>(len) >= sizeof file) return std::nullopt;
  const int fd = ::open(file, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  // A stat line is well under 1 KB; procfs hands it out whole in one read.
  char buf[2048];
  ssize_t n;
  do {
    n = ::read(fd, buf, sizeof buf);
  } while (n < 0 && errno == EINTR);
  ::close(fd);
  if (n <= 0 || static_cast<std::size_t>(n) == sizeof buf) return std::nullopt;
  return parseProcStat(std::string_view(buf, static_cast<std::size_t>(n)));
}

std::optional<std::string> SysTree::head(std::string_view p, std::size_t limit) const {
  UniqueFd fd(::open(path(p).c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  return headOf(fd.get(), limit);
}

std::optional<std::string> SysTree::headKeptOpen(const std::string& p, std::size_t limit) const {
  if (!real()) return head(p, limit);
  UniqueFd& fd = keptOpen_[p];
  if (!fd) fd.reset(::open(p.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  auto out = headOf(fd.get(), limit);
  if (!out) fd.reset();
  return out;
}

std::vector<PowerSupplyText> SysTree::supplies() const {
  std::vector<PowerSupplyText> out;
  for (const std::string& name : devices("/sys/class/power_supply")) {
    PowerSupplyText s;
    s.name = name;
    const std::string base = "/sys/class/power_supply/" + name + "/";
    for (const std::string& attribute : powerSupplyAttributeNames()) {
      // A driver may fail one read (EIO, ENODATA) and not the others.
      if (auto text = read(base + attribute)) s.attributes.emplace(attribute, std::move(*text));
    }
    out.push_back(std::move(s));
  }
  return out;
}

std::vector<ThermalZone> SysTree::zones() const {
  std::vector<ThermalZone> out;
  for (const std::string& name : devices("/sys/class/thermal")) {
    if (name.rfind("thermal_zone", 0) != 0) continue;
    const std::string base = "/sys/class/thermal/" + name + "/";
    ThermalZoneText t;
    t.name = name;
    t.type = read(base + "type").value_or("");
    t.temp = read(base + "temp").value_or("");
    for (int i = 0; i < 64; ++i) {
      const std::string trip = base + "trip_point_" + std::to_string(i) + "_";
      auto type = read(trip + "type");
      if (!type) break;
      t.trips.emplace_back(std::move(*type), read(trip + "temp").value_or(""));
    }
    out.push_back(parseThermalZone(t));
  }
  return out;
}

std::optional<std::pair<std::string, bool>> SysTree::acpiLid() const {
  std::optional<std::pair<std::string, bool>> found;
  for (const std::string& name : devices("/proc/acpi/button/lid")) {
    const std::string p = "/proc/acpi/button/lid/" + name + "/state";
    auto text = read(p);
    auto closed = text ? lidClosedFromAcpiState(*text) : std::nullopt;
    if (!closed) continue;
    if (!found) found = std::make_pair(p, *closed);
    if (*closed) found->second = true;  // two lid buttons: shut if either says so
  }
  return found;
}

bool SysTree::hasLidSwitchInput() const {
  for (const std::string& name : devices("/sys/class/input")) {
    if (name.rfind("input", 0) != 0) continue;
    auto sw = read("/sys/class/input/" + name + "/capabilities/sw");
    if (sw && hasLidSwitchBit(*sw)) return true;
  }
  return false;
}

std::optional<std::string> SysTree::backlight() const {
  std::vector<std::pair<std::string, std::string>> all;
  for (const std::string& name : devices("/sys/class/backlight")) {
    all.emplace_back(name, read("/sys/class/backlight/" + name + "/type").value_or(""));
  }
  return chooseBacklight(all);
}

}  // namespace vigilo
