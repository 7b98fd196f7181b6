// A random walk of the engine on the simulated laptop: holds, releases,
// mode changes, refusals, setup faults, lid, battery, heat, outside edits,
// crashes and relaunches, with the invariants checked after every step.
//
// Each run takes a fresh seed and prints it when a check fails; to replay
// one, run with VIGILO_ENGINE_SEED=<seed> (VIGILO_ENGINE_STEPS=<n> for a
// longer walk).

#include <cstdlib>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <unistd.h>

#include "commands/command_center.h"
#include "engine_fixture.h"

namespace vigilo::test {
namespace {

// The slow beat re-asserts the switch every 10 seconds, and a tick may come
// up to 2 seconds after a change: how long the switch may lag behind.
constexpr double kLag = 12.0;

std::uint64_t seedFromEnvironment() {
  if (const char* s = std::getenv("VIGILO_ENGINE_SEED")) return std::strtoull(s, nullptr, 10);
  return std::random_device{}() * 0x100000000ull + std::random_device{}();
}

int stepsFromEnvironment() {
  if (const char* s = std::getenv("VIGILO_ENGINE_STEPS")) return std::max(1, std::atoi(s));
  return 4000;
}

class EngineWalk : public EngineTest {
 protected:
  // Every durable write flushes to disk, which makes thousands of steps
  // slow on a busy disk: the app folder goes to memory where there is one.
  EngineWalk() {
    std::string tmpl = "/dev/shm/vigilo-walk-XXXXXX";
    if (::mkdtemp(tmpl.data()) != nullptr) {
      memoryFolder_ = tmpl;
      folder_ = tmpl + "/home";
    }
  }
  ~EngineWalk() override {
    engine_.reset();
    std::error_code ec;
    if (!memoryFolder_.empty()) std::filesystem::remove_all(memoryFolder_, ec);
  }

  enum class Kind { Wait, Action };

  // One random step: does something, says what, and lets time pass.
  Kind step(std::string& what) {
    auto pick = [&](int n) { return static_cast<int>(rng_() % static_cast<std::uint64_t>(n)); };
    auto chance = [&](int percent) { return pick(100) < percent; };
    switch (pick(22)) {
      case 0: case 1: case 2: case 3: case 4: case 5: {
        const double s = chance(3) ? 60 + pick(400) : 1 + pick(30);
        what = "wait " + std::to_string(static_cast<int>(s)) + "s";
        advance(s);
        return Kind::Wait;
      }
      case 6: {
        std::optional<double> minutes;
        if (chance(60)) minutes = 0.2 + pick(20);
        std::optional<std::int32_t> pid;
        if (chance(25)) pid = laptop().startProcess("/usr/bin/make");
        what = "hold" + (minutes ? " " + std::to_string(*minutes) + "m" : std::string()) + (pid ? " pid" : "");
        engine().addHold("job " + std::to_string(pick(1000)), minutes, pid, chance(50) ? std::optional(42) : std::nullopt);
        break;
      }
      case 7: {
        const auto& holds = engine().holds();
        if (!holds.empty() && chance(70)) {
          what = "release one";
          engine().releaseHold(holds[pick(static_cast<int>(holds.size()))].id);
        } else {
          what = "release all";
          engine().releaseHold(std::nullopt);
        }
        break;
      }
      case 8: {
        const int m = pick(4);
        what = "mode " + std::to_string(m);
        if (m == 0) engine().setMode(Mode::Off);
        if (m == 1) engine().setMode(Mode::Auto);
        if (m == 2) engine().stayAwakeFor(std::nullopt);
        if (m == 3) engine().stayAwakeFor(1 + pick(20));
        break;
      }
      case 9: {
        // As `vigilo set mode ...` does it, through the settings file.
        static const char* kModes[] = {"off", "auto", "on"};
        const char* m = kModes[pick(3)];
        what = std::string("set mode ") + m;
        CommandCenter(engine(), nullptr).handle("set", {{"key", "mode"}, {"value", m}});
        if (std::string(m) == "on") {
          EXPECT_FALSE(engine().config().alwaysUntil) << "set mode on left an end time";
        }
        break;
      }
      case 10:
        what = "sleep now";
        engine().sleepNow();
        break;
      case 11:
        work_.reason = chance(50) ? std::optional<std::string>("Codex is running a command") : std::nullopt;
        work_.worker = "Codex";
        what = work_.reason ? "work" : "no work";
        break;
      case 12: {
        const bool off = chance(30), on = chance(30);
        what = "refuse off=" + std::to_string(off) + " on=" + std::to_string(on);
        refuse(off, on);
        outsideAt_ = clock_.now();
        break;
      }
      case 13: {
        const bool ready = chance(70);
        what = ready ? "setup ready" : "setup broken";
        laptop().setSetup(ready, ready ? "" : "The sudoers rule is missing.");
        outsideAt_ = clock_.now();
        break;
      }
      case 14:
        what = "lid";
        laptop().setLidClosed(!laptop().lidClosed().value_or(false));
        break;
      case 15:
        what = "charge";
        laptop().setCharge(3 + pick(97));
        break;
      case 16: {
        const bool connected = chance(50);
        what = connected ? "adapter in" : "adapter out";
        laptop().setAdapter(connected, connected && chance(70));
        break;
      }
      case 17:
        what = "heat";
        laptop().setThermalState(chance(60) ? 0 : pick(4));
        break;
      case 18: {
        const bool disabled = chance(50);
        what = disabled ? "someone switches sleep off" : "someone switches sleep on";
        if (laptop().sleepDisabled() != disabled) outsideAt_ = clock_.now();
        laptop().setSleepDisabledExternally(disabled);
        externalLast_ = true;
        break;
      }
      case 19: {
        const auto& procs = laptop().processes();
        what = "process ends";
        for (const SimProcess& p : procs) {
          if (p.pid != 1) {
            laptop().endProcess(p.pid);
            break;
          }
        }
        break;
      }
      case 20:
        what = "crash and relaunch";
        engine_.reset();
        launch();
        break;
      case 21:
        what = "quit and relaunch";
        engine().shutdown();
        checkAfterQuit();
        engine_.reset();
        launch();
        break;
    }
    advance(pick(3));
    return Kind::Action;
  }

