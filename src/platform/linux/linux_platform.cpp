#include "platform/linux/linux_platform.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/files.h"
#include "platform/linux/desktop_entries.h"
#include "platform/linux/logind.h"
#include "platform/linux/rtc_wake.h"
#include "platform/linux/procfs_text.h"
#include "platform/linux/sysfs_text.h"
#include "platform/linux/unique_fd.h"

namespace vigilo {
namespace {

// The lock: only a handle-lid-switch lock in block mode stops logind's own
// lid suspend, whatever LidSwitchIgnoreInhibited says (logind.conf(5));
// "sleep" blocks every other suspend request, "idle" the idle action.
constexpr const char* kLockWhat = "handle-lid-switch:sleep:idle";
constexpr const char* kLockWho = "Vigilo";
constexpr const char* kLockWhy = "Keeping the laptop awake, also with the lid shut, while coding agents work";
constexpr const char* kProbeWhy = "Checking that Vigilo may keep the laptop awake";
constexpr const char* kBlock = "block";

// How long a probe of the lock's permission stands. Permission changes
// only with the session (a login, an SSH-only session), and every probe
// briefly shows a lock to whoever watches logind's list.
constexpr double kProbeSeconds = 60.0;
// The power-source and thermal watch, as often as the engine's tick.
constexpr double kEventPollSeconds = 2.0;
// A reading someone else (the app's tick) made this recently serves the poll:
// the tick has acted on it already, and reads again within the period.
constexpr double kEventPollFresh = 2.5;
// How long a listing of a device folder is kept; one that found nothing (no
// lid, no backlight, no battery) is kept longer, as such a device seldom
// comes later.
constexpr double kDeviceListSeconds = 10.0;
constexpr double kNoDeviceListSeconds = 60.0;
// The machine's draw is shared out among processes at most this often.
constexpr double kEnergySampleSeconds = 1.0;

// sysfs attributes are a page at most; /proc/PID/cmdline may be long.
constexpr std::size_t kSysfsLimit = 64 * 1024;
constexpr std::size_t kCmdlineLimit = 1024 * 1024;

// <linux/ioprio.h> is missing from older kernel headers.
constexpr int kIoprioWhoProcess = 1;
constexpr int kIoprioClassShift = 13;
constexpr int kIoprioClassRealtime = 1;
constexpr int kIoprioClassIdle = 3;
constexpr int ioprioClass(int value) { return value >> kIoprioClassShift; }
constexpr int kIoprioIdle = kIoprioClassIdle << kIoprioClassShift;
constexpr int kCapSysNice = 23;

bool isNumber(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The parts of a colon-separated "what" of a lock.
bool lockCovers(const Inhibitor& lock, std::string_view kind) {
  std::string_view what = lock.what;
  while (!what.empty()) {
    const auto colon = what.find(':');
    if (what.substr(0, colon) == kind) return true;
    if (colon == std::string_view::npos) break;
    what.remove_prefix(colon + 1);
  }
  return false;
}

bool blocksSleep(const Inhibitor& lock) {
  return lock.mode == kBlock && (lockCovers(lock, "sleep") || lockCovers(lock, "handle-lid-switch"));
}

// Logind drops a closed lock from its list only when its event loop gets to
// it, so a probe or the lock this process just released may still show for a
// moment; neither is someone else keeping the machine awake.
bool isOursOrAProbe(const Inhibitor& lock) {
  return lock.who == kLockWho && (lock.why == kProbeWhy || lock.pid == static_cast<std::uint32_t>(::getpid()));
}

// A program other than Vigilo that handles the lid switch itself, said in
// plain English; nothing when logind handles it. While such a lock exists
// logind leaves the lid alone (the Inhibitor Locks document of systemd) and
// the program's own lid setting decides.
std::optional<std::string> desktopLidOwner(const std::vector<Inhibitor>& locks) {
  for (const Inhibitor& lock : locks) {
    if (lock.who == kLockWho || lock.mode != kBlock || !lockCovers(lock, "handle-lid-switch")) continue;
    std::string name = lock.who;
    if (lock.who == "PowerDevil") name = "KDE's power management (PowerDevil)";
    if (lock.who == "xfce4-power-manager") name = "Xfce's power manager";
    return name +
           " handles the lid itself, so its own setting for closing the lid decides whether the laptop "
           "sleeps when shut. Set it to do nothing on lid close if Vigilo should keep the laptop awake shut.";
  }
  return std::nullopt;
}

// What a refused or impossible lock means to the person, and what to do.
std::string sleepSwitchProblem(BusFailure failure, const std::string& message) {
  switch (failure) {
    case BusFailure::NoBus:
      return "There's no system D-Bus here (" + message +
             "), as in a container, so Vigilo can't ask logind to keep the machine awake. Run Vigilo on the "
             "laptop itself, in your desktop session.";
    case BusFailure::NoLogind:
      return "logind (systemd-logind) isn't running on the system bus (" + message +
             "), so Vigilo can't take the lock that keeps the laptop awake. Vigilo needs a system that runs "
             "systemd-logind.";
    case BusFailure::Refused:
      return "logind refused Vigilo's lock that keeps the laptop awake (" + message +
             "): it needs a local login session. Start Vigilo from your desktop session on the laptop, not over "
             "SSH or as a user service that lingers without a session.";
    case BusFailure::Failed:
    case BusFailure::None:
      break;
  }
  return "logind couldn't give Vigilo the lock that keeps the laptop awake (" + message + "). Vigilo tries again.";
}

// ---------------------------------------------------------------- the tree

// /sys and /proc under a root prefix.
class SysTree {
 public:
  explicit SysTree(std::string root) : root_(std::move(root)) {}

  std::string path(std::string_view p) const { return root_ + std::string(p); }
  std::optional<std::string> read(std::string_view p, std::size_t limit = kSysfsLimit) const {
    return readWholeFile(path(p), limit);
  }
  std::optional<std::string> link(std::string_view p) const {
    char buf[4096];
    const ssize_t n = ::readlink(path(p).c_str(), buf, sizeof buf);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof buf) return std::nullopt;
    return std::string(buf, static_cast<std::size_t>(n));
  }
  // The names in a folder, sorted, without "." and "..".
  std::vector<std::string> list(std::string_view folder) const {
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
  // The names in a folder of devices (/sys/class/..., the ACPI lid
  // buttons), kept for up to kDeviceListSeconds (kNoDeviceListSeconds when
  // empty) on the machine itself: devices come and go seldom, and the tick
  // and the platform's polls read them several times a tick. sysfs keeps no modification time to tell a
  // change by, hence the age. A fixture tree is listed every time.
  const std::vector<std::string>& devices(std::string_view folder) const {
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

  // Whether this is the machine's own /proc, not a fixture tree.
  bool real() const { return root_.empty(); }

  // The process folders of /proc: each pid with the inode number of its
  // folder, in ascending pid order. The kernel makes a new inode for each
  // process it shows (and drops a process's folder when it is reaped), so a
  // pid whose folder has another inode than before names a new process.
  std::vector<std::pair<std::int32_t, ino_t>> processFolders() const {
    std::vector<std::pair<std::int32_t, ino_t>> out;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path("/proc").c_str()), ::closedir);
    if (!dir) return out;
    while (const dirent* e = ::readdir(dir.get())) {
      std::int32_t pid = 0;
      int digits = 0;
      for (const char* c = e->d_name; *c != '\0'; ++c, ++digits) {
        if (*c < '0' || *c > '9' || digits == 9) {
          digits = 0;
          break;
        }
        pid = pid * 10 + (*c - '0');
      }
      if (digits > 0 && pid > 0) out.emplace_back(pid, e->d_ino);
    }
    // The machine's /proc lists in pid order already; a fixture may not.
    if (!std::is_sorted(out.begin(), out.end())) std::sort(out.begin(), out.end());
    return out;
  }

  // One process's stat line, read and parsed without building a string:
  // the hot path of every listing. Nothing when the process has ended.
  std::optional<ProcStat> stat(std::int32_t pid) const {
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

  // The first `limit` bytes of a file, in one read.
  std::optional<std::string> head(std::string_view p, std::size_t limit) const {
    UniqueFd fd(::open(path(p).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    return headOf(fd.get(), limit);
  }

  // As head, for a kernel file read on every tick: the machine's file stays
  // open and is read again from its start (the kernel makes its text afresh
  // for each read at offset 0), one call instead of three. A fixture's files
  // are opened each time, as a test may replace them.
  std::optional<std::string> headKeptOpen(const std::string& p, std::size_t limit) const {
    if (!real()) return head(p, limit);
    UniqueFd& fd = keptOpen_[p];
    if (!fd) fd.reset(::open(p.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    auto out = headOf(fd.get(), limit);
    if (!out) fd.reset();
    return out;
  }

  // Up to `limit` bytes from the start of an open file.
  static std::optional<std::string> headOf(int fd, std::size_t limit) {
    std::string out(limit, '\0');
    ssize_t n;
    do {
      n = ::pread(fd, out.data(), limit, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return std::nullopt;
    out.resize(static_cast<std::size_t>(n));
    return out;
  }

  std::vector<PowerSupplyText> supplies() const {
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

  std::vector<ThermalZone> zones() const {
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

  // The first readable /proc/acpi/button/lid/*/state: its path and state.
  std::optional<std::pair<std::string, bool>> acpiLid() const {
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

  bool hasLidSwitchInput() const {
    for (const std::string& name : devices("/sys/class/input")) {
      if (name.rfind("input", 0) != 0) continue;
      auto sw = read("/sys/class/input/" + name + "/capabilities/sw");
      if (sw && hasLidSwitchBit(*sw)) return true;
    }
    return false;
  }

  std::optional<std::string> backlight() const {
    std::vector<std::pair<std::string, std::string>> all;
    for (const std::string& name : devices("/sys/class/backlight")) {
      all.emplace_back(name, read("/sys/class/backlight/" + name + "/type").value_or(""));
    }
    return chooseBacklight(all);
  }

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

// ---------------------------------------------------------------- the sleep switch

// Vigilo's own inhibitor lock; held while the descriptor is open.
struct SleepLock {
  UniqueFd fd;
};

class LinuxPower final : public PowerControl {
 public:
  LinuxPower(Logind& logind, SleepLock& lock, Clock& clock) : logind_(logind), lock_(lock), clock_(clock) {}

  Result setSleepDisabled(bool disabled) override {
    if (!disabled) {
      // Closing our descriptor ends our lock and nobody else's.
      lock_.fd.reset();
      return Result::ok();
    }
    if (lock_.fd) return Result::ok();
    auto answer = logind_.inhibit(kLockWhat, kLockWho, kLockWhy, kBlock);
    if (!answer.ok()) {
      SetupStatus refused{false, sleepSwitchProblem(answer.failure, answer.message)};
      remember(refused);
      return Result::fail(refused.reason);
    }
    lock_.fd = std::move(*answer.value);
    remember(SetupStatus{true, {}});
    return Result::ok();
  }

  bool switchIsShared() const override { return false; }

  Result sleepNow() override {
    auto answer = logind_.suspend();
    if (answer.ok()) return Result::ok();
    if (answer.failure == BusFailure::Refused) {
      return Result::fail("logind refused to suspend the machine (" + answer.message +
                          "); suspending needs a local login session.");
    }
    return Result::fail("Couldn't ask logind to suspend the machine: " + answer.message);
  }

  // Whether logind would give the lock, asked the one precise way: a lock
  // of the same kind taken and closed at once. CanSuspend would answer
  // polkit's question for suspending, which differs from the one for the
  // lid-switch lock exactly in the remote and lingering sessions that
  // matter here. Holding our lock proves it without asking.
  SetupStatus setupStatus() override {
    if (lock_.fd) return SetupStatus{true, {}};
    const double now = clock_.monotonic();
    if (probe_ && now - probedAt_ < kProbeSeconds && now >= probedAt_) return *probe_;
    auto answer = logind_.inhibit(kLockWhat, kLockWho, kProbeWhy, kBlock);
    remember(answer.ok() ? SetupStatus{true, {}}
                         : SetupStatus{false, sleepSwitchProblem(answer.failure, answer.message)});
    return *probe_;  // the probe's descriptor closes here
  }

  // Low Power Mode is a power-saver hold of power-profiles-daemon: the
  // profile in force is read as "lowpowermode" 1 (power-saver) or 0.
  std::optional<PowerModeSetting> batteryPowerMode() override {
    auto profile = logind_.activeProfile();
    if (!profile.ok()) return std::nullopt;
    return PowerModeSetting{"lowpowermode", *profile.value == "power-saver" ? 1 : 0};
  }
  Result setPowerMode(const std::string& key, int value) override {
    if (value != 1) return restorePowerMode(key, value);
    if (profileHold_) return Result::ok();
    auto hold = logind_.holdProfile("power-saver", "Saving power while the lid is shut", "vigilo");
    if (!hold.ok()) return Result::fail("power-profiles-daemon didn't switch to power-saver: " + hold.message);
    profileHold_ = *hold.value;
    return Result::ok();
  }
  // The hold is the only change: releasing it puts back whatever profile
  // was in force. A hold of an earlier run died with that run.
  Result restorePowerMode(const std::string&, int) override {
    if (!profileHold_) return Result::ok();
    auto released = logind_.releaseProfile(*profileHold_);
    if (!released.ok() && released.failure != BusFailure::NoLogind) {
      return Result::fail("power-profiles-daemon didn't release Vigilo's power-saver hold: " + released.message);
    }
    profileHold_.reset();
    return Result::ok();
  }
  Result setAutomaticBackups(bool) override {
    return Result::fail("Automatic backups (Time Machine) aren't available on Linux, so there is nothing to switch.");
  }

 private:
  void remember(SetupStatus s) {
    probe_ = std::move(s);
    probedAt_ = clock_.monotonic();
  }

  Logind& logind_;
  SleepLock& lock_;
  Clock& clock_;
  std::optional<std::uint32_t> profileHold_;
  std::optional<SetupStatus> probe_;
  double probedAt_ = 0.0;
};

// ---------------------------------------------------------------- readings

class LinuxRegistry final : public Registry {
 public:
  LinuxRegistry(const SysTree& tree, Logind& logind, const SleepLock& lock, Clock& clock)
      : tree_(tree), logind_(logind), lock_(lock), clock_(clock) {}

  // A default route is the network path: without one nothing outside the
  // local networks can be reached.
  std::optional<bool> online() override {
    auto route = tree_.read("/proc/net/route");
    auto route6 = tree_.read("/proc/net/ipv6_route");
    if (!route && !route6) return std::nullopt;
    return hasDefaultRoute(route.value_or(""), route6.value_or(""));
  }

  std::optional<BatteryProperties> battery() override {
    const auto supplies = tree_.supplies();
    auto b = batteryFromSupplies(supplies);
    adapter_ = b ? std::optional<bool>(b->externalConnected) : adapterOnline(supplies);
    suppliesAt_ = clock_.monotonic();
    ++suppliesReads_;
    return b;
  }

  std::optional<bool> sleepDisabled() override {
    if (lock_.fd) return true;
    auto locks = logind_.listInhibitors();
    if (!locks.ok()) return std::nullopt;
    return std::any_of(locks.value->begin(), locks.value->end(),
                       [](const Inhibitor& lock) { return blocksSleep(lock) && !isOursOrAProbe(lock); });
  }

  std::optional<bool> lidClosed() override {
    if (auto acpi = tree_.acpiLid()) return acpi->second;
    if (!lidSwitchInput()) return std::nullopt;
    auto closed = logind_.lidClosed();
    return closed.value;
  }

  int thermalState() override {
    thermal_ = thermalLevel(tree_.zones(), thermal_);
    thermalAt_ = clock_.monotonic();
    ++thermalReads_;
    return thermal_;
  }

  // Whether the machine runs on an adapter; nothing without battery or
  // adapter.
  std::optional<bool> adapter() {
    battery();
    return adapter_;
  }

  // The heat level and the adapter as another caller read them within the
  // last `maxAge` seconds, else read now. `ownRead` is the caller's mark of
  // its own last read: the app's tick reads both, and the event poll beside
  // it need not read them again, while a poll alone still reads each time.
  int recentThermalState(double maxAge, std::uint64_t& ownRead) {
    if (thermalReads_ != ownRead && fresh(thermalAt_, maxAge)) return thermal_;
    thermalState();
    ownRead = thermalReads_;
    return thermal_;
  }
  std::optional<bool> recentAdapter(double maxAge, std::uint64_t& ownRead) {
    if (suppliesReads_ != ownRead && fresh(suppliesAt_, maxAge)) return adapter_;
    adapter();
    ownRead = suppliesReads_;
    return adapter_;
  }

  // What the machine draws from its battery, in watts; nothing on an adapter
  // or without a battery.
  std::optional<double> batteryDraw() {
    auto b = battery();
    if (!b || !b->amperage || !b->voltage || *b->amperage >= 0) return std::nullopt;
    return static_cast<double>(*b->voltage) * static_cast<double>(-*b->amperage) / 1e6;
  }

  // The lid switch does not come and go, so the input devices are looked at
  // once.
  bool lidSwitchInput() {
    if (!lidSwitchInput_) lidSwitchInput_ = tree_.hasLidSwitchInput();
    return *lidSwitchInput_;
  }

 private:
  bool fresh(const std::optional<double>& at, double maxAge) const {
    const double now = clock_.monotonic();
    return at && now >= *at && now - *at <= maxAge;
  }

  const SysTree& tree_;
  Logind& logind_;
  const SleepLock& lock_;
  Clock& clock_;
  int thermal_ = 0;
  std::optional<double> thermalAt_;
  std::uint64_t thermalReads_ = 0;
  std::optional<bool> adapter_;
  std::optional<double> suppliesAt_;
  std::uint64_t suppliesReads_ = 0;
  std::optional<bool> lidSwitchInput_;
};

// ---------------------------------------------------------------- displays

class LinuxDisplays final : public Displays {
 public:
  LinuxDisplays(const SysTree& tree, Logind& logind) : tree_(tree), logind_(logind) {}

  Result setBuiltInEnabled(bool) override {
    return Result::fail("Switching the built-in screen off and on isn't available on Linux yet.");
  }

  bool hasBuiltIn() override { return tree_.backlight().has_value(); }
  std::optional<double> brightness() override {
    auto name = tree_.backlight();
    if (!name) return std::nullopt;
    auto now = tree_.read("/sys/class/backlight/" + *name + "/brightness");
    auto max = tree_.read("/sys/class/backlight/" + *name + "/max_brightness");
    if (!now || !max) return std::nullopt;
    const auto nowValue = sysfsInteger(*now);
    const auto maxValue = sysfsInteger(*max);
    if (!nowValue || !maxValue || *maxValue < 1 || *nowValue < 0) return std::nullopt;
    return std::clamp(static_cast<double>(*nowValue) / static_cast<double>(*maxValue), 0.0, 1.0);
  }
  std::optional<bool> sessionLocked() override {
    auto locked = logind_.sessionLocked();
    return locked.ok() ? locked.value : std::nullopt;
  }
  Result lockScreen() override {
    auto answer = logind_.lockSession();
    if (answer.ok()) return Result::ok();
    return Result::fail("logind didn't lock the session: " + answer.message);
  }
  // The sleep switch's logind lock already blocks "idle" for as long as the
  // machine is held, and a closed-lid session only runs while it is held.
  Result holdDisplayAwake(bool) override { return Result::ok(); }

  Result setBrightness(double level) override {
    auto name = tree_.backlight();
    if (!name) {
      return Result::fail("No screen backlight found under /sys/class/backlight, so Vigilo can't set the brightness.");
    }
    auto max = tree_.read("/sys/class/backlight/" + *name + "/max_brightness");
    auto maxValue = max ? sysfsInteger(*max) : std::nullopt;
    if (!maxValue || *maxValue < 1 || *maxValue > UINT32_MAX) {
      return Result::fail("The backlight " + *name +
                          " doesn't say its maximum brightness, so Vigilo leaves it as it is.");
    }
    if (!std::isfinite(level)) return Result::fail("That brightness isn't a number.");
    const auto value =
        static_cast<std::uint32_t>(std::lround(std::clamp(level, 0.0, 1.0) * static_cast<double>(*maxValue)));
    auto answer = logind_.setBrightness("backlight", *name, value);
    if (answer.ok()) return Result::ok();
    return Result::fail("logind didn't set the brightness of " + *name + " (" + answer.message +
                        "); it does so only for the active local session.");
  }

 private:
  const SysTree& tree_;
  Logind& logind_;
};

// ---------------------------------------------------------------- processes

// Shares the machine's measured draw out among processes by their share of
// the CPU time all processes used in the same stretch.
class EnergyShare {
 public:
  // The machine's counters now: busy CPU time, and the draw in watts.
  void sample(double monotonic, std::uint64_t busyMicros, double watts) {
    if (sampled_ && monotonic > lastAt_ && busyMicros >= lastBusy_) {
      joules_ += watts * (monotonic - lastAt_);
      busy_ += busyMicros - lastBusy_;
    }
    sampled_ = true;
    lastAt_ = monotonic;
    lastBusy_ = busyMicros;
  }

  // The energy of one process so far, counted from when it was first seen.
  // Reading a process seldom costs nothing: its share is of the machine's
  // energy over the whole stretch since its last reading.
  std::uint64_t energyOf(std::int32_t pid, std::uint64_t startTicks, std::uint64_t cpuMicros) {
    Seen& s = seen_[pid];
    if (!s.known || s.startTicks != startTicks) {
      s = Seen{true, startTicks, cpuMicros, joules_, busy_, 0.0};
      return 0;
    }
    const double machine = joules_ - s.joulesAt;
    const std::uint64_t busy = busy_ - s.busyAt;
    if (busy > 0 && cpuMicros > s.cpuMicros) {
      const double share = std::min(1.0, static_cast<double>(cpuMicros - s.cpuMicros) / static_cast<double>(busy));
      s.nanojoules += machine * share * 1e9;
    }
    s.cpuMicros = cpuMicros;
    s.joulesAt = joules_;
    s.busyAt = busy_;
    return static_cast<std::uint64_t>(s.nanojoules);
  }

  // Forgets processes that are gone.
  void keepOnly(const std::vector<std::int32_t>& pids) {
    std::erase_if(seen_, [&](const auto& entry) { return !std::binary_search(pids.begin(), pids.end(), entry.first); });
  }

 private:
  struct Seen {
    bool known = false;
    std::uint64_t startTicks = 0;
    std::uint64_t cpuMicros = 0;
    double joulesAt = 0.0;
    std::uint64_t busyAt = 0;
    double nanojoules = 0.0;
  };
  bool sampled_ = false;
  double lastAt_ = 0.0;
  std::uint64_t lastBusy_ = 0;
  double joules_ = 0.0;     // the machine's energy since the first sample
  std::uint64_t busy_ = 0;  // busy CPU microseconds since the first sample
  std::unordered_map<std::int32_t, Seen> seen_;
};

// One thread's scheduling, as read before Vigilo changed it.
struct ThreadPriority {
  int ioprio = 0;
  int policy = SCHED_OTHER;  // with SCHED_RESET_ON_FORK when set
  int nice = 0;
};

int basePolicy(int policy) { return policy & ~SCHED_RESET_ON_FORK; }

std::optional<ThreadPriority> readPriority(pid_t tid, int& err) {
  ThreadPriority p;
  const long io = ::syscall(SYS_ioprio_get, kIoprioWhoProcess, tid);
  if (io < 0) {
    err = errno;
    return std::nullopt;
  }
  p.ioprio = static_cast<int>(io);
  p.policy = ::sched_getscheduler(tid);
  if (p.policy < 0) {
    err = errno;
    return std::nullopt;
  }
  errno = 0;
  const int nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
  if (nice == -1 && errno != 0) {
    err = errno;
    return std::nullopt;
  }
  p.nice = nice;
  return p;
}

int setIoprio(pid_t tid, int value) {
  return ::syscall(SYS_ioprio_set, kIoprioWhoProcess, tid, value) == 0 ? 0 : errno;
}

int setPolicy(pid_t tid, int policy) {
  sched_param param{};
  param.sched_priority = 0;
  return ::sched_setscheduler(tid, policy, &param) == 0 ? 0 : errno;
}

class LinuxProcesses final : public Processes {
 public:
  // Read again at most once a minute: installing an app is rare, and the
  // session asks on every tick.
  const std::vector<DesktopEntry>& desktopEntries() {
    const double now = clock_.monotonic();
    if (!entriesRead_ || now - *entriesRead_ > 60.0 || now < *entriesRead_) {
      entries_ = readDesktopEntries(xdgDataDirs());
      entriesRead_ = now;
    }
    return entries_;
  }

  LinuxProcesses(const SysTree& tree, Clock& clock, std::function<std::optional<double>()> draw)
      : tree_(tree), clock_(clock), draw_(std::move(draw)) {
    hz_ = ::sysconf(_SC_CLK_TCK);
    if (hz_ <= 0) hz_ = 100;
    // Read once: the kernel works btime out afresh from the wall clock on
    // every read, so it can move by a second and would change the start
    // time that, with the pid, names a process.
    if (auto stat = tree_.read("/proc/stat", kCmdlineLimit)) bootTime_ = bootTimeFromProcStat(*stat);
    auto status = tree_.read("/proc/self/status");
    auto caps = status ? effectiveCapabilities(*status) : std::nullopt;
    auto uidMap = tree_.read("/proc/self/uid_map");
    capSysNice_ = caps && (*caps >> kCapSysNice & 1U) != 0 && uidMap && isInitialUserNamespace(*uidMap);
  }

  bool readable() const { return bootTime_.has_value(); }
  bool mayLowerCpu() const { return capSysNice_; }

  std::optional<ProcessInfo> info(std::int32_t pid) override {
    if (pid <= 0) return std::nullopt;
    sampleMachine();
    auto stat = tree_.stat(pid);
    // Ended but not yet reaped by its parent (a zombie, or dying): only its
    // pid is left, so it counts as gone.
    if (!stat || stat->state == 'Z' || stat->state == 'X') return std::nullopt;
    Known& k = learn(pid, *stat, std::nullopt)->second;
    ProcessInfo p = k.identity;
    auto cpu = cpuOf(pid, &*stat);
    if (!cpu) return std::nullopt;
    p.cpuMicros = *cpu;
    p.energyNanojoules = energy_.energyOf(pid, k.startTicks, *cpu);
    p.stopped = stat->state == 'T';
    if (auto cwd = tree_.link("/proc/" + std::to_string(pid) + "/cwd")) p.cwd = *cwd;
    return p;
  }

  std::vector<ProcessInfo> list() override { return listing(ProcessDetail::Full); }

  // Each process is learned once: its stat, executable and arguments are
  // read when its /proc folder first shows, and again only when it may have
  // changed. A process that hasn't used the CPU since can't have exec'd, so
  // the counters (one clock read per process) tell which ones to look at
  // again.
  std::vector<ProcessInfo> listing(ProcessDetail detail) override {
    if (detail != ProcessDetail::Identity) sampleMachine();
    // Read before the folders, so that a process started meanwhile moves it.
    std::optional<TaskStamp> tasks;
    if (detail != ProcessDetail::Full) {
      auto text = tree_.headKeptOpen("/proc/loadavg", 256);
      tasks = text ? taskStampFromLoadavg(*text) : std::nullopt;
    }
    if (!tasks || tasks != lastTasks_ || listings_ == 0) folders_ = tree_.processFolders();
    lastTasks_ = tasks;
    const auto& folders = folders_;
    ++listings_;
    std::vector<ProcessInfo> out;
    out.reserve(folders.size());
    std::vector<std::int32_t> pids;
    pids.reserve(folders.size());
    for (const auto& [pid, ino] : folders) {
      auto known = known_.find(pid);
      std::optional<ProcStat> stat;
      // A fixture has no CPU clocks: its stat is where the counters are.
      const bool needStat = detail == ProcessDetail::Full || (detail == ProcessDetail::Counters && !tree_.real());
      if (needStat || known == known_.end() || known->second.ino != ino) {
        stat = tree_.stat(pid);
        if (!stat) continue;  // ended since the folder was listed
        known = learn(pid, *stat, ino);
      }
      std::optional<std::uint64_t> cpu;
      const ProcessInfo& id = known->second.identity;
      const bool kernelThread = id.path.empty() && id.args.empty();
      // A kernel thread belongs to no app and no agent: its counters are
      // read only for a full listing.
      if (detail == ProcessDetail::Full || (detail == ProcessDetail::Counters && !kernelThread)) {
        cpu = cpuOf(pid, stat ? &*stat : nullptr);
        if (!cpu) continue;
        if (!stat && !kernelThread && *cpu != known->second.cpuAtCheck) {
          // It ran since it was last read: it may have exec'd.
          stat = tree_.stat(pid);
          if (!stat) continue;
          known = learn(pid, *stat, ino);
        }
      }
      Known& k = known->second;
      k.listed = listings_;
      ProcessInfo& p = out.emplace_back(k.identity);
      pids.push_back(pid);
      if (cpu) {
        p.cpuMicros = *cpu;
        p.energyNanojoules = energy_.energyOf(pid, k.startTicks, *cpu);
      }
      if (detail == ProcessDetail::Full) {
        p.stopped = stat->state == 'T';
        if (auto cwd = tree_.link("/proc/" + std::to_string(pid) + "/cwd")) p.cwd = *cwd;
      }
    }
    std::erase_if(known_, [this](const auto& entry) { return entry.second.listed != listings_; });
    energy_.keepOnly(pids);
    checkParents(out);
    relearned_ = false;  // what was learned meanwhile is in this listing
    return out;
  }

  // The kernel's task stamp tells whether a process started or ended; one
  // learned again since (it exec'd, or was reparented) changes the listing
  // too.
  bool identitiesUnchanged() override {
    if (listings_ == 0 || !lastTasks_ || relearned_) return false;
    auto text = tree_.headKeptOpen("/proc/loadavg", 256);
    return text && taskStampFromLoadavg(*text) == lastTasks_;
  }

  // Trusts the last listing for which process the pid names (the app lists
  // at the start of the same tick); a pid it didn't see is checked against
  // its stat.
  std::optional<ProcessCounters> counters(std::int32_t pid, std::uint64_t startMicros) override {
    auto known = known_.find(pid);
    std::optional<ProcStat> stat;
    if (known == known_.end() || known->second.identity.startMicros != startMicros || !tree_.real()) {
      stat = tree_.stat(pid);
      if (!stat || startMicrosOf(*stat) != startMicros) return std::nullopt;
      known = learn(pid, *stat, std::nullopt);
    }
    sampleMachine();
    auto cpu = cpuOf(pid, stat ? &*stat : nullptr);
    if (!cpu) return std::nullopt;
    return ProcessCounters{*cpu, energy_.energyOf(pid, known->second.startTicks, *cpu)};
  }

  // Apps are the desktop entries: the launcher's list of what a person runs.
  std::vector<AppBundle> installedApps() override {
    std::vector<AppBundle> out;
    for (const DesktopEntry& e : desktopEntries()) out.push_back(AppBundle{e.path, e.id, e.name});
    return out;
  }
  std::optional<AppBundle> appOf(const ProcessInfo& p) override {
    const DesktopEntry* e = entryFor(desktopEntries(), p);
    if (e == nullptr) return std::nullopt;
    return AppBundle{e->path, e->id, e->name};
  }

  Result stop(std::int32_t pid) override { return signal(pid, SIGSTOP, "pause"); }
  Result resume(std::int32_t pid) override { return signal(pid, SIGCONT, "continue"); }

  // Lowers every thread to the idle I/O class (always reversible), and to
  // SCHED_IDLE only where the thread's RLIMIT_NICE or Vigilo's CAP_SYS_NICE
  // lets it be put back: an unprivileged user cannot leave SCHED_IDLE
  // otherwise (sched(7)). Each thread's old values are recorded before they
  // change.
  Result slow(std::int32_t pid) override {
    if (Result r = checkTarget(pid, "slow"); !r) return r;
    loadRecord();
    auto stat = statOf(pid);
    if (!stat) return Result::fail("Process " + std::to_string(pid) + " isn't running.");
    SlowRecord& rec = slowed_[pid];
    if (rec.startTicks != stat->starttime) {
      rec = SlowRecord{};
      rec.startTicks = stat->starttime;
    }
    const std::uint64_t niceLimit = niceLimitOf(pid);
    int denied = 0;
    std::vector<pid_t> fresh;
    for (pid_t tid : threadsOf(pid)) {
      auto known = rec.threads.find(tid);
      if (known != rec.threads.end()) {
        reapply(tid, known->second);
        continue;
      }
      int err = 0;
      auto now = readPriority(tid, err);
      if (!now) {
        if (err == EPERM || err == EACCES) denied = err;
        continue;  // ESRCH: the thread just ended
      }
      SlowedThread t;
      // A thread started since the last slow inherited the slowed values;
      // what it would have had is the process's own.
      const bool inherited = rec.original && ioprioClass(now->ioprio) == kIoprioClassIdle &&
                             (!rec.cpu || basePolicy(now->policy) == SCHED_IDLE);
      t.original = inherited ? *rec.original : *now;
      const int ioClass = ioprioClass(t.original.ioprio);
      t.io = ioClass != kIoprioClassRealtime && ioClass != kIoprioClassIdle;
      const int policy = basePolicy(t.original.policy);
      t.cpu =
          (policy == SCHED_OTHER || policy == SCHED_BATCH) && canRestoreNice(t.original.nice, niceLimit, capSysNice_);
      if (inherited) t.cpu = t.cpu && rec.cpu;
      rec.threads[tid] = t;
      if (!rec.original) {
        rec.original = t.original;
        rec.cpu = t.cpu;
      }
      fresh.push_back(tid);
    }
    // The old values are on disk before any of them changes, so a run that
    // dies meanwhile leaves the next one what to put back.
    if (!fresh.empty() && !saveRecord()) {
      for (pid_t tid : fresh) rec.threads.erase(tid);
      if (rec.threads.empty()) slowed_.erase(pid);
      return Result::fail("Couldn't record the priority of process " + std::to_string(pid) +
                          " in Vigilo's folder, so it is left as it is.");
    }
    for (pid_t tid : fresh) {
      reapply(tid, rec.threads[tid]);
      if (rec.threads[tid].denied) denied = EPERM;
    }
    if (denied != 0 && std::none_of(rec.threads.begin(), rec.threads.end(),
                                    [](const auto& e) { return e.second.io || e.second.cpu; })) {
      slowed_.erase(pid);
      saveRecord();
      return Result::fail("Vigilo isn't allowed to change the priority of process " + std::to_string(pid) +
                              " (it belongs to another user).",
                          denied);
    }
    return Result::ok();
  }

  Result unslow(std::int32_t pid) override {
    if (Result r = checkTarget(pid, "put back"); !r) return r;
    loadRecord();
    auto stat = statOf(pid);
    if (!stat) {
      if (slowed_.erase(pid) > 0) saveRecord();
      return Result::fail("Process " + std::to_string(pid) + " isn't running.");
    }
    auto found = slowed_.find(pid);
    if (found != slowed_.end() && found->second.startTicks != stat->starttime) {
      slowed_.erase(found);  // the pid was reused
      found = slowed_.end();
      saveRecord();
    }
    const std::uint64_t niceLimit = niceLimitOf(pid);
    int failedErr = 0;
    for (pid_t tid : threadsOf(pid)) {
      int err = 0;
      auto now = readPriority(tid, err);
      if (!now) {
        if (err != ESRCH) failedErr = err;
        continue;
      }
      std::optional<ThreadPriority> original;
      bool cpu = false;
      if (found != slowed_.end()) {
        const SlowRecord& rec = found->second;
        if (auto t = rec.threads.find(tid); t != rec.threads.end()) {
          original = t->second.original;
          cpu = t->second.cpu;
        } else if (rec.original && ioprioClass(now->ioprio) == kIoprioClassIdle) {
          original = rec.original;  // started since, with the slowed values
          cpu = rec.cpu;
        }
      } else {
        // No record of the old values (its file was lost): put back the
        // defaults of what slowing changes, where they can be.
        ThreadPriority defaults = *now;
        if (ioprioClass(now->ioprio) == kIoprioClassIdle) defaults.ioprio = 0;  // "none": follows the nice value
        if (basePolicy(now->policy) == SCHED_IDLE && canRestoreNice(now->nice, niceLimit, capSysNice_)) {
          defaults.policy = SCHED_OTHER | (now->policy & SCHED_RESET_ON_FORK);
          cpu = true;
        }
        original = defaults;
      }
      if (!original) continue;
      if (now->ioprio != original->ioprio) {
        if (int e = setIoprio(tid, original->ioprio); e != 0 && e != ESRCH) failedErr = e;
      }
      if (cpu && now->policy != original->policy) {
        if (int e = setPolicy(tid, original->policy); e != 0 && e != ESRCH) failedErr = e;
      }
    }
    if (failedErr != 0) {
      return Result::fail(errnoMessage("Couldn't put back the priority of process " + std::to_string(pid), failedErr),
                          failedErr);
    }
    if (found != slowed_.end()) {
      slowed_.erase(found);
      saveRecord();
    }
    return Result::ok();
  }

  // Where the old priorities of slowed processes are kept; "" keeps none
  // (then nothing is slowed).
  void setRecordFile(std::string path) { recordPath_ = std::move(path); }

 private:
  struct SlowedThread {
    ThreadPriority original;
    bool io = false;   // its I/O class was lowered
    bool cpu = false;  // its policy was lowered
    bool denied = false;
  };
  struct SlowRecord {
    std::uint64_t startTicks = 0;
    std::optional<ThreadPriority> original;  // of the first thread recorded
    bool cpu = false;
    std::map<pid_t, SlowedThread> threads;
  };

  // The record is one line per thread: pid, start ticks, thread id (0 for
  // what a thread started later would have had), I/O priority, policy, nice
  // and whether the I/O class and the policy are lowered.
  bool saveRecord() {
    if (recordPath_.empty()) return false;
    std::string text;
    auto line = [&](std::int32_t pid, const SlowRecord& rec, pid_t tid, const ThreadPriority& p, bool io, bool cpu) {
      text += std::to_string(pid) + ' ' + std::to_string(rec.startTicks) + ' ' + std::to_string(tid) + ' ' +
              std::to_string(p.ioprio) + ' ' + std::to_string(p.policy) + ' ' + std::to_string(p.nice) + ' ' +
              (io ? '1' : '0') + ' ' + (cpu ? '1' : '0') + '\n';
    };
    for (const auto& [pid, rec] : slowed_) {
      if (rec.original) line(pid, rec, 0, *rec.original, false, rec.cpu);
      for (const auto& [tid, t] : rec.threads) line(pid, rec, tid, t.original, t.io, t.cpu);
    }
    if (text.empty()) {
      std::error_code ec;
      std::filesystem::remove(recordPath_, ec);
      return !ec;
    }
    return writeFileDurably(recordPath_, text).isOk();
  }

  // Takes in what an earlier run recorded, once; a damaged line is skipped.
  void loadRecord() {
    if (recordLoaded_ || recordPath_.empty()) return;
    recordLoaded_ = true;
    auto text = readWholeFile(recordPath_, 4 * 1024 * 1024);
    if (!text) return;
    std::map<std::int32_t, SlowRecord> earlier;
    std::istringstream in(*text);
    std::string row;
    while (std::getline(in, row)) {
      std::istringstream fields(row);
      std::int64_t pid = 0, tid = 0;
      std::uint64_t start = 0;
      ThreadPriority p;
      int io = 0, cpu = 0;
      if (!(fields >> pid >> start >> tid >> p.ioprio >> p.policy >> p.nice >> io >> cpu)) continue;
      if (pid <= 0 || pid > INT32_MAX || tid < 0 || tid > INT32_MAX) continue;
      SlowRecord& rec = earlier[static_cast<std::int32_t>(pid)];
      if (rec.threads.empty() && !rec.original) rec.startTicks = start;
      if (rec.startTicks != start) continue;
      if (tid == 0) {
        rec.original = p;
        rec.cpu = cpu != 0;
      } else {
        rec.threads[static_cast<pid_t>(tid)] = SlowedThread{p, io != 0, cpu != 0, false};
      }
    }
    for (auto& [pid, rec] : earlier) slowed_.try_emplace(pid, std::move(rec));
  }

  std::optional<ProcStat> statOf(std::int32_t pid) const { return tree_.stat(pid); }

  std::uint64_t startMicrosOf(const ProcStat& stat) const {
    return startMicros(bootTime_.value_or(0), stat.starttime, hz_);
  }

  // CPU time used so far. On the machine itself from the process's CPU-time
  // clock: one system call, no file (clock_getcpuclockid(3); any process's
  // clock can be read). `stat` is used only in a fixture tree.
  std::optional<std::uint64_t> cpuOf(std::int32_t pid, const ProcStat* stat) const {
    if (tree_.real()) {
      // MAKE_PROCESS_CPUCLOCK(pid, CPUCLOCK_SCHED) of the kernel's ABI,
      // computed here rather than by clock_getcpuclockid, which spends a
      // second system call checking it.
      const auto clock = static_cast<clockid_t>((~static_cast<unsigned>(pid) << 3) | 2U);
      timespec ts{};
      if (::clock_gettime(clock, &ts) != 0) return std::nullopt;
      return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000ULL + static_cast<std::uint64_t>(ts.tv_nsec) / 1000;
    }
    if (stat == nullptr) return std::nullopt;
    return ticksToMicros(stat->utime + stat->stime, hz_);
  }

  // What is known of one process, from its last full reading.
  struct Known {
    ino_t ino = 0;  // of its /proc folder; 0 when learned outside a listing
    std::uint64_t startTicks = 0;
    // Change with exec.
    std::string comm;
    std::uint64_t startcode = 0;
    std::uint64_t startstack = 0;
    // CPU time at that reading: until it grows the process hasn't run.
    std::uint64_t cpuAtCheck = 0;
    ProcessInfo identity;  // pid, ppid, startMicros, path and args
    std::uint64_t listed = 0;  // the last listing that saw it
  };
  using KnownMap = std::unordered_map<std::int32_t, Known>;

  // Takes in a fresh stat line of `pid`: the executable and arguments are
  // read only for a process not known yet, a new one under a known pid, or
  // one that exec'd.
  KnownMap::iterator learn(std::int32_t pid, const ProcStat& stat, std::optional<ino_t> ino) {
    auto [it, added] = known_.try_emplace(pid);
    Known& k = it->second;
    const bool same = !added && k.startTicks == stat.starttime && k.comm == stat.comm &&
                      k.startcode == stat.startcode && k.startstack == stat.startstack;
    if (!same) {
      const std::uint64_t listed = k.listed;
      k = Known{};
      k.listed = listed;
      k.startTicks = stat.starttime;
      k.comm = stat.comm;
      k.startcode = stat.startcode;
      k.startstack = stat.startstack;
      ProcessInfo& p = k.identity;
      p.pid = pid;
      p.startMicros = startMicrosOf(stat);
      const std::string base = "/proc/" + std::to_string(pid);
      if (auto cmdline = tree_.read(base + "/cmdline", kCmdlineLimit)) p.args = splitCmdline(*cmdline);
      if (auto exe = tree_.link(base + "/exe")) {
        p.path = exePathFromLink(*exe);
      } else if (!p.args.empty()) {
        // Another user's process hides its exe link; argv[0] is what is left.
        p.path = p.args.front();
      }
    }
    if (!same || k.identity.ppid != stat.ppid) relearned_ = true;
    k.identity.ppid = stat.ppid;
    k.cpuAtCheck = cpuOf(pid, &stat).value_or(0);
    if (ino) k.ino = *ino;
    return it;
  }

  // A parent starts before its children. A child read long ago may still
  // name a parent that has ended since, and the pid may now belong to a
  // newer process: such a child is read again for its real parent.
  void checkParents(std::vector<ProcessInfo>& out) {
    for (ProcessInfo& p : out) {
      auto parent = known_.find(p.ppid);
      if (parent == known_.end() || parent->second.identity.startMicros <= p.startMicros) continue;
      auto stat = tree_.stat(p.pid);
      if (!stat || startMicrosOf(*stat) != p.startMicros) continue;
      learn(p.pid, *stat, std::nullopt);
      p.ppid = stat->ppid;
    }
  }

  void sampleMachine() {
    const double now = clock_.monotonic();
    if (sampledAt_ && now - *sampledAt_ < kEnergySampleSeconds && now >= *sampledAt_) return;
    // The "cpu " line comes first; the rest of /proc/stat (one line per CPU,
    // the interrupt counts) can be long and is not needed.
    auto stat = tree_.headKeptOpen("/proc/stat", 4096);
    auto busy = stat ? busyTicksFromProcStat(*stat) : std::nullopt;
    if (!busy) return;
    sampledAt_ = now;
    energy_.sample(now, ticksToMicros(*busy, hz_), draw_().value_or(0.0));
  }

  Result checkTarget(std::int32_t pid, const std::string& verb) const {
    if (pid <= 1) return Result::fail("Vigilo won't " + verb + " process " + std::to_string(pid) + ".");
    if (pid == ::getpid()) return Result::fail("Vigilo won't " + verb + " itself.");
    return Result::ok();
  }

  Result signal(std::int32_t pid, int signo, const std::string& verb) {
    if (Result r = checkTarget(pid, verb); !r) return r;
    if (::kill(pid, signo) == 0) return Result::ok();
    const int err = errno;
    if (err == ESRCH) return Result::fail("Process " + std::to_string(pid) + " isn't running.", err);
    if (err == EPERM) {
      return Result::fail(
          "Vigilo isn't allowed to " + verb + " process " + std::to_string(pid) + " (it belongs to another user).",
          err);
    }
    return Result::fail(errnoMessage("Couldn't " + verb + " process " + std::to_string(pid), err), err);
  }

  std::vector<pid_t> threadsOf(std::int32_t pid) const {
    std::vector<pid_t> out{pid};  // the main thread first: its values are the process's
    for (const std::string& name : tree_.list("/proc/" + std::to_string(pid) + "/task")) {
      if (!isNumber(name) || name.size() > 9) continue;
      const auto tid = static_cast<pid_t>(std::stol(name));
      if (tid != pid) out.push_back(tid);
    }
    return out;
  }

  std::uint64_t niceLimitOf(std::int32_t pid) const {
    auto limits = tree_.read("/proc/" + std::to_string(pid) + "/limits");
    return limits ? niceLimitFromLimits(*limits).value_or(0) : 0;
  }

  static void reapply(pid_t tid, SlowedThread& t) {
    int err = 0;
    auto now = readPriority(tid, err);
    if (!now) return;
    if (t.io && ioprioClass(now->ioprio) != kIoprioClassIdle) {
      if (int e = setIoprio(tid, kIoprioIdle); e != 0) {
        t.io = false;
        t.denied = t.denied || e == EPERM;
      }
    }
    if (t.cpu && basePolicy(now->policy) != SCHED_IDLE) {
      if (int e = setPolicy(tid, SCHED_IDLE | (t.original.policy & SCHED_RESET_ON_FORK)); e != 0) {
        t.cpu = false;
        t.denied = t.denied || e == EPERM;
      }
    }
  }

  const SysTree& tree_;
  Clock& clock_;
  std::function<std::optional<double>()> draw_;
  long hz_ = 100;
  std::optional<std::int64_t> bootTime_;
  bool capSysNice_ = false;
  std::optional<double> sampledAt_;
  EnergyShare energy_;
  KnownMap known_;
  std::uint64_t listings_ = 0;
  // The process folders of the last listing, and the kernel's task stamp
  // then: while it stays, no process started or ended, and listing /proc
  // again (the largest cost of an idle tick) would show the same.
  std::vector<std::pair<std::int32_t, ino_t>> folders_;
  std::optional<TaskStamp> lastTasks_;
  // A process was learned anew since the last listing.
  bool relearned_ = false;
  std::map<std::int32_t, SlowRecord> slowed_;
  std::string recordPath_;
  bool recordLoaded_ = false;
  std::vector<DesktopEntry> entries_;
  std::optional<double> entriesRead_;
};

// ---------------------------------------------------------------- events

// Linux sends no thermal or power-source notification that a user process
// can rely on, so both are polled; sleep and wake come from logind's
// PrepareForSleep where the bus is there.
class LinuxEvents final : public SystemEvents {
 public:
  LinuxEvents(RunLoop& loop, LinuxRegistry& registry, Logind& logind)
      : loop_(loop), registry_(registry), logind_(logind) {}
  ~LinuxEvents() override { stop(); }

  void subscribe(std::function<void(SystemEvent)> handler) override {
    handler_ = std::move(handler);
    if (!handler_) {
      stop();
      return;
    }
    if (!timer_) {
      thermal_ = registry_.thermalState();
      adapter_ = registry_.adapter();
      timer_ = loop_.every(kEventPollSeconds, 1.0, [this] { poll(); });
    }
    logind_.watchSleep([this](bool start) { deliver(start ? SystemEvent::WillSleep : SystemEvent::DidWake); });
  }

 private:
  void stop() {
    if (timer_) loop_.cancel(*timer_);
    timer_.reset();
    logind_.watchSleep(nullptr);
  }

  void poll() {
    logind_.dispatch();
    const int thermal = registry_.recentThermalState(kEventPollFresh, ownThermalRead_);
    if (thermal != thermal_) {
      thermal_ = thermal;
      deliver(SystemEvent::ThermalStateChanged);
    }
    const auto adapter = registry_.recentAdapter(kEventPollFresh, ownSuppliesRead_);
    if (adapter != adapter_) {
      adapter_ = adapter;
      deliver(SystemEvent::PowerSourceChanged);
    }
  }

  void deliver(SystemEvent e) {
    auto handler = handler_;  // it may unsubscribe itself
    if (handler) handler(e);
  }

  RunLoop& loop_;
  LinuxRegistry& registry_;
  Logind& logind_;
  std::function<void(SystemEvent)> handler_;
  std::optional<TimerId> timer_;
  int thermal_ = 0;
  std::optional<bool> adapter_;
  std::uint64_t ownThermalRead_ = 0;
  std::uint64_t ownSuppliesRead_ = 0;
};

// ---------------------------------------------------------------- the platform

std::string joined(const std::vector<std::string>& names) {
  std::string out;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0) out += i + 1 == names.size() ? " and " : ", ";
    out += names[i];
  }
  return out;
}

}  // namespace

// The switch is a logind lock, and the reason logind gave says what the
// person can do; the repair is the command-line setup.
const MachineWords& linuxMachineWords() {
  static const MachineWords words = [] {
    MachineWords w;
    w.machine = "Linux machine";
    w.sleepRefusedLead = "The system refused to keep this laptop awake, so closing the lid would sleep it: ";
    w.sleepNotKept = "Sleep didn't stay switched off";
    w.sleepByHand = "the lock that keeps sleep off ends with the app; systemd-inhibit --list shows any left";
    w.hotkeyKeys = "Ctrl+Alt+Super+A";
    return w;
  }();
  return words;
}

namespace {

class LinuxPlatformImpl final : public Platform {
 public:
  LinuxPlatformImpl(Clock& clock, RunLoop& loop, LinuxPlatformOptions options)
      : clock_(clock),
        loop_(loop),
        tree_(options.root),
        logind_(options.systemBus, loop),
        power_(logind_, lock_, clock),
        registry_(tree_, logind_, lock_, clock),
        displays_(tree_, logind_),
        processes_(tree_, clock, [this] { return registry_.batteryDraw(); }),
        events_(loop, registry_, logind_) {
    const std::string folder = options.appFolder.empty() ? appFolderFor(*this) : options.appFolder;
    processes_.setRecordFile(folder + "/" + std::string(kSlowedPrioritiesFile));
  }

  std::string name() const override { return "linux"; }
  const MachineWords& words() const override { return linuxMachineWords(); }
  WakeScheduler& wakeAlarm() override { return *wake_; }
  std::string defaultAppFolder() const override { return xdgAppFolder(); }
  Clock& clock() override { return clock_; }
  RunLoop& loop() override { return loop_; }
  Registry& registry() override { return registry_; }
  PowerControl& power() override { return power_; }
  Displays& displays() override { return displays_; }
  Processes& processes() override { return processes_; }
  SystemEvents& events() override { return events_; }

  void refresh() override { logind_.dispatch(); }

  std::vector<Capability> capabilities() override {
    auto locks = logind_.listInhibitors();
    return {sleepSwitchCapability(locks), batteryCapability(),   lidCapability(),        thermalCapability(),
            processesCapability(),        powerModeCapability(), screenCapability(locks), macOnlyCapability()};
  }

 private:
  Capability sleepSwitchCapability(const BusAnswer<std::vector<Inhibitor>>& locks) {
    Capability c{"sleep switch", false, {}};
    const SetupStatus s = power_.setupStatus();
    c.available = s.ready;
    if (!s.ready) {
      c.detail = s.reason;
      return c;
    }
    c.detail =
        "Vigilo keeps the laptop awake with a logind lock on the lid switch, sleep and idle; the lock ends with "
        "Vigilo, even if it crashes.";
    if (locks.ok()) {
      if (auto owner = desktopLidOwner(*locks.value)) c.detail += " " + *owner;
    }
    return c;
  }

  Capability batteryCapability() {
    Capability c{"battery", false, {}};
    const auto supplies = tree_.supplies();
    const auto names = systemBatteryNames(supplies);
    if (names.empty()) {
      c.detail =
          "No battery found under /sys/class/power_supply, so the battery limit and only-on-power guards "
          "are off.";
      return c;
    }
    auto props = batteryFromSupplies(supplies);
    if (!props || !props->currentCapacity || !props->maxCapacity || *props->maxCapacity < 1) {
      c.detail = "The battery " + joined(names) +
                 " doesn't show its charge (no energy_now or charge_now under /sys/class/power_supply), so the "
                 "battery limit is off.";
      return c;
    }
    c.available = true;
    c.detail = "The battery " + joined(names) + " is read from /sys/class/power_supply" +
               (adapterOnline(supplies) ? ", and the adapter from its online flag."
                                        : "; this machine shows no adapter, so its status tells when it charges.");
    return c;
  }

  Capability lidCapability() {
    Capability c{"lid", false, {}};
    if (auto acpi = tree_.acpiLid()) {
      c.available = true;
      c.detail = "The lid is read from " + acpi->first + ".";
      return c;
    }
    if (registry_.lidSwitchInput()) {
      auto closed = logind_.lidClosed();
      c.available = closed.ok();
      c.detail = closed.ok() ? "The lid is read from logind's LidClosed, every two seconds."
                             : "This machine has a lid switch, but its state can't be read: there is no "
                               "/proc/acpi/button/lid and logind can't be asked (" +
                                   closed.message + "). Vigilo treats the lid as open.";
      return c;
    }
    c.detail =
        "No lid found (no /proc/acpi/button/lid and no lid switch among the input devices), so Vigilo treats "
        "the lid as always open and never starts closed-lid savings.";
    return c;
  }

  Capability thermalCapability() {
    Capability c{"thermal", false, {}};
    const auto zones = tree_.zones();
    std::vector<std::string> watched, blind;
    for (const auto& z : zones) {
      const std::string label = z.type.empty() ? z.name : z.type;
      (z.hasTrips() && z.celsius ? watched : blind).push_back(label);
    }
    if (!watched.empty()) {
      c.available = true;
      c.detail = "The heat guard reads the temperature and trip points of " + joined(watched) + ".";
    } else if (!blind.empty()) {
      c.detail = "The thermal zones here (" + joined(blind) +
                 ") show no trip points or no temperature, so Vigilo can't tell when the machine is too hot: the "
                 "heat guard is off.";
    } else {
      c.detail =
          "No thermal zones under /sys/class/thermal, so Vigilo can't tell when the machine is too hot: the "
          "heat guard is off.";
    }
    return c;
  }

  Capability processesCapability() {
    Capability c{"processes", processes_.readable(), {}};
    if (!c.available) {
      c.detail = "/proc can't be read, so Vigilo can't see or control processes.";
      return c;
    }
    c.detail =
        std::string("Processes are read from /proc. Slowing one moves it to the idle I/O class") +
        (processes_.mayLowerCpu() ? " and the idle CPU policy"
                                  : ", and to the idle CPU policy only where its nice limit lets Vigilo put it back") +
        "; both are put back exactly. Energy per process is its share of the battery's draw while on "
        "battery.";
    return c;
  }

  Capability powerModeCapability() {
    auto profile = logind_.activeProfile();
    if (!profile.ok()) {
      return Capability{"power mode", false,
                        "power-profiles-daemon can't be reached (" + profile.message +
                            "), so Vigilo leaves the power profile as it is while the lid is shut."};
    }
    return Capability{"power mode", true,
                      "While the lid is shut Vigilo holds the power-saver profile (power-profiles-daemon); the hold "
                      "ends with Vigilo, even if it crashes."};
  }

  // What a Mac has and Linux doesn't: said once, and skipped.
  Capability macOnlyCapability() {
    return Capability{"backups, simulators and previews", false,
                      "Pausing Time Machine backups, simulators and Xcode previews while the lid is shut is a Mac "
                      "feature; Linux has none of them, so Vigilo skips it."};
  }

  Capability screenCapability(const BusAnswer<std::vector<Inhibitor>>& bus) {
    Capability c{"screen", false, {}};
    auto name = tree_.backlight();
    if (!name) {
      c.detail = "No screen backlight under /sys/class/backlight, so Vigilo can't darken the built-in screen.";
      return c;
    }
    if (!bus.ok()) {
      c.detail = "The backlight " + *name + " is set through logind, which can't be reached (" + bus.message +
                 "), so Vigilo can't darken the built-in screen.";
      return c;
    }
    c.available = true;
    c.detail = "The brightness of " + *name +
               " is set through logind (only while your local session is active); switching the built-in screen "
               "off isn't available on Linux.";
    return c;
  }

  Clock& clock_;
  RunLoop& loop_;
  SysTree tree_;
  Logind logind_;
  SleepLock lock_;
  LinuxPower power_;
  LinuxRegistry registry_;
  LinuxDisplays displays_;
  LinuxProcesses processes_;
  LinuxEvents events_;
  std::unique_ptr<WakeScheduler> wake_ = makeRtcWakeScheduler();
};

}  // namespace

std::unique_ptr<Platform> makeLinuxPlatform(Clock& clock, RunLoop& loop, LinuxPlatformOptions options) {
  return std::make_unique<LinuxPlatformImpl>(clock, loop, std::move(options));
}

std::string runtimeFolder(std::string* problem) {
  auto refuse = [&](const std::string& why) {
    if (problem != nullptr) *problem = why;
    return std::string();
  };
  const uid_t uid = ::getuid();
  const char* xdg = std::getenv("XDG_RUNTIME_DIR");
  const bool useXdg = xdg != nullptr && xdg[0] == '/';
  const std::string folder = useXdg ? std::string(xdg) + "/vigilo" : "/tmp/vigilo-" + std::to_string(uid);
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    return refuse(errnoMessage("Couldn't create " + folder, errno));
  }
  struct stat st {};
  // lstat: a symbolic link planted in /tmp by someone else must not lead
  // Vigilo's sockets into their folder.
  if (::lstat(folder.c_str(), &st) != 0) return refuse(errnoMessage("Couldn't look at " + folder, errno));
  if (!S_ISDIR(st.st_mode)) return refuse(folder + " isn't a folder, so Vigilo won't use it.");
  if (st.st_uid != uid) return refuse(folder + " belongs to another user, so Vigilo won't use it.");
  if ((st.st_mode & 0777) != 0700 && ::chmod(folder.c_str(), 0700) != 0) {
    return refuse(errnoMessage("Couldn't make " + folder + " private", errno));
  }
  if (problem != nullptr) problem->clear();
  return folder;
}

}  // namespace vigilo
