#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"

namespace vigilo {

// What an agent session reports through its hooks.
enum class AgentState { Idle = 0, Working = 1, Waiting = 2, Finished = 3 };

std::string_view toText(AgentState s);                       // "idle", "working", "waiting", "finished"
std::optional<AgentState> parseAgentState(std::string_view s);
// When several events are folded: working 3 > waiting 2 > finished 1 > idle 0.
int rank(AgentState s);

// The latest event of one agent session, as stored in "agent-events".
struct AgentEvent {
  std::string agent;       // the name given on the command line ("claude-code"), at most 32 characters
  std::string session;     // sanitised session id
  AgentState state = AgentState::Idle;
  Time at = 0;
  std::optional<std::int32_t> pid;        // the agent process that sent the hook
  std::optional<std::uint64_t> pidStart;  // its start time, microseconds since 1970
  std::optional<std::string> detail;      // for waiting: the message, or the notification type
  bool operator==(const AgentEvent&) const = default;
};

// One kind of agent or watched app, as the process watcher recognises it.
struct AgentKind {
  std::string id;                       // stable; also the prefix of session ids
  std::string name;                     // shown to the person
  std::set<std::string> executables;    // executable names (last path component)
  std::vector<std::string> scriptHints; // found in an interpreter's first three arguments
  std::vector<std::string> transcriptDirs;  // under the home folder
  double idleWatts = 0.02;              // below this the process tree is idle
  bool operator==(const AgentKind&) const = default;
};

// One live agent or app.
struct AgentSession {
  std::string id;            // kind id, an agent's own session id, or "request:<process name>"
  AgentKind kind;
  std::optional<std::string> project;  // last component of the working folder
  std::optional<Time> lastActive;      // last time above idleWatts or with newer transcripts
  double watts = 0;          // the process tree's current power
  std::string detail;        // from the agent's event
  bool toolRunning = false;  // a child tool (a command the agent started) runs
  int instances = 0;         // processes merged into the session
  std::optional<AgentState> state;     // from the agent's hook events
  std::optional<Time> stateSince;
  // The state was worked out from activity (a question the person has
  // evidently answered reads "working"), not reported by the agent.
  bool stateInferred = false;
  std::vector<std::int32_t> pids;      // the session's root processes
  // The first root's start time (microseconds since 1970): with its pid it
  // names the agent's process for as long as it lives, whatever id the
  // session is shown under.
  std::optional<std::uint64_t> rootStart;
  std::optional<Time> toolSince;       // when the running child tool started
};

// An app holding a power assertion against sleep.
struct SleepBlocker {
  std::int32_t pid = 0;
  std::string name;
  std::optional<Time> since;
  bool sinceUnknown = false;
};

}  // namespace vigilo
