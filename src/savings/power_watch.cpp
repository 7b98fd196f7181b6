#include "savings/power_watch.h"

#include "engine/beats.h"

#include <algorithm>
#include <cmath>

#include "agents/agent_work.h"
#include "closedlid/targets.h"
#include "engine/engine.h"

namespace vigilo {
namespace {

// Whether the learned values differ enough from what the file holds to be
// worth a durable write: one appeared or went, or one moved by more than 1 %.
// A steady machine then touches the disk only when its figures really move.
bool movedEnough(const LearnedPower& saved, const LearnedPower& now) {
  const auto moved = [](const std::optional<double>& a, const std::optional<double>& b) {
    if (a.has_value() != b.has_value()) return true;
    return a && std::abs(*a - *b) > 0.01 * std::max(std::abs(*a), std::abs(*b));
  };
  return moved(saved.openDraw, now.openDraw) || moved(saved.closedDraw, now.closedDraw) ||
         moved(saved.fullWh, now.fullWh);
}

}  // namespace

PowerWatch::PowerWatch(std::string appFolder, const AgentWork* work)
    : store_(std::move(appFolder)), work_(work), whole_(store_.load()), saved_(whole_.learned()) {}

void PowerWatch::sample(Engine& engine) {
  const Time now = engine.now();
  whole_.update(engine.platform().registry().battery(), engine.battery(),
                PowerContext{engine.lidClosed(), engine.holding(), testRunning_}, now);
  if (isEnergyTick(engine.ticks())) {
    Processes& processes = engine.platform().processes();
    apps_ = work_ ? energy_.sample(work_->processes(), now, &processes)
                  : energy_.sample(processes.listing(ProcessDetail::Counters), now, &processes);
  }
  if (!engine.preview() && engine.ticks() > 0 && beats::kMinute.on(engine.ticks()) &&
      movedEnough(saved_, whole_.learned()) && store_.save(whole_.learned())) {
    saved_ = whole_.learned();
  }
}

std::string PowerWatch::whileClosed(const Engine& engine, const AppUsage& app) const {
  // What will actually be done: nothing without closed-lid savings, and
  // never anything to the system's own processes, to pid 1 or to what the
  // agents use.
  if (!engine.savesWhileClosed()) return "leave";
  // The plan knows which locations count as the system's on this machine
  // (on Linux an app's own files may lie under /usr/lib).
  if (plan_) {
    // Once a tick, and again at once after the rules or the preset moved.
    const Config& c = engine.config();
    if (plannedAt_ != engine.ticks() || plannedPreset_ != c.preset || plannedRules_ != c.appRules) {
      planned_ = plan_();
      plannedAt_ = engine.ticks();
      plannedPreset_ = c.preset;
      plannedRules_ = c.appRules;
    }
    int paused = 0;
    int slowed = 0;
    for (std::int32_t pid : app.pids) {
      auto it = planned_.find(pid);
      if (it != planned_.end()) ++(it->second == AppRule::Pause ? paused : slowed);
    }
    if (paused + slowed == 0) return "leave";
    return slowed == 0 ? "pause" : "slow";
  }
  if (app.system) return "leave";
  for (std::int32_t pid : app.pids) {
    if (pid < 2 || (work_ && work_->watcher().protectedPids().count(pid))) return "leave";
  }
  const Config& c = engine.config();
  auto own = c.appRules.find(app.name);
  if (own == c.appRules.end() && app.bundleID) own = c.appRules.find(*app.bundleID);
  return std::string(toText(own != c.appRules.end() ? own->second : ruleFor(app.bundleID, c.preset, {})));
}

double PowerWatch::closedEstimate(const Engine& engine) const {
  WholeMachinePower::ClosedInputs in;
  in.lidClosed = engine.lidClosed();
  in.held = engine.holding();
  in.reading = engine.battery();
  in.apps = &apps_;
  // What the agents use is protected from the savings and, like every
  // protected app, left out of the top users' sum; a target is never
  // protected (an agent's build that is slowed counts at its slowed draw).
  in.isProtected = [&](const AppUsage& a) {
    if (!work_) return false;
    const auto& kept = work_->watcher().protectedPids();
    return std::any_of(a.pids.begin(), a.pids.end(), [&](std::int32_t pid) { return kept.count(pid) > 0; }) &&
           whileClosed(engine, a) == "leave";
  };
  in.ruleFor = [&](const AppUsage& a) { return *parseAppRule(whileClosed(engine, a)); };
  return whole_.closedEstimate(in);
}

std::optional<double> PowerWatch::hoursLeftClosed(const Engine& engine) const {
  if (!engine.battery()) return std::nullopt;
  return whole_.hoursLeft(engine.battery()->percent, closedEstimate(engine));
}

std::optional<double> PowerWatch::hoursLeft(const Engine& engine) const {
  if (!engine.battery()) return std::nullopt;
  if (engine.lidClosed()) return hoursLeftClosed(engine);
  auto watts = engine.systemWatts();
  if (!watts) return std::nullopt;
  return whole_.hoursLeft(engine.battery()->percent, *watts);
}

}  // namespace vigilo
