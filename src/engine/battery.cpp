#include "engine/battery.h"

namespace vigilo {

std::optional<BatteryReading> readingFrom(const std::optional<BatteryProperties>& props) {
  if (!props || !props->currentCapacity || !props->maxCapacity || *props->maxCapacity < 1) return std::nullopt;
  BatteryReading r;
  // Controllers report a slightly stale CurrentCapacity above MaxCapacity
  // while calibrating; the percentage still must not pass 100 or go negative.
  long long current = *props->currentCapacity;
  long long max = *props->maxCapacity;
  if (current < 0) current = 0;
  if (current > max) current = max;
  r.percent = static_cast<int>(current * 100 / max);
  r.onAC = props->externalConnected.value_or(false);
  r.charging = props->isCharging.value_or(false);
  const long long amps = props->instantAmperage ? *props->instantAmperage : props->amperage.value_or(0);
  const long long millivolts = props->voltage.value_or(0);
  r.watts = amps < 0 ? static_cast<double>(millivolts) * static_cast<double>(-amps) / 1'000'000.0 : 0.0;
  if (props->timeRemaining && !r.onAC && *props->timeRemaining >= 1 && *props->timeRemaining <= 5999) {
    r.minutesLeft = static_cast<int>(*props->timeRemaining);
  }
  return r;
}

}  // namespace vigilo
