#include "agents/agent_work.h"

#include <algorithm>
#include <map>

#include "agents/agent_events.h"
#include "agents/catalogue.h"
#include "engine/engine.h"

namespace vigilo {
namespace {

// The events are re-read on their notification, and every tenth sample in
// case one was missed (the app was busy starting, say).
constexpr std::int64_t kEventRereadEvery = 10;

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
  // the identities, and the watcher reads the counters of its trees.
  processes_ = platform_.processes().listing(isEnergyTick(engine.ticks()) ? ProcessDetail::Counters
                                                                          : ProcessDetail::Identity);
  watcher_.sample(processes_, config.watchedApps, config.countRequests, extra, now);
  if (eventsDirty_ || samples_++ % kEventRereadEvery == 0) {
    events_ = AgentEvents::load(appFolder_, now);
    eventsDirty_ = false;
  }
  applyEvents(now);
  detection_.update(sessions_, config, now, engine.preview() ? nullptr : alerts_);
}

void AgentWork::applyEvents(Time now) {
  sessions_ = watcher_.sessions();
  std::map<std::int32_t, std::uint64_t> starts;
  for (const ProcessInfo& p : processes_) starts[p.pid] = p.startMicros;

  // Events name their agent's process: the session with that root takes the
  // agent's own session id.
  std::set<std::string> placed;
  std::vector<bool> keyed(sessions_.size(), false);
  for (const AgentEvent& e : events_) {
    if (!e.pid || placed.count(e.session)) continue;
    auto live = starts.find(*e.pid);
    if (live == starts.end() || (e.pidStart && live->second != *e.pidStart)) continue;
    for (std::size_t i = 0; i < sessions_.size(); ++i) {
      const auto& pids = sessions_[i].pids;
      if (!keyed[i] && std::find(pids.begin(), pids.end(), *e.pid) != pids.end()) {
        sessions_[i].id = e.session;
        keyed[i] = true;
        placed.insert(e.session);
        break;
      }
    }
  }
  // Events whose process is unknown or gone go to a running session of the
  // same agent that no event claimed, newest event first.
  std::vector<const AgentEvent*> loose;
  for (const AgentEvent& e : events_) {
    if (!placed.count(e.session)) loose.push_back(&e);
  }
  std::sort(loose.begin(), loose.end(), [](const AgentEvent* a, const AgentEvent* b) { return a->at > b->at; });
  for (const AgentEvent* e : loose) {
    if (placed.count(e->session)) continue;
    for (std::size_t i = 0; i < sessions_.size(); ++i) {
      if (!keyed[i] && sessions_[i].kind.id == e->agent) {
        sessions_[i].id = e->session;
        keyed[i] = true;
        placed.insert(e->session);
        break;
      }
    }
  }

  // Sessions whose events are gone keep the id their process had.
  std::map<std::pair<std::int32_t, std::uint64_t>, std::string> sticky;
  for (std::size_t i = 0; i < sessions_.size(); ++i) {
    AgentSession& s = sessions_[i];
    if (s.pids.empty()) continue;
    auto live = starts.find(s.pids.front());
    if (live == starts.end()) continue;
    const auto key = std::make_pair(live->first, live->second);
    if (!keyed[i]) {
      auto old = stickyIds_.find(key);
      if (old != stickyIds_.end() && !placed.count(old->second)) s.id = old->second;
    }
    sticky[key] = s.id;
  }
  stickyIds_ = std::move(sticky);

  for (std::size_t i = 0; i < sessions_.size(); ++i) {
    AgentSession& s = sessions_[i];
    if (!keyed[i]) continue;
    auto folded = AgentEvents::state(s.id, events_, s.lastActive, now);
    if (!folded) continue;
    s.state = folded->state;
    s.stateSince = folded->since;
    for (const AgentEvent& e : events_) {
      if (e.session == s.id && e.state == AgentState::Waiting && e.detail) s.detail = *e.detail;
    }
  }
}

std::optional<std::string> AgentWork::workReason(Engine&) { return detection_.workReason(); }

std::optional<std::string> AgentWork::lastWorker(Engine&) { return detection_.lastWorker(); }

}  // namespace vigilo
