#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>

#include "engine/state_files.h"
#include "platform/clock.h"

namespace vigilo {

inline constexpr std::string_view kRemoteSeenFile = "remote-seen.json";
// How late a command may arrive: a wake may wait for a later check-in,
// anything else is stale after a few minutes.
inline constexpr double kWakeMaxAge = 10800;
inline constexpr double kCommandMaxAge = 300;
inline constexpr double kMaxAhead = 60;
inline constexpr std::size_t kRateLimit = 30;

// Refuses phone commands that are malformed, stale, replayed or too many.
// The ids already handled survive restarts in "remote-seen.json", so a
// command recorded by the relay can't be replayed after the app restarts.
class RemoteGuard {
 public:
  // `files` may be null (nothing is persisted).
  explicit RemoteGuard(const StateFiles* files);

  // Nothing when the command may run (it is then remembered), else the
  // refusal: "bad id", "too old or from the future (check the phone's
  // clock)", "already handled", "too many commands, wait a minute".
  std::optional<std::string> check(double t, const std::string& id, double maxAge, Time now);

 private:
  void save() const;

  const StateFiles* files_;
  std::map<std::string, Time> seen_;
  std::deque<Time> recent_;
};

}  // namespace vigilo
