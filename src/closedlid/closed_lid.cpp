#include "closedlid/closed_lid.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "engine/records.h"
#include "engine/log.h"
#include "platform/bundles.h"

namespace vigilo {
namespace {

constexpr double kLidPollSeconds = 0.5;
constexpr int kSerious = 2;
constexpr const char* kScreenBackWarning =
    "Couldn't switch the built-in screen back on. Log out and in to bring it back.";
constexpr const char* kBackupsWarning =
    "Couldn't switch Time Machine's automatic backups back on. Run: sudo tmutil enable";
constexpr const char* kLockWarning =
    "macOS locks this Mac when its screen is switched fully off, so Vigilo went back to the dark screen (no lock "
    "screen).";

}  // namespace

namespace {

std::string minutesText(double seconds) {
  const long long minutes = std::llround(seconds / 60.0);
  return minutes >= 60 ? formatMinutes(minutes) : std::to_string(minutes) + " min";
}

}  // namespace

std::string receiptLine(const Receipt& r) {
  if (!r.openedAt || *r.openedAt < r.closedAt) return "Stayed awake";
  const Time opened = *r.openedAt;
  // The stretch awake ends where sleep was let in; a stamp outside the
  // session (the clock moved) is ignored.
  auto inside = [&](const std::optional<Time>& t) { return t && *t >= r.closedAt && *t <= opened; };
  const bool slept = inside(r.sleptAt);
  const bool asked = inside(r.sleepRequestedAt);
  const Time sleptAt = slept ? *r.sleptAt : opened;
  const Time awakeUntil = asked ? *r.sleepRequestedAt : sleptAt;
  std::string line = "Stayed awake " + minutesText(awakeUntil - r.closedAt);
  if (slept) {
    line += ", then slept " + minutesText(opened - sleptAt);
  } else if (asked) {
    line += ", then asked it to sleep";
  }
  if (r.offlineSeconds >= 60) line += " · no internet for " + minutesText(r.offlineSeconds);
  return line;
}

ClosedLid::ClosedLid(Engine& engine, std::function<AgentProtection()> protection)
    : engine_(engine), protection_(std::move(protection)) {
  journal_ = std::make_unique<Journal>(engine_.files(), engine_.platform().processes());
}

ClosedLid::~ClosedLid() {
  *alive_ = false;
  stopLidPoll();
  for (TimerId id : lockChecks_) engine_.platform().loop().cancel(id);
}

void ClosedLid::ensureLoaded() {
  if (loaded_) return;
  loaded_ = true;
  // Crash recovery at launch has already put back what it could; what is
  // left on disk is retried from here.
  touched_ = journal_->load();
}

Preset ClosedLid::presetInForce() const {
  const Config& c = engine_.config();
  if (c.heatGuard && engine_.thermal() >= kSerious) return Preset::MaxBattery;
  return c.preset;
}

bool ClosedLid::lowPowerSet() const { return engine_.files().exists(kPowerModeRestoreFile); }
bool ClosedLid::backupsPaused() const { return engine_.files().exists(kTimeMachineRestoreFile); }

// ---------------------------------------------------------------- the seam

void ClosedLid::enter(Engine&) {
  const Config& c = engine_.config();
  Platform& platform = engine_.platform();
  if (receipt_ && !receipt_->openedAt && !engine_.preview()) finishSession(engine_.now());
  Receipt r;
  r.closedAt = engine_.now();
  if (protection_) r.agentName = protection_().activeAgent;
  if (!r.agentName && !engine_.holds().empty()) r.agentName = engine_.holds().back().reason;
  if (!r.agentName && !engine_.holdReason().empty()) r.agentName = engine_.holdReason();
  if (engine_.battery()) r.startPercent = engine_.battery()->percent;
  receipt_ = r;
  active_ = true;
  warning_.reset();

  if (changesAllowed()) {
    if (c.lockOnClose) {
      // The screen sleeps and the session locks as it would without Vigilo.
      if (Result res = platform.displays().lockScreen(); !res) logLine("Vigilo: locking the screen failed: " + res.message());
    } else {
      Result held = platform.displays().holdDisplayAwake(true);
      displayAssertion_ = held.isOk();
      dimForClosedLid();
      if (c.screenOffNoLock) switchScreenOff();
    }
  }
  startLidPoll();
  reapplyClosedState(std::nullopt);

  if (changesAllowed() && c.shutDownSimulators && presetInForce() != Preset::FullSpeed) {
    TargetInputs in;
    in.processes = platform.processes().listing(ProcessDetail::Identity);
    if (protection_) in.agentBundles = protection_().bundles;
    const BackgroundWork w = scanBackgroundWork(in);
    if (!w.testsRunning && !w.agentUsesXcode && w.simulators > 0) platform.power().shutDownSimulators();
  }
}

void ClosedLid::noteSleep(Time at, const std::string& because) {
  if (!receipt_ || receipt_->openedAt || receipt_->sleptAt) return;
  receipt_->sleptAt = at;
  receipt_->sleptBecause = because;
}

void ClosedLid::leave(Engine&) {
  // The session ends with the lid still shut: the machine is let go to sleep.
  if (engine_.lidClosed() && receipt_ && !receipt_->openedAt && !receipt_->sleepRequestedAt) {
    receipt_->sleepRequestedAt = engine_.now();
  }
  if (!engine_.lidClosed() && receipt_ && !receipt_->openedAt) {
    finishSession(engine_.now());
    if (notice_) notice_(Notice{Notice::Kind::Alert, "Welcome back", receiptLine(*receipt_)});
  }
  restoreClosedState();
  trackOffline();  // an outage ends with the session
}

void ClosedLid::reapply(Engine&, bool strictest) {
  trackOffline();
  reapplyClosedState(strictest ? std::optional<Preset>(Preset::MaxBattery) : std::nullopt);
}

void ClosedLid::restoreAppsIfOpen(Engine&) {
  if (active_) return;
  ensureLoaded();
  if (!touched_.empty() || !targeted_.empty()) restoreApps();
}

void ClosedLid::shutdown(Engine&) {
  if (active_) {
    restoreClosedState();
  } else {
    restoreApps();
  }
}

void ClosedLid::trackOffline() {
  if (!receipt_ || receipt_->openedAt) return;
  const Time now = engine_.now();
  // Counted only while the session goes on: once it ends the machine may
  // sleep, and time asleep is not time without internet.
  const bool going = active_ && engine_.lidClosed() && engine_.holding();
  const bool online = engine_.platform().registry().online().value_or(true);
  if (receipt_->offlineSince && (online || !going)) {
    receipt_->offlineSeconds += std::max(0.0, now - *receipt_->offlineSince);
    receipt_->offlineSince.reset();
  }
  if (!online && going && !receipt_->offlineSince) receipt_->offlineSince = now;
}

void ClosedLid::finishSession(Time openedAt) {
  if (!receipt_) return;
  trackOffline();
  receipt_->openedAt = openedAt;
  if (engine_.battery()) receipt_->endPercent = engine_.battery()->percent;
  if (finished_) finished_(*receipt_);
}

// ---------------------------------------------------------------- state

void ClosedLid::setSavingsOff(std::set<std::string> off) {
  savingsOff_ = std::move(off);
  if (!active_) return;
  if (changesAllowed() && !engine_.config().lockOnClose) {
    if (savingsOff_.count("screen")) {
      restoreBrightness();
    } else {
      dimForClosedLid();
    }
  }
  reapplyClosedState(std::nullopt);
}

void ClosedLid::reapplyClosedState(std::optional<Preset> forcing, const std::set<std::string>& skipAsked) {
  const Preset preset = forcing.value_or(presetInForce());
  const Config& c = engine_.config();
  std::set<std::string> skip = skipAsked;
  for (std::string_view cls : {kSkipApps, kSkipSimulators, kSkipAudio}) {
    if (savingsOff_.count(std::string(cls))) skip.insert(std::string(cls));
  }
  // Slowed builds are part of what slowing apps saves: with the apps' saving
  // off, nothing of it may stay on.
  if (savingsOff_.count(std::string(kSkipApps))) skip.insert(std::string(kSkipBuilds));
  if (changesAllowed()) {
    if (preset != Preset::FullSpeed && c.lowPowerWhileClosed && !savingsOff_.count("low_power")) {
      setLowPower();
    } else {
      restorePowerMode();
    }
    if (preset != Preset::FullSpeed && c.pauseTimeMachine) {
      pauseBackups();
    } else if (!resumeBackups()) {
      warning_ = kBackupsWarning;
    }
  }
  applyClosedTargets(preset, skip);
}

void ClosedLid::restoreClosedState() {
  Platform& platform = engine_.platform();
  stopLidPoll();
  for (TimerId id : lockChecks_) platform.loop().cancel(id);
  lockChecks_.clear();
  active_ = false;
  if (!changesAllowed()) {
    targeted_.clear();
    return;
  }
  if (!restoreBuiltIn()) warning_ = kScreenBackWarning;
  screenOff_ = false;
  restoreBrightness();
  if (displayAssertion_) {
    platform.displays().holdDisplayAwake(false);
    displayAssertion_ = false;
  }
  restoreApps();
  restorePowerMode();
  if (!resumeBackups()) warning_ = kBackupsWarning;
}

// ---------------------------------------------------------------- lid poll

void ClosedLid::startLidPoll() {
  stopLidPoll();
  // No backend here sends a lid notification (logind's LidClosed has no
  // change signal), so while the session runs the lid is polled quickly:
  // opening it should bring the screen and apps back at once.
  std::weak_ptr<bool> weak = alive_;
  lidPoll_ = engine_.platform().loop().every(kLidPollSeconds, 0.1, [this, weak] {
    if (weak.expired() || !engine_.lidClosed()) return;
    auto lid = engine_.platform().registry().lidClosed();
    const bool closed = lid.value_or(false) && !engine_.platform().displays().externalConnected();
    if (!closed) engine_.lidChanged(false);
  });
}

void ClosedLid::stopLidPoll() {
  if (lidPoll_) engine_.platform().loop().cancel(*lidPoll_);
  lidPoll_.reset();
}

// ---------------------------------------------------------------- apps

std::map<std::int32_t, ClosedTarget> ClosedLid::selectTargets(Preset preset, const std::set<std::string>& skip) {
  Platform& platform = engine_.platform();
  const Config& c = engine_.config();
  TargetInputs in;
  in.processes = platform.processes().listing(ProcessDetail::Identity);
  // A bundle's Info.plist is read from disk once for the app's life: a read
  // every 2 s for every running app would be wasted work.
  auto& cache = bundleCache_;
  for (const ProcessInfo& p : in.processes) {
    auto bundlePath = outermostBundle(p.path);
    if (!bundlePath) {
      if (auto app = platform.processes().appOf(p)) in.bundles[p.pid] = *app;
      continue;
    }
    const std::string key(*bundlePath);
    if (auto known = platform.processes().appBundle(key)) {
      in.bundles[p.pid] = *known;
      continue;
    }
    auto it = cache.find(key);
    if (it == cache.end()) {
      BundleMeta meta = readBundleMeta(key);
      const auto slash = key.rfind('/');
      std::string name = key.substr(slash + 1, key.size() - slash - 5);
      it = cache.emplace(key, AppBundle{key, meta.bundleID, meta.displayName.value_or(name)}).first;
    }
    in.bundles[p.pid] = *it->second;
  }
  in.assertions = platform.registry().powerAssertions();
  if (protection_) {
    AgentProtection prot = protection_();
    in.agentPids = std::move(prot.pids);
    in.agentBundles = std::move(prot.bundles);
  }
  for (const Hold& h : engine_.holds()) {
    if (h.pid) in.holdPids.push_back(*h.pid);
  }
  in.self = static_cast<std::int32_t>(::getpid());
  in.preset = preset;
  in.rules = c.appRules;
  in.pauseSimulators = c.pauseSimulators;
  in.pauseBackgroundAudio = c.pauseBackgroundAudio;
  in.slowBuilds = c.slowBuildsWhileClosed;
  return closedTargets(in, skip);
}

bool ClosedLid::undoOne(const Touched& t) {
  Processes& procs = engine_.platform().processes();
  auto info = procs.info(t.pid);
  // Gone, or the pid now names another process: nothing left to put back,
  // and a stranger is never signalled.
  if (!info || info->startMicros != t.start) return true;
  Result r = t.paused ? procs.resume(t.pid) : procs.unslow(t.pid);
  if (!r) logLine("Vigilo: couldn't put back process " + std::to_string(t.pid) + ": " + r.message());
  return r.isOk();
}

void ClosedLid::applyClosedTargets(Preset preset, const std::set<std::string>& skip) {
  std::map<std::int32_t, ClosedTarget> selection = selectTargets(preset, skip);
  if (!changesAllowed()) {
    targeted_ = std::move(selection);
    return;
  }
  ensureLoaded();
  Processes& procs = engine_.platform().processes();

  std::vector<Touched> kept;
  bool changed = false;
  for (const Touched& t : touched_) {
    auto it = selection.find(t.pid);
    const bool same = it != selection.end() && it->second.start == t.start &&
                      (it->second.rule == AppRule::Pause) == t.paused;
    if (same || !undoOne(t)) {
      kept.push_back(t);
    } else {
      changed = true;
    }
  }
  touched_ = std::move(kept);
  if (changed) journal_->save(touched_);

  const auto self = static_cast<std::int32_t>(::getpid());
  for (const auto& [pid, target] : selection) {
    if (pid < 2 || pid == self) continue;
    // Captured by copy: clang before 16 can't capture a structured binding.
    if (std::any_of(touched_.begin(), touched_.end(), [pid = pid](const Touched& t) { return t.pid == pid; })) continue;
    auto info = procs.info(pid);
    if (!info || info->startMicros != target.start) continue;
    const bool pause = target.rule == AppRule::Pause;
    touched_.push_back(Touched{pid, target.start, target.path, pause});
    // The record is on disk before the process is touched.
    if (!journal_->save(touched_)) {
      touched_.pop_back();
      journal_->save(touched_);
      continue;
    }
    Result r = pause ? procs.stop(pid) : procs.slow(pid);
    if (!r) {
      touched_.pop_back();
      journal_->save(touched_);
    }
  }
  targeted_ = std::move(selection);
}

void ClosedLid::restoreApps() {
  targeted_.clear();
  if (!changesAllowed()) return;
  ensureLoaded();
  if (touched_.empty()) return;
  std::vector<Touched> left;
  for (const Touched& t : touched_) {
    if (!undoOne(t)) left.push_back(t);
  }
  touched_ = std::move(left);
  journal_->save(touched_);
}

std::map<std::int32_t, AppRule> ClosedLid::plan() {
  std::map<std::int32_t, AppRule> out;
  for (const auto& [pid, t] : active_ ? targeted_ : selectTargets(presetInForce())) out[pid] = t.rule;
  return out;
}

std::vector<std::string> ClosedLid::unrestored() {
  std::vector<std::string> names;
  if (active_) return names;
  ensureLoaded();
  for (const Touched& t : touched_) {
    const auto slash = t.path.rfind('/');
    names.push_back(slash == std::string::npos ? t.path : t.path.substr(slash + 1));
  }
  return names;
}

// ---------------------------------------------------------------- screen

void ClosedLid::dimForClosedLid() {
  Displays& d = engine_.platform().displays();
  if (!d.hasBuiltIn()) return;
  const StateFiles& f = engine_.files();
  if (!f.exists(kBrightnessRestoreFile)) {
    // An existing marker holds the first, real value of an earlier dimming.
    auto level = d.brightness();
    if (!level) return;
    if (!f.writeDurably(kBrightnessRestoreFile, brightnessRecordText(*level))) return;
  }
  if (Result r = d.setBrightness(0.0); !r) logLine("Vigilo: dimming the screen failed: " + r.message());
}

bool ClosedLid::restoreBrightness() {
  const StateFiles& f = engine_.files();
  auto text = f.read(kBrightnessRestoreFile);
  if (!text) return true;
  const auto level = brightnessRecord(*text);
  if (!level) {
    f.remove(kBrightnessRestoreFile);
    return true;
  }
  if (Result r = engine_.platform().displays().setBrightness(*level); !r) {
    logLine("Vigilo: putting the brightness back failed: " + r.message());
    return false;
  }
  f.remove(kBrightnessRestoreFile);
  return true;
}

bool ClosedLid::turnOffBuiltIn() {
  Displays& d = engine_.platform().displays();
  if (!d.hasBuiltIn()) return false;
  const StateFiles& f = engine_.files();
  if (!f.touch(kDisplayOffFile)) return false;
  if (Result r = d.setBuiltInEnabled(false); !r) {
    f.remove(kDisplayOffFile);
    return false;
  }
  return true;
}

bool ClosedLid::restoreBuiltIn() {
  const StateFiles& f = engine_.files();
  if (!f.exists(kDisplayOffFile)) return true;
  if (Result r = engine_.platform().displays().setBuiltInEnabled(true); !r) return false;
  f.remove(kDisplayOffFile);
  return true;
}

void ClosedLid::switchScreenOff() {
  const bool wasLocked = engine_.platform().displays().sessionLocked().value_or(false);
  screenOff_ = turnOffBuiltIn();
  if (wasLocked || !screenOff_) return;
  std::weak_ptr<bool> weak = alive_;
  for (double delay : {2.0, 6.0, 12.0}) {
    lockChecks_.push_back(engine_.platform().loop().after(delay, [this, weak] {
      if (!weak.expired()) checkScreenLock();
    }));
  }
}

void ClosedLid::checkScreenLock() {
  if (!screenOff_ || !engine_.config().screenOffNoLock) return;
  if (!engine_.platform().displays().sessionLocked().value_or(false)) return;
  // Switching the screen off locks this machine: go back to the dark screen
  // for good.
  if (!restoreBuiltIn()) return;
  screenOff_ = false;
  Config c = engine_.config();
  c.screenOffNoLock = false;
  engine_.apply(c, true);
  warning_ = kLockWarning;
}

// ---------------------------------------------------------------- power mode

void ClosedLid::setLowPower() {
  const StateFiles& f = engine_.files();
  if (f.exists(kPowerModeRestoreFile)) return;
  PowerControl& power = engine_.platform().power();
  auto setting = power.batteryPowerMode();
  // Low Power Mode the person set is theirs: nothing is recorded, nothing
  // will be put back.
  if (!setting || setting->value == 1) return;
  if (!f.writeDurably(kPowerModeRestoreFile, powerModeRecordText(setting->key, setting->value))) return;
  if (Result r = power.setPowerMode(setting->key, 1); !r) {
    logLine("Vigilo: pmset -b " + setting->key + " 1 failed (" + std::to_string(r.code()) + "): " + r.message());
    f.remove(kPowerModeRestoreFile);
  }
}

void ClosedLid::restorePowerMode() {
  const StateFiles& f = engine_.files();
  auto line = f.read(kPowerModeRestoreFile);
  if (!line) return;
  const auto mode = powerModeRecord(*line);
  if (!mode) {
    f.remove(kPowerModeRestoreFile);
    return;
  }
  const auto& [key, value] = *mode;
  PowerControl& power = engine_.platform().power();
  // Someone switched Low Power Mode off meanwhile: nothing left to undo.
  if (auto now = power.batteryPowerMode(); now && now->value != 1) {
    f.remove(kPowerModeRestoreFile);
    return;
  }
  if (Result r = power.restorePowerMode(key, value); r) {
    f.remove(kPowerModeRestoreFile);
  } else {
    logLine("Vigilo: pmset -b " + std::string(key) + " " + std::to_string(value) + " failed (" +
            std::to_string(r.code()) + "): " + r.message());
  }
}

// ---------------------------------------------------------------- backups

void ClosedLid::pauseBackups() {
  const StateFiles& f = engine_.files();
  if (f.exists(kTimeMachineRestoreFile)) return;
  PowerControl& power = engine_.platform().power();
  // Backups the person had switched off stay theirs.
  if (power.automaticBackupsOn() != std::optional<bool>(true)) return;
  if (!f.touch(kTimeMachineRestoreFile)) return;
  if (Result r = power.setAutomaticBackups(false); !r) {
    logLine("Vigilo: pausing backups failed: " + r.message());
    f.remove(kTimeMachineRestoreFile);
  }
}

bool ClosedLid::resumeBackups() {
  const StateFiles& f = engine_.files();
  if (!f.exists(kTimeMachineRestoreFile)) return true;
  PowerControl& power = engine_.platform().power();
  if (power.automaticBackupsOn() == std::optional<bool>(false)) {
    if (Result r = power.setAutomaticBackups(true); !r) {
      logLine("Vigilo: switching backups back on failed: " + r.message());
      return false;
    }
  }
  f.remove(kTimeMachineRestoreFile);
  return true;
}

}  // namespace vigilo
