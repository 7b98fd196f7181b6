// The simulated laptop's state file as another process may leave it: read
// at start and on every tick, written back after a change, and edited
// under its lock by tools.
#include "fuzz_target.h"

#include <nlohmann/json.hpp>
#include "platform/manual_run_loop.h"
#include "platform/sim/sim_laptop.h"

VIGILO_FUZZ_TARGET(sim_state) {
  using namespace vigilo;
  const std::string& folder = vigilo::fuzz::scratchFolder("sim_state");
  const std::string path = folder + "/laptop.json";
  vigilo::fuzz::put(path, input);
  (void)simClockSpeed(path);
  ManualClock clock;
  ManualRunLoop loop(clock);
  auto sim = makeSimPlatform(clock, loop, SimPlatformOptions{path, folder + "/app"});
  (void)sim->stateFileProblem();
  // A tick later the laptop has moved on and is written back.
  clock.advance(600);
  sim->laptop().advanceToNow();
  (void)sim->laptop().toJson().dump();
  (void)sim->save();
  // The file changed by another process is re-read on the next tick.
  vigilo::fuzz::put(path, input);
  clock.advance(2);
  sim->refresh();
  // A tool's edit over the file as it was given.
  vigilo::fuzz::put(path, input);
  (void)editSimStateFile(path, clock, [](SimLaptop& laptop) { laptop.setLidClosed(true); });
}
