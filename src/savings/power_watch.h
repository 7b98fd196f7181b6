#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "engine/config.h"
#include "engine/seams.h"
#include "power/energy_sampler.h"
#include "power/learned_store.h"
#include "power/power_sensor.h"

namespace vigilo {

class AgentWork;

// Power measurement for the engine: the whole machine's draw each tick,
// what it learns from it (kept across launches), and which apps use energy
// (on energy ticks, every 10 seconds).
class PowerWatch final : public PowerMeter {
 public:
  // `work` gives the process table already read this tick; it may be null.
  PowerWatch(std::string appFolder, const AgentWork* work);

  void sample(Engine& engine) override;
  std::optional<double> systemWatts() const override { return whole_.systemWatts(); }
  std::optional<double> hoursLeft(const Engine& engine) const override;

  const WholeMachinePower& whole() const { return whole_; }
  // While a power test switches the savings off and on, nothing is learned.
  void setTestRunning(bool on) { testRunning_ = on; }
  // The apps using the most energy, largest first.
  const std::vector<AppUsage>& apps() const { return apps_; }
  // Hours left with the lid shut at the expected draw, and that draw:
  // worked out from what will actually be done to each app.
  std::optional<double> hoursLeftClosed(const Engine& engine) const;
  double closedEstimate(const Engine& engine) const;
  // What an app does while the lid is shut: "leave", "slow" or "pause".
  // With a plan, what it says of the app's processes ("pause" when all of
  // those it names are paused, "leave" when it names none); without one,
  // by the app's own rule or the preset, and "leave" for system processes.
  // "leave" for everything while the engine has no closed-lid savings.
  std::string whileClosed(const Engine& engine, const AppUsage& app) const;
  // What would be slowed or paused with the lid shut now, by pid: the
  // closed-lid selection itself, so that the rows and the estimate follow
  // every rule and class the session applies. Asked at most once a tick.
  using Plan = std::map<std::int32_t, AppRule>;
  void setPlan(std::function<Plan()> plan) { plan_ = std::move(plan); }

 private:
  LearnedStore store_;
  const AgentWork* work_;
  WholeMachinePower whole_;
  // What the file holds now, so an unchanged minute writes nothing.
  LearnedPower saved_;
  EnergySampler energy_;
  std::vector<AppUsage> apps_;
  bool testRunning_ = false;
  std::function<Plan()> plan_;
  mutable std::optional<std::int64_t> plannedAt_;  // the tick of `planned_`
  mutable Plan planned_;
  mutable Preset plannedPreset_ = Preset::Balanced;
  mutable std::map<std::string, AppRule> plannedRules_;
};

}  // namespace vigilo
