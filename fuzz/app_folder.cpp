// A file of the app folder as a crash, a disk error or a person may leave
// it. The first byte of the input picks the file, the rest is its content.
// Each file is read by the code that reads it in the app, then an engine on
// a simulated laptop starts over the folder, recovers, runs and quits, as
// `vigilo app` would over it.
#include <array>

#include "agents/agent_events.h"
#include "commands/channel.h"
#include "engine/engine.h"
#include "fuzz_target.h"
#include "integrations/auto_approve.h"
#include "platform/manual_run_loop.h"
#include "platform/sim/sim_laptop.h"
#include "power/learned_store.h"
#include "remote/pairing.h"
#include "remote/remote_guard.h"
#include "savings/savings_stats.h"

namespace {

constexpr std::array<const char*, 16> kFiles = {
    "config.json",       "safety.json",        "runtime.json",       "touched.json",
    "resume-pids",       "powermode-restore",  "brightness-restore", "machine.json",
    "agent-events/s.json", "learned.json",     "stats.json",         "auto-approve.json",
    "remote.json",       "remote-seen.json",   "wake-alarm",         "app.lock",
};

}  // namespace

VIGILO_FUZZ_TARGET(app_folder) {
  using namespace vigilo;
  if (input.empty()) return;
  const std::string& folder = vigilo::fuzz::scratchFolder("app_folder");
  const std::string name = kFiles[static_cast<unsigned char>(input[0]) % kFiles.size()];
  vigilo::fuzz::put(folder + "/" + name, input.substr(1));
  const StateFiles files(folder);
  ManualClock clock;

  (void)recordedMachine(folder);
  (void)runningApp(folder);
  (void)LearnedStore(folder).load();
  StatsStore stats(folder);
  (void)stats.save(stats.load());
  (void)AgentEvents::load(folder, clock.now());
  RemoteSettings remote = RemoteSettings::load(files);
  (void)remote.usable();
  (void)remote.save(files);
  {
    RemoteGuard guard(&files);
    (void)guard.check(clock.now(), "fuzz-1", 300, clock.now());
  }
  {
    // Turning it off puts back the agents' files of this (scratch) home.
    AgentPlaces places;
    places.home = folder + "/home";
    AutoApprove approve(folder, places, clock);
    (void)approve.isOn();
    (void)approve.status();
    (void)approve.ends();
    (void)approve.expiry(false, clock.now());
    if (approve.isOn()) (void)approve.turnOff();
  }

  ManualRunLoop loop(clock);
  auto sim = makeSimPlatform(clock, loop, SimPlatformOptions{"", folder});
  Engine engine(*sim, folder);
  engine.launch();
  loop.advance(10);
  (void)engine.statusLine();
  (void)engine.outstandingChanges();
  (void)engine.rescue();
  engine.shutdown();
}
