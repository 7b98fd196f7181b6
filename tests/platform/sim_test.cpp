#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/manual_run_loop.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo {
namespace {

using json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// --- The laptop on its own.

class SimLaptopTest : public ::testing::Test {
 protected:
  std::int64_t capacity() { return laptop_.batteryProperties()->currentCapacity.value(); }
  std::int64_t amperage() { return laptop_.batteryProperties()->amperage.value(); }

  ManualClock clock_;
  SimLaptop laptop_{clock_};
};

TEST_F(SimLaptopTest, DefaultLaptopIsTheEmptyState) {
  // Given a fresh laptop and one read from `{}`.
  SimLaptop fromEmpty(clock_);
  fromEmpty.fromJson(json::object());
  EXPECT_EQ(fromEmpty.toJson(), laptop_.toJson());

  auto b = laptop_.batteryProperties();
  ASSERT_TRUE(b);
  EXPECT_EQ(b->currentCapacity, 4000);
  EXPECT_EQ(b->maxCapacity, 5000);
  EXPECT_EQ(b->voltage, 11400);
  EXPECT_EQ(b->instantAmperage, -526);  // 6 W at 11.4 V
  EXPECT_EQ(b->externalConnected, false);
  EXPECT_EQ(b->isCharging, false);
  EXPECT_EQ(b->timeRemaining, 456);  // 4000 mAh at 526 mA
  EXPECT_EQ(laptop_.lidClosed(), false);
  EXPECT_FALSE(laptop_.sleepDisabled());
  EXPECT_TRUE(laptop_.setupStatus().ready);
  ASSERT_EQ(laptop_.processes().size(), 1u);
  EXPECT_EQ(laptop_.processes()[0].pid, 1);
  EXPECT_TRUE(laptop_.commandLog().empty());
}

TEST_F(SimLaptopTest, BatteryDrainsWithTheDrawAndClockJumpsStaySane) {
  // Given the default laptop on battery at 6 W: an hour drains 6 Wh.
  clock_.advance(3600);
  EXPECT_NEAR(capacity(), 4000 - 6.0 / 11.4 * 1000, 1.0);
  EXPECT_EQ(laptop_.batteryProperties()->timeRemaining, 396);

  // An hour in one-second steps ends where one step of an hour does.
  SimLaptop stepped(clock_);
  for (int i = 0; i < 3600; ++i) {
    clock_.advance(1);
    stepped.advanceToNow();
  }
  EXPECT_NEAR(stepped.batteryProperties()->currentCapacity.value(), 4000 - 526, 1);

  // The clock set back an hour drains nothing, and counting resumes from
  // the new time rather than waiting for the old one.
  const std::int64_t before = capacity();
  clock_.setWall(clock_.now() - 3600);
  EXPECT_FALSE(laptop_.advanceToNow());
  EXPECT_EQ(capacity(), before);
  clock_.advance(600);
  EXPECT_NEAR(capacity(), before - 526.0 / 6, 1.0);

  // A huge gap empties the battery without going below zero or wrapping a
  // counter.
  const std::int32_t pid = laptop_.startProcess("/usr/bin/yes");
  laptop_.setProcessWatts(pid, 10000);
  clock_.advance(1e12);
  EXPECT_EQ(laptop_.chargePercent(), 0.0);
  EXPECT_EQ(capacity(), 0);
  EXPECT_EQ(laptop_.process(pid)->energyNanojoules, std::numeric_limits<std::uint64_t>::max());
}

TEST_F(SimLaptopTest, ChargingStopsAtFullAndTheAdapterCarriesTheLoad) {
  // Given the adapter plugged in at 80 %: 1000 mAh to go at 1500 mA.
  laptop_.setAdapter(true, true);
  EXPECT_EQ(amperage(), 1500);
  EXPECT_EQ(laptop_.batteryProperties()->timeRemaining, 65535);
  clock_.advance(39 * 60);
  EXPECT_TRUE(laptop_.batteryProperties()->isCharging.value());
  clock_.advance(2 * 60);
  auto b = laptop_.batteryProperties();
  EXPECT_EQ(b->currentCapacity, 5000);
  EXPECT_EQ(b->isCharging, false);
  EXPECT_EQ(b->externalConnected, true);
  EXPECT_EQ(b->amperage, 0);

  // Charging can't start again at full, nor without the adapter.
  laptop_.setAdapter(true, true);
  EXPECT_FALSE(laptop_.batteryProperties()->isCharging.value());
  laptop_.setCharge(50);
  laptop_.setAdapter(false, true);
  EXPECT_FALSE(laptop_.batteryProperties()->isCharging.value());
  EXPECT_EQ(amperage(), -526);
}

TEST_F(SimLaptopTest, AnAmperageOverrideMakesAWeakAdapter) {
  // Given an adapter too weak for the draw: connected, not charging, 0.5 W
  // still drawn from the battery.
  laptop_.fromJson(json::parse(R"({"battery": {"adapter": true, "charging": false, "amperage": -44}})"));
  auto b = laptop_.batteryProperties();
  EXPECT_EQ(b->externalConnected, true);
  EXPECT_EQ(b->isCharging, false);
  EXPECT_EQ(b->instantAmperage, -44);
  EXPECT_EQ(b->timeRemaining, 4000 * 60 / 44);
  clock_.advance(3600);
  EXPECT_EQ(capacity(), 4000 - 44);
  EXPECT_EQ(laptop_.toJson()["battery"]["amperage"], -44);

  // A new power situation replaces it.
  laptop_.setAdapter(true, false);
  EXPECT_EQ(amperage(), 0);
  EXPECT_FALSE(laptop_.toJson()["battery"].contains("amperage"));
  laptop_.setAmperage(-100);
  laptop_.setDraw(11.4);
  EXPECT_EQ(amperage(), 0);
}

TEST_F(SimLaptopTest, SwitchesStayAsPutAndEveryRequestIsRecorded) {
  // Given sleep switched off: it stays off as time passes.
  EXPECT_TRUE(laptop_.setSleepDisabled(true));
  clock_.advance(7200);
  EXPECT_TRUE(laptop_.sleepDisabled());

  // A refusing switch changes nothing and says so.
  laptop_.setRefusals(false, true);
  Result r = laptop_.setSleepDisabled(false);
  EXPECT_FALSE(r);
  EXPECT_EQ(r.message(), "The simulated laptop refused to switch sleep back on.");
  EXPECT_TRUE(laptop_.sleepDisabled());
  laptop_.setRefusals(true, false);
  EXPECT_TRUE(laptop_.setSleepDisabled(false));
  EXPECT_FALSE(laptop_.setSleepDisabled(true));
  EXPECT_FALSE(laptop_.sleepDisabled());

  // Someone else's switch is state, not a request of ours.
  laptop_.setSleepDisabledExternally(true);
  EXPECT_TRUE(laptop_.sleepDisabled());

  EXPECT_TRUE(laptop_.sleepNow());
  EXPECT_TRUE(laptop_.restorePowerMode("lowpowermode", 1));
  EXPECT_FALSE(laptop_.restorePowerMode("powermode", 3));
  EXPECT_FALSE(laptop_.restorePowerMode("turbo", 1));
  EXPECT_TRUE(laptop_.setAutomaticBackups(false));
  EXPECT_TRUE(laptop_.setBuiltInDisplay(false));
  EXPECT_TRUE(laptop_.setBrightness(0.25));
  EXPECT_FALSE(laptop_.setBrightness(1.5));
  EXPECT_FALSE(laptop_.automaticBackups());
  EXPECT_FALSE(laptop_.builtInDisplayOn());
  EXPECT_EQ(laptop_.brightness(), 0.25);
  EXPECT_EQ(laptop_.toJson()["powerModes"]["lowpowermode"], 1);
  EXPECT_THAT(laptop_.commandLog(),
              ElementsAre("disablesleep 1", "disablesleep 0 (refused)", "disablesleep 0", "disablesleep 1 (refused)",
                          "sleepnow", "powermode lowpowermode 1", "powermode powermode 3 (refused)",
                          "powermode turbo 1 (refused)", "backups off", "display off", "brightness 0.25",
                          "brightness 1.5 (refused)"));

  // Sleeping now wakes at once: nothing else changed.
  EXPECT_TRUE(laptop_.sleepDisabled());
  EXPECT_EQ(laptop_.lidClosed(), false);

  // The record keeps the latest 200 requests.
  for (int i = 0; i < 300; ++i) laptop_.setBrightness(i % 2);
  EXPECT_EQ(laptop_.commandLog().size(), 200u);
  EXPECT_EQ(laptop_.commandLog().back(), "brightness 1");
}

TEST_F(SimLaptopTest, ProcessesKeepTheirStateAndPidsComeBackWithNewStarts) {
  // Given an agent and its child.
  const std::int32_t agent = laptop_.startProcess("/usr/local/bin/claude", {"claude", "--resume"});
  const std::int32_t child = laptop_.startProcess("/bin/sh", {}, agent);
  EXPECT_GT(agent, 1);
  EXPECT_GT(child, agent);
  EXPECT_THAT(laptop_.process(child)->args, ElementsAre("/bin/sh"));
  laptop_.setProcessWatts(agent, 2.0);

  // Running for a minute: 120 J and half a core.
  clock_.advance(60);
  EXPECT_EQ(laptop_.process(agent)->energyNanojoules, 120'000'000'000u);
  EXPECT_EQ(laptop_.process(agent)->cpuMicros, 30'000'000u);

  // Stopped, it stays stopped and uses nothing; slowed, a quarter.
  EXPECT_TRUE(laptop_.stop(agent));
  clock_.advance(600);
  EXPECT_TRUE(laptop_.process(agent)->stopped);
  EXPECT_EQ(laptop_.process(agent)->energyNanojoules, 120'000'000'000u);
  EXPECT_TRUE(laptop_.resume(agent));
  EXPECT_TRUE(laptop_.slow(agent));
  clock_.advance(60);
  EXPECT_EQ(laptop_.process(agent)->energyNanojoules, 150'000'000'000u);
  EXPECT_TRUE(laptop_.unslow(agent));

  // Controlling a process that isn't there, or pid 1, fails in words.
  Result r = laptop_.stop(4242);
  EXPECT_FALSE(r);
  EXPECT_EQ(r.message(), "No process with id 4242 is running.");
  EXPECT_FALSE(laptop_.slow(1));
  EXPECT_EQ(laptop_.commandLog().back(), "slow 1 (refused)");
  EXPECT_EQ(laptop_.commandLog()[laptop_.commandLog().size() - 2], "stop 4242 (refused)");

  // The agent ends: its child goes to pid 1, and its pid can be taken by a
  // new process with a new start time even though the clock stood still.
  const std::uint64_t oldStart = laptop_.process(agent)->startMicros;
  laptop_.endProcess(agent);
  EXPECT_EQ(laptop_.process(agent), nullptr);
  EXPECT_EQ(laptop_.process(child)->ppid, 1);
  EXPECT_EQ(laptop_.startProcess("/usr/bin/other", {}, 1, agent), agent);
  EXPECT_NE(laptop_.process(agent)->startMicros, oldStart);
  EXPECT_FALSE(laptop_.process(agent)->stopped);
  EXPECT_EQ(laptop_.process(agent)->energyNanojoules, 0u);

  // A live pid can't be taken, and new pids keep increasing.
  EXPECT_EQ(laptop_.startProcess("/usr/bin/dup", {}, 1, child), 0);
  EXPECT_GT(laptop_.startProcess("/usr/bin/next"), child);
}

TEST_F(SimLaptopTest, StateRoundTripsExactly) {
  // Given a laptop away from its defaults in every respect.
  laptop_.setLidClosed(true);
  laptop_.setCharge(42.123456789);
  laptop_.setAdapter(true, true);
  laptop_.setThermalState(2);
  laptop_.setSetup(false, "The sudoers rule is missing.");
  laptop_.setRefusals(true, true);
  laptop_.setSleepDisabledExternally(true);
  laptop_.setBrightness(0.3);
  laptop_.setBuiltInDisplay(false);
  const std::int32_t pid = laptop_.startProcess("/opt/agent", {"agent", "-v"}, 1);
  laptop_.setProcessWatts(pid, 3.3);
  laptop_.slow(pid);
  clock_.advance(123.456);
  laptop_.stop(pid);
  laptop_.setAmperage(-77);

  const json first = laptop_.toJson();
  SimLaptop copy(clock_);
  copy.fromJson(json::parse(first.dump()));
  EXPECT_EQ(copy.toJson().dump(), first.dump());
  EXPECT_EQ(copy.setupStatus().reason, "The sudoers rule is missing.");
  EXPECT_EQ(copy.lidClosed(), true);
  EXPECT_EQ(copy.process(pid)->args, (std::vector<std::string>{"agent", "-v"}));
  EXPECT_TRUE(copy.process(pid)->stopped);
  EXPECT_FALSE(copy.setSleepDisabled(false));

  // Pids and start times continue where the file left off.
  EXPECT_EQ(copy.startProcess("/bin/a"), laptop_.startProcess("/bin/a"));
  EXPECT_EQ(copy.process(pid + 1)->startMicros, laptop_.process(pid + 1)->startMicros);
}

TEST_F(SimLaptopTest, ReadingIsLenient) {
  // Given state written by hand: wrong types keep the default, numbers out
  // of range are brought into it, and nothing throws.
  laptop_.fromJson(json::parse(R"({
    "lid": "ajar", "thermal": 9, "sleepDisabled": "yes",
    "battery": {"percent": 150, "maxCapacity": -3, "voltage": "high", "watts": 1e308, "adapter": 1},
    "display": {"brightness": -1}, "refuse": [true], "setup": "ready",
    "processes": [
      {"pid": 700, "path": "/usr/bin/kept"},
      {"pid": 700, "path": "/usr/bin/duplicate"},
      {"path": "/usr/local/bin/codex", "args": ["codex", 5, "exec"], "watts": "lots"},
      {"pid": -4, "path": "/bin/negative"},
      42, null
    ],
    "log": ["sleepnow", 17],
    "updated": "yesterday"
  })"));
  const json j = laptop_.toJson();
  EXPECT_EQ(j["lid"], "open");
  EXPECT_EQ(j["thermal"], 3);
  EXPECT_EQ(j["sleepDisabled"], false);
  EXPECT_EQ(j["battery"]["percent"], 100.0);
  EXPECT_EQ(j["battery"]["maxCapacity"], 5000);
  EXPECT_EQ(j["battery"]["voltage"], 11400);
  EXPECT_EQ(j["battery"]["watts"], 10000.0);
  EXPECT_EQ(j["battery"]["adapter"], false);
  EXPECT_EQ(j["display"]["brightness"], 0.0);
  EXPECT_TRUE(laptop_.setupStatus().ready);
  EXPECT_THAT(laptop_.commandLog(), ElementsAre("sleepnow"));

  // Hand-added processes get a pid none of the others uses and a start.
  ASSERT_EQ(laptop_.processes().size(), 3u);
  EXPECT_EQ(laptop_.process(700)->path, "/usr/bin/kept");
  const SimProcess& codex = laptop_.processes()[1];
  EXPECT_EQ(codex.path, "/usr/local/bin/codex");
  EXPECT_THAT(codex.args, ElementsAre("codex", "exec"));
  EXPECT_GT(codex.pid, 700);
  EXPECT_GT(codex.startMicros, 0u);
  EXPECT_EQ(laptop_.processes()[2].path, "/bin/negative");

  // Anything that isn't an object is the default laptop.
  SimLaptop fresh(clock_);
  for (const char* text : {"null", "[]", "7", "\"laptop\"", "{\"processes\": {}}"}) {
    laptop_.fromJson(json::parse(text));
    EXPECT_EQ(laptop_.toJson(), fresh.toJson()) << text;
  }
}

// --- The platform, with and without a state file.

class SimPlatformTest : public ::testing::Test {
 protected:
  SimPlatformTest() : loop_(clock_) {}

  SimPlatform& open(std::string stateFile) {
    platform_ = makeSimPlatform(clock_, loop_, SimPlatformOptions{std::move(stateFile), dir_.file("home")});
    platform_->events().subscribe([this](SystemEvent e) { events_.push_back(e); });
    return *platform_;
  }
  json onDisk() { return json::parse(test::readFile(path_), nullptr, false); }
  void edit(const std::function<void(SimLaptop&)>& fn) { ASSERT_TRUE(editSimStateFile(path_, clock_, fn)); }

  test::TempDir dir_;
  std::string path_ = dir_.file("laptop.json");
  ManualClock clock_;
  ManualRunLoop loop_;
  std::unique_ptr<SimPlatform> platform_;
  std::vector<SystemEvent> events_;
};

TEST_F(SimPlatformTest, InMemoryPlatformForwardsToTheLaptopAndSendsEvents) {
  // Given a platform without a state file.
  SimPlatform& p = open("");
  EXPECT_EQ(p.name(), "sim");
  EXPECT_EQ(p.defaultAppFolder(), dir_.file("home"));
  EXPECT_EQ(&p.clock(), &clock_);
  EXPECT_EQ(&p.loop(), &loop_);

  const std::int32_t pid = p.laptop().startProcess("/usr/local/bin/gemini", {"gemini"}, 1);
  EXPECT_TRUE(p.processes().stop(pid));
  auto info = p.processes().info(pid);
  ASSERT_TRUE(info);
  EXPECT_TRUE(info->stopped);
  EXPECT_EQ(info->path, "/usr/local/bin/gemini");
  EXPECT_EQ(p.processes().list().size(), 2u);
  EXPECT_FALSE(p.processes().info(pid + 1000));
  EXPECT_TRUE(p.power().setSleepDisabled(true));
  EXPECT_EQ(p.registry().sleepDisabled(), true);
  EXPECT_TRUE(p.displays().setBrightness(0.5));
  EXPECT_EQ(p.laptop().brightness(), 0.5);
  EXPECT_FALSE(p.save());

  // A direct change of the thermal state or the power source arrives as a
  // system event on the loop; other changes send none.
  p.laptop().setThermalState(2);
  p.laptop().setAdapter(true, true);
  p.laptop().setCharge(30);
  p.laptop().setLidClosed(true);
  EXPECT_TRUE(events_.empty());
  loop_.drainPosted();
  EXPECT_THAT(events_, ElementsAre(SystemEvent::ThermalStateChanged, SystemEvent::PowerSourceChanged));
  EXPECT_EQ(p.registry().thermalState(), 2);
  EXPECT_EQ(p.registry().lidClosed(), true);

  // Charging that stops at full is not a change of the power source.
  events_.clear();
  clock_.advance(6 * 3600);
  p.refresh();
  loop_.drainPosted();
  EXPECT_TRUE(events_.empty());
  EXPECT_EQ(p.registry().battery()->isCharging, false);

  // No subscriber, no delivery.
  p.events().subscribe(nullptr);
  p.laptop().setThermalState(0);
  loop_.drainPosted();
  EXPECT_TRUE(events_.empty());
}

TEST_F(SimPlatformTest, DefaultAppFolderFollowsXdg) {
  auto platform = makeSimPlatform(clock_, loop_, SimPlatformOptions{});
  SimPlatform& p = *platform;
  const char* old = std::getenv("XDG_DATA_HOME");
  const std::string saved = old ? old : "";
  ::setenv("XDG_DATA_HOME", "/data/home", 1);
  EXPECT_EQ(p.defaultAppFolder(), "/data/home/vigilo-sim");
  ::setenv("XDG_DATA_HOME", "relative/ignored", 1);
  EXPECT_THAT(p.defaultAppFolder(), HasSubstr("/.local/share/vigilo-sim"));
  if (old) {
    ::setenv("XDG_DATA_HOME", saved.c_str(), 1);
  } else {
    ::unsetenv("XDG_DATA_HOME");
  }
}

TEST_F(SimPlatformTest, MissingFileIsCreatedAndChangesAreWrittenAtOnce) {
  // Given no state file yet, in a folder that does not exist yet.
  path_ = dir_.file("sub/laptop.json");
  SimPlatform& p = open(path_);
  EXPECT_EQ(p.stateFileProblem(), "");
  EXPECT_EQ(onDisk(), SimLaptop(clock_).toJson());

  // A privileged change is in the file when the call returns.
  EXPECT_TRUE(p.power().setSleepDisabled(true));
  EXPECT_EQ(onDisk()["sleepDisabled"], true);
  EXPECT_EQ(onDisk()["log"], json::array({"disablesleep 1"}));
  EXPECT_FALSE(p.processes().stop(424242));
  EXPECT_EQ(onDisk()["log"].back(), "stop 424242 (refused)");

  // A second platform (the app restarted) finds the same laptop.
  platform_.reset();
  SimPlatform& again = open(path_);
  EXPECT_TRUE(again.laptop().sleepDisabled());
  EXPECT_EQ(again.laptop().commandLog().size(), 2u);
}

TEST_F(SimPlatformTest, ExternalEditsArePickedUpByRefresh) {
  SimPlatform& p = open(path_);
  // Given a person closing the lid, plugging in and starting an agent.
  edit([](SimLaptop& l) {
    l.setLidClosed(true);
    l.setAdapter(true, true);
  });
  json state = onDisk();
  state["processes"].push_back({{"path", "/usr/local/bin/claude"}, {"args", {"claude"}}, {"watts", 1.5}});
  test::writeFile(path_, state.dump());

  p.refresh();
  EXPECT_EQ(p.registry().lidClosed(), true);
  EXPECT_EQ(p.registry().battery()->isCharging, true);
  loop_.drainPosted();
  EXPECT_THAT(events_, ElementsAre(SystemEvent::PowerSourceChanged));

  // The new process got a pid, which the file shows at once so that it
  // stays the same process through later edits.
  const auto& list = p.laptop().processes();
  ASSERT_EQ(list.size(), 2u);
  const std::int32_t pid = list[1].pid;
  EXPECT_EQ(onDisk()["processes"][1]["pid"], pid);
  clock_.advance(60);
  edit([](SimLaptop& l) { l.setThermalState(1); });
  p.refresh();
  EXPECT_EQ(p.laptop().processes()[1].pid, pid);
  EXPECT_EQ(p.laptop().process(pid)->energyNanojoules, 90'000'000'000u);
  EXPECT_EQ(p.registry().thermalState(), 1);
}

TEST_F(SimPlatformTest, AChangeMadeHereKeepsAnEditMadeMeanwhile) {
  SimPlatform& p = open(path_);
  p.refresh();
  // Given someone closing the lid between the tick and a switch made here.
  edit([](SimLaptop& l) { l.setLidClosed(true); });
  EXPECT_TRUE(p.power().setSleepDisabled(true));

  EXPECT_EQ(p.laptop().lidClosed(), true);
  EXPECT_EQ(onDisk()["lid"], "closed");
  EXPECT_EQ(onDisk()["sleepDisabled"], true);

  // And the other way round: a tool's edit keeps what was switched here.
  edit([](SimLaptop& l) { l.setThermalState(3); });
  p.refresh();
  EXPECT_TRUE(p.laptop().sleepDisabled());
  EXPECT_EQ(p.laptop().thermalState(), 3);
  EXPECT_THAT(p.laptop().commandLog(), ElementsAre("disablesleep 1"));
}

TEST_F(SimPlatformTest, AToolRacingTheAppLosesNoUpdate) {
  SimPlatform& p = open(path_);
  // Given a tool starting 50 processes while the app ticks and switches.
  std::thread tool([this] {
    for (int i = 0; i < 50; ++i)
      editSimStateFile(path_, clock_, [i](SimLaptop& l) { l.startProcess("/tool/" + std::to_string(i)); });
  });
  for (int i = 0; i < 50; ++i) {
    p.refresh();
    p.power().setAutomaticBackups(i % 2 == 1);
  }
  tool.join();
  p.refresh();
  EXPECT_EQ(p.laptop().processes().size(), 51u);
  EXPECT_EQ(p.laptop().commandLog().size(), 50u);
  EXPECT_EQ(onDisk()["processes"].size(), 51u);
  EXPECT_EQ(onDisk()["log"].size(), 50u);
}

TEST_F(SimPlatformTest, DrainIsWrittenOnlyWhenAWholePercentMoves) {
  SimPlatform& p = open(path_);
  // Given 526 mA from 5000 mAh, ticking every second for 1000 seconds: 146
  // mAh go, crossing below 80 %, 79 % and 78 % (at 3999, 3949 and 3899 mAh).
  std::string last = test::readFile(path_);
  std::vector<std::int64_t> shown;
  for (int i = 0; i < 1000; ++i) {
    clock_.advance(1);
    p.refresh();
    std::string now = test::readFile(path_);
    if (now == last) continue;
    last = now;
    const double percent = onDisk()["battery"]["percent"].get<double>();
    shown.push_back(std::llround(percent * 5000 / 100) * 100 / 5000);
  }
  EXPECT_THAT(shown, ElementsAre(79, 78, 77));
}

TEST_F(SimPlatformTest, TheRunningChargeStaysUnlessTheFileChangesIt) {
  SimPlatform& p = open(path_);
  const std::int32_t pid = p.laptop().startProcess("/opt/agent");
  p.laptop().setProcessWatts(pid, 1.0);
  p.save();
  // Given 20 minutes of drain, the last 1000 seconds of it (3 %) unwritten.
  clock_.advance(200);
  p.refresh();
  clock_.advance(1000);
  const double running = p.laptop().chargePercent().value();
  const std::uint64_t energy = p.laptop().process(pid)->energyNanojoules;

  // Closing the lid by hand doesn't give the drain back, nor reset counters.
  edit([](SimLaptop& l) { l.setLidClosed(true); });
  p.refresh();
  EXPECT_EQ(p.laptop().chargePercent(), running);
  EXPECT_EQ(p.laptop().process(pid)->energyNanojoules, energy);

  // A percent typed into the file is the charge from then on.
  json state = onDisk();
  state["battery"]["percent"] = 20;
  test::writeFile(path_, state.dump(2));
  p.refresh();
  EXPECT_EQ(p.laptop().chargePercent(), 20.0);
  EXPECT_EQ(p.registry().battery()->currentCapacity, 1000);
}

TEST_F(SimPlatformTest, DamagedFileKeepsTheLastGoodStateUntilAChangeIsMade) {
  // Given a laptop whose lid is closed, and then a damaged file.
  edit([](SimLaptop& l) { l.setLidClosed(true); });
  SimPlatform& p = open(path_);
  ASSERT_EQ(p.laptop().lidClosed(), true);

  const std::string huge(5 * 1024 * 1024, ' ');
  const std::vector<std::pair<std::string, std::string>> damage = {
      {"", "is empty"},
      {"lid: closed", "isn't valid JSON"},
      {test::readFile(path_).substr(0, 40), "isn't valid JSON"},
      {"[1, 2, 3]", "doesn't hold a JSON object"},
      {huge, "is too large (over 4 MB)"},
      {std::string(100000, '[') + std::string(100000, ']'), "doesn't hold a JSON object"},
  };
  for (const auto& [content, problem] : damage) {
    test::writeFile(path_, content);
    clock_.advance(400);  // a whole percent of drain, which would be written
    p.refresh();
    EXPECT_EQ(p.stateFileProblem(),
              "The simulated laptop's state file " + path_ + " " + problem + "; using the last good state.");
    EXPECT_EQ(p.laptop().lidClosed(), true);
    EXPECT_EQ(test::readFile(path_), content);
  }

  // A change made here writes the last good state with the change.
  test::writeFile(path_, "{oops");
  p.refresh();
  EXPECT_TRUE(p.displays().setBuiltInEnabled(false));
  EXPECT_EQ(p.stateFileProblem(), "");
  EXPECT_EQ(onDisk()["lid"], "closed");
  EXPECT_EQ(onDisk()["display"]["on"], false);

  // A damaged file at start: the default laptop, the file left as it is,
  // and tools refuse to edit it.
  platform_.reset();
  test::writeFile(path_, "{\"lid\": ");
  SimPlatform& fresh = open(path_);
  EXPECT_THAT(fresh.stateFileProblem(), HasSubstr("isn't valid JSON"));
  EXPECT_EQ(fresh.laptop().lidClosed(), false);
  EXPECT_EQ(test::readFile(path_), "{\"lid\": ");
  EXPECT_FALSE(editSimStateFile(path_, clock_, [](SimLaptop& l) { l.setLidClosed(false); }));
  EXPECT_EQ(test::readFile(path_), "{\"lid\": ");
}

TEST_F(SimPlatformTest, UnwritableFileIsReportedNotFatal) {
  // Given a state file whose folder is a plain file.
  test::writeFile(dir_.file("plain"), "x");
  path_ = dir_.file("plain") + "/laptop.json";
  SimPlatform& p = open(path_);
  EXPECT_EQ(p.stateFileProblem(), "The simulated laptop's state file " + path_ +
                                      " can't be read (open: Not a directory); using the last good state.");
  EXPECT_TRUE(p.power().setSleepDisabled(true));
  EXPECT_TRUE(p.laptop().sleepDisabled());
  EXPECT_THAT(p.stateFileProblem(), HasSubstr("Couldn't write the simulated laptop's state file " + path_));
  EXPECT_FALSE(p.save());
}

}  // namespace
}  // namespace vigilo
