#include "agents/agent_work.h"

#include <algorithm>
#include <map>

#include "agents/agent_events.h"
#include "agents/catalogue.h"
#include "engine/engine.h"
#include "power/energy_sampler.h"

namespace vigilo {
namespace {

// The events are re-read on their notification, and every tenth sample in
// case one was missed (the app was busy starting, say).
constexpr std::int64_t kEventRereadEvery = 10;
// How far ahead of this app's clock an event's time may lie (the hook's
// process reads the same clock, a moment later).
constexpr double kFutureSlack = 60.0;

}  // namespace

AgentWork::AgentWork(Platform& platform, std::string appFolder, std::string home, AgentAlerts* alerts)
    : platform_(platform),
      appFolder_(std::move(appFolder)),
      alerts_(alerts),
      watcher_(platform.processes(), platform.registry(), std::move(home), platform.clock()) {}

void AgentWork::sample(Engine& engine) {
  const Config& config = engine.config();
  const Time now = engine.now();
  std::vector<AgentKind> extra;
  for (const CustomAgent& a : config.customAgents) extra.push_back(kindFor(a));
  if (config.countClaudeApp) extra.push_back(claudeAppKind());
  // Every process's counters only when the energy ranking takes them; else
  // the identities, and the watcher reads the counters of its trees. While
  // no process started, ended or changed, the last listing stands.
  Processes& processes = platform_.processes();
  const bool energyTick = isEnergyTick(engine.ticks());
  const bool same = !energyTick && listed_ && processes.identitiesUnchanged();
  if (!same) {
    processes_ = processes.listing(energyTick ? ProcessDetail::Counters : ProcessDetail::Identity);
    listed_ = true;
  }
  watcher_.sample(processes_, config.watchedApps, config.countRequests, extra, now);
  if (eventsDirty_ || samples_++ % kEventRereadEvery == 0) {
    events_ = AgentEvents::load(appFolder_, now);
    // An event from the future (a damaged file, a clock put back) would
    // never go stale.
    std::erase_if(events_, [now](const AgentEvent& e) { return !(e.at <= now + kFutureSlack); });
    eventsDirty_ = false;
  }
  applyEvents(now);
  detection_.update(sessions_, config, now, engine.preview() ? nullptr : alerts_);
}

void AgentWork::applyEvents(Time now) {
  sessions_ = watcher_.sessions();
  if (sessions_.empty()) {
    // Nothing to bind events to and no process to keep an id for.
    stickyIds_.clear();
    watcher_.setSessionIds({});
    return;
  }
  struct Proc {
    std::int32_t ppid = 0;
    std::uint64_t start = 0;
  };
  std::map<std::int32_t, Proc> procs;
  for (const ProcessInfo& p : processes_) procs[p.pid] = Proc{p.ppid, p.startMicros};
  auto startOf = [&](std::int32_t pid) -> std::optional<std::uint64_t> {
    auto it = procs.find(pid);
    if (it == procs.end()) return std::nullopt;
    return it->second.start;
  };

  // An event binds to the process that sent it (pid and start time): the
  // session whose root is that process or one of its ancestors. An event
  // whose process is gone binds to nothing, so a new agent process never
  // inherits a dead session's state. Where several sessions' events name one
  // process, the newest wins: the others are sessions it has left (resumed
  // elsewhere without a SessionEnd).
  std::set<std::string> placed;
  std::vector<bool> keyed(sessions_.size(), false);
  auto bind = [&](std::size_t i, const std::string& session) {
    sessions_[i].id = session;
    keyed[i] = true;
    placed.insert(session);
  };
  std::vector<const AgentEvent*> newestFirst;
  for (const AgentEvent& e : events_) newestFirst.push_back(&e);
  std::stable_sort(newestFirst.begin(), newestFirst.end(),
                   [](const AgentEvent* a, const AgentEvent* b) { return a->at > b->at; });
  for (const AgentEvent* event : newestFirst) {
    const AgentEvent& e = *event;
    if (!e.pid || placed.count(e.session)) continue;
    auto live = procs.find(*e.pid);
    if (live == procs.end() || (e.pidStart && live->second.start != *e.pidStart)) continue;
    std::int32_t pid = *e.pid;
    for (int steps = 0; steps < 64 && pid > 1 && !placed.count(e.session); ++steps) {
      for (std::size_t i = 0; i < sessions_.size(); ++i) {
        const auto& pids = sessions_[i].pids;
        if (!keyed[i] && sessions_[i].kind.id == e.agent && std::find(pids.begin(), pids.end(), pid) != pids.end()) {
          bind(i, e.session);
          break;
        }
      }
      auto up = procs.find(pid);
      if (up == procs.end()) break;
      pid = up->second.ppid;
    }
  }
  // An event that names no process (the hook couldn't find it) goes to a
  // session of the same agent that no event claimed and whose process is
  // older than the event, newest event first.
  std::vector<const AgentEvent*> loose;
  for (const AgentEvent& e : events_) {
    if (!e.pid && !placed.count(e.session)) loose.push_back(&e);
  }
  std::sort(loose.begin(), loose.end(), [](const AgentEvent* a, const AgentEvent* b) { return a->at > b->at; });
  // The process a session was bound to last time keeps it.
  std::map<std::string, std::pair<std::int32_t, std::uint64_t>> boundBefore;
  for (const auto& [key, sticky] : stickyIds_) boundBefore[sticky.id] = key;
  auto fits = [&](std::size_t i, const AgentEvent& e) {
    const AgentSession& s = sessions_[i];
    if (keyed[i] || s.kind.id != e.agent || s.pids.empty()) return false;
    auto start = startOf(s.pids.front());
    return start && static_cast<double>(*start) / 1e6 <= e.at;
  };
  for (const AgentEvent* e : loose) {
    if (placed.count(e->session)) continue;
    auto before = boundBefore.find(e->session);
    for (std::size_t i = 0; i < sessions_.size() && before != boundBefore.end() && !placed.count(e->session); ++i) {
      if (fits(i, *e) && sessions_[i].pids.front() == before->second.first &&
          startOf(sessions_[i].pids.front()) == before->second.second) {
        bind(i, e->session);
      }
    }
  }
  for (const AgentEvent* e : loose) {
    for (std::size_t i = 0; i < sessions_.size() && !placed.count(e->session); ++i) {
      if (fits(i, *e)) bind(i, e->session);
    }
  }

  for (std::size_t i = 0; i < sessions_.size(); ++i) {
    AgentSession& s = sessions_[i];
    if (!keyed[i]) continue;
    auto folded = AgentEvents::state(s.id, events_, s.lastActive, now);
    if (!folded) continue;
    s.state = folded->state;
    s.stateSince = folded->since;
    bool reportedWorking = false;
    for (const AgentEvent& e : events_) {
      if (e.session != s.id) continue;
      if (e.state == AgentState::Waiting && e.detail) s.detail = *e.detail;
      reportedWorking = reportedWorking || e.state == AgentState::Working;
    }
    s.stateInferred = folded->state == AgentState::Working && !reportedWorking;
  }

  // Sessions whose events are gone (SessionEnd while the process lives on)
  // keep the id their process had, and the last state it reported other
  // than working, so the quiet minutes run on without a break.
  std::map<std::pair<std::int32_t, std::uint64_t>, Sticky> sticky;
  for (std::size_t i = 0; i < sessions_.size(); ++i) {
    AgentSession& s = sessions_[i];
    if (s.pids.empty()) continue;
    auto start = startOf(s.pids.front());
    if (!start) continue;
    const auto key = std::make_pair(s.pids.front(), *start);
    auto old = stickyIds_.find(key);
    if (!keyed[i] && old != stickyIds_.end() && !placed.count(old->second.id)) {
      s.id = old->second.id;
      s.state = old->second.state;
      s.stateSince = old->second.since;
    }
    Sticky& now = sticky[key];
    now.id = s.id;
    if (s.state && s.stateSince && *s.state != AgentState::Working) {
      now.state = s.state;
      now.since = s.stateSince;
    }
  }
  stickyIds_ = std::move(sticky);
  std::map<std::pair<std::int32_t, std::uint64_t>, std::string> ids;
  for (const auto& [key, known] : stickyIds_) ids.emplace(key, known.id);
  watcher_.setSessionIds(std::move(ids));
}

// Worked out again at each evaluation, so a settings change (an agent
// tracked only, say) counts at once.
std::optional<std::string> AgentWork::workReason(Engine& engine) {
  return detection_.workReason(engine.config(), engine.now());
}

std::optional<std::string> AgentWork::lastWorker(Engine&) { return detection_.lastWorker(); }

}  // namespace vigilo
