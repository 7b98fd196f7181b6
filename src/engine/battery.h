#pragma once

#include <optional>

#include "platform/registry.h"

namespace vigilo {

// What the guards know about the battery, computed from the controller's raw
// properties.
struct BatteryReading {
  int percent = 0;       // CurrentCapacity * 100 / MaxCapacity, whole-number division
  bool onAC = false;     // the adapter is connected
  bool charging = false;
  double watts = 0.0;    // drawn from the battery; 0 while charging or idle
  std::optional<int> minutesLeft;  // only on battery, 1 ... 5999

  // On power: the adapter is connected and the battery is charging or gives
  // at most 0.3 W. An adapter too weak to stop the drain counts as battery.
  bool onPower() const { return onAC && (charging || watts <= 0.3); }
  bool operator==(const BatteryReading&) const = default;
};

// Nothing without a battery service or with unusable capacities.
std::optional<BatteryReading> readingFrom(const std::optional<BatteryProperties>& props);

}  // namespace vigilo
