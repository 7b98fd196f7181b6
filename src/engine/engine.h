#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/battery.h"
#include "engine/config.h"
#include "engine/hold.h"
#include "engine/journal.h"
#include "engine/seams.h"
#include "engine/state_files.h"
#include "platform/platform.h"

namespace vigilo {

// Marker files: their existence is the information.
inline constexpr std::string_view kHoldMarker = "hold";
inline constexpr std::string_view kSleepOffBeforeMarker = "sleep-off-before";
inline constexpr std::string_view kAliveFile = "alive";
inline constexpr std::string_view kPowerModeRestoreFile = "powermode-restore";
inline constexpr std::string_view kTimeMachineRestoreFile = "timemachine-restore";
inline constexpr std::string_view kBrightnessRestoreFile = "brightness-restore";
inline constexpr std::string_view kDisplayOffFile = "display-off";

// Something the engine tells the person: a short announcement ("Staying
// awake"), or an alert with a title and a text.
struct Notice {
  enum class Kind { Announcement, Alert };
  Kind kind = Kind::Announcement;
  std::string title;
  std::string text;
};

struct EngineOptions {
  // Preview-only mode: the engine writes no state files and runs no
  // privileged command; it shows what it would do.
  bool preview = false;
  // For front ends that must not take holds of their own: no recovery, no
  // watchers, no tick.
  bool passive = false;
};

// The one controller: decides whether the machine stays awake and why,
// switches sleep off and on, and puts every change back. Lives on the main
// thread; every method must be called there.
class Engine {
 public:
  Engine(Platform& platform, std::string appFolder, EngineOptions options = {});
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Seams for other subsystems; set before `launch`. Null means none.
  void setWorkSource(WorkSource* s) { work_ = s; }
  void setClosedLidSavings(ClosedLidSavings* s) { closedLid_ = s; }
  // Whether anything is slowed or paused while the lid is shut.
  bool savesWhileClosed() const { return closedLid_ != nullptr; }
  void setPowerMeter(PowerMeter* s) { power_ = s; }
  // Adds one more subsystem to the slow beats; each is called in the order added.
  void addSlowJobs(SlowJobs* s) { slow_.push_back(s); }
  // Receives every announcement and alert.
  void setNoticeHandler(std::function<void(const Notice&)> fn) { notice_ = std::move(fn); }
  // Called when the system announces it is about to sleep.
  void setSleepHandler(std::function<void()> fn) { willSleep_ = std::move(fn); }
  // Called at the end of every evaluation, so a front end can redraw.
  void setChangeHandler(std::function<void()> fn) { changed_ = std::move(fn); }

  // Start-up in its fixed order, then the 2-second tick.
  void launch();
  // Puts everything back before quitting.
  void shutdown();

  void tick();
  void evaluate();
  void settleAdoptedHold();

  // --- Settings.
  const Config& config() const { return config_; }
  // Stores a change made in the app itself, writes "config.json" when asked,
  // takes its safety values as the new baseline and re-evaluates.
  void apply(const Config& config, bool save);
  // Lays "config.json" over the settings; `whole` when Vigilo wrote the file
  // as a complete record (see `Config::mergedWith`).
  void reloadConfigFromDisk(bool whole = false);
  void reloadConfigIfEdited();
  void enforceSafety();

  // --- Holds and the sleep switch.
  Hold addHold(const std::string& reason, std::optional<double> minutes, std::optional<std::int32_t> pid,
               std::optional<std::int32_t> owner);
  int releaseHold(const std::optional<std::string>& id);
  int releaseHolds(std::int32_t ownedBy, const std::optional<std::string>& id);
  void stayAwakeFor(std::optional<int> minutes);
  void stayAwakeUntil(Time until);
  void setMode(Mode mode);
  void sleepNow();
  void reassertSleep();
  void overrideFloor(bool on);
  void setSnoozed(bool on);
  // The lid opened or closed.
  void lidChanged(bool closed);

  // --- State files.
  void saveRuntime();
  void restoreRuntime();
  void recoverFromCrash();
  // The records of system changes still outstanding, by file name.
  std::vector<std::string> outstandingChanges() const;
  // Puts back every recorded change and switches sleep back on if it is
  // Vigilo's, for a person rescuing the machine while the app is stopped.
  // Gives a line for each change it could not put back.
  std::vector<std::string> rescue();

  // What the machine offers and lacks, read at launch and every 10 seconds.
  const std::vector<Capability>& capabilities() const { return capabilities_; }

  // --- What the engine shows.
  std::string statusLine() const;
  std::string menuBarTitle() const;
  std::string endReason() const;

