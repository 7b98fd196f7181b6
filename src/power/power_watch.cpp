#include "power/power_watch.h"

#include <algorithm>

#include "agents/agent_work.h"
#include "closedlid/targets.h"
#include "engine/engine.h"

namespace vigilo {
namespace {

// The learned values go to disk every this many ticks (a minute).
constexpr std::int64_t kSaveEvery = 30;

}  // namespace

PowerWatch::PowerWatch(std::string appFolder, const AgentWork* work)
    : store_(std::move(appFolder)), work_(work), whole_(store_.load()) {}

void PowerWatch::sample(Engine& engine) {
  const Time now = engine.now();
  whole_.update(engine.platform().registry().battery(), engine.battery(),
                PowerContext{engine.lidClosed(), engine.holding(), testRunning_}, now);
  if (isEnergyTick(engine.ticks())) {
    apps_ = work_ ? energy_.sample(work_->processes(), now)
                  : energy_.sample(engine.platform().processes().listing(ProcessDetail::Counters), now);
  }
  if (!engine.preview() && engine.ticks() > 0 && engine.ticks() % kSaveEvery == 0) store_.save(whole_.learned());
}

std::string PowerWatch::whileClosed(const Engine& engine, const AppUsage& app) const {
  // What will actually be done: nothing without closed-lid savings, and
  // never anything to the system's own processes, to pid 1 or to what the
  // agents use.
  if (!engine.savesWhileClosed() || app.system) return "leave";
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
  // protected app, left out of the top users' sum.
  in.isProtected = [&](const AppUsage& a) {
    if (!work_) return false;
    const auto& kept = work_->watcher().protectedPids();
    return std::any_of(a.pids.begin(), a.pids.end(), [&](std::int32_t pid) { return kept.count(pid) > 0; });
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
