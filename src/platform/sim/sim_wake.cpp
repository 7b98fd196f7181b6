#include "platform/sim/sim_wake.h"

namespace vigilo {

Result SimWakeScheduler::wakeIn(int seconds) {
  if (refusal) return Result::fail(*refusal);
  log.push_back("wake in " + std::to_string(seconds));
  if (say_) say_("simulated laptop: wakes itself in " + std::to_string(seconds) + " s if it sleeps");
  return Result::ok();
}

Result SimWakeScheduler::cancel() {
  log.push_back("cancel");
  return Result::ok();
}

}  // namespace vigilo
