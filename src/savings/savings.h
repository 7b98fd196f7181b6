#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "closedlid/closed_lid.h"
#include "engine/seams.h"
#include "power/energy_sampler.h"
#include "savings/power_test.h"
#include "savings/savings_stats.h"

namespace vigilo {

class PowerWatch;

// The quick estimate: what the targeted apps drew before and after being
// slowed or paused for a few seconds.
struct SavingsTest {
  struct App {
    std::string name;
    double before = 0;
    double after = 0;
    double saves() const { return before - after; }
  };
  double before = 0;
  double after = 0;
  std::vector<App> apps;  // largest saving first
  Time date = 0;
};

// What the savings are worth: sits between the engine and the closed-lid
// session, counts the energy each session saves, leaves a receipt of it in
// "stats.json", and runs the power test and the quick estimate. Lives on
// the main thread beside the engine.
class Savings final : public ClosedLidSavings {
 public:
  // `power` may be null (nothing is then known about the apps' draw).
  Savings(Engine& engine, ClosedLid& closedLid, PowerWatch* power);
  ~Savings() override;
  Savings(const Savings&) = delete;
  Savings& operator=(const Savings&) = delete;

  // The engine's seam, passed on to the closed-lid session.
  void enter(Engine& engine) override;
  void leave(Engine& engine) override;
  void reapply(Engine& engine, bool strictest) override;
  void restoreAppsIfOpen(Engine& engine) override;
  // Ends a quick estimate or power test still running: nothing either
  // changed outlives the app.
  void shutdown(Engine& engine) override;

  // The machine is about to sleep.
  void willSleep(const std::string& because);

  // Adds the saving since the last call to the session's watt-hours.
  void accumulateSavings();
  // Folds the apps' present draw into what they drew before the lid shut.
  void updateBaseline();
  // The watts being saved now: the measured total where the power test
  // gave one, else what the slowed and paused apps drew before.
  double liveSavingW() const;
  double sessionWh() const { return sessionWh_; }
  const SavingsStats& stats() const { return stats_; }
  PowerTest& test() { return test_; }
  const PowerTest& test() const { return test_; }
  const std::optional<SavingsTest>& lastTest() const { return lastTest_; }
  bool measuring() const { return measuring_; }

  // The quick estimate; `done` gets the reply fields, or an error text.
  // Refused with the lid shut or while one runs.
  void measureSavings(std::function<void(nlohmann::json reply, std::optional<std::string> error)> done);

  // Keys added to the `status`, `panel` and `power` replies.
  nlohmann::json statusKeys() const;
  nlohmann::json panelKeys() const;
  nlohmann::json powerKeys() const;

  // A Session from a finished receipt; no durations when the clock ran
  // backwards inside it. `closedWatts` is the draw awake with the lid shut,
  // which sleeping avoids.
  static SavingsStats::Session sessionFrom(const Receipt& r, double whSaved, double closedWatts);

 private:
  void finishSession(const Receipt& r);
  void finishMeasuring(nlohmann::json reply, std::optional<std::string> error);
  double closedDraw() const;
  std::string baselineKey(const std::optional<std::string>& bundleId, const std::string& name) const;

  Engine& engine_;
  ClosedLid& closedLid_;
  PowerWatch* power_;
  StatsStore store_;
  SavingsStats stats_;
  PowerTest test_;
  double sessionWh_ = 0;
  Time lastSavingSample_ = 0;
  std::map<std::string, double> baseline_;
  std::int64_t baselineTick_ = -1;
  std::optional<SavingsTest> lastTest_;
  bool measuring_ = false;
  // Which quick estimate the pending steps belong to: one ended early
  // leaves steps behind that must do nothing.
  std::uint64_t measureRun_ = 0;
  std::function<void(nlohmann::json, std::optional<std::string>)> measureDone_;
  std::optional<Time> appsChangedAt_;  // when a session or quick estimate last put apps back
  EnergySampler sampler_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vigilo
