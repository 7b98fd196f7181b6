#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "engine/battery.h"
#include "engine/config.h"
#include "platform/clock.h"
#include "platform/registry.h"
#include "power/energy_sampler.h"

namespace vigilo {

// One reading of the whole machine's draw from the battery controller.
struct PowerSample {
  std::optional<double> watts;              // the instantaneous draw
  std::optional<std::int64_t> accumulated;  // the controller's accumulated system load (mW readings summed)
  std::optional<std::int64_t> count;        // how many readings the accumulator holds
  Time time = 0;
  bool operator==(const PowerSample&) const = default;
};

class PowerSensor {
 public:
  // The controller's telemetry first: a positive SystemLoad gives the
  // watts (with the counters where present); a SystemLoad of 0 or none with
  // both counters gives the counters alone. Without usable telemetry, the
  // battery's own current (InstantAmperage, else Amperage) times its voltage,
  // only while discharging with a voltage of at least 1 mV. Anything else,
  // and a machine without a battery controller, gives nothing.
  static std::optional<PowerSample> sample(const std::optional<BatteryProperties>& props, Time now);
};

// What the machine has learned about itself over time; kept across launches
// (see LearnedStore).
struct LearnedPower {
  std::optional<double> openDraw;    // long-run whole-machine draw with the lid open, W
  std::optional<double> closedDraw;  // with the lid shut and the machine held awake, W
  std::optional<double> fullWh;      // energy of a full battery, Wh; nothing until learned
  bool operator==(const LearnedPower&) const = default;
};

// A full battery's energy when nothing has been learned and the controller's
// capacity and voltage give no plausible figure: a mid-sized laptop battery.
inline constexpr double kDefaultFullWh = 50.0;
// Below this the draw of a machine is taken as unknown (a battery idling on
// the charger reports a trickle).
inline constexpr double kMinimumDraw = 0.3;
// The draw of a laptop with the lid shut, the screen dark and nothing busy.
inline constexpr double kClosedBaseWatts = 1.6;

// Where the machine stands when the draw is read.
struct PowerContext {
  bool lidClosed = false;
  bool held = false;              // the machine is held awake (sleep switched off for it)
  bool powerTestRunning = false;  // a power test switches savings on and off: nothing is learned
};

// The whole machine's draw, taken on every battery reading, and the learned
// averages and battery size. One per engine, on the main thread.
class WholeMachinePower {
 public:
  explicit WholeMachinePower(LearnedPower learned = {}) : learned_(learned) {}

  // One battery reading: takes a sample, works out `systemWatts` (from the
  // accumulator's difference since the last sample, else the sample's watts,
  // else the reading's discharge watts above 0.3 W), then learns the draws
  // and the battery size into `learned()` (the caller decides when to
  // persist them).
  void update(const std::optional<BatteryProperties>& props, const std::optional<BatteryReading>& reading,
              const PowerContext& context, Time now);

  std::optional<double> systemWatts() const { return systemWatts_; }
  const std::optional<PowerSample>& lastSample() const { return lastSample_; }
  const LearnedPower& learned() const { return learned_; }
  // Replaces the learned values (read back from the store at launch).
  void setLearned(const LearnedPower& learned) { learned_ = learned; }

  // The full battery's energy: learned, else the controller's capacity
  // times its voltage when that gives 20 to 140 Wh (Intel-era controllers
  // report mAh; Apple silicon reports percent, which this rejects), else
  // kDefaultFullWh.
  double fullWh() const;

  // Hours the battery lasts from `percent` at `watts`; nothing at or below
  // 0.1 W.
  std::optional<double> hoursLeft(double percent, double watts) const;

  // The expected whole-machine draw with the lid shut. `apps` are the latest
  // top users; `isProtected` tells the apps the savings never touch (they
  // are left out of the sum), `ruleFor` the rule the savings would apply to
  // an app: Pause adds nothing, Slow a quarter of its watts, Leave all.
  struct ClosedInputs {
    bool lidClosed = false;
    bool held = false;
    std::optional<BatteryReading> reading;
    const std::vector<AppUsage>* apps = nullptr;
    std::function<bool(const AppUsage&)> isProtected;
    std::function<AppRule(const AppUsage&)> ruleFor;
  };
  double closedEstimate(const ClosedInputs& in) const;

 private:
  void learnDraw(const PowerContext& context);
  void learnBatterySize(const BatteryReading& reading);

  LearnedPower learned_;
  std::optional<double> systemWatts_;
  std::optional<PowerSample> lastSample_;
  std::optional<double> designWh_;  // capacity × voltage of the last reading, when plausible
};

}  // namespace vigilo
