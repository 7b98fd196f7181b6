// A request text as it reaches the app on the request channel, run by the
// command center against an engine on a simulated laptop, reply file and
// all.
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/command_center.h"
#include "engine/engine.h"
#include "fuzz_target.h"
#include "platform/manual_run_loop.h"
#include "platform/sim/sim_laptop.h"

VIGILO_FUZZ_TARGET(request) {
  using namespace vigilo;
  const std::string& folder = vigilo::fuzz::scratchFolder("request");
  ManualClock clock;
  ManualRunLoop loop(clock);
  auto sim = makeSimPlatform(clock, loop, SimPlatformOptions{"", folder});
  Engine engine(*sim, folder);
  engine.launch();
  CommandCenter center(engine, [] {});
  center.receive(std::string(input));
  // Whatever the request changed, the next ticks and the status still run.
  loop.advance(10);
  (void)center.statusDictionary().dump();
}