  void checkAfterQuit() {
    const bool ours = !files().exists("sleep-off-before");
    if (laptop().sleepDisabled() && ours && !externalLast_) {
      EXPECT_TRUE(engine().pendingRelease()) << "quit left sleep off";
      EXPECT_TRUE(files().exists("hold")) << "sleep left off without its record";
    }
    EXPECT_EQ(files().exists("alive"), !engine().outstandingChanges().empty());
  }

  // Folds the commands made in this step into the record of who changed
  // the switch last, and checks that none repeats without a cause.
  void followCommands(Kind kind, bool setupWasBroken) {
    if (kind != Kind::Wait) causeSinceLast_ = true;
    for (const std::string& c : newCommands(seen_)) {
      if (c != "disablesleep 1" && c != "disablesleep 0" && c != "sleepnow") continue;
      if (c != "sleepnow") externalLast_ = false;
      EXPECT_FALSE(c == lastCommand_ && !causeSinceLast_) << "repeated \"" << c << "\" with nothing changed between";
      EXPECT_FALSE(setupWasBroken && c == "disablesleep 1") << "the switch was used while setup was not ready";
      lastCommand_ = c;
      causeSinceLast_ = false;
    }
  }

  // The commands asked for since `since` (a count), which moves to now.
  std::vector<std::string> newCommands(std::uint64_t& since) {
    const auto& log = laptop().commandLog();
    const std::uint64_t n = std::min<std::uint64_t>(laptop().commandCount() - since, log.size());
    since = laptop().commandCount();
    return {log.end() - static_cast<std::ptrdiff_t>(n), log.end()};
  }

