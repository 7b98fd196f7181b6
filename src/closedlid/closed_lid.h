#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "closedlid/targets.h"
#include "engine/engine.h"

namespace vigilo {

// The record of one closed-lid stretch, as far as the session fills it in;
// savings statistics add their own figures through `onSessionFinished`.
struct Receipt {
  Time closedAt = 0;
  std::optional<Time> openedAt;
  std::optional<Time> sleepRequestedAt;  // the session ended with the lid shut: sleep was let in
  std::optional<Time> sleptAt;           // the machine went to sleep
  std::optional<std::string> sleptBecause;
  std::optional<int> startPercent;
  std::optional<int> endPercent;
  std::optional<std::string> agentName;
  double offlineSeconds = 0;
  std::optional<Time> offlineSince;
};

// "Stayed awake 42 min, then slept 1h 5m · no internet for 3 min": the
// line shown when the lid opens. Durations stop at the clock's now (or the
// opening); a receipt whose times run backwards (the clock was set back)
// gives no durations.
std::string receiptLine(const Receipt& r);

// What the agents depend on, from agent detection.
struct AgentProtection {
  std::set<std::int32_t> pids;
  std::set<std::string> bundles;  // bundle paths and ids
  std::optional<std::string> activeAgent;
};

// The closed-lid session: while the lid is shut and the machine is held
// awake it darkens the screen, sets the low-power mode, pauses backups and
// slows or pauses other apps, each change recorded in the app folder before
// it is made, and puts all of it back when the session ends. Lives on the
// main thread beside the engine it is given.
class ClosedLid final : public ClosedLidSavings {
 public:
  ClosedLid(Engine& engine, std::function<AgentProtection()> protection = nullptr);
  ~ClosedLid() override;
  ClosedLid(const ClosedLid&) = delete;
  ClosedLid& operator=(const ClosedLid&) = delete;

  // The engine's seam.
  void enter(Engine& engine) override;
  void leave(Engine& engine) override;
  void reapply(Engine& engine, bool strictest) override;
  void restoreAppsIfOpen(Engine& engine) override;
  void shutdown(Engine& engine) override;

  // Re-derives every closed-lid change from the settings; `forcing` stands
  // in for the configured preset, `skip` leaves classes out (the power test).
  void reapplyClosedState(std::optional<Preset> forcing, const std::set<std::string>& skip = {});
  // The savings switched off (the power test): "apps" (with the builds),
  // "simulators" and "audio" leave those classes alone, "low_power" keeps the user's power
  // mode, "screen" keeps the screen lit. Every later reapply honours it
  // until it is set back to empty. Applies at once while a session runs.
  void setSavingsOff(std::set<std::string> off);
  const std::set<std::string>& savingsOff() const { return savingsOff_; }
  // Undoes every closed-lid change; each step runs even when one fails.
  void restoreClosedState();

  // The selection now, without changing anything.
  std::map<std::int32_t, ClosedTarget> selectTargets(Preset preset, const std::set<std::string>& skip = {});
  // Changes processes so that exactly the selection is slowed or paused.
  void applyClosedTargets(Preset preset, const std::set<std::string>& skip = {});
  // Puts back every paused and slowed process; records that could not be
  // put back stay for the next attempt.
  void restoreApps();
  // What is slowed or paused by pid: the targets while a session runs,
  // else what would be with the lid shut now.
  std::map<std::int32_t, AppRule> plan();

  // The preset in force: the configured one, or max_battery under heat.
  Preset presetInForce() const;
  bool sessionActive() const { return active_; }
  const std::map<std::int32_t, ClosedTarget>& targeted() const { return targeted_; }
  // Names of processes still recorded as changed while no session runs.
  std::vector<std::string> unrestored();
  const std::optional<Receipt>& receipt() const { return receipt_; }
  bool screenOff() const { return screenOff_; }
  bool lowPowerSet() const;
  bool backupsPaused() const;
  const std::optional<std::string>& warning() const { return warning_; }

  // Called with each finished receipt (savings statistics hook in here).
  void onSessionFinished(std::function<void(const Receipt&)> fn) { finished_ = std::move(fn); }
  // The machine is going to sleep: stamps the open receipt once.
  void noteSleep(Time at, const std::string& because);
  // Receives the "Welcome back" note.
  void setNoticeHandler(std::function<void(const Notice&)> fn) { notice_ = std::move(fn); }

 private:
  // Adds the time without internet to the open receipt.
  void trackOffline();
  void ensureLoaded();
  bool undoOne(const Touched& t);
  void finishSession(Time openedAt);
  void startLidPoll();
  void stopLidPoll();
  void switchScreenOff();
  void checkScreenLock();
  // Screen, power mode and backups, each keeping its restore marker.
  void dimForClosedLid();
  bool restoreBrightness();
  bool turnOffBuiltIn();
  bool restoreBuiltIn();
  void setLowPower();
  void restorePowerMode();
  void pauseBackups();
  bool resumeBackups();
  bool changesAllowed() const { return !engine_.preview(); }

  Engine& engine_;
  std::function<AgentProtection()> protection_;
  std::unique_ptr<Journal> journal_;
  bool loaded_ = false;
  std::vector<Touched> touched_;
  std::map<std::int32_t, ClosedTarget> targeted_;
  std::map<std::string, std::optional<AppBundle>> bundleCache_;
  bool active_ = false;
  bool displayAssertion_ = false;
  bool screenOff_ = false;
  std::optional<TimerId> lidPoll_;
  std::vector<TimerId> lockChecks_;
  std::optional<Receipt> receipt_;
  std::set<std::string> savingsOff_;
  std::optional<std::string> warning_;
  std::function<void(const Receipt&)> finished_;
  std::function<void(const Notice&)> notice_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vigilo
