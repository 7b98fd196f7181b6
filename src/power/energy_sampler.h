#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/beats.h"
#include "platform/bundles.h"
#include "platform/clock.h"
#include "platform/processes.h"

namespace vigilo {

// What a fully busy core is taken to draw, where the machine measures no
// energy: CPU time then stands in for it.
inline constexpr double kWattsPerBusyCore = 4.0;

// One app or tool among the top users of power.
struct AppUsage {
  std::string name;                     // identifies the entry
  std::optional<std::string> bundleID;  // where the app's bundle tells it
  double watts = 0;                     // its draw over the last interval
  double cores = 0;                     // CPU use in cores over the interval
  std::vector<std::int32_t> pids;       // the processes it covers, ascending
  bool system = false;                  // it lives at a system location
  bool estimated = false;               // `watts` are its CPU use at kWattsPerBusyCore
  bool operator==(const AppUsage&) const = default;
};

// The energy ranking reads the counters of every process, so the engine
// takes it on its energy beat; the agents' trees are read every tick.
inline constexpr std::int64_t kEnergySampleEvery = beats::kEnergy.every;
inline bool isEnergyTick(std::int64_t tick) { return beats::kEnergy.on(tick); }

// The top users of power, from the kernel's per-process energy and CPU-time
// counters. One per engine, on the main thread.
class EnergySampler {
 public:
  explicit EnergySampler(BundleLookup lookup = readBundleMeta) : lookup_(std::move(lookup)) {}

  // The apps' draw and CPU use since the previous sample, summed per app
  // (a process in an app bundle counts for the app; others by executable
  // name), largest draw first. A process seen last time counts its counters'
  // growth; one started since then counts all of its counters. When no
  // process's energy grew although CPU time was used, the machine measures
  // none, and the draws are estimated from CPU use. The first sample has no
  // interval and gives an empty list.
  // `apps`, where given, names the app of each process as the closed-lid
  // rules do (`appBundle`, `appOf`); the bundle lookup stands in where it
  // knows none.
  std::vector<AppUsage> sample(Processes& processes, Time now);
  std::vector<AppUsage> sample(const std::vector<ProcessInfo>& processes, Time now, Processes* apps = nullptr);

 private:
  struct Attribution {
    std::string path;  // what it was found for
    std::string name;
    std::optional<std::string> bundleID;
    bool system = false;
  };
  struct Counters {
    std::int32_t pid = 0;
    std::uint64_t start = 0;
    std::uint64_t energy = 0;
    std::uint64_t cpu = 0;
    const Attribution* attribution = nullptr;  // into meta_, which never moves its entries
  };
  const Attribution& attribute(const ProcessInfo& p, Processes* apps);

  BundleLookup lookup_;
  std::vector<Counters> last_;  // by pid
  std::optional<Time> lastTime_;
  // Attribution per executable path, and per bundle folder (one Info.plist
  // read per app).
  std::unordered_map<std::string, Attribution> meta_;
  std::unordered_map<std::string, BundleMeta> bundles_;
};

}  // namespace vigilo
