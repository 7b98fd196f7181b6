#include "engine/work_detection.h"

#include <algorithm>
#include <cmath>

#include "engine/engine.h"

namespace vigilo {
namespace {

bool isRequest(const AgentSession& s) { return s.id.rfind("request:", 0) == 0; }
bool isWatchedApp(const AgentSession& s) { return s.kind.id.rfind("app:", 0) == 0; }

bool trackedOnly(const AgentSession& s, const Config& c) {
  return std::find_if(c.trackOnly.begin(), c.trackOnly.end(), [&](const std::string& t) {
           return t == s.kind.name || t == s.kind.id;
         }) != c.trackOnly.end();
}

// The last moment the session showed work: activity of its processes or
// transcripts, or a "working" event.
std::optional<Time> lastWorkOf(const AgentSession& s) {
  std::optional<Time> t = s.lastActive;
  if (s.state == AgentState::Working && s.stateSince) t = t ? std::max(*t, *s.stateSince) : *s.stateSince;
  return t;
}

std::string stoppedText(const AgentSession& s) {
  if (s.state == AgentState::Finished) return "finished";
  if (s.state == AgentState::Waiting) return "is still waiting";
  return "went idle";
}

}  // namespace

std::string formatWait(long long minutes) {
  if (minutes < 60) return std::to_string(std::max(minutes, 0LL)) + " min";
  return formatMinutes(minutes);
}

bool WorkDetection::busy(const AgentSession& s, Time now) {
  // An agent with hooks says what it does; its processes' activity only
  // counts where there are no hooks to ask.
  if (s.state) return *s.state == AgentState::Working;
  return s.lastActive && now - *s.lastActive < kActiveWindow;
}

std::string WorkDetection::describe(const AgentSession& s, Time now) {
  const std::string& name = s.kind.name.empty() ? s.id : s.kind.name;
  if (isRequest(s)) return s.id.substr(8) + " asked to stay awake";
  if (isWatchedApp(s)) return busy(s, now) ? name + " is busy" : name + " is open";
  if (s.state == AgentState::Waiting) return name + " is waiting for you";
  if (busy(s, now)) return name + " is working" + (s.project ? " in " + *s.project : std::string());
  if (s.state == AgentState::Finished) return name + " finished";
  return name + " is idle";
}

void WorkDetection::update(const std::vector<AgentSession>& sessions, const Config& config, Time now,
                           AgentAlerts* alerts) {
  std::set<std::string> live;
  const AgentSession* waiting = nullptr;
  const AgentSession* command = nullptr;
  const AgentSession* working = nullptr;
  const AgentSession* stopped = nullptr;
  const AgentSession* watchedOpen = nullptr;
  const AgentSession* request = nullptr;
  const AgentSession* other = nullptr;
  Time stoppedAt = 0;

  for (const AgentSession& s : sessions) {
    if (trackedOnly(s, config)) continue;
    if (isRequest(s)) {
      if (!request) request = &s;
      continue;
    }
    if (isWatchedApp(s)) {
      if (busy(s, now) && !working) working = &s;
      if (!watchedOpen) watchedOpen = &s;
      continue;
    }
    live.insert(s.id);
    finishedNames_[s.id] = s.kind.name.empty() ? "Agent" : s.kind.name;
    const bool isBusy = busy(s, now);
    if (auto t = lastWorkOf(s)) lastWork_[s.id] = std::max(lastWork_[s.id], *t);
    if (isBusy) {
      if (!workingSince_.count(s.id)) workingSince_[s.id] = lastWork_.count(s.id) ? lastWork_[s.id] : now;
      idlePending_.erase(s.id);
      quietFrom_.erase(s.id);
    } else if (workingSince_.count(s.id) && !idlePending_.count(s.id)) {
      idlePending_[s.id] = {lastWork_[s.id], now};
      quietFrom_[s.id] = lastWork_[s.id];
    }

    // Each new wait is announced once.
    if (s.state == AgentState::Waiting && lastState_[s.id] != AgentState::Waiting && alerts) {
      alerts->needsYou(finishedNames_[s.id]);
    }
    lastState_[s.id] = s.state.value_or(AgentState::Idle);

    if (s.state == AgentState::Waiting && s.stateSince && now - *s.stateSince < kActiveWindow) {
      if (!waiting) waiting = &s;
    } else if (isBusy && s.toolRunning && s.toolSince && now - *s.toolSince < kActiveWindow) {
      if (!command) command = &s;
    } else if (isBusy) {
      if (!working) working = &s;
    } else if (quietFrom_.count(s.id)) {
      if (!stopped || quietFrom_[s.id] > stoppedAt) {
        stopped = &s;
        stoppedAt = quietFrom_[s.id];
      }
    } else if (!other) {
      other = &s;
    }
  }

  // Sessions whose processes are gone stop at once.
  for (auto& [id, since] : workingSince_) {
    if (!live.count(id) && !idlePending_.count(id)) idlePending_[id] = {lastWork_[id], now};
  }

  // Settle quiet sessions: the alert for work of at least a minute.
  for (auto it = idlePending_.begin(); it != idlePending_.end();) {
    const std::string id = it->first;
    const Pending p = it->second;
    if (now - p.quietAt < kSettleAfter) {
      ++it;
      continue;
    }
    const Time began = workingSince_.count(id) ? workingSince_[id] : p.since;
    const double worked = p.since - began;
    const std::string name = finishedNames_.count(id) ? finishedNames_[id] : "Agent";
    lastWorker_ = name;
    if (alerts && worked >= 60) {
      auto state = lastState_.count(id) ? lastState_[id] : AgentState::Idle;
      AgentSession probe;
      probe.state = state;
      alerts->finished(name, static_cast<int>(worked / 60), !live.count(id), stoppedText(probe));
    }
    workingSince_.erase(id);
    it = idlePending_.erase(it);
  }
  std::erase_if(quietFrom_, [&](const auto& e) { return !live.count(e.first); });
  for (auto it = lastWork_.begin(); it != lastWork_.end();) {
    if (!live.count(it->first) && !workingSince_.count(it->first)) {
      it = lastWork_.erase(it);
    } else {
      ++it;
    }
  }

  const double quiet = config.quietMinutes * 60.0;
  reason_.reset();
  if (stopped) lastWorker_ = stopped->kind.name;
  if (waiting) {
    reason_ = waiting->kind.name + " is waiting for you";
  } else if (command) {
    reason_ = command->kind.name + " is running a command";
  } else if (working) {
    reason_ = describe(*working, now);
  } else if (stopped && config.sleepWhenDone && quiet - (now - stoppedAt) > 0) {
    // Shown as at least a minute, so the line never reads "0 min".
    const double left = std::max(quiet - (now - stoppedAt), 60.0);
    reason_ = stopped->kind.name + " stopped · sleeps in " + formatWait(static_cast<long long>(std::ceil(left / 60.0)));
  } else if (watchedOpen) {
    reason_ = watchedOpen->kind.name + " is open";
  } else if (request) {
    reason_ = describe(*request, now);
  } else if (!config.sleepWhenDone && (stopped || other)) {
    reason_ = describe(stopped ? *stopped : *other, now);
  }
}

}  // namespace vigilo
