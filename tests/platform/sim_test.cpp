#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
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

class SimLaptopTest : public ::testing::Test {
 protected:
  BatteryProperties battery() { return laptop_.batteryProperties().value(); }
  std::int64_t capacity() { return battery().currentCapacity.value(); }
  ManualClock clock_;
  SimLaptop laptop_{clock_};
};

TEST_F(SimLaptopTest, BatteryFollowsTheDrawAndTheChargerThroughClockJumps) {
  // The default laptop: 6 W at 11.4 V is 526 mA, so 4000 mAh last 456 minutes.
  BatteryProperties b = battery();
  EXPECT_EQ(std::tuple(b.currentCapacity, b.maxCapacity, b.voltage, b.instantAmperage, b.timeRemaining, b.isCharging),
            std::tuple(4000, 5000, 11400, -526, 456, false));
  // Time set back drains nothing; counting resumes from the new time, not the old.
  clock_.setWall(clock_.now() - 3600);
  EXPECT_FALSE(laptop_.advanceToNow());
  clock_.advance(3600);
  EXPECT_NEAR(capacity(), 4000 - 526, 1.0);
  // Plugged in at 50 %: 1500 mA until full at 5000 mAh, 100 minutes on.
  laptop_.setCharge(50);
  laptop_.setAdapter(true, true);
  EXPECT_EQ(std::tuple(battery().amperage, battery().timeRemaining), std::tuple(1500, 65535));
  clock_.advance(99 * 60);
  EXPECT_TRUE(battery().isCharging.value());
  clock_.advance(2 * 60);
  b = battery();
  EXPECT_EQ(std::tuple(b.currentCapacity, b.isCharging, b.externalConnected, b.amperage),
            std::tuple(5000, false, true, 0));
  // An adapter too weak for the draw drains slowly.
  laptop_.setCharge(80);
  laptop_.setAmperage(-44);
  clock_.advance(3600);
  EXPECT_EQ(std::tuple(capacity(), battery().timeRemaining), std::tuple(4000 - 44, 3956 * 60 / 44));
  laptop_.setAdapter(false, true);
  EXPECT_FALSE(battery().isCharging.value()) << "no charging without the adapter";
  // A huge gap empties the battery without going below zero or wrapping.
  const std::int32_t pid = laptop_.startProcess("/usr/bin/yes");
  laptop_.setProcessWatts(pid, 10000);
  clock_.advance(1e12);
  EXPECT_EQ(capacity(), 0);
  EXPECT_EQ(laptop_.process(pid)->energyNanojoules, std::numeric_limits<std::uint64_t>::max());
}

