#include "agents/work_detection.h"

#include <algorithm>
#include <cmath>

#include "agents/agent_events.h"
#include "engine/engine.h"

namespace vigilo {
namespace {

bool isRequest(const AgentSession& s) { return s.id.rfind("request:", 0) == 0; }
bool isWatchedApp(const AgentSession& s) { return s.kind.id.rfind("app:", 0) == 0; }

std::string nameOf(const AgentSession& s) { return s.kind.name.empty() ? "Agent" : s.kind.name; }

// The agent's process, which outlives the ids the session is shown under.
std::string keyOf(const AgentSession& s) {
  if (s.pids.empty() || !s.rootStart) return s.id;
  return std::to_string(s.pids.front()) + ":" + std::to_string(*s.rootStart);
}

bool reported(const AgentSession& s) {
  return s.state && s.stateSince && *s.state != AgentState::Working && !s.stateInferred;
}

// A "working" the agent reported is trusted until it goes stale; one worked
// out from activity lasts only as long as the activity.
bool hookWorking(const AgentSession& s, Time now) {
  if (s.state != AgentState::Working || !s.stateSince || s.stateInferred) return false;
  return now - std::max(s.lastActive.value_or(*s.stateSince), *s.stateSince) <= WorkDetection::kStaleWorking;
}

// Where a stretch of work begins when the session is first found busy.
Time startOfWork(const AgentSession& s, Time now) {
  Time t = now;
  if (hookWorking(s, now)) t = std::min(t, *s.stateSince);
  if (s.lastActive && now - *s.lastActive < WorkDetection::kActiveWindow) t = std::min(t, *s.lastActive);
  return t;
}

// The moment the agent stopped: its last activity, or the later state it
// reported (a Stop, a question; a "working" state that went stale counts
// from its last sign of life). `lastWork` stands in when neither is known.
Time stoppedAt(const AgentSession& s, Time lastWork) {
  std::optional<Time> t = s.lastActive;
  if (s.state && s.stateSince && !s.stateInferred) {
    t = std::max(t.value_or(*s.stateSince), *s.stateSince);
  }
  return t.value_or(lastWork);
}

std::string stateText(AgentState s) {
  if (s == AgentState::Finished) return "finished";
  if (s == AgentState::Waiting) return "is still waiting";
  return "went idle";
}

}  // namespace

bool WorkDetection::trackedOnly(const AgentSession& s, const Config& c) {
  return std::find_if(c.trackOnly.begin(), c.trackOnly.end(), [&](const std::string& t) {
           return t == s.kind.name || t == s.kind.id;
         }) != c.trackOnly.end();
}

std::string formatWait(long long minutes) {
  if (minutes < 60) return std::to_string(std::max(minutes, 0LL)) + " min";
  return formatMinutes(minutes);
}

bool WorkDetection::busy(const AgentSession& s, Time now) {
  if (hookWorking(s, now)) return true;
  if (!s.lastActive || now - *s.lastActive >= kActiveWindow) return false;
  return !reported(s) || *s.lastActive > *s.stateSince + kAfterReport;
}

std::string WorkDetection::describe(const AgentSession& s, Time now) {
  const std::string& name = s.kind.name.empty() ? s.id : s.kind.name;
  if (isRequest(s)) return s.id.substr(8) + " asked to stay awake";
  if (isWatchedApp(s)) return busy(s, now) ? name + " is busy" : name + " is open";
  if (busy(s, now)) return name + " is working" + (s.project ? " in " + *s.project : std::string());
  if (s.state == AgentState::Waiting) return name + " is waiting for you";
  if (s.state == AgentState::Finished) return name + " finished";
  return name + " is idle";
}

std::optional<Time> WorkDetection::workingSince(const AgentSession& s) const {
  auto it = tracks_.find(keyOf(s));
  if (it == tracks_.end()) return std::nullopt;
  if (it->second.workingSince) return it->second.workingSince;
  if (it->second.idlePending) return it->second.idlePending->since;
  return std::nullopt;
}

void WorkDetection::settle(Track& t, AgentAlerts* alerts) {
  const Pending p = *t.idlePending;
  t.idlePending.reset();
  const double worked = p.quietAt - p.since;
  if (alerts && worked >= 60) {
    alerts->finished(t.name, static_cast<int>(worked / 60), !t.live, stateText(t.state));
  }
}

void WorkDetection::update(const std::vector<AgentSession>& sessions, const Config& config, Time now,
                           AgentAlerts* alerts) {
  sessions_ = sessions;
  for (auto& [key, t] : tracks_) t.live = false;

  for (const AgentSession& s : sessions_) {
    if (isRequest(s) || isWatchedApp(s)) continue;
    Track& t = tracks_[keyOf(s)];
    t.live = true;
    t.name = nameOf(s);
    t.state = s.state.value_or(AgentState::Idle);
    t.busy = busy(s, now);
    if (t.busy) {
      if (t.idlePending) {
        // Work again before the stop was settled: the same stretch goes on.
        t.workingSince = t.idlePending->since;
        t.idlePending.reset();
      }
      if (!t.workingSince) t.workingSince = startOfWork(s, now);
      t.lastWork = now;
      t.quietFrom.reset();
    } else if (t.workingSince) {
      const Time quiet = std::clamp(stoppedAt(s, t.lastWork), *t.workingSince, now);
      t.idlePending = Pending{*t.workingSince, quiet};
      t.quietFrom = quiet;
      t.workingSince.reset();
    } else if (!t.quietFrom && reported(s) && *s.state != AgentState::Idle) {
      // Stopped before this app saw it work (it started after a Stop, or
      // again after a crash): the quiet minutes still run from the Stop.
      t.quietFrom = std::min(*s.stateSince, now);
    }

    // Each distinct question is announced once, while it still matters.
    const double quiet = std::max(config.quietMinutes * 60.0, 60.0);
    if (s.state == AgentState::Waiting && s.stateSince && now - *s.stateSince < quiet) {
      const std::string wait = s.id + "@" + std::to_string(static_cast<long long>(std::floor(*s.stateSince)));
      if (announcedWaits_.emplace(wait, *s.stateSince).second && alerts) alerts->needsYou(t.name);
    }
  }
  std::erase_if(announcedWaits_, [&](const auto& w) { return now - w.second > AgentEvents::kExpirySeconds; });

  // A session whose process is gone stops at its last busy moment.
  for (auto& [key, t] : tracks_) {
    if (t.live || !t.workingSince) continue;
    t.idlePending = Pending{*t.workingSince, std::max(t.lastWork, *t.workingSince)};
    t.workingSince.reset();
    t.busy = false;
  }

  const Choice choice = choose(config, now);
  reason_ = choice.reason;
  lastUpdate_ = now;
  if (choice.reason) {
    reasonAt_ = now;
    keeperKey_ = choice.keeper;
    auto it = std::find_if(sessions_.begin(), sessions_.end(),
                           [&](const AgentSession& s) { return keyOf(s) == choice.keeper; });
    if (it != sessions_.end()) keeperName_ = nameOf(*it);
  }

  for (auto it = tracks_.begin(); it != tracks_.end();) {
    Track& t = it->second;
    // Settled early when the machine may sleep now, so the alert goes out
    // first; an agent waiting for the person has already been announced.
    const bool maySleep = !reason_ && (!t.live || t.state != AgentState::Waiting);
    if (t.idlePending && (now - t.idlePending->quietAt >= kSettleAfter || maySleep)) settle(t, alerts);
    if (!t.live && !t.idlePending) {
      it = tracks_.erase(it);
    } else {
      ++it;
    }
  }
}

WorkDetection::Choice WorkDetection::choose(const Config& config, Time now) const {
  const AgentSession* waiting = nullptr;
  const AgentSession* command = nullptr;
  const AgentSession* working = nullptr;
  const AgentSession* stopped = nullptr;
  const AgentSession* watchedOpen = nullptr;
  const AgentSession* request = nullptr;
  const AgentSession* other = nullptr;
  Time stoppedFrom = 0;

  for (const AgentSession& s : sessions_) {
    if (trackedOnly(s, config)) continue;
    if (isRequest(s)) {
      if (!request) request = &s;
      continue;
    }
    const bool isBusy = busy(s, now);
    if (isWatchedApp(s)) {
      if (isBusy && !working) working = &s;
      if (!watchedOpen) watchedOpen = &s;
      continue;
    }
    auto track = tracks_.find(keyOf(s));
    const bool freshWait = s.state == AgentState::Waiting && s.stateSince && now - *s.stateSince < kActiveWindow;
    if (freshWait && !isBusy) {
      if (!waiting) waiting = &s;
    } else if (isBusy && s.toolRunning && s.toolSince && now - *s.toolSince < kActiveWindow) {
      if (!command) command = &s;
    } else if (isBusy) {
      if (!working) working = &s;
    } else if (track != tracks_.end() && track->second.quietFrom) {
      if (!stopped || *track->second.quietFrom > stoppedFrom) {
        stopped = &s;
        stoppedFrom = *track->second.quietFrom;
      }
    } else if (!other) {
      other = &s;
    }
  }

  const double quiet = config.quietMinutes * 60.0;
  const double left = quiet - (now - stoppedFrom);
  auto pick = [](const AgentSession* s, std::string reason) { return Choice{std::move(reason), keyOf(*s)}; };
  if (waiting) return pick(waiting, nameOf(*waiting) + " is waiting for you");
  if (command) return pick(command, nameOf(*command) + " is running a command");
  if (working) return pick(working, describe(*working, now));
  if (stopped && config.sleepWhenDone && left > 0) {
    // Shown as at least a minute, so the line never reads "0 min".
    const auto minutes = static_cast<long long>(std::ceil(std::max(left, 60.0) / 60.0));
    return pick(stopped, nameOf(*stopped) + " stopped · sleeps in " + formatWait(minutes));
  }
  if (watchedOpen) return pick(watchedOpen, nameOf(*watchedOpen) + " is open");
  if (request) return pick(request, describe(*request, now));
  if (!config.sleepWhenDone && (stopped || other)) return pick(stopped ? stopped : other, describe(stopped ? *stopped : *other, now));
  return {};
}

std::optional<std::string> WorkDetection::workReason(const Config& config, Time now) const {
  return choose(config, now).reason;
}

std::optional<std::string> WorkDetection::lastWorker() const {
  // Work that ended long before (a hold released hours later) is not why
  // the machine may sleep now.
  if (keeperName_.empty() || !reasonAt_ || lastUpdate_ - *reasonAt_ > kActiveWindow) return std::nullopt;
  // Still busy, only no longer keeping the machine awake (tracked only):
  // its work has not finished.
  auto it = tracks_.find(keeperKey_);
  if (it != tracks_.end() && it->second.live && it->second.busy) return std::nullopt;
  return keeperName_;
}

}  // namespace vigilo
