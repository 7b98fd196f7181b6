#include "platform/linux/linux_platform.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/linux/linux_displays.h"
#include "platform/linux/linux_events.h"
#include "platform/linux/linux_power.h"
#include "platform/linux/linux_processes.h"
#include "platform/linux/linux_registry.h"
#include "platform/linux/logind.h"
#include "platform/linux/rtc_wake.h"
#include "platform/linux/sys_tree.h"

namespace vigilo {

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
    w.wholeMachine = "whole-machine";
    w.system = "Linux";
    w.tray = "tray";
    w.openPanel = "open the panel, as clicking the tray icon does";
    // logind's Session.Lock hands the lid-closed screen to the desktop's locker.
    w.lockedOnOpen = "the session locks, and you unlock it with your password when you open the lid";
    w.lowPower = "the power-saver profile";
    w.announcements = "as desktop notifications";
    // Only a discharging battery reports a draw; the adapter reports none.
    w.powerFrom = "the battery's draw, measured only while on battery; on the charger there is no reading";
    w.powerTestReading = "averaged over 30 one-second readings of the battery's draw (on battery only)";
    w.screenTestEffect = "blanks the display while it is measured";
    w.appEnergy = "their share of the battery's draw by CPU time";
    w.lacking = {
        {"pause_simulators", "Linux has no device simulators or Xcode previews for Vigilo to freeze."},
        {"screen_off",
         "Switching the built-in screen off isn't available on Linux; Vigilo darkens it to zero brightness "
         "instead."},
        {"shut_down_simulators", "Linux has no device simulators for Vigilo to shut down."},
        {"pause_background_audio", "On Linux Vigilo can't yet tell which processes hold the speakers open."},
        {"pause_time_machine", "Linux has no system backup service that Vigilo can pause."},
        {"claude_app", "The Claude desktop app has no Linux release for Vigilo to recognise."},
        {"downloads",
         "On Linux Vigilo doesn't yet read other apps' requests to stay awake (logind's inhibitor locks)."},
        {"live_lid_icon", "Linux doesn't report the lid's angle, so the tray icon can't follow it."},
        {"show_in_dock", "On Linux Vigilo lives in the tray; there is no separate app icon to show or hide."},
    };
    return w;
  }();
  return words;
}

namespace {

// Names in a sentence: "a, b and c".
std::string joined(const std::vector<std::string>& names) {
  std::string out;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0) out += i + 1 == names.size() ? " and " : ", ";
    out += names[i];
  }
  return out;
}

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

  // What only the home platform has: said once, and skipped.
  Capability macOnlyCapability() {
    return Capability{"backups, simulators and previews", false,
                      "Linux has no system backup service, device simulators or Xcode previews to pause while the "
                      "lid is shut, so Vigilo skips them."};
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