  void checkInvariants() {
    const Engine& e = engine();
    const bool disabled = laptop().sleepDisabled();
    const bool held = e.holding();
    const bool lagging = clock_.now() - outsideAt_ < kLag;
    const bool notOurs = files().exists("sleep-off-before");
    const std::string status = e.statusLine();
    const bool claimsAwake = status.ends_with(" · stays awake closed") || status.starts_with("Awake until");

    // The switch is off exactly while the engine keeps the machine awake.
    if (held && !disabled) {
      EXPECT_TRUE(lagging || (e.warning() && machine().refuseOff))
          << "holding, but sleep is on";
    }
    if (!held && disabled && !notOurs) {
      const bool explained = e.pendingRelease() || e.adoptedHoldUntil() || (externalLast_ && (lagging || !e.setupReady()));
      EXPECT_TRUE(explained) << "not holding, but sleep is off";
      EXPECT_TRUE(!e.pendingRelease() || e.warning()) << "a pending release without its warning";
    }
    // The status never claims more than the switch does.
    EXPECT_TRUE(!held || claimsAwake) << "holding, but the status reads \"" << status << "\"";
    EXPECT_TRUE(!claimsAwake || held || e.warning() || e.setupError()) << "\"" << status << "\" while not holding";
    // Every warning lasts only as long as its cause.
    const std::string warning = e.warning().value_or("");
    if (warning.find("keeps trying") != std::string::npos) {
      EXPECT_TRUE(e.pendingRelease()) << "a pending-release warning with nothing pending";
    }
    EXPECT_TRUE(held || warning.find("didn't keep") == std::string::npos) << "\"" << warning << "\" after the hold";
    if (warning.find("refused") != std::string::npos) {
      EXPECT_TRUE(!held && e.wantsHold() && !e.blockedReason()) << "\"" << warning << "\" with nothing refused";
    }

    // Every record matches a change still in place.
    EXPECT_TRUE(!disabled || externalLast_ || notOurs || files().exists("hold")) << "sleep off without its record";
    if (files().exists("hold")) {
      EXPECT_TRUE(disabled || held || e.adoptedHoldUntil() || lagging) << "a hold record for a change not in place";
    }
    EXPECT_TRUE(!notOurs || disabled || lagging) << "sleep-off-before while sleep is on";
    std::vector<std::string> onDisk, inEngine;
    for (const Hold& h : decodeRuntime(readFile(folder_ + "/runtime.json"))) onDisk.push_back(h.id);
    for (const Hold& h : e.holds()) inEngine.push_back(h.id);
    EXPECT_EQ(onDisk, inEngine) << "runtime.json differs from the engine's holds";
  }

  std::string memoryFolder_;
  std::mt19937_64 rng_;
  std::uint64_t seen_ = 0;
  std::string lastCommand_;
  bool causeSinceLast_ = true;
  bool externalLast_ = false;  // the last change of the switch was someone else's
  // When someone last changed the switch, its refusals or the setup.
  Time outsideAt_ = -1e9;
};

TEST_F(EngineWalk, SwitchStatusAndRecordsAgreeAfterEveryStep) {
  const std::uint64_t seed = seedFromEnvironment();
  const int steps = stepsFromEnvironment();
  rng_.seed(seed);
  launch();
  std::deque<std::string> recent;
  for (int i = 0; i < steps && !HasFailure(); ++i) {
    const bool setupBroken = !engine().setupReady() && !laptop().setupStatus().ready;
    const std::size_t noticesBefore = notices_.size();
    std::string what;
    const Kind kind = step(what);
    const bool stillBroken = setupBroken && !laptop().setupStatus().ready;
    followCommands(kind, stillBroken);
    if (kind == Kind::Wait) {
      // Waiting alone never announces the same thing twice.
      std::map<std::string, int> said;
      for (std::size_t n = noticesBefore; n < notices_.size(); ++n) {
        EXPECT_LE(++said[notices_[n]], 1) << "announced twice while waiting: " << notices_[n];
      }
    }
    checkInvariants();
    recent.push_back(std::to_string(i) + " " + what + " -> " + engine().statusLine() +
                     (laptop().sleepDisabled() ? " [sleep off]" : "") + (engine().holding() ? " [holding]" : ""));
    if (recent.size() > 16) recent.pop_front();
    if (HasFailure()) {
      std::ostringstream trail;
      for (const std::string& r : recent) trail << "\n  " << r;
      const auto& log = laptop().commandLog();
      trail << "\n last commands:";
      for (std::size_t n = log.size() > 8 ? log.size() - 8 : 0; n < log.size(); ++n) trail << " [" << log[n] << "]";
      ADD_FAILURE() << "seed " << seed << " failed at step " << i << " (replay with VIGILO_ENGINE_SEED=" << seed
                    << "); last steps:" << trail.str();
    }
  }
  RecordProperty("seed", std::to_string(seed));
}

}  // namespace
}  // namespace vigilo::test
