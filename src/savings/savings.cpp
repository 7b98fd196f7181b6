#include "savings/savings.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <set>

#include "engine/log.h"
#include "savings/power_watch.h"

namespace vigilo {
namespace {

using nlohmann::json;

constexpr double kBaselineKeep = 0.7;
// A slowed app still runs, at about a quarter of its draw.
constexpr double kSlowedShare = 0.25;
// A gap longer than this between two accumulations is the machine asleep
// or the app stopped: nothing was saved by Vigilo meanwhile.
constexpr double kLongestGap = 60.0;
constexpr double kMeasureFirst = 3.0;
constexpr double kMeasureSecond = 4.0;
// How long after apps were put back their energy rows still cover the time
// they were paused or slowed: one energy interval, and a tick to spare.
constexpr double kChangedShadow = 2.0 * static_cast<double>(kEnergySampleEvery) + 2.0;

json optional(const std::optional<double>& v) { return v ? json(*v) : json(nullptr); }

double wattsOf(const std::vector<AppUsage>& apps, const std::string& name) {
  for (const AppUsage& a : apps) {
    if (a.name == name) return a.watts;
  }
  return 0;
}

}  // namespace

Savings::Savings(Engine& engine, ClosedLid& closedLid, PowerWatch* power)
    : engine_(engine), closedLid_(closedLid), power_(power), store_(engine.files().dir()), test_(engine, closedLid) {
  stats_ = store_.load();
  closedLid_.onSessionFinished([this](const Receipt& r) { finishSession(r); });
  if (power_) test_.onRunning([this](bool on) { power_->setTestRunning(on); });
}

Savings::~Savings() {
  *alive_ = false;
  closedLid_.onSessionFinished(nullptr);
}

// ---------------------------------------------------------------- the seam

void Savings::enter(Engine& engine) {
  closedLid_.enter(engine);
  sessionWh_ = 0;
  lastSavingSample_ = engine_.now();
}

void Savings::leave(Engine& engine) {
  // The last stretch counts before the receipt is finished.
  if (closedLid_.sessionActive()) accumulateSavings();
  closedLid_.leave(engine);
  appsChangedAt_ = engine_.now();
}

void Savings::reapply(Engine& engine, bool strictest) {
  closedLid_.reapply(engine, strictest);
  accumulateSavings();
}

void Savings::restoreAppsIfOpen(Engine& engine) {
  // The quick estimate slows and pauses apps with the lid open on purpose.
  if (!measuring_) closedLid_.restoreAppsIfOpen(engine);
  updateBaseline();
}

void Savings::willSleep(const std::string& because) { closedLid_.noteSleep(engine_.now(), because); }

// ---------------------------------------------------------------- counting

std::string Savings::baselineKey(const std::optional<std::string>& bundleId, const std::string& name) const {
  return bundleId && !bundleId->empty() ? *bundleId : name;
}

void Savings::updateBaseline() {
  if (!power_ || engine_.lidClosed() || engine_.ticks() == baselineTick_ || !isEnergyTick(engine_.ticks())) return;
  // The energy rows of a stretch in which a session or the quick estimate
  // paused apps show what they draw paused, not what they usually draw.
  if (measuring_ || (appsChangedAt_ && engine_.now() - *appsChangedAt_ <= kChangedShadow)) return;
  baselineTick_ = engine_.ticks();
  // System entries too: on Linux an app's own files may lie where the
  // system's do, and only targeted apps' baselines are ever read.
  for (const AppUsage& a : power_->apps()) {
    const std::string key = baselineKey(a.bundleID, a.name);
    auto it = baseline_.find(key);
    baseline_[key] = it == baseline_.end() ? a.watts : kBaselineKeep * it->second + (1 - kBaselineKeep) * a.watts;
  }
}

double Savings::liveSavingW() const {
  if (!closedLid_.sessionActive()) return 0;
  const auto& effects = test_.effects();
  if (auto total = effects.find("total"); total != effects.end() && !test_.running()) {
    return total->second;
  }
  // The baseline is each app's whole draw, all its processes together: an
  // app counts once, however many of its processes are targeted, at the
  // share of them that is paused rather than slowed.
  struct Share {
    int paused = 0;
    int slowed = 0;
  };
  std::map<std::string, Share> apps;
  for (const auto& [pid, t] : closedLid_.targeted()) {
    (void)pid;
    std::string key = baselineKey(t.bundleId, t.name);
    if (!baseline_.count(key)) key = t.name;
    Share& share = apps[key];
    ++(t.rule == AppRule::Pause ? share.paused : share.slowed);
  }
  double watts = 0;
  for (const auto& [key, share] : apps) {
    auto it = baseline_.find(key);
    if (it == baseline_.end()) continue;
    const double paused = static_cast<double>(share.paused) / (share.paused + share.slowed);
    watts += it->second * (paused + (1 - paused) * (1 - kSlowedShare));
  }
  // Low Power Mode counts only when Vigilo set it, and only as measured.
  if (auto lp = effects.find("low_power"); lp != effects.end() && closedLid_.lowPowerSet()) watts += lp->second;
  return watts;
}

void Savings::accumulateSavings() {
  const Time now = engine_.now();
  const double gap = now - lastSavingSample_;
  lastSavingSample_ = now;
  // During the power test the savings are switched off and on on purpose.
  if (test_.running() || !(gap > 0) || gap > kLongestGap) return;
  sessionWh_ += liveSavingW() * gap / 3600.0;
}

double Savings::closedDraw() const {
  if (power_) {
    if (auto d = power_->whole().learned().closedDraw) return *d;
  }
  return kClosedBaseWatts;
}

SavingsStats::Session Savings::sessionFrom(const Receipt& r, double whSaved, double closedWatts) {
  SavingsStats::Session s;
  s.date = r.openedAt.value_or(r.closedAt);
  s.startPercent = r.startPercent;
  s.endPercent = r.endPercent;
  s.agent = r.agentName;
  const auto times = r.openedAt ? sessionTimes(r.closedAt, *r.openedAt, r.sleptAt) : std::nullopt;
  if (!times) return s;
  s.closedMinutes = times->closedMinutes;
  s.sleptMinutes = times->sleptMinutes;
  s.whSaved = std::max(0.0, whSaved);
  // Asleep, the machine draws next to nothing; awake with the lid shut it
  // would have drawn its closed-lid draw.
  s.whAvoided = times->sleptMinutes / 60.0 * closedWatts;
  return s;
}

void Savings::finishSession(const Receipt& r) {
  stats_.add(sessionFrom(r, sessionWh_, closedDraw()));
  if (!engine_.preview() && !store_.save(stats_)) {
    logLine("Vigilo: couldn't write " + store_.path() + "; the savings statistics stay in memory");
  }
  sessionWh_ = 0;
}

// ---------------------------------------------------------------- the quick estimate

void Savings::measureSavings(std::function<void(json, std::optional<std::string>)> done) {
  if (engine_.lidClosed()) return done(nullptr, std::string("Open the lid to measure"));
  if (measuring_) return done(nullptr, std::string("A measurement is already running"));
  if (test_.running()) return done(nullptr, std::string("A power test is already running"));
  measuring_ = true;
  measureDone_ = std::move(done);
  const std::uint64_t run = ++measureRun_;
  Processes& processes = engine_.platform().processes();
  sampler_.sample(processes, engine_.now());
  std::weak_ptr<bool> weak = alive_;
  auto current = [this, weak, run] { return !weak.expired() && measuring_ && run == measureRun_; };
  engine_.platform().loop().after(kMeasureFirst, [this, current, &processes] {
    if (!current()) return;
    if (engine_.lidClosed()) return finishMeasuring(nullptr, std::string("measurement failed"));
    std::vector<AppUsage> before = sampler_.sample(processes, engine_.now());
    closedLid_.applyClosedTargets(closedLid_.presetInForce());
    std::set<std::int32_t> pids;
    for (const auto& [pid, t] : closedLid_.targeted()) pids.insert(pid);
    engine_.platform().loop().after(kMeasureSecond, [this, current, before, pids, &processes] {
      if (!current()) return;
      std::vector<AppUsage> after = sampler_.sample(processes, engine_.now());
      // A session that began meanwhile owns the apps now; with the lid shut
      // and nothing holding, nobody does.
      if (!closedLid_.sessionActive()) closedLid_.restoreApps();
      SavingsTest t;
      t.date = engine_.now();
      for (const AppUsage& a : before) {
        if (!std::any_of(a.pids.begin(), a.pids.end(), [&](std::int32_t p) { return pids.count(p) > 0; })) continue;
        SavingsTest::App app{a.name, a.watts, wattsOf(after, a.name)};
        t.before += app.before;
        t.after += app.after;
        t.apps.push_back(app);
      }
      std::sort(t.apps.begin(), t.apps.end(),
                [](const SavingsTest::App& x, const SavingsTest::App& y) { return x.saves() > y.saves(); });
      lastTest_ = t;
      finishMeasuring(powerKeys(), std::nullopt);
    });
  });
}

void Savings::finishMeasuring(json reply, std::optional<std::string> error) {
  measuring_ = false;
  appsChangedAt_ = engine_.now();
  auto done = std::move(measureDone_);
  measureDone_ = nullptr;
  if (done) done(std::move(reply), std::move(error));
}

void Savings::shutdown(Engine& engine) {
  if (measuring_) {
    // The apps go back first: the reply may be the last thing written.
    if (!closedLid_.sessionActive()) closedLid_.restoreApps();
    finishMeasuring(nullptr, std::string("Vigilo quit during the measurement; every app is back as it was"));
  }
  if (test_.running()) test_.stop();
  closedLid_.shutdown(engine);
}

// ---------------------------------------------------------------- figures

json Savings::statusKeys() const {
  json k = json::object();
  k["power_measured"] = test_.effects().count("total") > 0;
  std::optional<double> vsOpen;
  json slept = nullptr;
  if (const auto& r = closedLid_.receipt()) {
    const Time until = r->openedAt.value_or(engine_.now());
    if (auto times = sessionTimes(r->closedAt, until, r->sleptAt)) {
      slept = times->sleptMinutes;
      // Against working with the lid open at the learned open-lid draw.
      if (power_) {
        const LearnedPower& l = power_->whole().learned();
        if (l.openDraw && l.closedDraw) {
          vsOpen = std::max(0.0, *l.openDraw - *l.closedDraw) * (times->closedMinutes - times->sleptMinutes) / 60.0 +
                   *l.openDraw * times->sleptMinutes / 60.0;
        }
      }
    }
  }
  k["vs_lid_open_wh"] = optional(vsOpen);
  k["slept_minutes"] = slept;
  return k;
}

json Savings::panelKeys() const {
  json k = powerKeys();
  const SavingsStats::Week w = stats_.week(engine_.now());
  const double total = w.wh + w.whAvoided;
  const double fullWh = power_ ? power_->whole().fullWh() : kDefaultFullWh;
  k["estimated_savings_this_week"] = total;
  k["by_slowing_apps_wh"] = w.wh;
  k["by_sleeping_when_done_wh"] = w.whAvoided;
  k["full_charges_equivalent"] = fullWh > 0 ? total / fullWh : 0.0;
  k["sessions_this_week"] = w.count;
  k["session_wh"] = sessionWh_;
  json recent = json::array();
  for (auto it = stats_.sessions.rbegin(); it != stats_.sessions.rend() && recent.size() < 10; ++it) {
    recent.push_back({{"date", isoTime(it->date)},
                      {"closed_minutes", it->closedMinutes},
                      {"slept_minutes", it->sleptMinutes},
                      {"wh_saved", it->whSaved},
                      {"wh_avoided", it->whAvoided},
                      {"agent", it->agent ? json(*it->agent) : json(nullptr)}});
  }
  k["recent_sessions"] = recent;
  return k;
}

json Savings::powerKeys() const {
  json k = json::object();
  const auto& effects = test_.effects();
  auto effect = [&](const char* name) -> std::optional<double> {
    auto it = effects.find(name);
    return it == effects.end() ? std::nullopt : std::optional<double>(it->second);
  };
  std::string state = "never run";
  if (test_.running()) {
    state = "running";
  } else if (test_.aborted()) {
    state = "aborted";
  } else if (test_.everRan()) {
    state = "done";
  } else if (!PowerSensor::sample(engine_.platform().registry().battery(), engine_.now())) {
    state = "not available";
  }
  k["power_test"] = state;
  k["power_test_progress"] = test_.progress() ? json(*test_.progress()) : json(nullptr);
  k["power_test_aborted"] = test_.aborted() ? json(*test_.aborted()) : json(nullptr);
  auto result = test_.resultText();
  k["power_test_result"] = result ? json(*result) : json(nullptr);
  json each = json::object();
  for (const auto& [name, watts] : effects) each[name] = watts;
  k["measured_effects"] = each;
  k["measured_unclear"] = test_.unclear();
  k["screen_step_ran"] = test_.screenStepRan();
  k["measured_total_saving_watts"] = optional(effect("total"));
  k["measured_closed_watts"] = optional(test_.closedWith());
  k["saving_now_watts"] = liveSavingW();
  if (lastTest_) {
    json apps = json::array();
    for (const auto& a : lastTest_->apps) {
      apps.push_back({{"name", a.name}, {"before_watts", a.before}, {"after_watts", a.after}, {"saves_watts", a.saves()}});
    }
    k["measured_saving_watts"] = lastTest_->before - lastTest_->after;
    k["measured_apps"] = apps;
    k["measured_at"] = isoTime(lastTest_->date);
  } else {
    k["measured_saving_watts"] = nullptr;
    k["measured_apps"] = json::array();
  }
  if (power_) {
    double sum = 0;
    for (const AppUsage& a : power_->apps()) sum += a.watts;
    k["apps_total_watts"] = sum;
    k["learned_open_watts"] = optional(power_->whole().learned().openDraw);
    k["learned_closed_watts"] = optional(power_->whole().learned().closedDraw);
  }
  return k;
}

}  // namespace vigilo
