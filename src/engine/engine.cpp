#include "engine/engine.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <cstdlib>
#include <langinfo.h>
#include <locale.h>
#include <nlohmann/json.hpp>

#include "engine/beats.h"
#include "engine/log.h"
#include "engine/records.h"

namespace vigilo {
namespace {

constexpr double kTickTolerance = 1.0;
constexpr double kRefusalBackoff = 30.0;
constexpr double kHeatLimit = 300.0;
constexpr int kSerious = 2;
constexpr int kCritical = 3;

constexpr const char* kPendingWarning = "Couldn't switch sleep back on yet; Vigilo keeps trying.";
constexpr const char* kFolderError = "Vigilo couldn't write to its folder, so it won't switch sleep off";
constexpr const char* kSetupRepair = "Setup needs repair";

}  // namespace

Engine::Engine(Platform& platform, std::string appFolder, EngineOptions options)
    : platform_(platform),
      files_(std::move(appFolder)),
      options_(options),
      journal_(files_, platform.processes()),
      alive_(std::make_shared<bool>(true)) {}

Engine::~Engine() {
  *alive_ = false;
  if (timer_) platform_.loop().cancel(*timer_);
  if (configWatch_) platform_.loop().unwatch(*configWatch_);
  platform_.events().subscribe(nullptr);
}

Time Engine::now() const { return frozenNow_ ? *frozenNow_ : platform_.clock().now(); }

// Holds one "now" while a tick or an evaluation runs; the outermost one
// sets it, so an evaluation inside a tick keeps the tick's time.
class Engine::Moment {
 public:
  explicit Moment(Engine& engine) : engine_(engine), outer_(!engine.frozenNow_) {
    if (outer_) engine_.frozenNow_ = engine_.platform_.clock().now();
  }
  ~Moment() {
    if (outer_) engine_.frozenNow_.reset();
  }
  Moment(const Moment&) = delete;
  Moment& operator=(const Moment&) = delete;