  // Decision fields.
  bool holding() const { return holding_; }
  bool wantsHold() const { return wantsHold_; }
  const std::string& holdReason() const { return holdReason_; }
  const std::optional<std::string>& blockedReason() const { return blockedReason_; }
  const std::vector<Hold>& holds() const { return holds_; }
  bool snoozed() const { return snoozed_; }
  bool floorOverride() const { return floorOverride_; }
  bool floorLatched() const { return floorLatched_; }
  bool blockedByFloor() const;
  const std::optional<Time>& hotSince() const { return hotSince_; }
  bool heatForced() const { return heatForced_; }
  std::int64_t ticks() const { return ticks_; }
  const std::optional<BatteryReading>& battery() const { return battery_; }
  int thermal() const { return thermal_; }
  bool lidClosed() const { return lidClosed_; }
  bool setupReady() const { return setupReady_; }
  const std::string& setupProblem() const { return setupProblem_; }
  const std::optional<std::string>& setupError() const { return setupError_; }
  // The warning to show, if any: each one lasts only while its cause does.
  std::optional<std::string> warning() const;
  bool pendingRelease() const { return pendingRelease_; }
  const std::optional<Time>& adoptedHoldUntil() const { return adoptedHoldUntil_; }
  const std::optional<Time>& holdFailedAt() const { return holdFailedAt_; }
  std::optional<Time> onUntil() const;
  std::optional<double> systemWatts() const;
  const std::vector<Touched>& touched() const { return touched_; }
  bool preview() const { return options_.preview; }
  // The time of the tick or event being handled: every rule in one tick
  // sees the same "now", however long its reads take. Between ticks, the
  // clock's.
  Time now() const;

  Platform& platform() { return platform_; }
  const StateFiles& files() const { return files_; }

  // The last reason a hold ended with ("Put to sleep", "Too hot", ...).
  const std::string& lastEndReason() const { return lastEndReason_; }

 private:
  void loadConfigAtLaunch();
  // Re-evaluates after the settings changed from `before`.
  void settingsChanged(const Config& before);
  // The lid as the closed-lid logic sees it (an external screen counts as open).
  std::optional<bool> readLid();
  void writeConfig();
  void readBattery();
  void readThermal();
  // The setup's state; what the machine offers too unless `capabilities`
  // is false and the state stayed the same.
  void refreshSetup(bool capabilities = true);
  void startHold(const std::string& reason);
  void endHold(const std::string& because);
  bool releaseSleepSwitch();
  void noteOwner();
  bool sleepNotOurs() const;
  void keepMarkerInStep();
  void retryPendingRelease();
  void writeHeartbeat();
  // Puts back the process, power-mode, backup and screen records; gives a
  // line for each one that failed (its record stays).
  std::vector<std::string> putBackRecords();
  void expireAlwaysUntil();
  std::optional<std::string> guardReason();
  void tell(const std::string& title, const std::string& text);
  void announce(const std::string& text);
  // Clears the warnings whose cause is gone.
  void clearStaleWarnings();

  Platform& platform_;
  StateFiles files_;
  KeptTouch heartbeat_{files_, std::string(kAliveFile)};
  // The hold marker was found gone while nothing held: looked for again only
  // on the slow beat, as only this engine writes it.
  bool holdMarkerGone_ = false;
  EngineOptions options_;
  Journal journal_;
  Config config_;
  std::optional<Time> configMTime_;
  std::optional<Time> configStamp_;  // last stamp the watcher saw

  WorkSource* work_ = nullptr;
  ClosedLidSavings* closedLid_ = nullptr;
  PowerMeter* power_ = nullptr;
  std::vector<SlowJobs*> slow_;
  std::function<void(const Notice&)> notice_;
  std::function<void()> changed_;
  std::function<void()> willSleep_;

  bool holding_ = false;
  bool wantsHold_ = false;
  std::string holdReason_;
  std::optional<std::string> blockedReason_;
  std::vector<Hold> holds_;
  bool snoozed_ = false;
  bool floorOverride_ = false;
  bool floorLatched_ = false;
  std::optional<Time> hotSince_;
  bool heatForced_ = false;
  std::int64_t ticks_ = 0;
  // Set for the length of a tick or an evaluation (see now()).
  std::optional<Time> frozenNow_;
  class Moment;
  std::optional<BatteryReading> battery_;
  bool lastOnAC_ = false;
  int thermal_ = 0;
  bool lidClosed_ = false;
  bool setupReady_ = true;
  std::string setupProblem_;
  std::optional<Time> holdFailedAt_;
  bool pendingRelease_ = false;
  std::optional<std::string> setupError_;
  std::optional<Time> adoptedHoldUntil_;
  // The warnings, one per cause, so that one clearing never hides another.
  // `refusedWarning_`: the text of the last refused switch-off, shown while
  // that refusal keeps the machine from being held. `notKeptWarning_`: sleep
  // reads as on while held.
  // A pending release has its own text.
  std::optional<std::string> refusedWarning_;
  std::optional<std::string> notKeptWarning_;
  std::vector<Touched> touched_;
  std::string lastEndReason_;
  std::vector<Capability> capabilities_;

  std::optional<TimerId> timer_;
  std::optional<WatchId> configWatch_;
  // Ticks arrive through the loop; this flag lets a tick that outlives the
  // engine do nothing.
  std::shared_ptr<bool> alive_;
};

// Whole minutes in `seconds`, rounded up so that a time left never reads a
// minute short (2h set a moment ago is "2h", not "1h 59m"), and at least
// `least`. A hair of floating-point noise does not add a minute.
long long wholeMinutesUp(double seconds, long long least);

// "1h 30m", "45m", "2h": a duration in whole minutes.
std::string formatMinutes(long long minutes);
// The short local time of day in the clock of the time locale (LC_TIME):
// "14:30", or "2:30 PM" where the locale keeps a 12-hour clock.
std::string formatShortTime(Time t);
// The strftime format of a short time for a locale whose time format
// (nl_langinfo T_FMT) is `localeTimeFormat`.
std::string shortTimeFormat(std::string_view localeTimeFormat);

}  // namespace vigilo
