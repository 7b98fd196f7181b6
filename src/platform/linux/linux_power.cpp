#include "platform/linux/linux_power.h"

#include <unistd.h>

#include <string_view>
#include <utility>

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

}  // namespace

bool blocksSleep(const Inhibitor& lock) {
  return lock.mode == kBlock && (lockCovers(lock, "sleep") || lockCovers(lock, "handle-lid-switch"));
}

bool isOursOrAProbe(const Inhibitor& lock) {
  return lock.who == kLockWho && (lock.why == kProbeWhy || lock.pid == static_cast<std::uint32_t>(::getpid()));
}

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

Result LinuxPower::setSleepDisabled(bool disabled) {
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

Result LinuxPower::sleepNow() {
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
SetupStatus LinuxPower::setupStatus() {
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
std::optional<PowerModeSetting> LinuxPower::batteryPowerMode() {
  auto profile = logind_.activeProfile();
  if (!profile.ok()) return std::nullopt;
  return PowerModeSetting{"lowpowermode", *profile.value == "power-saver" ? 1 : 0};
}

Result LinuxPower::setPowerMode(const std::string& key, int value) {
  if (value != 1) return restorePowerMode(key, value);
  if (profileHold_) return Result::ok();
  auto hold = logind_.holdProfile("power-saver", "Saving power while the lid is shut", "vigilo");
  if (!hold.ok()) return Result::fail("power-profiles-daemon didn't switch to power-saver: " + hold.message);
  profileHold_ = *hold.value;
  return Result::ok();
}

// The hold is the only change: releasing it puts back whatever profile
// was in force. A hold of an earlier run died with that run.
Result LinuxPower::restorePowerMode(const std::string&, int) {
  if (!profileHold_) return Result::ok();
  auto released = logind_.releaseProfile(*profileHold_);
  if (!released.ok() && released.failure != BusFailure::NoLogind) {
    return Result::fail("power-profiles-daemon didn't release Vigilo's power-saver hold: " + released.message);
  }
  profileHold_.reset();
  return Result::ok();
}

Result LinuxPower::setAutomaticBackups(bool) {
  return Result::fail("Linux has no system backup service that Vigilo can pause, so there is nothing to switch.");
}

void LinuxPower::remember(SetupStatus s) {
  probe_ = std::move(s);
  probedAt_ = clock_.monotonic();
}

}  // namespace vigilo
