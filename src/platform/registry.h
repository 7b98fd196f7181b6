#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vigilo {

// The battery controller's raw properties, as the I/O registry's
// "AppleSmartBattery" service names them. Every field is optional because
// controllers leave some out; the core decides what a missing one means.
// Capacities in mAh, currents in mA (negative while discharging), voltage in
// mV, time in minutes (65535 means unknown).
struct BatteryProperties {
  std::optional<std::int64_t> currentCapacity;  // "CurrentCapacity"
  std::optional<std::int64_t> maxCapacity;      // "MaxCapacity"
  std::optional<std::int64_t> instantAmperage;  // "InstantAmperage"
  std::optional<std::int64_t> amperage;         // "Amperage"
  std::optional<std::int64_t> voltage;          // "Voltage"
  std::optional<std::int64_t> timeRemaining;    // "TimeRemaining"
  std::optional<bool> externalConnected;        // "ExternalConnected"
  std::optional<bool> isCharging;               // "IsCharging"
  // "PowerTelemetryData": the whole machine's draw as the controller sees
  // it, also on the charger. SystemLoad in mW; the accumulator sums
  // SystemLoad readings and the count says how many (it moves about every
  // 30 s).
  std::optional<std::int64_t> systemLoad;             // "SystemLoad"
  std::optional<std::int64_t> accumulatedSystemLoad;  // "AccumulatedSystemLoad"
  std::optional<std::int64_t> accumulatorCount;       // "SystemLoadAccumulatorCount"
};

// One power assertion held by a process against sleep.
struct PowerAssertion {
  std::int32_t pid = 0;            // the holding process
  std::string processName;         // "Process Name"
  std::string type;                // "AssertionTrueType", else "AssertType"
  std::string name;                // "AssertName"
  std::optional<std::int32_t> onBehalfOf;  // "AssertionOnBehalfOfPID"
  std::optional<double> since;     // "AssertStartWhen", seconds since 1970
  std::vector<std::string> resources;  // "ResourcesUsed" ("audio-out", ...)
};

// Read-only hardware state: the battery controller and the power-management
// root domain. Called on the main thread; each call reads afresh.
class Registry {
 public:
  Registry() = default;
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;
  virtual ~Registry() = default;

  // The battery controller's properties, or nothing when the machine has no
  // battery service (a desktop, a container).
  virtual std::optional<BatteryProperties> battery() = 0;
  // "SleepDisabled" of the root domain: whether system sleep is switched off
  // as a whole (by anyone). Nothing when it cannot be read.
  virtual std::optional<bool> sleepDisabled() = 0;
  // "AppleClamshellState": true while the lid is shut. Nothing on a machine
  // without a lid.
  virtual std::optional<bool> lidClosed() = 0;
  // The system's thermal state: 0 nominal, 1 fair, 2 serious, 3 critical.
  virtual int thermalState() = 0;
  // Every power assertion held against sleep, by process. Empty where the
  // machine keeps no such list or it cannot be read.
  virtual std::vector<PowerAssertion> powerAssertions() { return {}; }
  // Whether the machine has a way to the internet now (a network path);
  // nothing where it cannot tell.
  virtual std::optional<bool> online() { return std::nullopt; }
};

}  // namespace vigilo
