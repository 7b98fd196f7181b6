#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/procfs_text.h"
#include "platform/linux/sysfs_text.h"
#include "platform/linux/unique_fd.h"

namespace vigilo {

// sysfs attributes are a page at most; /proc/PID/cmdline may be long.
inline constexpr std::size_t kSysfsLimit = 64 * 1024;
inline constexpr std::size_t kCmdlineLimit = 1024 * 1024;

// /sys and /proc under a root prefix, so that tests can point every reading
// at a fixture tree. Not thread-safe: the backend reads it on the loop's
// thread only.
class SysTree {
 public:
  explicit SysTree(std::string root) : root_(std::move(root)) {}

  std::string path(std::string_view p) const { return root_ + std::string(p); }
  std::optional<std::string> read(std::string_view p, std::size_t limit = kSysfsLimit) const;
  // A symbolic link's target; nothing when it can't be read.
  std::optional<std::string> link(std::string_view p) const;
  // The names in a folder, sorted, without "." and "..".
  std::vector<std::string> list(std::string_view folder) const;
  // The names in a folder of devices (/sys/class/..., the ACPI lid
  // buttons), kept for a while on the machine itself; see the definition.
  const std::vector<std::string>& devices(std::string_view folder) const;

  // Whether this is the machine's own /proc, not a fixture tree.
  bool real() const { return root_.empty(); }

  // The process folders of /proc: each pid with the inode number of its
  // folder, in ascending pid order. The kernel makes a new inode for each
  // process it shows (and drops a process's folder when it is reaped), so a
  // pid whose folder has another inode than before names a new process.
  std::vector<std::pair<std::int32_t, ino_t>> processFolders() const;

  // One process's stat line, read and parsed without building a string:
  // the hot path of every listing. Nothing when the process has ended.
  std::optional<ProcStat> stat(std::int32_t pid) const;

  // The first `limit` bytes of a file, in one read.
  std::optional<std::string> head(std::string_view p, std::size_t limit) const;

  // As head, for a kernel file read on every tick: the machine's file stays
  // open and is read again from its start (the kernel makes its text afresh
  // for each read at offset 0), one call instead of three. A fixture's files
  // are opened each time, as a test may replace them.
  std::optional<std::string> headKeptOpen(const std::string& p, std::size_t limit) const;

  // The power supplies of /sys/class/power_supply with their attributes.
  std::vector<PowerSupplyText> supplies() const;
  // The thermal zones of /sys/class/thermal with their trip points.
  std::vector<ThermalZone> zones() const;
  // The first readable /proc/acpi/button/lid/*/state: its path and state.
  std::optional<std::pair<std::string, bool>> acpiLid() const;
  // Whether an input device reports a lid switch.
  bool hasLidSwitchInput() const;
  // The backlight of the built-in screen, by name; nothing without one.
  std::optional<std::string> backlight() const;

 private:
  struct DeviceFolder {
    bool listed = false;
    std::chrono::steady_clock::time_point listedAt;
    std::vector<std::string> names;
  };
  std::string root_;
  mutable std::map<std::string, DeviceFolder, std::less<>> devices_;
  mutable std::map<std::string, UniqueFd> keptOpen_;
};

}  // namespace vigilo
