// The simulated laptop's machine model: how the battery, its counters and the
// processes' counters move with the clock, and how pids and start times are
// handed out.

#include "platform/sim/sim_laptop_state.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vigilo {
namespace sim {

std::uint64_t saturatingAdd(std::uint64_t a, double b) {
  if (!(b > 0)) return a;
  const double room = static_cast<double>(std::numeric_limits<std::uint64_t>::max() - a);
  if (b >= room) return std::numeric_limits<std::uint64_t>::max();
  return a + static_cast<std::uint64_t>(b);
}

std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
  if (b > 0 && a > std::numeric_limits<std::int64_t>::max() - b) return std::numeric_limits<std::int64_t>::max();
  return a + b;
}

std::uint64_t toMicros(Time t) {
  if (!(t > 0)) return 0;
  if (t >= 1.8e13) return std::numeric_limits<std::uint64_t>::max() / 2;
  return static_cast<std::uint64_t>(std::llround(t * 1e6));
}

std::string baseNameOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace sim

using namespace sim;

SimLaptop::State SimLaptop::State::initial(Time now) {
  State s;
  s.updated = now;
  SimProcess init;
  init.pid = kInitPid;
  init.ppid = 0;
  init.path = kInitPath;
  init.args = {kInitPath};
  init.startMicros = s.newStart(now);
  s.processes.push_back(std::move(init));
  return s;
}

std::uint64_t SimLaptop::State::newStart(Time now) {
  lastStartMicros = std::max(toMicros(now), lastStartMicros + 1);
  return lastStartMicros;
}

std::int32_t SimLaptop::State::newPid() {
  for (int tries = 0; tries <= kLastPid; ++tries) {
    std::int32_t pid = nextPid;
    nextPid = nextPid >= kLastPid ? kFirstPid : nextPid + 1;
    if (!live(pid)) return pid;
  }
  return 0;
}

void SimLaptop::State::insert(SimProcess p) {
  auto at = std::lower_bound(processes.begin(), processes.end(), p.pid,
                             [](const SimProcess& a, std::int32_t pid) { return a.pid < pid; });
  processes.insert(at, std::move(p));
}

void SimLaptop::State::record(std::string entry) {
  ++recorded;
  log.push_back(std::move(entry));
  if (log.size() > kLogLimit) log.erase(log.begin(), log.end() - kLogLimit);
}

std::int64_t SimLaptop::State::currentCapacity() const {
  return std::llround(percent * static_cast<double>(maxCapacity) / 100.0);
}

double SimLaptop::State::drawOf(const SimProcess& p) {
  if (p.stopped) return 0.0;
  return p.slowed ? p.watts * kSlowedShare : p.watts;
}

double SimLaptop::State::wholeDraw() const {
  double w = watts;
  for (const auto& p : processes) w += drawOf(p);
  return std::min(w, kMaxWatts);
}

std::int64_t SimLaptop::State::systemLoad() const { return std::llround(wholeDraw() * 1000.0); }

std::int64_t SimLaptop::State::current() const {
  std::int64_t c;
  if (amperage) {
    c = *amperage;
  } else if (adapter) {
    c = charging ? kChargeMilliamps : 0;
  } else {
    c = -std::llround(wholeDraw() * 1e6 / static_cast<double>(voltage));
  }
  return percent >= 100.0 && c > 0 ? 0 : c;
}

void SimLaptop::State::settle() {
  if (!adapter || !batteryPresent || percent >= 100.0) charging = false;
}

std::pair<std::int64_t, bool> SimLaptop::State::visible() const {
  return {batteryPresent ? currentCapacity() : -1, charging};
}

bool SimLaptop::State::advanceTo(Time now) {
  if (!std::isfinite(now)) return false;
  const double dt = now - updated;
  // A clock set back starts the count again from the new now rather than
  // freezing the battery until the clock catches up.
  if (!(dt > 0)) {
    updated = now;
    return false;
  }
  const auto before = visible();
  updated = now;
  advance(dt);
  return visible() != before;
}

void SimLaptop::State::notify() {
  if (!observer || notifying) return;
  notifying = true;
  auto call = observer;  // the observer may replace itself
  call();
  notifying = false;
}

Result SimLaptop::State::control(Control what, std::int32_t pid, Time now) {
  static const char* const kVerbs[] = {"stop", "resume", "slow", "unslow"};
  const std::string entry = std::string(kVerbs[static_cast<int>(what)]) + " " + std::to_string(pid);
  advanceTo(now);
  SimProcess* p = find(pid);
  if (p == nullptr || pid == kInitPid) {
    record(entry + " (refused)");
    notify();
    if (p == nullptr) return Result::fail("No process with id " + std::to_string(pid) + " is running.");
    return Result::fail("Process 1 belongs to the system and can't be changed.");
  }
  record(entry);
  switch (what) {
    case Control::Stop: p->stopped = true; break;
    case Control::Resume: p->stopped = false; break;
    case Control::Slow: p->slowed = true; break;
    case Control::Unslow: p->slowed = false; break;
  }
  notify();
  return Result::ok();
}

void SimLaptop::State::advance(double dt) {
  if (telemetry) {
    accumulatorSeconds += dt;
    if (accumulatorSeconds >= kAccumulatorPeriod) {
      const double periods = std::floor(accumulatorSeconds / kAccumulatorPeriod);
      accumulatorSeconds -= periods * kAccumulatorPeriod;
      const std::int64_t n = periods >= 9e15 ? std::numeric_limits<std::int64_t>::max()
                                              : static_cast<std::int64_t>(periods);
      const double added = periods * static_cast<double>(systemLoad());
      accumulated = added >= 9e18 ? std::numeric_limits<std::int64_t>::max()
                                  : saturatingAdd(accumulated, static_cast<std::int64_t>(added));
      accumulatorCount = saturatingAdd(accumulatorCount, n);
    }
  }
  if (batteryPresent) {
    const double c = static_cast<double>(current());
    percent += c * dt / 36.0 / static_cast<double>(maxCapacity);
    percent = std::clamp(percent, 0.0, 100.0);
    settle();
  }
  for (auto& p : processes) {
    if (p.stopped) continue;
    const double w = drawOf(p);
    p.energyNanojoules = saturatingAdd(p.energyNanojoules, w * dt * 1e9);
    p.cpuMicros = saturatingAdd(p.cpuMicros, std::min(kCores, w / kWattsPerSimCore) * dt * 1e6);
  }
}

}  // namespace vigilo
