#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "safety/setup.h"

namespace vigilo {

inline constexpr std::string_view kApproveRecordFile = "auto-approve.json";
inline constexpr std::string_view kApproveShellFolder = "approve-restore";

// The safety net's part of the tick: the watchdog script is rewritten at
// launch so it names the running executable, and every 5 minutes the app
// checks that the system still runs it, repairing it once.
class Watchdog final : public SlowJobs {
 public:
  explicit Watchdog(Setup& setup) : setup_(setup) {}

  void refreshWatchdog(Engine& engine) override;
  void checkWatchdog(Engine& engine) override;

  // The warning to show while the watchdog isn't running, if any.
  const std::optional<std::string>& warning() const { return warning_; }
  bool watchdogRepairTried() const { return watchdogRepairTried_; }

  // The changes still outstanding, by record name: the engine's, and
  // "Approve everything" while its record is there.
  static std::vector<std::string> systemChanges(const Engine& engine);

 private:
  Setup& setup_;
  bool watchdogRepairTried_ = false;
  std::optional<std::string> warning_;
};

// Puts back the agents' settings files that "Approve everything" left in
// the shell restore folder, each only while it still holds exactly what
// Vigilo left there; a file never edited (still as it was) needs nothing.
// Removes the folder and "auto-approve.json" once all are back, and a record
// that names a change but has no restore folder, since the folder comes
// before any edit. Gives a line for each file left for the app.
std::vector<std::string> restoreApproveFiles(const StateFiles& files);

// `vigilo cli watchdog`, which the script runs when the heartbeat is stale:
// an app that is still there but no longer beats is stopped, then every
// recorded change is put back as at launch. `engine` is a passive engine on
// the folder's machine. Gives a line for each change not put back.
std::vector<std::string> putBackAfterCrash(Engine& engine);

}  // namespace vigilo
