#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "engine/state_files.h"
#include "platform/clock.h"

namespace vigilo {

// "stats.json" in the app folder: the recent lid-closed sessions and the
// all-time totals.
inline constexpr std::string_view kStatsFile = "stats.json";
// The sessions kept; older ones are dropped.
inline constexpr std::size_t kMaxSessions = 400;
// The weekly summary looks back this far.
inline constexpr double kWeekSeconds = 604800.0;

// Durations of a lid-closed session, worked out from its receipt's times.
// Nothing at all when the opening lies before the closing (the clock was
// set back inside the session): a made-up duration would be worse than none.
struct SessionTimes {
  double closedMinutes = 0;  // lid shut to lid open
  double sleptMinutes = 0;   // machine asleep, within that
};
std::optional<SessionTimes> sessionTimes(Time closedAt, Time openedAt, std::optional<Time> sleptAt);

class SavingsStats {
 public:
  struct Session {
    Time date = 0;  // when the lid opened (JSON key "date", ISO 8601)
    double closedMinutes = 0;
    double whSaved = 0;      // by slowing and pausing apps, Low Power Mode, the dark screen
    double sleptMinutes = 0;
    double whAvoided = 0;    // by sleeping once the work was done
    std::optional<int> startPercent;
    std::optional<int> endPercent;
    std::optional<std::string> agent;
    bool operator==(const Session&) const = default;
  };
  struct Week {
    double wh = 0;
    double whAvoided = 0;
    double sleptMinutes = 0;
    double closedMinutes = 0;
    int count = 0;
  };

  std::vector<Session> sessions;  // oldest first
  double allTimeWhSaved = 0;
  double allTimeWhAvoided = 0;

  // Appends a session and counts it in the all-time totals; beyond
  // kMaxSessions the oldest are dropped (the totals keep them).
  void add(const Session& session);
  // The sessions dated after `now` minus seven days.
  Week week(Time now) const;

  nlohmann::json toJson() const;
  // Lenient: a damaged file, or a session with a bad date, reads as what
  // could be read; negative or non-finite figures count as 0. Never throws.
  static SavingsStats fromJson(const nlohmann::json& j);
};

// Reads and writes "stats.json" (pretty-printed, sorted keys, ISO 8601
// dates, written durably).
class StatsStore {
 public:
  explicit StatsStore(std::string appFolder) : files_(std::move(appFolder)) {}
  SavingsStats load() const;
  // False when the file cannot be written; the statistics stay in memory.
  bool save(const SavingsStats& stats) const;
  std::string path() const { return files_.path(kStatsFile); }

 private:
  StateFiles files_;
};

// "2026-11-25T04:51:55Z", and back; nothing for text that is not such a time.
std::string isoTime(Time t);
std::optional<Time> parseIsoTime(std::string_view text);

}  // namespace vigilo