 private:
  Engine& engine_;
  bool outer_;
};

std::optional<bool> Engine::readLid() {
  auto lid = platform_.registry().lidClosed();
  // A shut laptop driving an external screen is in use: it counts as open.
  if (lid && *lid && platform_.displays().externalConnected()) return false;
  return lid;
}

void Engine::tell(const std::string& title, const std::string& text) {
  if (notice_) notice_(Notice{Notice::Kind::Alert, title, text});
}

void Engine::announce(const std::string& text) {
  if (notice_) notice_(Notice{Notice::Kind::Announcement, {}, text});
}

std::optional<std::string> Engine::warning() const {
  // A refusal is told while it is what keeps the machine from being held,
  // also while its retry waits.
  if (refusedWarning_ && holdFailedAt_ && wantsHold_ && !holding_ && !blockedReason_) return refusedWarning_;
  if (pendingRelease_) return std::string(kPendingWarning);
  return notKeptWarning_;
}

void Engine::clearStaleWarnings() {
  // An unwritable folder only matters while something still wants the
  // machine awake and nothing else stops it.
  if (holding_ || !wantsHold_ || blockedReason_) setupError_.reset();
  if (!holding_) notKeptWarning_.reset();
}

// ---------------------------------------------------------------- launch

void Engine::launch() {
  loadConfigAtLaunch();
  enforceSafety();
  if (options_.passive) {
    restoreRuntime();
    return;
  }
  for (SlowJobs* jobs : slow_) jobs->refreshWatchdog(*this);
  // The heartbeat comes before the first change this run may make, so the
  // watchdog never takes a run that quits or dies before its first tick
  // for one that quit cleanly.
  writeHeartbeat();
  refreshSetup();
  recoverFromCrash();
  restoreRuntime();

  std::weak_ptr<bool> weak = alive_;
  platform_.events().subscribe([this, weak](SystemEvent e) {
    if (weak.expired()) return;
    switch (e) {
      case SystemEvent::ThermalStateChanged:
        readThermal();
        evaluate();
        break;
      case SystemEvent::PowerSourceChanged:
        readBattery();
        evaluate();
        break;
      case SystemEvent::DidWake:
        // Without a lid, waking up is what opening the lid is elsewhere:
        // the person is back, so agents keep the machine awake again.
        if (!platform_.registry().lidClosed()) snoozed_ = false;
        evaluate();
        break;
      case SystemEvent::WillSleep:
        if (willSleep_) willSleep_();
        break;
    }
  });
  configStamp_ = files_.modified(kConfigFile);
  configWatch_ = platform_.loop().watchFile(files_.path(kConfigFile), [this, weak] {
    if (weak.expired()) return;
    auto stamp = files_.modified(kConfigFile);
    if (!stamp || stamp == configStamp_) return;
    configStamp_ = stamp;
    reloadConfigFromDisk();
  });

  lidClosed_ = readLid().value_or(false);
  readThermal();
  readBattery();
  if (power_) power_->sample(*this);
  if (work_) work_->sample(*this);
  evaluate();
  settleAdoptedHold();

  timer_ = platform_.loop().every(kTickSeconds, kTickTolerance, [this, weak] {
    if (weak.expired()) return;
    tick();
  });
}

// ---------------------------------------------------------------- the tick

void Engine::writeHeartbeat() {
  if (options_.preview) return;
  heartbeat_.touch();
}

void Engine::tick() {
  const Moment moment(*this);
  platform_.refresh();
  writeHeartbeat();
  ++ticks_;

  // Lid and closed-lid upkeep.
  if (auto lid = readLid(); lid && *lid != lidClosed_) lidChanged(*lid);
  if (lidClosed_ && holding_ && closedLid_) closedLid_->reapply(*this, false);

  readThermal();
  readBattery();
  if (work_) work_->sample(*this);
  if (power_) power_->sample(*this);
  if (!(lidClosed_ && holding_) && closedLid_) closedLid_->restoreAppsIfOpen(*this);

  keepMarkerInStep();

  if (beats::kWatchdog.on(ticks_)) {
    for (SlowJobs* jobs : slow_) jobs->checkWatchdog(*this);
  }
  if (beats::kSlow.on(ticks_)) {
    reloadConfigIfEdited();
    for (SlowJobs* jobs : slow_) jobs->checkScheduledWake(*this);
    // What the machine offers asks the system's services (round trips on
    // Linux): once a minute, or when the setup's state moved.
    refreshSetup(beats::kMinute.on(ticks_));
    retryPendingRelease();
    reassertSleep();
    for (SlowJobs* jobs : slow_) jobs->checkApprove(*this);
  }

  evaluate();
  settleAdoptedHold();
}

void Engine::keepMarkerInStep() {
  if (options_.preview) return;
  if (holding_) {
    holdMarkerGone_ = false;
    files_.touch(kHoldMarker);
    auto disabled = platform_.registry().sleepDisabled();
    if (disabled && !*disabled) {
      // Something switched sleep back on under us; the slow beat switches it
      // off again.
      if (!notKeptWarning_) notKeptWarning_ = platform_.words().sleepNotKept;
    } else if (disabled) {
      notKeptWarning_.reset();
    }
  } else if (!pendingRelease_ && !adoptedHoldUntil_ && (!holdMarkerGone_ || beats::kSlow.on(ticks_))) {
    holdMarkerGone_ = files_.remove(kHoldMarker);
  }
}

void Engine::readThermal() {
  thermal_ = std::clamp(platform_.registry().thermalState(), 0, 3);
  if (thermal_ >= kSerious) {
    if (!hotSince_) hotSince_ = now();
  } else {
    hotSince_.reset();
  }
}

void Engine::readBattery() {
  auto reading = readingFrom(platform_.registry().battery());
  if (reading && reading->onAC != lastOnAC_ && holding_ && !options_.preview) {
    // macOS may drop the switch when the power source changes; switch it
    // again and check that it held.
    Result r = platform_.power().setSleepDisabled(true);
    auto disabled = platform_.registry().sleepDisabled();
    if (!r || !disabled || !*disabled) {
      notKeptWarning_ = platform_.words().sleepNotKept + " after the power change";
    } else {
      notKeptWarning_.reset();
    }
  }
  if (reading) lastOnAC_ = reading->onAC;
  battery_ = reading;
  // The floor's latch clears on power or once the charge is back 3 points
  // above the limit; it is kept up to date even while nothing wants the
  // machine awake, so a charge that fell meanwhile is still caught.
  if (battery_ && (battery_->onPower() || battery_->percent >= config_.batteryFloor + 3)) floorLatched_ = false;
}

void Engine::refreshSetup(bool capabilities) {
  SetupStatus s = platform_.power().setupStatus();
  const std::string problem = s.ready ? std::string() : s.reason;
  if (capabilities || s.ready != setupReady_ || problem != setupProblem_) capabilities_ = platform_.capabilities();
  setupReady_ = s.ready;
  setupProblem_ = problem;
}

// ---------------------------------------------------------------- evaluate

std::optional<Time> Engine::onUntil() const {
  if (config_.mode != Mode::On) return std::nullopt;
  return config_.alwaysUntil;
}

std::optional<double> Engine::systemWatts() const {
  if (power_) {
    if (auto w = power_->systemWatts()) return w;
  }
  if (battery_ && battery_->watts > 0) return battery_->watts;
  return std::nullopt;
}

void Engine::expireAlwaysUntil() {
  if (config_.mode != Mode::On || !config_.alwaysUntil || *config_.alwaysUntil > now()) return;
  Config c = config_;
  c.mode = c.modeBeforeAlways.value_or(Mode::Auto);
  c.alwaysUntil.reset();
  c.modeBeforeAlways.reset();
  config_ = c;
  writeConfig();
}

bool Engine::blockedByFloor() const {
  return blockedReason_ && blockedReason_->rfind("Battery at ", 0) == 0;
}

std::optional<std::string> Engine::guardReason() {
  const bool onPower = battery_ && battery_->onPower();
  if (config_.onlyOnPower && battery_ && !onPower) return std::string("Only on power");
  if (config_.batteryFloor >= 1 && !floorOverride_ && battery_ && !onPower) {
    if (battery_->percent <= config_.batteryFloor) floorLatched_ = true;
    if (floorLatched_) return "Battery at " + std::to_string(battery_->percent) + "%";
  }
  if (config_.heatGuard && (thermal_ >= kCritical || (hotSince_ && now() - *hotSince_ >= kHeatLimit))) {
    heatForced_ = true;
    return std::string("Too hot");
  }
  return std::nullopt;
}

void Engine::evaluate() {
  const Moment moment(*this);
  // 2. Prune holds that ended or whose process is gone.
  const Time t = now();
  const std::size_t before = holds_.size();
  std::erase_if(holds_, [&](const Hold& h) {
    if (h.until && *h.until <= t) return true;
    if (h.pid) {
      auto info = platform_.processes().info(*h.pid);
      if (!info) return true;
      if (h.pidStart && info->startMicros != *h.pidStart) return true;
    }
    return false;
  });
  if (holds_.size() != before) saveRuntime();

  // 3. What wants the machine awake, by mode.
  expireAlwaysUntil();
  std::optional<std::string> reason;
  switch (config_.mode) {
    case Mode::On:
      reason = config_.alwaysUntil ? "Awake until " + formatShortTime(*config_.alwaysUntil) : "Always awake";
      break;
    case Mode::Auto:
      if (!holds_.empty()) {
        reason = holds_.back().reason;
      } else if (!snoozed_ && work_) {
        reason = work_->workReason(*this);
      }
      break;
    case Mode::Off:
      if (!holds_.empty()) reason = holds_.back().reason;
      break;
  }

  // 4.
  wantsHold_ = reason.has_value();
  std::optional<std::string> blocked;
  if (!reason) {
    blockedReason_.reset();
  } else {
    // 1, 5. A setup that is not in working order comes before the guards:
    // the switch is then not used at all, so it cannot flip on every tick.
    blocked = setupReady_ ? guardReason() : std::optional<std::string>(kSetupRepair);
    if (blocked) {
      // 6. The wanted reason stays visible beside what blocked it.
      blockedReason_ = blocked;
      holdReason_ = *reason;
    } else {
      // 7.
      blockedReason_.reset();
      holdReason_ = *reason;
      if (!holding_) startHold(*reason);
    }
  }

  // 8. Let the machine sleep.
  if ((!reason || blocked || !setupReady_) && holding_) {
    endHold(!setupReady_ ? kSetupRepair : blocked ? *blocked : endReason());
    if (blocked) holdReason_ = *reason;
  }

  // 9. Heat follow-up.
  if (holding_ && lidClosed_ && config_.heatGuard && thermal_ >= kSerious && closedLid_) {
    closedLid_->reapply(*this, true);
  }
  if (heatForced_ && thermal_ < kSerious) heatForced_ = false;
  clearStaleWarnings();
  if (changed_) changed_();
}

std::string Engine::endReason() const {
  if (config_.mode == Mode::Off) return "Turned off";
  if (snoozed_) return "Put to sleep";
  if (work_) {
    if (auto name = work_->lastWorker(const_cast<Engine&>(*this))) return *name + " finished";
  }
  return "Nothing left to wait for";
}

// ---------------------------------------------------------------- the switch

bool Engine::sleepNotOurs() const { return files_.exists(kSleepOffBeforeMarker); }

void Engine::noteOwner() {
  if (options_.preview) return;
  auto disabled = platform_.registry().sleepDisabled();
  if (disabled && *disabled && !files_.exists(kHoldMarker) && !files_.exists(kSleepOffBeforeMarker)) {
    files_.touch(kSleepOffBeforeMarker);
  }
}

bool Engine::releaseSleepSwitch() {
  if (options_.preview) return true;
  // On a shared switch, sleep that was off before is not ours to switch on,
  // and sleep someone already switched back on needs no call: either way
  // only the record goes.
  if (platform_.power().switchIsShared() &&
      (sleepNotOurs() || platform_.registry().sleepDisabled() == std::optional<bool>(false))) {
    files_.remove(kHoldMarker);
    return true;
  }
  Result r = platform_.power().setSleepDisabled(false);
  if (!r) {
    logLine("Vigilo: couldn't switch sleep back on: " + r.message());
    return false;
  }
  files_.remove(kHoldMarker);
  return true;
}

void Engine::startHold(const std::string& reason) {
  const Time t = now();
  if (holdFailedAt_ && t - *holdFailedAt_ < kRefusalBackoff) return;

  if (!options_.preview) {
    noteOwner();
    // A marker already there records sleep that is still off (a release
    // being retried, an adopted hold): a refusal now must not take it away.
    const bool hadMarker = files_.exists(kHoldMarker);
    holdMarkerGone_ = false;
    if (!files_.touch(kHoldMarker)) {
      // Sleep is never switched off without the record that puts it back.
      setupError_ = kFolderError;
      return;
    }
    setupError_.reset();
    Result r = platform_.power().setSleepDisabled(true);
    if (!r) {
      if (!sleepNotOurs() && !hadMarker) files_.remove(kHoldMarker);
      holdFailedAt_ = t;
      // Where the backend's reason says what the person can do, it is shown.
      const MachineWords& words = platform_.words();
      refusedWarning_ = words.sleepRefusedLead.empty() ? words.sleepRefused : words.sleepRefusedLead + r.message();
      logLine("Vigilo: switching sleep off failed: " + r.message());
      refreshSetup();
      return;
    }
  }
  holdFailedAt_.reset();
  refusedWarning_.reset();
  // Sleep is off again by this hold's own switch: a release that was still
  // being retried, or an adopted hold still waiting to be settled, would
  // only undo it.
  pendingRelease_ = false;
  adoptedHoldUntil_.reset();
  holding_ = true;
  holdReason_ = reason;
  if (lidClosed_ && closedLid_) closedLid_->enter(*this);
  announce(reason.empty() ? "Staying awake" : reason);
}

void Engine::endHold(const std::string& because) {
  if (lidClosed_ && closedLid_) closedLid_->leave(*this);
  if (!releaseSleepSwitch()) pendingRelease_ = true;
  holding_ = false;
  holdReason_.clear();
  lastEndReason_ = because;
  announce(because);
}

void Engine::retryPendingRelease() {
  if (!pendingRelease_ || holding_) return;
  if (releaseSleepSwitch()) pendingRelease_ = false;
}

void Engine::reassertSleep() {
  if (options_.preview || pendingRelease_) return;
  // Read only where the answer is used: on Linux it is a round trip to
  // logind, and an idle app needs none.
  std::optional<std::optional<bool>> read;
  const auto sleepDisabled = [&] {
    if (!read) read = platform_.registry().sleepDisabled();
    return *read;
  };
  if (sleepNotOurs()) {
    const auto disabled = sleepDisabled();
    if (!disabled || *disabled) return;
    // Someone switched their sleep back on: from now on the switch is ours,
    // and a hold still running switches it off again below.
    files_.remove(kSleepOffBeforeMarker);
  }
  if (holding_) {
    // The switch is ours and on: if something switched sleep back on, switch
    // it off again.
    if (const auto disabled = sleepDisabled(); disabled && !*disabled) {
      if (platform_.power().setSleepDisabled(true)) notKeptWarning_.reset();
    }
    return;
  }
  const Time t = now();
  bool checkIn = false;
  for (const SlowJobs* jobs : slow_) {
    const std::optional<Time> until = jobs->checkInUntil();
    if (until && *until > t) checkIn = true;
  }
  // An adopted hold is settled by `settleAdoptedHold` alone, also once its
  // grace has passed: switching it back on here as well would run the same
  // release twice on one tick.
  if (!setupReady_ || checkIn || adoptedHoldUntil_) return;
  // A switch of Vigilo's own dies with the app, so it cannot be left off by
  // mistake; what reads as off then is someone else's doing.
  if (!platform_.power().switchIsShared()) return;
  if (const auto disabled = sleepDisabled(); disabled && *disabled) {
    // Sleep was left off by mistake (an earlier run, say).
    if (!releaseSleepSwitch()) {
      pendingRelease_ = true;
      return;
    }
    if (lidClosed_) platform_.power().sleepNow();
  }
}

void Engine::settleAdoptedHold() {
  if (!adoptedHoldUntil_) return;
  if (holding_) {
    adoptedHoldUntil_.reset();
    return;
  }
  if (setupReady_ && !blockedReason_ && now() < *adoptedHoldUntil_) return;
  adoptedHoldUntil_.reset();
  if (!releaseSleepSwitch()) {
    // Sleep is still off: asking it to sleep now would do nothing.
    pendingRelease_ = true;
    return;
  }
  if (lidClosed_ && !options_.preview) platform_.power().sleepNow();
}

// ---------------------------------------------------------------- state files

void Engine::saveRuntime() {
  if (options_.preview) return;
  files_.writeDurably(kRuntimeFile, encodeRuntime(holds_));
}

void Engine::restoreRuntime() {
  // The app tells the person; rescue and the watchdog have only the log.
  const auto tellDamaged = [this](const std::string& message) {
    if (!notice_) logLine("Vigilo: " + message);
    tell("A record of Vigilo's was damaged", message);
  };
  holds_.clear();
  const auto record = readRecord(files_, kRuntimeFile);
  bool damaged = record.damaged;
  if (record.bytes) {
    // decodeRuntime skips bad entries; a file that isn't the record at all
    // is damaged.
    const auto j = nlohmann::json::parse(*record.bytes, nullptr, false);
    damaged = !j.is_object() || !j.contains("holds") || !j["holds"].is_array();
    holds_ = decodeRuntime(*record.bytes);
  }
  if (damaged && !options_.preview) {
    tellDamaged(setAsideDamaged(files_, kRuntimeFile, "Vigilo's list of holds", "holds made before it are gone", now()));
  }
}

void Engine::shutdown() {
  if (timer_) {
    platform_.loop().cancel(*timer_);
    timer_.reset();
  }
  if (configWatch_) {
    platform_.loop().unwatch(*configWatch_);
    configWatch_.reset();
  }
  if (options_.preview || options_.passive) return;

  const bool wasHolding = holding_;
  auto disabled = platform_.registry().sleepDisabled();
  const bool leftOff = disabled.value_or(false) && files_.exists(kHoldMarker);
  if (holding_ || pendingRelease_ || leftOff) {
    if (releaseSleepSwitch()) {
      pendingRelease_ = false;
    } else {
      pendingRelease_ = true;
    }
    holding_ = false;
  } else {
    files_.remove(kHoldMarker);
  }
  if (wasHolding && lidClosed_ && closedLid_) closedLid_->leave(*this);
  if (closedLid_) closedLid_->shutdown(*this);
  for (SlowJobs* jobs : slow_) jobs->endApproveIfUnwatched(*this);
  if (outstandingChanges().empty()) files_.remove(kAliveFile);
}

}  // namespace vigilo
