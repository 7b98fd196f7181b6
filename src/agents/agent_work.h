#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agents/agent_types.h"
#include "agents/watcher.h"
#include "engine/seams.h"
#include "agents/work_detection.h"
#include "platform/platform.h"

namespace vigilo {

// Agent detection for the engine: each tick it samples the process table
// for agents, watched apps and sleep requests, folds in the agents' hook
// events, and judges whether work is going on.
class AgentWork final : public WorkSource {
 public:
  // `home`: the person's home folder (transcripts live under it). `alerts`
  // may be null.
  AgentWork(Platform& platform, std::string appFolder, std::string home, AgentAlerts* alerts);

  void sample(Engine& engine) override;
  std::optional<std::string> workReason(Engine& engine) override;
  std::optional<std::string> lastWorker(Engine& engine) override;

  // The agent-event notification arrived: re-read the events at the next
  // sample (and evaluate at once, which the caller does).
  void eventsChanged() { eventsDirty_ = true; }

  // The live sessions, keyed by the agents' own session ids where their
  // hooks name them.
  const std::vector<AgentSession>& sessions() const { return sessions_; }
  const WorkDetection& detection() const { return detection_; }
  const AgentWatcher& watcher() const { return watcher_; }
  // The process table of the last sample, for the energy sample of the same
  // tick: with every process's counters on energy ticks (isEnergyTick); on
  // other ticks the counters may be missing or from an earlier tick.
  const std::vector<ProcessInfo>& processes() const { return processes_; }

 private:
  // Binds the events to the sessions and folds in their states; the steps
  // share a Binding.
  void applyEvents(Time now);
  struct Binding;
  void bindToProcesses(Binding& b);
  void bindLoose(Binding& b);
  void foldStates(const Binding& b, Time now);
  void keepIds(const Binding& b);

  Platform& platform_;
  std::string appFolder_;
  AgentAlerts* alerts_;
  AgentWatcher watcher_;
  WorkDetection detection_;
  std::vector<AgentEvent> events_;
  bool eventsDirty_ = true;
  std::int64_t samples_ = 0;
  std::vector<ProcessInfo> processes_;
  bool listed_ = false;
  std::vector<AgentSession> sessions_;
  // The agent's own session id stays with its process (pid and start) while
  // it lives, also after the session's events are gone, with the last state
  // it reported other than working.
  struct Sticky {
    std::string id;
    std::optional<AgentState> state;
    std::optional<Time> since;
  };
  std::map<std::pair<std::int32_t, std::uint64_t>, Sticky> stickyIds_;
};

}  // namespace vigilo
