#include "power/energy_sampler.h"

#include <algorithm>
#include <map>

#include "platform/files.h"

namespace vigilo {
namespace {

// Distinct executables seen; past this the caches start over rather than
// grow without end on a machine that runs ever new binaries.
constexpr std::size_t kMetaLimit = 20000;

}  // namespace

const EnergySampler::Attribution& EnergySampler::attribute(const ProcessInfo& p, Processes* apps) {
  // Without a path the argument list still names the process.
  std::string key = p.path;
  if (key.empty() && !p.args.empty()) key = "\n" + p.args.front();  // cannot clash with a path
  if (auto it = meta_.find(key); it != meta_.end()) return it->second;

  Attribution a;
  a.path = p.path;
  a.system = isSystemLocation(p.path);
  if (auto bundle = outermostBundle(p.path)) {
    const std::string folder(*bundle);
    auto b = bundles_.find(folder);
    if (b == bundles_.end()) {
      // The platform's word first, as the closed-lid rules take it, so that
      // an app's row and its rule name the same bundle id.
      std::optional<AppBundle> known = apps ? apps->appBundle(folder) : std::nullopt;
      BundleMeta meta = known ? BundleMeta{known->name, known->bundleId} : lookup_ ? lookup_(folder) : BundleMeta{};
      b = bundles_.emplace(folder, std::move(meta)).first;
    }
    std::string_view folderName = lastComponent(*bundle);
    a.name = b->second.displayName.value_or(std::string(folderName.substr(0, folderName.size() - 4)));
    a.bundleID = b->second.bundleID;
  } else if (auto app = apps ? apps->appOf(p) : std::nullopt) {
    // Where apps aren't bundle folders (desktop entries), the app the
    // platform names, keyed as its rules are.
    a.name = app->name;
    a.bundleID = app->bundleId;
  } else if (!p.path.empty()) {
    a.name = std::string(lastComponent(p.path));
  } else if (!p.args.empty()) {
    a.name = std::string(lastComponent(p.args.front()));
  }
  return meta_.emplace(std::move(key), std::move(a)).first->second;
}

std::vector<AppUsage> EnergySampler::sample(Processes& processes, Time now) {
  return sample(processes.list(), now, &processes);
}

std::vector<AppUsage> EnergySampler::sample(const std::vector<ProcessInfo>& processes, Time now, Processes* platformApps) {
  const std::optional<Time> previous = lastTime_;
  const double interval = previous ? now - *previous : 0.0;
  // Processes that started after the previous sample did all their work
  // within the interval.
  const double previousMicros = previous ? *previous * 1e6 : 0.0;
  // Cleared only here: the entries below point into these maps.
  if (meta_.size() >= kMetaLimit || bundles_.size() >= kMetaLimit) {
    meta_.clear();
    bundles_.clear();
    for (Counters& c : last_) c.attribution = nullptr;
  }

  std::vector<Counters> current;
  current.reserve(processes.size());
  std::map<std::string_view, AppUsage> apps;  // by name; names live in meta_
  bool anyEnergy = false;
  for (const ProcessInfo& p : processes) {
    const auto it = std::lower_bound(last_.begin(), last_.end(), p.pid,
                                     [](const Counters& c, std::int32_t pid) { return c.pid < pid; });
    const bool seen = it != last_.end() && it->pid == p.pid && it->start == p.startMicros;
    // The attribution found last time, unless exec() changed the path.
    const Attribution* a = seen && it->attribution != nullptr && it->attribution->path == p.path ? it->attribution
                                                                                                 : &attribute(p, platformApps);
    current.push_back(Counters{p.pid, p.startMicros, p.energyNanojoules, p.cpuMicros, a});
    if (!(interval > 0)) continue;
    std::uint64_t energy = 0;
    std::uint64_t cpu = 0;
    if (seen) {
      // A counter that went backwards is a fault of the reading, not work.
      energy = p.energyNanojoules > it->energy ? p.energyNanojoules - it->energy : 0;
      cpu = p.cpuMicros > it->cpu ? p.cpuMicros - it->cpu : 0;
    } else if (static_cast<double>(p.startMicros) >= previousMicros) {
      energy = p.energyNanojoules;
      cpu = p.cpuMicros;
    }
    anyEnergy = anyEnergy || energy > 0;
    if (a->name.empty()) continue;
    auto [entry, added] = apps.try_emplace(a->name);
    AppUsage& u = entry->second;
    if (added) {
      u.name = a->name;
      u.bundleID = a->bundleID;
      u.system = a->system;
    }
    u.system = u.system && a->system;  // one user process makes the entry the user's
    if (!u.bundleID) u.bundleID = a->bundleID;
    u.watts += static_cast<double>(energy) / 1e9 / interval;
    u.cores += static_cast<double>(cpu) / 1e6 / interval;
    u.pids.push_back(p.pid);
  }
  std::sort(current.begin(), current.end(), [](const Counters& a, const Counters& b) { return a.pid < b.pid; });
  last_ = std::move(current);
  lastTime_ = now;

  std::vector<AppUsage> out;
  out.reserve(apps.size());
  if (!anyEnergy) {
    for (auto& [name, usage] : apps) {
      usage.watts = usage.cores * kWattsPerBusyCore;
      usage.estimated = usage.cores > 0;
    }
  }
  for (auto& [name, usage] : apps) {
    std::sort(usage.pids.begin(), usage.pids.end());
    out.push_back(std::move(usage));
  }
  // Equal draws keep the name order of the map: stable sort.
  std::stable_sort(out.begin(), out.end(), [](const AppUsage& a, const AppUsage& b) { return a.watts > b.watts; });
  return out;
}

}  // namespace vigilo
