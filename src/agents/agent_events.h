#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agents/agent_types.h"
#include "platform/notifications.h"
#include "platform/processes.h"

namespace vigilo {

// Posted after every write or removal of an event file, so that the running
// app re-reads the folder at once.
inline constexpr const char* kAgentEventNotification = "com.tarnwell.Vigilo.agentEvent";
// The folder of event files inside the app folder, one "<session>.json" each.
inline constexpr const char* kAgentEventsFolder = "agent-events";

// The state a session's events fold into, and since when.
struct FoldedAgentState {
  AgentState state = AgentState::Idle;
  Time since = 0;
  bool operator==(const FoldedAgentState&) const = default;
};

// The agents' lifecycle hooks, as files in the app folder. `record` runs in
// the short-lived `vigilo event <agent>` process; `load` and `state` run in
// the app on its main thread.
class AgentEvents {
 public:
  AgentEvents() = delete;

  static constexpr const char* changed = kAgentEventNotification;
  // Longest hook input read; anything longer is not a hook's.
  static constexpr std::size_t kMaxInput = 1024 * 1024;
  // Longest agent name stored.
  static constexpr std::size_t kMaxAgentName = 32;
  // Events older than this are deleted by `load`.
  static constexpr double kExpirySeconds = 172'800;

  // Turns one hook input (`input`, the bytes of standard input) of `agent`
  // into the session's event file and posts `changed`; SessionEnd removes
  // the file instead. `procs` (may be null: no walk) is searched upwards
  // from `parentPid` for the agent's own process. `notifications` is where
  // the post goes; null posts over the app folder's sockets. Never throws,
  // never waits for the app: every failure ends silently with nothing
  // written, since the hook must not disturb the agent.
  static void record(const std::string& appFolder, std::string_view agent, std::string_view input, Time now,
                     Processes* procs, std::int32_t parentPid, Notifications* notifications = nullptr) noexcept;

  // Every stored event. Files that can't be decoded, and events more than
  // two days before `now`, are deleted. Ordered by session id.
  static std::vector<AgentEvent> load(const std::string& appFolder, Time now);

  // The state of session `sessionId` from `events`, given when the watcher
  // last saw its processes busy: a wait the user has evidently answered
  // (activity more than 5 s after it) counts as working; a prompt with no
  // activity for 30 minutes counts for nothing; then the highest-ranked
  // event wins, the later one between equals. Nothing when no event counts.
  static std::optional<FoldedAgentState> state(std::string_view sessionId, const std::vector<AgentEvent>& events,
                                               std::optional<Time> lastActive, Time now);

  // A session id as a file name: ASCII letters, digits, "-" and "_" only,
  // at most 64 characters. May come back empty.
  static std::string sanitiseSessionId(std::string_view raw);

  // The event's JSON text with exactly the keys agent, session, state, at,
  // pid, pidStart, detail in that order (absent optional keys left out), and
  // back; nothing when `text` isn't such an event.
  static std::string encode(const AgentEvent& event);
  static std::optional<AgentEvent> decode(std::string_view text);

  // Standard input of a hook, read to its end: nothing when it is a
  // terminal, holds more than kMaxInput bytes, or doesn't end within
  // `limitSeconds` (the rest is read and dropped meanwhile, so the writer
  // never meets a broken pipe).
  static std::optional<std::string> readHookInput(int fd, double limitSeconds = 3.0);
};

}  // namespace vigilo