TEST_F(SimLaptopTest, SwitchesAndProcessesStayAsPutAndEveryRequestIsRecorded) {
  EXPECT_TRUE(laptop_.setSleepDisabled(true));
  clock_.advance(7200);
  const bool ok[] = {laptop_.sleepNow().isOk(), laptop_.restorePowerMode("lowpowermode", 1).isOk(),
                     laptop_.restorePowerMode("powermode", 3).isOk(), laptop_.restorePowerMode("turbo", 1).isOk(),
                     laptop_.setAutomaticBackups(false).isOk(), laptop_.setBuiltInDisplay(false).isOk(),
                     laptop_.setBrightness(0.25).isOk(), laptop_.setBrightness(1.5).isOk()};
  EXPECT_THAT(ok, ElementsAre(true, true, false, false, true, true, true, false));
  // Sleep stays off through time and sleeping now (which wakes at once).
  EXPECT_EQ(std::tuple(laptop_.sleepDisabled(), laptop_.lidClosed(), laptop_.brightness()),
            std::tuple(true, false, 0.25));
  // The agent ends at once: its child goes to pid 1, and its pid names a new
  // process with a new start though the clock stood still.
  const std::int32_t agent = laptop_.startProcess("/usr/local/bin/claude", {"claude", "--resume"});
  const std::int32_t child = laptop_.startProcess("/bin/sh", {}, agent);
  const std::uint64_t oldStart = laptop_.process(agent)->startMicros;
  laptop_.endProcess(agent);
  EXPECT_EQ(laptop_.process(child)->ppid, 1);
  EXPECT_EQ(laptop_.startProcess("/usr/bin/other", {}, 1, agent), agent);
  EXPECT_NE(laptop_.process(agent)->startMicros, oldStart);
  EXPECT_EQ(laptop_.startProcess("/usr/bin/dup", {}, 1, child), 0) << "a live pid can't be taken";
  // Stopped it uses nothing; slowed, a quarter of 2 W for a minute: 30 J, 7.5 s of a core.
  laptop_.setProcessWatts(agent, 2.0);
  EXPECT_TRUE(laptop_.stop(agent));
  clock_.advance(600);
  EXPECT_TRUE(laptop_.resume(agent));
  EXPECT_TRUE(laptop_.slow(agent));
  clock_.advance(60);
  EXPECT_EQ(std::tuple(laptop_.process(agent)->energyNanojoules, laptop_.process(agent)->cpuMicros),
            std::tuple(30'000'000'000u, 7'500'000u));
  EXPECT_EQ(laptop_.stop(4242).message(), "No process with id 4242 is running.");
  EXPECT_FALSE(laptop_.slow(1));
  const std::string a = std::to_string(agent);
  EXPECT_THAT(laptop_.commandLog(),
              ElementsAre("disablesleep 1", "sleepnow", "powermode lowpowermode 1",
                          "powermode powermode 3 (refused)", "powermode turbo 1 (refused)", "backups off",
                          "display off", "brightness 0.25", "brightness 1.5 (refused)", "stop " + a, "resume " + a,
                          "slow " + a, "stop 4242 (refused)", "slow 1 (refused)"));
  for (int i = 0; i < 300; ++i) laptop_.setBrightness(i % 2);
  EXPECT_EQ(laptop_.commandLog().size(), 200u) << "the latest 200 requests are kept";
  EXPECT_EQ(laptop_.commandLog().back(), "brightness 1");
}

TEST_F(SimLaptopTest, StateRoundTripsExactlyAndHandWrittenStateIsReadLeniently) {
  // Every value away from the default laptop's, as of the clock's now.
  const json state = json::parse(R"({
    "setup": {"ready": false, "reason": "The sudoers rule is missing."}, "lid": "closed", "thermal": 2, "nextPid": 400,
    "battery": {"present": true, "percent": 42.123456789, "maxCapacity": 4000, "voltage": 12000, "adapter": true,
                "charging": true, "watts": 3.5, "amperage": -77}, "sleepDisabled": true, "automaticBackups": false,
    "display": {"on": false, "brightness": 0.3, "builtIn": false, "external": true, "awakeAssertion": true},
    "locked": true, "apps": [{"path": "/Applications/A.app", "bundleId": "com.example.a", "name": "A"}],
    "powerModes": {"lowpowermode": 1, "powermode": 2}, "processes": [{"pid": 321, "ppid": 7, "path": "/opt/agent",
      "startMicros": 1800000000000000, "args": ["agent"], "cwd": "/work", "watts": 3.3, "stopped": true,
      "slowed": true, "cpuMicros": 7, "energyNanojoules": 9}],
    "lastStartMicros": 1800000000000001, "log": ["sleepnow", "stop 321"], "updated": 1800000000.0, "powerAssertions": []
  })");
  laptop_.fromJson(state);
  EXPECT_EQ(laptop_.toJson(), state);
  // Pids and start times continue where the file left off.
  EXPECT_EQ(laptop_.startProcess("/bin/a"), 400);
  EXPECT_EQ(laptop_.process(400)->startMicros, 1800000000000002u);
  // Wrong types keep the default, numbers out of range are clamped, and
  // hand-added processes get a pid none of the others uses, and a start.
  laptop_.fromJson(json::parse(R"({
    "lid": "ajar", "thermal": 9, "display": {"brightness": -1},
    "battery": {"percent": 150, "maxCapacity": -3, "voltage": "high", "watts": 1e308, "adapter": 1},
    "log": ["sleepnow", 17],
    "processes": [{"pid": 700, "path": "/usr/bin/kept"}, {"pid": 700, "path": "/usr/bin/duplicate"},
                  {"path": "/usr/local/bin/codex", "args": ["codex", 5, "exec"], "watts": "lots"},
                  {"pid": -4, "path": "/bin/negative"}, 42, null]
  })"));
  const json j = laptop_.toJson();
  EXPECT_EQ(std::tuple(j["lid"], j["thermal"], j["display"]["brightness"], j["log"]),
            std::tuple("open", 3, 0.0, json::array({"sleepnow"})));
  EXPECT_EQ(j["battery"], json::parse(R"({"present": true, "percent": 100.0, "maxCapacity": 5000, "voltage": 11400,
                                          "adapter": false, "charging": false, "watts": 10000.0})"));
  const auto& list = laptop_.processes();
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(std::tuple(list[0].path, list[1].path, list[2].path),
            std::tuple("/usr/bin/kept", "/usr/local/bin/codex", "/bin/negative"));
  EXPECT_THAT(list[1].args, ElementsAre("codex", "exec"));
  EXPECT_GT(list[1].startMicros, 0u);
  laptop_.fromJson(json::object());
  EXPECT_EQ(laptop_.toJson(), SimLaptop(clock_).toJson()) << "{} is the default laptop";
}

class SimPlatformTest : public ::testing::Test {
 protected:
  SimPlatform& open(std::string stateFile) {
    SimPlatformOptions options;
    options.stateFile = std::move(stateFile);
    options.appFolder = dir_.file("home");
    platform_ = makeSimPlatform(clock_, loop_, options);
    platform_->events().subscribe([this](SystemEvent e) { events_.push_back(e); });
    return *platform_;
  }
  json onDisk() { return json::parse(test::readFile(path_), nullptr, false); }
  void edit(const std::function<void(SimLaptop&)>& fn) { ASSERT_TRUE(editSimStateFile(path_, clock_, fn)); }
  test::TempDir dir_;
  std::string path_ = dir_.file("laptop.json");
  ManualClock clock_;
  ManualRunLoop loop_{clock_};
  std::unique_ptr<SimPlatform> platform_;
  std::vector<SystemEvent> events_;
};

TEST_F(SimPlatformTest, FileIsWrittenAtOnceAndAPersonsEditsArePickedUp) {
  path_ = dir_.file("sub/laptop.json");  // in a folder that does not exist yet
  SimPlatform& p = open(path_);
  EXPECT_EQ(onDisk(), SimLaptop(clock_).toJson());
  EXPECT_FALSE(p.processes().stop(424242));
  EXPECT_EQ(onDisk()["log"], json::array({"stop 424242 (refused)"})) << "written when the call returns";
  edit([](SimLaptop& l) { l.setAdapter(true, true); });
  auto person = [this](const std::function<void(json&)>& change) {
    json state = onDisk();
    change(state);
    test::writeFile(path_, state.dump(2));
  };
  person([](json& s) {
    s["processes"].push_back(json::parse(
        R"({"path": "/usr/local/bin/claude", "args": ["claude"], "cwd": "/home/me/project", "watts": 2.0})"));
    s["battery"]["telemetry"] = true;
  });
  p.refresh();
  loop_.drainPosted();
  // Events arrive on the loop, once per change a real laptop would signal.
  EXPECT_THAT(events_, ElementsAre(SystemEvent::PowerSourceChanged));
  // A hand-added process's pid is written at once, so later edits keep it the same process.
  ASSERT_EQ(p.processes().list().size(), 2u);
  const ProcessInfo claude = p.processes().list()[1];
  EXPECT_EQ(onDisk()["processes"][1]["pid"], claude.pid);
  EXPECT_EQ(std::tuple(claude.path, claude.args, claude.cwd),
            std::tuple("/usr/local/bin/claude", std::vector<std::string>{"claude"}, "/home/me/project"));
  EXPECT_EQ(p.registry().battery()->systemLoad, 8000);

  // Its draw changed by hand; an edit of something else sets neither its
  // energy nor the controller's counters back.
  clock_.advance(10);
  person([&](json& s) { s["processes"][1]["watts"] = 0.5; });
  p.refresh();
  clock_.advance(110);
  edit([](SimLaptop& l) { l.setLidClosed(true); });
  p.refresh();
  EXPECT_EQ(std::tuple(p.processes().info(claude.pid)->energyNanojoules, p.registry().battery()->accumulatorCount),
            std::tuple(75'000'000'000u, 4));
  person([](json& s) { s["processes"].erase(1); });
  p.refresh();
  EXPECT_EQ(p.processes().info(claude.pid), std::nullopt);
}

TEST_F(SimPlatformTest, AChangeMadeHereAndAnEditMadeMeanwhileAreBothKept) {
  SimPlatform& p = open(path_);
  p.refresh();
  edit([](SimLaptop& l) { l.setLidClosed(true); });  // between the tick and a switch made here
  EXPECT_TRUE(p.power().setSleepDisabled(true));
  EXPECT_EQ(std::tuple(p.laptop().lidClosed(), onDisk()["lid"], onDisk()["sleepDisabled"]),
            std::tuple(true, "closed", true));
  // A tool starting 50 processes while the app ticks and switches.
  std::thread tool([this] {
    for (int i = 0; i < 50; ++i)
      editSimStateFile(path_, clock_, [i](SimLaptop& l) { l.startProcess("/tool/" + std::to_string(i)); });
  });
  // The app never waits long for the lock: a switch it could not make is
  // refused (and retried by its caller), never made without being written.
  std::size_t made = 0;
  for (int i = 0; i < 50; ++i) {
    p.refresh();
    if (p.power().setAutomaticBackups(i % 2 == 1)) ++made;
  }
  tool.join();
  EXPECT_GE(made, 25u);
  EXPECT_EQ(std::tuple(onDisk()["processes"].size(), onDisk()["log"].size()), std::tuple(51u, 1 + made));
}

TEST_F(SimPlatformTest, DrainIsWrittenOnlyWhenAWholePercentMovesAndIsNeverGivenBack) {
  SimPlatform& p = open(path_);
  // 526 mA from 5000 mAh for 1000 s: 146 mAh go, crossing below 80, 79 and
  // 78 % (at 3999, 3949 and 3899 mAh); each crossing is one write.
  std::string last = test::readFile(path_);
  std::vector<std::int64_t> shown;
  for (int i = 0; i < 1000; ++i) {
    clock_.advance(1);
    p.refresh();
    const std::string now = test::readFile(path_);
    if (std::exchange(last, now) == now) continue;
    shown.push_back(std::llround(json::parse(now)["battery"]["percent"].get<double>() * 50) / 50);
  }
  EXPECT_THAT(shown, ElementsAre(79, 78, 77));
  // An edit of something else never gives back the unwritten drain; a
  // percent typed into the file is the charge from then on.
  clock_.advance(300);
  const double running = p.laptop().chargePercent().value();
  edit([](SimLaptop& l) { l.setLidClosed(true); });
  p.refresh();
  EXPECT_EQ(p.laptop().chargePercent(), running);
  edit([](SimLaptop& l) { l.setCharge(20); });
  p.refresh();
  EXPECT_EQ(p.registry().battery()->currentCapacity, 1000);
}

TEST_F(SimPlatformTest, DamagedOrUnwritableFileKeepsTheLastGoodState) {
  edit([](SimLaptop& l) { l.setLidClosed(true); });
  SimPlatform& p = open(path_);
  const std::pair<std::string, std::string> damage[] = {
      {"", "is empty"}, {"lid: closed", "isn't valid JSON"}, {"[1, 2, 3]", "doesn't hold a JSON object"}, {std::string(5 * 1024 * 1024, ' '), "is too large (over 4 MB)"},
      {std::string(100000, '[') + std::string(100000, ']'), "nests too deeply to be a laptop's state"},
  };
  for (const auto& [content, problem] : damage) {
    SCOPED_TRACE(problem);
    test::writeFile(path_, content);
    clock_.advance(400);  // a whole percent of drain, which would be written
    p.refresh();
    EXPECT_EQ(p.stateFileProblem(),
              "The simulated laptop's state file " + path_ + " " + problem + "; using the last good state.");
    EXPECT_EQ(p.laptop().lidClosed(), true);
    EXPECT_EQ(test::readFile(path_), content);
  }
  // A change made here writes the last good state with the change.
  EXPECT_TRUE(p.displays().setBuiltInEnabled(false));
  EXPECT_EQ(p.stateFileProblem(), "");
  EXPECT_EQ(std::tuple(onDisk()["lid"], onDisk()["display"]["on"]), std::tuple("closed", false));
  // Damaged at start: the default laptop, and the file left for its author.
  platform_.reset();
  test::writeFile(path_, "{\"lid\": ");
  EXPECT_EQ(open(path_).laptop().lidClosed(), false);
  EXPECT_FALSE(editSimStateFile(path_, clock_, [](SimLaptop& l) { l.setLidClosed(false); }));
  EXPECT_EQ(test::readFile(path_), "{\"lid\": ");
  // A folder that is a plain file: reported, not fatal.
  test::writeFile(dir_.file("plain"), "x");
  path_ = dir_.file("plain") + "/laptop.json";
  SimPlatform& q = open(path_);
  EXPECT_EQ(q.stateFileProblem(), "The simulated laptop's state file " + path_ +
                                      " can't be read (open: Not a directory); using the last good state.");
  EXPECT_TRUE(q.power().setSleepDisabled(true));
  EXPECT_THAT(q.stateFileProblem(), HasSubstr("Couldn't write the simulated laptop's state file " + path_));
}

TEST_F(SimLaptopTest, ProcessesDrawOnTopOfTheBaseAndTheControllerReportsTheWholeDraw) {
  // 6 W of base draw and a 2 W process: 8 W at 11.4 V is 702 mA; slowed it
  // draws a quarter, stopped nothing.
  const std::int32_t pid = laptop_.startProcess("/usr/local/bin/claude");
  laptop_.setProcessWatts(pid, 2.0);
  EXPECT_EQ(std::tuple(laptop_.wholeDraw(), battery().amperage), std::tuple(8.0, -702));
  laptop_.slow(pid);
  EXPECT_EQ(battery().amperage, -570);
  laptop_.stop(pid);
  EXPECT_EQ(std::tuple(battery().amperage, battery().systemLoad), std::tuple(-526, std::nullopt));

  // The controller's telemetry: SystemLoad in mW, added to the accumulator
  // every 30 s at the draw of that moment.
  laptop_.resume(pid);
  laptop_.unslow(pid);
  laptop_.setTelemetry(true);
  auto counters = [this] {
    const BatteryProperties b = battery();
    return std::tuple(b.systemLoad.value_or(-1), b.accumulatedSystemLoad.value_or(-1), b.accumulatorCount.value_or(-1));
  };
  clock_.advance(29);
  EXPECT_EQ(counters(), std::tuple(8000, 0, 0));
  clock_.advance(1);
  EXPECT_EQ(counters(), std::tuple(8000, 8000, 1));
  clock_.advance(65);
  EXPECT_EQ(counters(), std::tuple(8000, 24000, 3));
  laptop_.setProcessWatts(pid, 4.0);
  clock_.advance(25);
  EXPECT_EQ(counters(), std::tuple(10000, 34000, 4));
  // The adapter carries the load: the battery is idle, the machine still draws.
  laptop_.setAdapter(true, false);
  EXPECT_EQ(std::tuple(battery().amperage, battery().systemLoad), std::tuple(0, 10000));
  // Off, the counters keep their values; they come back with the file.
  laptop_.setTelemetry(false);
  clock_.advance(600);
  EXPECT_EQ(std::tuple(battery().systemLoad, battery().accumulatorCount), std::tuple(std::nullopt, std::nullopt));
  SimLaptop copy(clock_);
  copy.fromJson(laptop_.toJson());
  copy.setTelemetry(true);
  EXPECT_EQ(copy.batteryProperties()->accumulatedSystemLoad, 34000);
}

TEST_F(SimLaptopTest, PowerAssertionsLiveWithTheirProcess) {
  const std::int32_t caffeinate = laptop_.startProcess("/usr/bin/caffeinate", {"caffeinate", "-i"});
  const std::int32_t app = laptop_.startProcess("/Applications/Player.app/Contents/MacOS/Player");
  const std::int32_t audio = laptop_.startProcess("/usr/sbin/coreaudiod");
  auto take = [&](std::int32_t pid, const char* name, std::optional<std::int32_t> forPid = std::nullopt) {
    PowerAssertion a;
    a.pid = pid;
    a.type = "PreventUserIdleSystemSleep";
    a.name = name;
    a.onBehalfOf = forPid;
    return laptop_.addPowerAssertion(a);
  };
  EXPECT_EQ(take(4242, "ghost").message(), "No process with id 4242 is running.");
  EXPECT_TRUE(take(caffeinate, "caffeinate command-line tool"));
  EXPECT_TRUE(take(audio, "Playing audio", app));
  EXPECT_TRUE(take(audio, "Another", app));
  EXPECT_TRUE(laptop_.removePowerAssertion(audio, "Another"));
  EXPECT_FALSE(laptop_.removePowerAssertion(audio, "Another"));
  // The file form, read back; an assertion of a process that isn't running
  // is dropped, a missing type is the usual idle-sleep one.
  json state = laptop_.toJson();
  EXPECT_EQ(state["powerAssertions"][1],
            json::parse(R"({"pid": )" + std::to_string(audio) + R"(, "processName": "coreaudiod",
                "type": "PreventUserIdleSystemSleep", "name": "Playing audio", "onBehalfOf": )" +
                        std::to_string(app) + "}"));
  state["powerAssertions"].push_back({{"pid", 9999}, {"name", "gone"}});
  state["powerAssertions"].push_back({{"pid", app}, {"name", "Exporting"}, {"since", "now"}});
  state["powerAssertions"].push_back("junk");
  laptop_.fromJson(state);
  ASSERT_EQ(laptop_.powerAssertions().size(), 3u);
  const PowerAssertion& added = laptop_.powerAssertions()[2];
  EXPECT_EQ(std::tuple(added.processName, added.type, added.since),
            std::tuple("Player", "PreventUserIdleSystemSleep", std::nullopt));
  // A process that ends releases what it holds and what was held for it.
  laptop_.endProcess(app);
  ASSERT_EQ(laptop_.powerAssertions().size(), 1u);
  EXPECT_EQ(laptop_.powerAssertions()[0].pid, caffeinate);
}

}  // namespace
}  // namespace vigilo
