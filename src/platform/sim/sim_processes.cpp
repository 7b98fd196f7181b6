// The simulated laptop's processes: starting and ending them, what they
// draw, the power assertions they hold and the app's requests to stop, slow
// or resume them.

#include <algorithm>
#include <cmath>

#include "platform/sim/sim_laptop_state.h"

namespace vigilo {

using namespace sim;

std::int32_t SimLaptop::startProcess(const std::string& path, std::vector<std::string> args, std::int32_t ppid,
                                     std::optional<std::int32_t> pid) {
  advanceToNow();
  State& s = *s_;
  std::int32_t id;
  if (pid) {
    if (*pid <= 0 || s.live(*pid)) return 0;
    id = *pid;
  } else {
    id = s.newPid();
    if (id == 0) return 0;
  }
  SimProcess p;
  p.pid = id;
  p.ppid = ppid;
  p.path = path;
  p.args = args.empty() ? std::vector<std::string>{path} : std::move(args);
  p.startMicros = s.newStart(clock_.now());
  s.insert(std::move(p));
  s_->notify();
  return id;
}

void SimLaptop::endProcess(std::int32_t pid) {
  advanceToNow();
  auto& ps = s_->processes;
  auto it = std::find_if(ps.begin(), ps.end(), [pid](const SimProcess& p) { return p.pid == pid; });
  if (it == ps.end()) return;
  ps.erase(it);
  // Orphans go to pid 1, as the kernel reparents them.
  for (auto& p : ps)
    if (p.ppid == pid) p.ppid = kInitPid;
  // The system releases the assertions of a process that ended.
  auto& as = s_->assertions;
  as.erase(std::remove_if(as.begin(), as.end(),
                          [pid](const PowerAssertion& a) { return a.pid == pid || a.onBehalfOf == pid; }),
           as.end());
  s_->notify();
}

void SimLaptop::setProcessWatts(std::int32_t pid, double watts) {
  if (!std::isfinite(watts)) return;
  advanceToNow();
  if (SimProcess* p = s_->find(pid)) {
    p->watts = std::clamp(watts, 0.0, kMaxWatts);
    s_->notify();
  }
}

void SimLaptop::setProcessCwd(std::int32_t pid, const std::string& cwd) {
  advanceToNow();
  if (SimProcess* p = s_->find(pid)) {
    p->cwd = cwd;
    s_->notify();
  }
}

Result SimLaptop::addPowerAssertion(PowerAssertion a) {
  advanceToNow();
  const SimProcess* p = s_->find(a.pid);
  if (p == nullptr) return Result::fail("No process with id " + std::to_string(a.pid) + " is running.");
  if (s_->assertions.size() >= kAssertionLimit) return Result::fail("The simulated laptop holds too many assertions.");
  if (a.processName.empty()) a.processName = baseNameOf(p->path);
  if (a.since && !std::isfinite(*a.since)) a.since.reset();
  s_->assertions.push_back(std::move(a));
  s_->notify();
  return Result::ok();
}

bool SimLaptop::removePowerAssertion(std::int32_t pid, const std::string& name) {
  advanceToNow();
  auto& as = s_->assertions;
  const auto before = as.size();
  as.erase(std::remove_if(as.begin(), as.end(),
                          [&](const PowerAssertion& a) { return a.pid == pid && (name.empty() || a.name == name); }),
           as.end());
  if (as.size() == before) return false;
  s_->notify();
  return true;
}

const std::vector<SimProcess>& SimLaptop::processes() const {
  s_->advanceTo(clock_.now());
  return s_->processes;
}

const SimProcess* SimLaptop::process(std::int32_t pid) const {
  s_->advanceTo(clock_.now());
  return s_->find(pid);
}

const std::vector<PowerAssertion>& SimLaptop::powerAssertions() const {
  s_->advanceTo(clock_.now());
  return s_->assertions;
}

Result SimLaptop::shutDownSimulators() {
  s_->record("simctl shutdown all");
  std::vector<std::int32_t> gone;
  for (const auto& p : s_->processes) {
    if (baseNameOf(p.path) == "launchd_sim") gone.push_back(p.pid);
  }
  for (std::int32_t pid : gone) endProcess(pid);
  s_->notify();
  return Result::ok();
}

Result SimLaptop::stop(std::int32_t pid) { return s_->control(Control::Stop, pid, clock_.now()); }
Result SimLaptop::resume(std::int32_t pid) { return s_->control(Control::Resume, pid, clock_.now()); }
Result SimLaptop::slow(std::int32_t pid) { return s_->control(Control::Slow, pid, clock_.now()); }
Result SimLaptop::unslow(std::int32_t pid) { return s_->control(Control::Unslow, pid, clock_.now()); }

}  // namespace vigilo
