#include "savings/power_test.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "closedlid/closed_lid.h"
#include "engine/engine.h"

namespace vigilo {
namespace {

constexpr double kPollSeconds = 1.0;
constexpr double kRelativeTolerance = 0.35;
constexpr double kSmallestTolerance = 0.6;
constexpr int kSerious = 2;
// Without the controller's accumulator: let the new setting settle, then
// average this many one-second readings.
constexpr double kSettleSeconds = 5.0;
constexpr std::size_t kInstantReadings = 30;
// A controller that adds to its accumulator about every 30 s and has not
// done so twice in this long has stopped reporting.
constexpr double kReadingTimeout = 150.0;
// Expected length of one reading: half a period to the first update, one
// whole period after it.
constexpr double kAccumulatorReading = 45.0;
constexpr double kInstantReading = kSettleSeconds + static_cast<double>(kInstantReadings);

const std::vector<std::string> kSavings = {"apps", "simulators", "audio", "low_power"};

std::string stepTitle(const std::string& name, const MachineWords& words) {
  if (name == "low_power") return words.lowPower;
  return name;
}

std::set<std::string> withAll(std::set<std::string> base, const std::vector<std::string>& names) {
  base.insert(names.begin(), names.end());
  return base;
}

}  // namespace

TotalResult judgeTotal(const std::array<double, 4>& r) {
  TotalResult t;
  t.closedWithout = (r[0] + r[2]) / 2.0;
  t.closedWith = (r[1] + r[3]) / 2.0;
  t.d1 = r[0] - r[1];
  t.d2 = r[2] - r[3];
  const double relative = kRelativeTolerance * std::max(std::fabs(t.d1), std::fabs(t.d2));
  const double tolerance = relative >= kSmallestTolerance ? relative : kSmallestTolerance;
  t.unclear = std::fabs(t.d1 - t.d2) > tolerance;
  t.total = t.unclear ? 0.0 : std::max(0.0, std::min(t.d1, t.d2));
  return t;
}

std::string unclearText(const std::string& machine) {
  return "unclear (the " + machine + "'s own load moved too much; run it again when agents are quiet)";
}

std::string measuredText(double watts) {
  char buf[96];
  std::snprintf(buf, sizeof buf, "Measured: Vigilo's savings are worth %.1f W with the lid shut", watts);
  return buf;
}

PowerTest::PowerTest(Engine& engine, ClosedLid& closedLid) : engine_(engine), closedLid_(closedLid) {}

PowerTest::~PowerTest() {
  *alive_ = false;
  if (timer_) engine_.platform().loop().cancel(*timer_);
}

std::optional<PowerSample> PowerTest::sampleNow() {
  return PowerSensor::sample(engine_.platform().registry().battery(), engine_.now());
}

std::optional<std::string> PowerTest::resultText() const {
  if (unclear_.count("total")) return unclearText(engine_.platform().words().machine);
  if (auto it = effects_.find("total"); it != effects_.end()) return measuredText(it->second);
  return std::nullopt;
}

std::optional<std::string> PowerTest::start(bool includeScreen, bool detailed) {
  if (running_) return std::string("A power test is already running");
  const std::string& machine = engine_.platform().words().machine;
  if (!engine_.platform().registry().lidClosed()) {
    // Nothing to close: say what can be measured instead.
    return "This " + machine +
           " has no lid that Vigilo can read, so there are no lid-closed savings to measure. The quick estimate "
           "(vigilo measure) shows what slowing apps saves, and vigilo power what is using power now";
  }
  if (!engine_.lidClosed() || !engine_.holding() || !closedLid_.sessionActive()) {
    return "Close the lid first (with Vigilo keeping the " + machine +
           " awake): the test measures lid-closed savings";
  }
  const std::optional<PowerSample> s = sampleNow();
  if (!s || (!s->watts && !(s->accumulated && s->count))) {
    return "This " + machine + " doesn't report whole-system power, so savings can't be measured";
  }

  was_ = closedLid_.savingsOff();
  startOnPower_ = engine_.battery() && engine_.battery()->onAC;
  steps_.clear();
  // All savings off, on, off, on: the machine's own drift shows up as two
  // differences that disagree.
  std::vector<std::string> all = kSavings;
  if (includeScreen) all.push_back("screen");
  Step total{"total", {}};
  for (int i = 0; i < 4; ++i) {
    Reading r;
    r.off = i % 2 == 0 ? withAll(was_, all) : was_;
    r.progress = "Measuring, " + std::to_string(i + 1) + " of 4";
    total.readings.push_back(std::move(r));
  }
  steps_.push_back(std::move(total));
  if (detailed) {
    const Preset preset = closedLid_.presetInForce();
    const auto targets = closedLid_.selectTargets(preset, was_);
    std::vector<std::string> names = kSavings;
    if (includeScreen) names.push_back("screen");
    const MachineWords& words = engine_.platform().words();
    for (const std::string& name : names) {
      // Nothing of that class running: switching it off would measure nothing.
      if ((name == "simulators" || name == "audio") && closedLid_.selectTargets(preset, withAll(was_, {name})) == targets)
        continue;
      Step step{name, {}};
      for (int i = 0; i < 2; ++i) {
        Reading r;
        r.off = i == 0 ? withAll(was_, {name}) : was_;
        r.progress = "Measuring " + stepTitle(name, words) + ", " + std::to_string(i + 1) + " of 2";
        step.readings.push_back(std::move(r));
      }
      steps_.push_back(std::move(step));
    }
  }
  std::size_t readings = 0;
  for (const Step& st : steps_) readings += st.readings.size();
  const bool accumulator = s->accumulated && s->count;
  aboutSeconds_ = static_cast<double>(readings) * (accumulator ? kAccumulatorReading : kInstantReading);

  running_ = true;
  everRan_ = true;
  stopAsked_ = false;
  aborted_.reset();
  step_ = 0;
  reading_ = 0;
  values_.clear();
  if (onRunning_) onRunning_(true);
  beginReading();
  std::weak_ptr<bool> weak = alive_;
  timer_ = engine_.platform().loop().every(kPollSeconds, 0.1, [this, weak] {
    if (!weak.expired()) poll();
  });
  return std::nullopt;
}

void PowerTest::stop() {
  if (running_) stopAsked_ = true;
  poll();
}

std::optional<std::string> PowerTest::abortReason() const {
  if (stopAsked_) return std::string("it was stopped on request");
  if (!engine_.lidClosed()) return std::string("the lid was opened");
  // The causes first: a hold ended by the heat guard reads as the heat.
  const bool onPower = engine_.battery() && engine_.battery()->onAC;
  if (onPower != startOnPower_) return std::string("the power adapter was plugged in or out");
  const std::string& machine = engine_.platform().words().machine;
  if (engine_.thermal() >= kSerious) return "the " + machine + " got too hot";
  if (!engine_.holding()) return "Vigilo stopped keeping the " + machine + " awake";
  return std::nullopt;
}

void PowerTest::beginReading() {
  const Reading& r = steps_[step_].readings[reading_];
  progress_ = r.progress;
  closedLid_.setSavingsOff(r.off);
  readingStarted_ = engine_.now();
  first_ = sampleNow();
  update_.reset();
  instant_.clear();
}

void PowerTest::poll() {
  if (!running_) return;
  if (auto reason = abortReason()) return end(reason);
  const std::optional<PowerSample> s = sampleNow();
  const double elapsed = engine_.now() - readingStarted_;
  if (!s || !first_ || elapsed > kReadingTimeout || elapsed < 0) {
    return end(std::string("the battery controller stopped reporting power"));
  }
  std::optional<double> value;
  if (first_->accumulated && first_->count) {
    // The first update after the change still averages some of the old
    // setting; the one after it covers a whole period of the new one.
    if (!s->accumulated || !s->count) return end(std::string("the battery controller stopped reporting power"));
    if (!update_) {
      if (*s->count > *first_->count) update_ = s;
    } else if (*s->count > *update_->count && *s->accumulated >= *update_->accumulated) {
      value = static_cast<double>(*s->accumulated - *update_->accumulated) /
              static_cast<double>(*s->count - *update_->count) / 1000.0;
    }
  } else {
    if (!s->watts) return end(std::string("the battery controller stopped reporting power"));
    if (elapsed >= kSettleSeconds) instant_.push_back(*s->watts);
    if (instant_.size() >= kInstantReadings) {
      value = std::accumulate(instant_.begin(), instant_.end(), 0.0) / static_cast<double>(instant_.size());
    }
  }
  if (!value) return;

  values_.push_back(*value);
  const Step& step = steps_[step_];
  if (++reading_ < step.readings.size()) return beginReading();
  finishStep(step);
  values_.clear();
  reading_ = 0;
  if (++step_ >= steps_.size()) return end(std::nullopt);
  // The lid and the hold are checked between steps, before anything moves.
  if (auto reason = abortReason()) return end(reason);
  beginReading();
}

void PowerTest::finishStep(const Step& step) {
  if (step.name == "total") {
    const TotalResult t = judgeTotal({values_[0], values_[1], values_[2], values_[3]});
    if (t.unclear) {
      effects_.erase("total");
      unclear_.insert("total");
    } else {
      effects_["total"] = t.total;
      unclear_.erase("total");
      closedWith_ = t.closedWith;
    }
    return;
  }
  effects_[step.name] = std::max(0.0, values_[0] - values_[1]);
  unclear_.erase(step.name);
  if (step.name == "screen") screenStepRan_ = true;
}

void PowerTest::end(std::optional<std::string> aborted) {
  if (timer_) engine_.platform().loop().cancel(*timer_);
  timer_.reset();
  running_ = false;
  stopAsked_ = false;
  progress_.reset();
  aborted_ = std::move(aborted);
  closedLid_.setSavingsOff(was_);
  if (engine_.lidClosed() && engine_.holding()) {
    closedLid_.reapplyClosedState(std::nullopt);
  } else {
    closedLid_.restoreClosedState();
  }
  if (onRunning_) onRunning_(false);
}

}  // namespace vigilo
