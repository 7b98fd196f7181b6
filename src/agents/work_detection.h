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
// stopped, and what to tell the person.
//
// Busy. A session is busy while its hooks say it works (a "working" state,
// until it has shown no sign of life for kStaleWorking), or while its
// processes were active less than kActiveWindow ago; activity within
// kAfterReport of a state the agent reported itself (finished, waiting,
// idle) is the agent finishing its output and does not count. A question
// the person has answered reads "working" only while the activity lasts. So
// process activity and hook states both count, each with its own expiry,
// and a wait never turns into endless work.
//
// Stretches. The first busy moment starts a stretch of work (workingSince).
// When the session stops being busy the stretch ends at the moment the agent
// stopped: the later of its last activity and the time of the state it
// reported (the Stop, the question); without a reported state, its last
// activity. The quiet minutes run from there. The stopped stretch is
// pending for kSettleAfter: work again within it continues the same
// stretch; after it, or as soon as nothing keeps the machine awake through
// work any more (so the alert goes out before the machine sleeps; not for
// an agent waiting for the person, who has just been told), it is settled
// with the finished alert when it lasted a minute or more. A
// session whose process is gone ends its stretch at its last busy moment.
//
// Sessions are followed by their process (pid and start time), so a session
// that gets its agent's own id from a hook event keeps its stretch.
// Tracking an agent ("track only") changes only whether it keeps the
// machine awake; its stretches and alerts go on.
class WorkDetection {
 public:
  // A session counts as working while its last activity is this recent.
  static constexpr double kActiveWindow = 20.0;
  // A stopped stretch is settled this long after it stopped.
  static constexpr double kSettleAfter = 120.0;
  // Activity this soon after a state the agent reported belongs to it.
  static constexpr double kAfterReport = 5.0;
  // A "working" state with no activity for this long counts for nothing.
  static constexpr double kStaleWorking = 1800.0;

  // One pass over the sessions at `now`. `alerts` may be null (preview, or
  // no alerts wanted).
  void update(const std::vector<AgentSession>& sessions, const Config& config, Time now, AgentAlerts* alerts);

  // The line that keeps the machine awake in mode "auto" at `now` under
  // `config`, from the sessions of the last update; nothing when no work
  // keeps it awake.
  std::optional<std::string> workReason(const Config& config, Time now) const;
  // The same as worked out by the last update.
  std::optional<std::string> workReason() const { return reason_; }
  // The agent whose work kept the machine awake until a moment ago and has
  // ended (its process gone, or no longer busy), for "<name> finished".
  std::optional<std::string> lastWorker() const;

  // How a session reads on its own (also for the panel and status).
  static std::string describe(const AgentSession& s, Time now);
  // Whether a session is busy now.
  static bool busy(const AgentSession& s, Time now);
  // Whether the person tracks the session's agent or app without letting it
  // keep the machine awake (`Config.trackOnly`, by name or kind id).
  static bool trackedOnly(const AgentSession& s, const Config& config);
  // When the session's current stretch of work began, if it is in one.
  std::optional<Time> workingSince(const AgentSession& s) const;

 private:
  struct Pending {
    Time since = 0;    // the stretch began
    Time quietAt = 0;  // the agent stopped
  };
  // One agent process followed over time.
  struct Track {
    std::string name;
    std::optional<Time> workingSince;
    Time lastWork = 0;  // the last update that found it busy
    // When its last stretch ended: the countdown to sleep runs from here,
    // also after the stretch has been settled.
    std::optional<Time> quietFrom;
    std::optional<Pending> idlePending;
    AgentState state = AgentState::Idle;
    bool live = false;
    bool busy = false;
  };
  struct Choice {
    std::optional<std::string> reason;
    std::string keeper;  // the session's key
  };
  Choice choose(const Config& config, Time now) const;
  void settle(Track& t, AgentAlerts* alerts);

  std::vector<AgentSession> sessions_;
  std::map<std::string, Track> tracks_;
  // Waits announced, "<session>@<seconds>", with when they were asked.
  std::map<std::string, Time> announcedWaits_;
  std::optional<std::string> reason_;
  Time lastUpdate_ = 0;
  std::optional<Time> reasonAt_;  // the last update that found a reason
  std::string keeperKey_;
  std::string keeperName_;
};

// "4 min", "1h 5m": minutes as the panel writes them.
std::string formatWait(long long minutes);

}  // namespace vigilo
