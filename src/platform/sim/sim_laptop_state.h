#pragma once

// The simulated laptop's inside, shared by the files that make up
// `SimLaptop`: the machine model (sim_laptop_state.cpp), the changes and
// readings (sim_laptop.cpp), the processes and their assertions
// (sim_processes.cpp) and the state file's JSON (sim_state_file.cpp).
// Nothing outside src/platform/sim/ includes it.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/sim/sim_laptop.h"

namespace vigilo {
namespace sim {

// Pids handed out by the laptop itself start here and wrap below macOS's
// highest pid, like the kernel's.
constexpr std::int32_t kFirstPid = 100;
constexpr std::int32_t kLastPid = 99998;
// The charger's current until the battery is full.
constexpr std::int64_t kChargeMilliamps = 1500;
// A process keeps one core busy for every 4 W it draws; the laptop has 16.
constexpr double kWattsPerSimCore = 4.0;
constexpr double kCores = 16.0;
// Background priority runs a process on the efficiency cores.
constexpr double kSlowedShare = 0.25;
// Bounds that keep a hand-edited file from overflowing the arithmetic or
// memory.
constexpr std::size_t kLogLimit = 200;
constexpr std::size_t kProcessLimit = 10000;
constexpr double kMaxWatts = 10000.0;
constexpr double kMaxMilliampHours = 1e6;
constexpr double kMaxMillivolts = 1e6;
constexpr std::int64_t kMaxMilliamps = 1'000'000;
constexpr std::size_t kAssertionLimit = 1000;
constexpr std::size_t kAppLimit = 1000;
// Faster would leave the 2-second tick no real time to run in.
constexpr double kMaxClockSpeed = 100.0;
// The controller adds SystemLoad to its accumulator about this often.
constexpr double kAccumulatorPeriod = 30.0;
constexpr std::int32_t kInitPid = 1;
constexpr const char* kInitPath = "/sbin/launchd";

enum class Lid { Open, Closed, None };
enum class Control { Stop, Resume, Slow, Unslow };

// Counters stop at their largest value rather than wrap.
std::uint64_t saturatingAdd(std::uint64_t a, double b);
std::int64_t saturatingAdd(std::int64_t a, std::int64_t b);
// Clock seconds as microseconds, 0 for a time before the epoch.
std::uint64_t toMicros(Time t);
// The last component of a path.
std::string baseNameOf(const std::string& path);

}  // namespace sim

struct SimLaptop::State {
  bool setupReady = true;
  std::string setupReason;
  sim::Lid lid = sim::Lid::Open;

  bool batteryPresent = true;
  double percent = 80.0;  // the charge; CurrentCapacity follows from it
  std::int64_t maxCapacity = 5000;
  std::int64_t voltage = 11400;
  bool adapter = false;
  bool charging = false;
  double watts = 6.0;  // the base draw, without the processes
  std::optional<std::int64_t> amperage;
  bool telemetry = false;
  std::int64_t accumulated = 0;       // mW readings summed
  std::int64_t accumulatorCount = 0;  // readings summed
  double accumulatorSeconds = 0;      // since the accumulator last moved

  int thermal = 0;
  double clockSpeed = 1.0;  // how many simulated seconds pass per real second
  bool sleepDisabled = false;
  bool displayOn = true;
  double brightness = 1.0;
  bool automaticBackups = true;
  bool builtIn = true;           // the machine has a built-in screen
  bool externalDisplay = false;  // an external screen is connected
  bool online = true;            // the internet can be reached
  bool displayAssertion = false; // the display is kept from idling to sleep
  bool locked = false;           // the login session's screen is locked
  std::vector<AppBundle> apps;   // installed app bundles
  std::map<std::string, int> powerModes = {{"lowpowermode", 0}, {"powermode", 0}};

  std::vector<SimProcess> processes;  // sorted by pid
  std::vector<PowerAssertion> assertions;
  std::vector<std::string> log;
  std::uint64_t recorded = 0;
  Time updated = 0;  // when the charge and counters were last brought up to date
  std::int32_t nextPid = sim::kFirstPid;
  std::uint64_t lastStartMicros = 0;

  std::function<void()> observer;
  bool notifying = false;

  // --- The machine model (sim_laptop_state.cpp).

  // The default laptop at `now`: pid 1 running and nothing else.
  static State initial(Time now);

  // Start times are unique, so that a reused pid always names a new process
  // even when the clock has not moved.
  std::uint64_t newStart(Time now);
  // A free pid, or 0 when every one is taken.
  std::int32_t newPid();

  bool live(std::int32_t pid) const {
    return std::any_of(processes.begin(), processes.end(), [pid](const SimProcess& p) { return p.pid == pid; });
  }
  SimProcess* find(std::int32_t pid) {
    for (auto& p : processes)
      if (p.pid == pid) return &p;
    return nullptr;
  }
  // Adds a process, keeping the list sorted by pid.
  void insert(SimProcess p);

  // Logs a privileged operation, keeping only the latest ones.
  void record(std::string entry);

  std::int64_t currentCapacity() const;
  // What a process draws now: nothing stopped, a quarter slowed.
  static double drawOf(const SimProcess& p);
  double wholeDraw() const;
  std::int64_t systemLoad() const;
  // The battery's current in mA: the override, else the whole draw on
  // battery, the charger while charging, and nothing while the adapter
  // carries the load.
  std::int64_t current() const;

  // Charging needs the adapter, a battery, and room in it.
  void settle();
  // Brings charge and counters up to `now`; true when the battery's reading
  // moved.
  bool advanceTo(Time now);
  // Runs the observer once per change; a change made from inside the
  // observer does not call it again.
  void notify();
  // Stops, resumes, slows or unslows a process, as asked for by the app.
  Result control(sim::Control what, std::int32_t pid, Time now);

  // --- The state file's JSON (sim_state_file.cpp).

  nlohmann::json toJson() const;
  // Reads `j` over the default laptop at `now`, leniently: a missing or
  // wrongly typed key keeps the default, and nothing throws.
  static State fromJson(const nlohmann::json& j, Time now);

 private:
  std::pair<std::int64_t, bool> visible() const;
  // The draws are constant over `dt`: every change of one brings the laptop
  // up to date first.
  void advance(double dt);

  nlohmann::json batteryJson() const;
  void readBattery(const nlohmann::json& b);
  void readSwitches(const nlohmann::json& j);
  void readApps(const nlohmann::json& j);
  void readProcesses(const nlohmann::json& list, std::optional<std::uint64_t> lastStart, Time now);
  void readAssertions(const nlohmann::json& list);
};

}  // namespace vigilo
