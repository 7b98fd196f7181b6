#include "platform/macos/mac_platform.h"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/macos/ioreg_text.h"
#include "platform/macos/mac_commands.h"
#include "platform/macos/pmset_text.h"
#include "platform/macos/ps_text.h"

namespace vigilo {

std::string macAppFolder() {
  const char* home = std::getenv("HOME");
  std::string base = home != nullptr && home[0] == '/' ? home : "";
  if (base.empty()) {
    if (const passwd* pw = ::getpwuid(::getuid()); pw != nullptr && pw->pw_dir != nullptr) base = pw->pw_dir;
  }
  return base + "/Library/Application Support/Vigilo";
}

namespace {

// How often the lid-less notifications are polled: the power source, the
// thermal state and a gap in time that only sleep explains.
constexpr double kPollSeconds = 5.0;
// A poll this much later than due means the Mac slept in between.
constexpr double kMacSleptGap = 30.0;
// How long an answer of sudo about the rule is trusted.
constexpr double kSetupProbeSeconds = 10.0;

std::string basename(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The one door to the command lines, with the log line the conventions ask
// for when a privileged one fails.
class Commands {
 public:
  Commands(CommandRunner& runner, std::function<void(const std::string&)> log)
      : runner_(runner), log_(std::move(log)) {}

  CommandOutput run(const std::vector<std::string>& argv) { return runner_.run(argv); }

  // Runs a "sudo -n <tool> ..." line; a failure is logged as "Vigilo: <tool>
  // <args> failed (<status>): <output>" and said as `what` and the output.
  Result privileged(const std::vector<std::string>& argv, const std::string& what) {
    CommandOutput out = runner_.run(argv);
    if (out.ok()) return Result::ok();
    std::vector<std::string> tail(argv.begin() + (argv.size() > 2 ? 2 : 0), argv.end());
    if (!tail.empty()) tail[0] = basename(tail[0]);
    if (log_) log_("Vigilo: " + joinArgs(tail) + " failed (" + std::to_string(out.status) + "): " + out.said());
    const std::string said = out.said();
    return Result::fail(what + (said.empty() ? " (exit status " + std::to_string(out.status) + ")." : ": " + said),
                        out.status);
  }

 private:
  CommandRunner& runner_;
  std::function<void(const std::string&)> log_;
};

class MacRegistry final : public Registry {
 public:
  explicit MacRegistry(Commands& c) : c_(c) {}

  std::optional<BatteryProperties> battery() override {
    CommandOutput out = c_.run(mac::readSmartBattery());
    if (out.ok()) {
      if (auto p = parseSmartBattery(out.output)) return p;
    }
    // Without the registry's plist (libplist missing, ioreg refused), pmset's
    // summary still gives the charge and the adapter.
    CommandOutput batt = c_.run(mac::readPowerSource());
    if (!batt.ok()) return std::nullopt;
    auto source = parsePmsetBatt(batt.output);
    return source ? batteryFromPmset(*source) : std::nullopt;
  }

  std::optional<bool> sleepDisabled() override {
    CommandOutput out = c_.run(mac::readLiveSettings());
    return out.ok() ? sleepDisabledFromPmset(out.output) : std::nullopt;
  }

  std::optional<bool> lidClosed() override {
    CommandOutput out = c_.run(mac::readClamshell());
    return out.ok() ? clamshellFromIoreg(out.output) : std::nullopt;
  }

  int thermalState() override {
    CommandOutput out = c_.run(mac::readThermal());
    if (!out.ok()) return 0;
    auto thermal = parsePmsetTherm(out.output);
    return thermal ? thermalStateFromPmset(*thermal) : 0;
  }

  std::vector<PowerAssertion> powerAssertions() override {
    CommandOutput out = c_.run(mac::readAssertions());
    return out.ok() ? parsePmsetAssertions(out.output) : std::vector<PowerAssertion>{};
  }

 private:
  Commands& c_;
};

class MacPower final : public PowerControl {
 public:
  MacPower(Commands& c, Clock& clock) : c_(c), clock_(clock) {}

  Result setSleepDisabled(bool disabled) override {
    return c_.privileged(mac::setSleepDisabled(disabled),
                         disabled ? "Couldn't switch sleep off" : "Couldn't switch sleep back on");
  }
  Result sleepNow() override { return c_.privileged(mac::sleepNow(), "Couldn't put the Mac to sleep"); }

  // sudo's "-l" answers whether the rule allows the line without running it.
  SetupStatus setupStatus() override {
    const double now = clock_.monotonic();
    if (probe_ && now >= probedAt_ && now - probedAt_ < kSetupProbeSeconds) return *probe_;
    CommandOutput out = c_.run({"/usr/bin/sudo", "-n", "-l", "/usr/bin/pmset", "-a", "disablesleep", "0"});
    probe_ = out.ok() ? SetupStatus{true, {}}
                      : SetupStatus{false,
                                    "sudo doesn't allow Vigilo's power switches without a password, so Vigilo "
                                    "can't keep the Mac awake with the lid shut. Run Set Up again in Settings › "
                                    "General."};
    probedAt_ = now;
    return *probe_;
  }

  Result restorePowerMode(const std::string& key, int value) override {
    auto argv = mac::setBatteryPowerMode(key, value);
    if (!argv) {
      return Result::fail("Vigilo doesn't set \"" + key + " " + std::to_string(value) +
                          "\": only powermode 0-2 and lowpowermode 0-1 are allowed.");
    }
    return c_.privileged(*argv, "Couldn't set the battery power mode");
  }

  Result setAutomaticBackups(bool enabled) override {
    return c_.privileged(mac::setAutomaticBackups(enabled), enabled ? "Couldn't switch Time Machine backups back on"
                                                                    : "Couldn't pause Time Machine backups");
  }

  std::optional<PowerModeSetting> batteryPowerMode() override {
    CommandOutput out = c_.run(mac::readCustomSettings());
    return out.ok() ? batteryPowerModeFromCustom(out.output) : std::nullopt;
  }

  // "defaults read" prints 1 or 0; a Mac that never set Time Machine up has
  // no such key and no backups to pause.
  std::optional<bool> automaticBackupsOn() override {
    CommandOutput out = c_.run(mac::readAutoBackup());
    if (!out.ok()) return std::nullopt;
    const std::string said = out.said();
    if (said == "1") return true;
    if (said == "0") return false;
    return std::nullopt;
  }

  Result shutDownSimulators() override {
    CommandOutput out = c_.run(mac::shutDownSimulators());
    if (out.ok()) return Result::ok();
    return Result::fail("Couldn't shut the simulators down: " + out.said());
  }

 private:
  Commands& c_;
  Clock& clock_;
  std::optional<SetupStatus> probe_;
  double probedAt_ = 0;
};

class MacDisplays final : public Displays {
 public:
  MacDisplays(Commands& c, const MacNative& native, long uid) : c_(c), native_(native), uid_(uid) {}

  Result setBuiltInEnabled(bool enabled) override {
    (void)enabled;
    return Result::fail("This build of Vigilo can't switch the built-in screen off; it darkens it instead.");
  }
  Result setBrightness(double level) override {
    if (!native_.setBrightness) return Result::fail("This build of Vigilo can't set the screen's brightness.");
    return native_.setBrightness(level);
  }
  std::optional<double> brightness() override {
    return native_.brightness ? native_.brightness() : std::nullopt;
  }
  bool hasBuiltIn() override { return native_.brightness && native_.brightness().has_value(); }
  std::optional<bool> sessionLocked() override {
    CommandOutput out = c_.run(mac::readConsoleSessions());
    return out.ok() ? screenLockedFromIoreg(out.output, uid_) : std::nullopt;
  }
  Result lockScreen() override {
    CommandOutput out = c_.run(mac::displaySleepNow());
    return out.ok() ? Result::ok() : Result::fail("Couldn't put the screen to sleep: " + out.said());
  }
  Result holdDisplayAwake(bool on) override {
    if (!native_.holdDisplayAwake) {
      return Result::fail("This build of Vigilo can't keep the display from idling to sleep.");
    }
    return native_.holdDisplayAwake(on);
  }

 private:
  Commands& c_;
  const MacNative& native_;
  long uid_;
};

class MacProcesses final : public Processes {
 public:
  MacProcesses(Commands& c, const MacNative& native) : c_(c), native_(native) {}

  std::optional<ProcessInfo> info(std::int32_t pid) override {
    if (pid <= 0) return std::nullopt;
    auto found = read(pid);
    if (found.empty()) return std::nullopt;
    return found.front();
  }
  std::vector<ProcessInfo> list() override { return read(std::nullopt); }

  Result stop(std::int32_t pid) override { return signal(pid, SIGSTOP, "pause"); }
  Result resume(std::int32_t pid) override { return signal(pid, SIGCONT, "resume"); }
  Result slow(std::int32_t pid) override { return background(pid, true); }
  Result unslow(std::int32_t pid) override { return background(pid, false); }

 private:
  std::vector<ProcessInfo> read(std::optional<std::int32_t> pid) {
    CommandOutput rowsOut = c_.run(mac::listProcesses(pid));
    if (!rowsOut.ok()) return {};
    CommandOutput pathsOut = c_.run(mac::listProcessPaths(pid));
    const auto paths = pathsOut.ok() ? parsePsPaths(pathsOut.output) : std::map<std::int32_t, std::string>{};
    std::vector<ProcessInfo> out;
    for (PsRow& row : parsePsListing(rowsOut.output)) {
      if (pid && row.pid != *pid) continue;
      auto started = startMicros(row.started);
      if (!started) continue;
      ProcessInfo p;
      p.pid = row.pid;
      p.ppid = row.ppid;
      p.startMicros = *started;
      if (auto it = paths.find(row.pid); it != paths.end()) p.path = it->second;
      p.args = splitPsCommand(row.command, p.path);
      p.cpuMicros = row.cpuMicros;
      p.stopped = row.stopped;
      if (native_.energyNanojoules) p.energyNanojoules = native_.energyNanojoules(row.pid).value_or(0);
      out.push_back(std::move(p));
    }
    return out;
  }

  static Result signal(std::int32_t pid, int signo, const char* verb) {
    if (pid <= 1) return Result::fail("Vigilo won't " + std::string(verb) + " process " + std::to_string(pid) + ".");
    if (::kill(pid, signo) == 0) return Result::ok();
    const int err = errno;
    return Result::fail("Couldn't " + std::string(verb) + " process " + std::to_string(pid) + ": " +
                            std::strerror(err) + ".",
                        err);
  }

  // The native call where the build has it; otherwise taskpolicy, which
  // makes the same call from the command line.
  Result background(std::int32_t pid, bool on) {
    const char* verb = on ? "slow" : "put back the priority of";
    if (pid <= 1) return Result::fail("Vigilo won't " + std::string(verb) + " process " + std::to_string(pid) + ".");
    if (native_.setBackground) return native_.setBackground(pid, on);
    CommandOutput out = c_.run(mac::setBackgroundPriority(pid, on));
    if (out.ok()) return Result::ok();
    return Result::fail("Couldn't " + std::string(verb) + " process " + std::to_string(pid) + ": " + out.said());
  }

  Commands& c_;
  const MacNative& native_;
};

// Sleep and wake from IOKit where the build has it; otherwise a poll that
// sees the Mac's sleep as a gap in time. The power source and the thermal
// state are polled either way.
class MacEvents final : public SystemEvents {
 public:
  MacEvents(Clock& clock, RunLoop& loop, Registry& registry, const MacNative& native)
      : clock_(clock), loop_(loop), registry_(registry), native_(native) {}
  ~MacEvents() override {
    if (timer_) loop_.cancel(*timer_);
  }

  void subscribe(std::function<void(SystemEvent)> handler) override {
    handler_ = std::move(handler);
    if (!handler_ || timer_) return;
    if (native_.watchSleepWake && !nativeSleep_) {
      nativeSleep_ = native_.watchSleepWake([this](bool willSleep) {
        loop_.post([this, willSleep] { emit(willSleep ? SystemEvent::WillSleep : SystemEvent::DidWake); });
      });
    }
    lastWall_ = clock_.now();
    lastMono_ = clock_.monotonic();
    external_ = adapter();
    thermal_ = registry_.thermalState();
    timer_ = loop_.every(kPollSeconds, 1.0, [this] { poll(); });
  }

 private:
  std::optional<bool> adapter() {
    auto b = registry_.battery();
    return b ? b->externalConnected : std::nullopt;
  }

  void emit(SystemEvent e) {
    if (handler_) handler_(e);
  }

  void poll() {
    const double wall = clock_.now(), mono = clock_.monotonic();
    const double gap = std::max(wall - lastWall_, mono - lastMono_);
    lastWall_ = wall;
    lastMono_ = mono;
    if (!nativeSleep_ && gap > kPollSeconds + kMacSleptGap) emit(SystemEvent::DidWake);
    if (auto now = adapter(); now != external_) {
      external_ = now;
      emit(SystemEvent::PowerSourceChanged);
    }
    if (int t = registry_.thermalState(); t != thermal_) {
      thermal_ = t;
      emit(SystemEvent::ThermalStateChanged);
    }
  }

  Clock& clock_;
  RunLoop& loop_;
  Registry& registry_;
  const MacNative& native_;
  std::function<void(SystemEvent)> handler_;
  std::optional<TimerId> timer_;
  bool nativeSleep_ = false;
  double lastWall_ = 0, lastMono_ = 0;
  std::optional<bool> external_;
  int thermal_ = 0;
};

// "pmset relative wake" with the longest step the rule allows that isn't
// longer than asked, else the shortest: a wake a little early only means
// the engine decides again.
class MacWake final : public WakeScheduler {
 public:
  explicit MacWake(Commands& c) : c_(c) {}
  std::optional<std::string> unavailable() override {
    if (c_.run({"/usr/bin/sudo", "-n", "-l", "/usr/bin/pmset", "relative", "wake", "60"}).ok()) return std::nullopt;
    return "The one-time setup doesn't allow Vigilo's relative wakes yet. Run Set Up again in Settings › General.";
  }
  std::string how() const override { return "through pmset relative wake"; }
  Result wakeIn(int seconds) override {
    const auto& steps = mac::allowedWakeSteps();
    int step = steps.back();
    for (int s : steps) {
      if (s <= seconds) {
        step = s;
        break;
      }
    }
    return c_.privileged(*mac::relativeWake(step), "Couldn't schedule a wake");
  }
  // pmset keeps no relative wake to take back: one that comes with nothing
  // to do finds the engine letting the Mac sleep again.
  Result cancel() override { return Result::ok(); }

 private:
  Commands& c_;
};

class MacPlatformImpl final : public Platform {
 public:
  MacPlatformImpl(Clock& clock, RunLoop& loop, MacPlatformOptions options)
      : clock_(clock),
        loop_(loop),
        native_(std::move(options.native)),
        commands_(*options.runner, std::move(options.log)),
        registry_(commands_),
        power_(commands_, clock),
        displays_(commands_, native_, options.uid >= 0 ? options.uid : static_cast<long>(::getuid())),
        processes_(commands_, native_),
        events_(clock, loop, registry_, native_),
        wake_(commands_) {}

  std::string name() const override { return "macos"; }
  std::string defaultAppFolder() const override { return macAppFolder(); }
  Clock& clock() override { return clock_; }
  RunLoop& loop() override { return loop_; }
  Registry& registry() override { return registry_; }
  PowerControl& power() override { return power_; }
  Displays& displays() override { return displays_; }
  Processes& processes() override { return processes_; }
  SystemEvents& events() override { return events_; }
  WakeScheduler& wakeAlarm() override { return wake_; }

  std::vector<Capability> capabilities() override {
    std::vector<Capability> out;
    const SetupStatus setup = power_.setupStatus();
    out.push_back({"sleep switch", setup.ready,
                   setup.ready ? "Vigilo switches sleep off and on with sudo -n /usr/bin/pmset -a disablesleep; the "
                                 "watchdog switches it back on if Vigilo dies."
                               : setup.reason});
    out.push_back(batteryCapability());
    out.push_back(lidCapability());
    out.push_back(thermalCapability());
    const bool ps = commands_.run(mac::listProcesses(static_cast<int>(::getpid()))).ok();
    out.push_back({"processes", ps,
                   ps ? std::string("Processes are read with ps; ") +
                            (native_.energyNanojoules ? "energy per app comes from proc_pid_rusage."
                                                      : "this build has no energy per app.")
                      : "ps can't be run, so Vigilo can't see or control processes."});
    const auto mode = power_.batteryPowerMode();
    out.push_back({"power mode", mode.has_value(),
                   mode ? "Low Power Mode is read from pmset -g custom and set with sudo -n pmset -b " + mode->key + "."
                        : "pmset -g custom lists no battery power mode, so Vigilo leaves it as it is."});
    const auto backups = power_.automaticBackupsOn();
    out.push_back({"backups", backups.has_value(),
                   backups ? "Time Machine is paused with sudo -n tmutil disable and put back with tmutil enable."
                           : "Time Machine isn't set up here, so there are no backups to pause."});
    const bool screen = displays_.hasBuiltIn();
    out.push_back({"screen", screen,
                   screen ? "The built-in screen's brightness is set through DisplayServices."
                          : "This build can't read or set the built-in screen's brightness; it puts the screen to "
                            "sleep with pmset displaysleepnow instead."});
    out.push_back(nativeCapability());
    return out;
  }

 private:
  Capability batteryCapability() {
    if (!plistReaderAvailable()) {
      return {"battery", registry_.battery().has_value(),
              "libplist can't be loaded, so the battery controller isn't read; pmset -g batt gives the charge and "
              "the adapter only (brew install libplist)."};
    }
    auto b = registry_.battery();
    if (!b) {
      return {"battery", false, "No battery found (ioreg lists no AppleSmartBattery), so the battery limit and "
                                "only-on-power guards are off."};
    }
    return {"battery", true, "The battery is read from the I/O registry's AppleSmartBattery with ioreg."};
  }

  Capability lidCapability() {
    if (registry_.lidClosed()) {
      return {"lid", true, "The lid is read from AppleClamshellState with ioreg, every two seconds."};
    }
    return {"lid", false, "ioreg shows no AppleClamshellState (no lid), so Vigilo treats the lid as always open."};
  }

  Capability thermalCapability() {
    CommandOutput out = commands_.run(mac::readThermal());
    const bool ok = out.ok() && parsePmsetTherm(out.output).has_value();
    return {"thermal", ok,
            ok ? "The heat guard reads pmset -g therm (Apple Silicon Macs record little there)."
               : "pmset -g therm can't be read, so the heat guard is off."};
  }

  // Unverified pieces count as not available, so that `vigilo doctor`,
  // which lists what is missing, names them.
  Capability nativeCapability() {
    if (native_.pieces.empty()) {
      return {"native pieces", false,
              "This build has none of the Mac's native pieces (energy per app, background priority, brightness, "
              "display assertion, sleep and wake notifications); Vigilo does without them."};
    }
    std::string names;
    for (std::size_t i = 0; i < native_.pieces.size(); ++i) {
      if (i > 0) names += i + 1 == native_.pieces.size() ? " and " : ", ";
      names += native_.pieces[i];
    }
    return {"native pieces", false,
            "Unverified native pieces: " + names +
                " are built in, but none has been tested on a Mac until the macOS workflow "
                "(.github/workflows/macos.yml) passes."};
  }

  Clock& clock_;
  RunLoop& loop_;
  MacNative native_;
  Commands commands_;
  MacRegistry registry_;
  MacPower power_;
  MacDisplays displays_;
  MacProcesses processes_;
  MacEvents events_;
  MacWake wake_;
};

// The table with the few things it leans on, owned together.
class OwnedMacProcesses final : public Processes {
 public:
  OwnedMacProcesses(CommandRunner& runner, MacNative native)
      : native_(std::move(native)), commands_(runner, nullptr), table_(commands_, native_) {}
  std::optional<ProcessInfo> info(std::int32_t pid) override { return table_.info(pid); }
  std::vector<ProcessInfo> list() override { return table_.list(); }
  Result stop(std::int32_t pid) override { return table_.stop(pid); }
  Result resume(std::int32_t pid) override { return table_.resume(pid); }
  Result slow(std::int32_t pid) override { return table_.slow(pid); }
  Result unslow(std::int32_t pid) override { return table_.unslow(pid); }

 private:
  MacNative native_;
  Commands commands_;
  MacProcesses table_;
};

}  // namespace

std::unique_ptr<Processes> makeMacProcesses(CommandRunner& runner, MacNative native) {
  return std::make_unique<OwnedMacProcesses>(runner, std::move(native));
}

std::unique_ptr<Platform> makeMacPlatform(Clock& clock, RunLoop& loop, MacPlatformOptions options) {
  return std::make_unique<MacPlatformImpl>(clock, loop, std::move(options));
}

}  // namespace vigilo
