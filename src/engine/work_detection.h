#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agents/agent_types.h"
#include "engine/config.h"
#include "engine/seams.h"

namespace vigilo {

// Judges, from the live agent sessions, whether work is going on, when it
// stopped, and what to tell the person. It keeps, per session id, when the
// work began (`workingSince`), when it went quiet (`idlePending`: the last
// work and the moment it was noticed) and the agent's name for after it is
// gone (`finishedNames`).
class WorkDetection {
 public:
  // A session counts as working while its last activity is this recent.
  static constexpr double kActiveWindow = 20.0;
  // A stopped session's alert is settled this long after it went quiet.
  static constexpr double kSettleAfter = 120.0;

  // One pass over the sessions at `now`. `alerts` may be null (preview, or
  // no alerts wanted).
  void update(const std::vector<AgentSession>& sessions, const Config& config, Time now, AgentAlerts* alerts);

  // The line that keeps the machine awake in mode "auto", or nothing.
  std::optional<std::string> workReason() const { return reason_; }
  // The name of the last agent that worked, for "<name> finished".
  std::optional<std::string> lastWorker() const { return lastWorker_; }

  // How a session reads on its own (also for the panel and status).
  static std::string describe(const AgentSession& s, Time now);
  // Whether a session is busy now.
  static bool busy(const AgentSession& s, Time now);

  struct Pending {
    Time since = 0;    // last work
    Time quietAt = 0;  // when the stop was noticed
  };
  const std::map<std::string, Time>& workingSince() const { return workingSince_; }
  const std::map<std::string, Pending>& idlePending() const { return idlePending_; }

 private:
  std::map<std::string, Time> workingSince_;
  std::map<std::string, Time> lastWork_;
  std::map<std::string, Pending> idlePending_;
  // When each live session that had worked went quiet: the countdown to
  // sleep runs from here, also after its alert has been settled.
  std::map<std::string, Time> quietFrom_;
  std::map<std::string, std::string> finishedNames_;
  std::map<std::string, AgentState> lastState_;
  std::optional<std::string> reason_;
  std::optional<std::string> lastWorker_;
};

// "4 min", "1h 5m": minutes as the panel writes them.
std::string formatWait(long long minutes);

}  // namespace vigilo
