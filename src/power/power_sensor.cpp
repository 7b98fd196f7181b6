#include "power/power_sensor.h"

#include <algorithm>
#include <cmath>

namespace vigilo {
namespace {

// A battery-size estimate outside these bounds is a glitch of the
// controller's time remaining, not a battery.
constexpr double kSmallestBatteryWh = 20.0;
constexpr double kLargestBatteryWh = 140.0;
constexpr double kMinimumDrawForHours = 0.1;
constexpr double kMinimumDischargeForSize = 1.0;
constexpr int kMinimumPercentForSize = 6;

bool plausibleBattery(double wh) { return wh > kSmallestBatteryWh && wh < kLargestBatteryWh; }

// Discharge watts of a reading, when it shows the machine running on its
// battery: nothing while charging, without a reading or at a trickle.
std::optional<double> dischargeWatts(const std::optional<BatteryReading>& reading) {
  if (!reading || reading->charging || !(reading->watts > kMinimumDraw)) return std::nullopt;
  return reading->watts;
}

double blend(std::optional<double> old, double now, double weight) {
  return old ? weight * now + (1.0 - weight) * *old : now;
}

}  // namespace

std::optional<PowerSample> PowerSensor::sample(const std::optional<BatteryProperties>& props, Time now) {
  if (!props) return std::nullopt;
  const BatteryProperties& b = *props;
  if (b.systemLoad && *b.systemLoad > 0) {
    return PowerSample{static_cast<double>(*b.systemLoad) / 1000.0, b.accumulatedSystemLoad, b.accumulatorCount, now};
  }
  if (b.accumulatedSystemLoad && b.accumulatorCount) {
    return PowerSample{std::nullopt, b.accumulatedSystemLoad, b.accumulatorCount, now};
  }
  const std::optional<std::int64_t> current = b.instantAmperage ? b.instantAmperage : b.amperage;
  if (!current || *current >= 0 || !b.voltage || *b.voltage < 1) return std::nullopt;
  const double watts = -static_cast<double>(*current) * static_cast<double>(*b.voltage) / 1e6;
  return PowerSample{watts, std::nullopt, std::nullopt, now};
}

void WholeMachinePower::update(const std::optional<BatteryProperties>& props,
                               const std::optional<BatteryReading>& reading, const PowerContext& context, Time now) {
  designWh_.reset();
  if (props && props->maxCapacity && props->voltage) {
    const double wh = static_cast<double>(*props->maxCapacity) * static_cast<double>(*props->voltage) / 1e6;
    if (plausibleBattery(wh)) designWh_ = wh;
  }

  const std::optional<PowerSample> s = PowerSensor::sample(props, now);
  if (s) {
    const auto& old = lastSample_;
    // The accumulator's difference averages over the controller's own
    // update period (about 30 s), steadier than one SystemLoad reading.
    if (old && s->accumulated && s->count && old->accumulated && old->count && *s->count > *old->count &&
        *s->accumulated >= *old->accumulated) {
      const double load = static_cast<double>(*s->accumulated - *old->accumulated);
      systemWatts_ = load / static_cast<double>(*s->count - *old->count) / 1000.0;
    } else {
      systemWatts_ = s->watts;
    }
    lastSample_ = s;
  } else {
    systemWatts_ = dischargeWatts(reading);
  }

  learnDraw(context);
  if (reading) learnBatterySize(*reading);
}

void WholeMachinePower::learnDraw(const PowerContext& context) {
  if (!systemWatts_ || !(*systemWatts_ > kMinimumDraw) || !std::isfinite(*systemWatts_) || context.powerTestRunning)
    return;
  if (context.lidClosed) {
    // Shut but not held, the machine is about to sleep: its draw says nothing
    // about a working closed lid.
    if (context.held) learned_.closedDraw = blend(learned_.closedDraw, *systemWatts_, 0.1);
  } else {
    learned_.openDraw = blend(learned_.openDraw, *systemWatts_, 0.15);
  }
}

void WholeMachinePower::learnBatterySize(const BatteryReading& r) {
  if (r.charging || !(r.watts > kMinimumDischargeForSize) || !r.minutesLeft || r.percent < kMinimumPercentForSize)
    return;
  const double estimate = r.watts * *r.minutesLeft / 60.0 / (r.percent / 100.0);
  if (!plausibleBattery(estimate)) return;
  learned_.fullWh = 0.2 * estimate + 0.8 * fullWh();
}

double WholeMachinePower::fullWh() const {
  if (learned_.fullWh) return *learned_.fullWh;
  return designWh_.value_or(kDefaultFullWh);
}

std::optional<double> WholeMachinePower::hoursLeft(double percent, double watts) const {
  if (!(watts > kMinimumDrawForHours) || !std::isfinite(watts) || !std::isfinite(percent)) return std::nullopt;
  return std::clamp(percent, 0.0, 100.0) / 100.0 * fullWh() / watts;
}

double WholeMachinePower::closedEstimate(const ClosedInputs& in) const {
  if (in.lidClosed && in.held) {
    if (systemWatts_) return *systemWatts_;
    if (auto w = dischargeWatts(in.reading)) return *w;
  }
  double estimate;
  if (learned_.closedDraw) {
    estimate = *learned_.closedDraw;
  } else {
    estimate = kClosedBaseWatts;
    if (in.apps != nullptr) {
      for (const AppUsage& app : *in.apps) {
        if (in.isProtected && in.isProtected(app)) continue;
        switch (in.ruleFor ? in.ruleFor(app) : AppRule::Leave) {
          case AppRule::Pause: break;
          case AppRule::Slow: estimate += app.watts / 4.0; break;
          case AppRule::Leave: estimate += app.watts; break;
        }
      }
    }
  }
  if (in.lidClosed) return estimate;
  const std::optional<double> now = systemWatts_ ? systemWatts_ : dischargeWatts(in.reading);
  return now ? std::min(estimate, *now) : estimate;
}

}  // namespace vigilo
