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

// What binding events to sessions shares: the process table by pid, which
// sessions an event claimed and which session ids are placed.
struct AgentWork::Binding {
  struct Proc {
    std::int32_t ppid = 0;
    std::uint64_t start = 0;
  };
  std::map<std::int32_t, Proc> procs;
  std::set<std::string> placed;
  std::vector<bool> keyed;  // per session

  std::optional<std::uint64_t> startOf(std::int32_t pid) const {
    auto it = procs.find(pid);
    if (it == procs.end()) return std::nullopt;
    return it->second.start;
  }
  void bind(std::vector<AgentSession>& sessions, std::size_t i, const std::string& session) {
    sessions[i].id = session;
    keyed[i] = true;
    placed.insert(session);
  }
};

void AgentWork::applyEvents(Time now) {
  sessions_ = watcher_.sessions();
  if (sessions_.empty()) {
    // Nothing to bind events to and no process to keep an id for.
    stickyIds_.clear();
    watcher_.setSessionIds({});
    return;
  }
  Binding b;
  for (const ProcessInfo& p : processes_) b.procs[p.pid] = Binding::Proc{p.ppid, p.startMicros};
  b.keyed.assign(sessions_.size(), false);
  bindToProcesses(b);
  bindLoose(b);
  foldStates(b, now);
  keepIds(b);
}

void AgentWork::bindToProcesses(Binding& b) {
  // An event binds to the process that sent it (pid and start time): the
  // session whose root is that process or one of its ancestors. An event
  // whose process is gone binds to nothing, so a new agent process never
  // inherits a dead session's state. Where several sessions' events name one
  // process, the newest wins: the others are sessions it has left (resumed
  // elsewhere without a SessionEnd).
  std::vector<const AgentEvent*> newestFirst;
  for (const AgentEvent& e : events_) newestFirst.push_back(&e);
  std::stable_sort(newestFirst.begin(), newestFirst.end(),
                   [](const AgentEvent* x, const AgentEvent* y) { return x->at > y->at; });
  for (const AgentEvent* event : newestFirst) {
    const AgentEvent& e = *event;
    if (!e.pid || b.placed.count(e.session)) continue;
    auto live = b.procs.find(*e.pid);
    if (live == b.procs.end() || (e.pidStart && live->second.start != *e.pidStart)) continue;
    std::int32_t pid = *e.pid;
    for (int steps = 0; steps < 64 && pid > 1 && !b.placed.count(e.session); ++steps) {
      for (std::size_t i = 0; i < sessions_.size(); ++i) {
        const auto& pids = sessions_[i].pids;
        if (!b.keyed[i] && sessions_[i].kind.id == e.agent && std::find(pids.begin(), pids.end(), pid) != pids.end()) {
          b.bind(sessions_, i, e.session);
          break;
        }
      }
      auto up = b.procs.find(pid);
      if (up == b.procs.end()) break;
      pid = up->second.ppid;
    }
  }
}

void AgentWork::bindLoose(Binding& b) {
  // An event that names no process (the hook couldn't find it) goes to a
  // session of the same agent that no event claimed and whose process is
  // older than the event, newest event first.
  std::vector<const AgentEvent*> loose;
  for (const AgentEvent& e : events_) {
    if (!e.pid && !b.placed.count(e.session)) loose.push_back(&e);
  }
  std::sort(loose.begin(), loose.end(), [](const AgentEvent* x, const AgentEvent* y) { return x->at > y->at; });
  // The process a session was bound to last time keeps it.
  std::map<std::string, std::pair<std::int32_t, std::uint64_t>> boundBefore;
  for (const auto& [key, sticky] : stickyIds_) boundBefore[sticky.id] = key;
  auto fits = [&](std::size_t i, const AgentEvent& e) {
    const AgentSession& s = sessions_[i];
    if (b.keyed[i] || s.kind.id != e.agent || s.pids.empty()) return false;
    auto start = b.startOf(s.pids.front());
    return start && static_cast<double>(*start) / 1e6 <= e.at;
  };
  for (const AgentEvent* e : loose) {
    if (b.placed.count(e->session)) continue;
    auto before = boundBefore.find(e->session);
    for (std::size_t i = 0; i < sessions_.size() && before != boundBefore.end() && !b.placed.count(e->session); ++i) {
      if (fits(i, *e) && sessions_[i].pids.front() == before->second.first &&
          b.startOf(sessions_[i].pids.front()) == before->second.second) {
        b.bind(sessions_, i, e->session);
      }
    }
  }
  for (const AgentEvent* e : loose) {
    for (std::size_t i = 0; i < sessions_.size() && !b.placed.count(e->session); ++i) {
      if (fits(i, *e)) b.bind(sessions_, i, e->session);
    }
  }
}

void AgentWork::foldStates(const Binding& b, Time now) {
  for (std::size_t i = 0; i < sessions_.size(); ++i) {
    AgentSession& s = sessions_[i];
    if (!b.keyed[i]) continue;
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
}

void AgentWork::keepIds(const Binding& b) {
  // Sessions whose events are gone (SessionEnd while the process lives on)
  // keep the id their process had, and the last state it reported other
  // than working, so the quiet minutes run on without a break.
  std::map<std::pair<std::int32_t, std::uint64_t>, Sticky> sticky;
  for (std::size_t i = 0; i < sessions_.size(); ++i) {
    AgentSession& s = sessions_[i];
    if (s.pids.empty()) continue;
    auto start = b.startOf(s.pids.front());
    if (!start) continue;
    const auto key = std::make_pair(s.pids.front(), *start);
    auto old = stickyIds_.find(key);
    if (!b.keyed[i] && old != stickyIds_.end() && !b.placed.count(old->second.id)) {
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
