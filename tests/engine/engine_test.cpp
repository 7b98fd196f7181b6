#include "engine_fixture.h"
#include "platform/platform_wrapper.h"

#include <fcntl.h>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace vigilo::test {
namespace {

using ::testing::ElementsAre;

TEST_F(EngineTest, ModeOffSleepsNormallyButHonoursExplicitHoldsNewestFirst) {
  // Given mode off and nothing else.
  writeConfig(R"({"mode": "off"})");
  launch();
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().statusLine(), "Sleeps normally");

  engine().addHold("Deploying", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_TRUE(engine().holding());
  EXPECT_TRUE(laptop().sleepDisabled());
  EXPECT_EQ(engine().statusLine(), "Deploying · stays awake closed");
  EXPECT_TRUE(files().exists("hold"));

  // The newest hold gives the reason; an owner releases only its own.
  engine().addHold("a", std::nullopt, std::nullopt, 42);
  Hold b = engine().addHold("b", std::nullopt, std::nullopt, 42);
  engine().addHold("c", std::nullopt, std::nullopt, 77);
  EXPECT_EQ(engine().holdReason(), "c");
  EXPECT_EQ(engine().releaseHolds(77, b.id), 0);
  EXPECT_EQ(engine().releaseHolds(42, std::nullopt), 2);
  EXPECT_EQ(engine().holdReason(), "c");
  EXPECT_EQ(engine().releaseHold(engine().holds().back().id), 1);
  EXPECT_EQ(engine().holdReason(), "Deploying");
  EXPECT_EQ(count("disablesleep 1"), 1);

  EXPECT_EQ(engine().releaseHold(std::nullopt), 1);
  EXPECT_FALSE(engine().holding());
  EXPECT_FALSE(laptop().sleepDisabled());
  EXPECT_FALSE(files().exists("hold"));
  EXPECT_EQ(engine().lastEndReason(), "Turned off");
}

TEST_F(EngineTest, ModeAutoFollowsWorkAndSnooze) {
  // Given mode auto with an agent at work.
  work_.reason = "Claude Code is running a command";
  work_.worker = "Claude Code";
  launch();
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(engine().statusLine(), "Claude Code is running a command · stays awake closed");

  // The work stops: the hold ends with the agent's name.
  work_.reason.reset();
  advance(2);
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().lastEndReason(), "Claude Code finished");
  EXPECT_EQ(engine().statusLine(), "Nothing running · sleeps when closed");

  // Snoozed, work no longer counts, but an explicit hold still does.
  work_.reason = "Claude Code is running a command";
  engine().sleepNow();
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().statusLine(), "Sleeping until the lid opens");
  EXPECT_EQ(count("sleepnow"), 1);
  engine().addHold("Uploading", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(engine().holdReason(), "Uploading");
}

TEST_F(EngineTest, SnoozeEndsWithTheLidOpeningOrWithoutALidWithTheWake) {
  // Given an agent at work on a laptop with a lid.
  work_.reason = "Claude Code is running a command";
  launch();
  engine().sleepNow();
  advance(2);  // the laptop slept and woke with the lid open: still snoozed
  EXPECT_TRUE(engine().snoozed());
  EXPECT_FALSE(engine().holding());
  laptop().setLidClosed(true);
  advance(2);
  laptop().setLidClosed(false);
  advance(2);
  EXPECT_FALSE(engine().snoozed());
  EXPECT_TRUE(engine().holding());

  // Choosing a mode again ends it too.
  engine().sleepNow();
  engine().setMode(Mode::Off);
  engine().setMode(Mode::Auto);
  EXPECT_FALSE(engine().snoozed());
  EXPECT_TRUE(engine().holding());

  // Without a lid, the wake after the sleep ends it.
  laptop().removeLid();
  engine().sleepNow();
  EXPECT_EQ(engine().statusLine(), "Sleeping until the lid opens");
  advance(2);
  EXPECT_FALSE(engine().snoozed());
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(count("sleepnow"), 3);
}

TEST_F(EngineTest, ModeAlwaysWithAndWithoutEndTime) {
  // Given mode Always without an end time, then with one.
  launch();
  engine().stayAwakeFor(std::nullopt);
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(engine().holdReason(), "Always awake");
  EXPECT_EQ(engine().statusLine(), "Awake until you turn it off");
  engine().addHold("Later hold", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(engine().holdReason(), "Always awake");

  engine().releaseHold(std::nullopt);
  engine().stayAwakeFor(80);
  const Time until = clock_.now() + 80 * 60;
  EXPECT_EQ(engine().holdReason(), "Awake until " + formatShortTime(until));
  // A moment later the time left still reads in whole minutes, rounded up.
  clock_.advance(0.3);
  EXPECT_EQ(engine().statusLine(), "Awake until " + formatShortTime(until) + " · 1h 20m left");
  EXPECT_EQ(engine().config().modeBeforeAlways, Mode::Auto);

  // The end time passes: back to the mode before, and the hold ends.
  advance(80 * 60 + 2);
  EXPECT_EQ(engine().config().mode, Mode::Auto);
  EXPECT_FALSE(engine().config().alwaysUntil);
  EXPECT_FALSE(engine().holding());
}

TEST_F(EngineTest, AlwaysUntilPassedShowsNoTimeLeft) {
  // Given a config already past its end time (as after a long sleep).
  writeConfig(R"({"mode": "on", "alwaysUntil": 1700000000})");
  launch(EngineOptions{true, true});  // passive: no evaluate yet
  EXPECT_EQ(engine().statusLine(), "Awake until " + formatShortTime(1700000000) + " · 0m left");
}

TEST(ShortTimeTest, TwelveHourLocalesKeepTheirClock) {
  // Time formats (nl_langinfo T_FMT) as locales give them.
  const struct Row {
    const char* localeFormat;
    const char* shortFormat;
  } rows[] = {{"%r", "%l:%M %p"},          {"%I:%M:%S %p %Z", "%l:%M %p"}, {"%l:%M:%S %p", "%l:%M %p"},
              {"%T", "%H:%M"},             {"%H:%M:%S", "%H:%M"},          {"%H\u6642%M\u5206", "%H:%M"},
              {"%%I %H:%M", "%H:%M"},      {"%", "%H:%M"},                 {"", "%H:%M"}};
  for (const Row& r : rows) EXPECT_EQ(shortTimeFormat(r.localeFormat), r.shortFormat) << r.localeFormat;
}

TEST_F(EngineTest, TimedHoldExpiresAndIsDroppedFromRuntimeFile) {
  launch();
  Hold h = engine().addHold("Build", 90, std::nullopt, std::nullopt);
  EXPECT_TRUE(sawNotice("Staying awake for 1h 30m"));
  // A part of a minute is announced as a whole one, never "0m".
  engine().releaseHold(engine().addHold("Quick", 0.2, std::nullopt, std::nullopt).id);
  EXPECT_TRUE(sawNotice("Staying awake for 1m"));
  EXPECT_NE(readFile(folder_ + "/runtime.json").find(h.id), std::string::npos);

  advance(5398);
  EXPECT_TRUE(engine().holding());
  advance(4);
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().lastEndReason(), "Nothing left to wait for");
  EXPECT_EQ(readFile(folder_ + "/runtime.json").find(h.id), std::string::npos);
}

TEST_F(EngineTest, HoldBoundToProcessEndsWithItAndIgnoresReusedPid) {
  launch();
  const std::int32_t pid = laptop().startProcess("/usr/bin/make", {"make", "-j8"});
  Hold h = engine().addHold("make", std::nullopt, pid, std::nullopt);
  ASSERT_EQ(h.pid, pid);
  ASSERT_TRUE(h.pidStart);
  advance(2);
  EXPECT_TRUE(engine().holding());

  // The process ends and another takes its id: the hold still ends.
  laptop().endProcess(pid);
  advance(1);
  laptop().startProcess("/usr/bin/other", {}, 1, pid);
  advance(2);
  EXPECT_TRUE(engine().holds().empty());
  EXPECT_FALSE(engine().holding());

  // A pid that does not exist binds nothing.
  Hold unbound = engine().addHold("ghost", std::nullopt, 999999, std::nullopt);
  EXPECT_FALSE(unbound.pid);
}

TEST_F(EngineTest, RuntimeHoldsSurviveARestartAndExpiredOnesAreDropped) {
  writeConfig(R"({"mode": "off"})");
  std::filesystem::create_directories(folder_);
  const Time now = clock_.now();
  writeFile(folder_ + "/runtime.json",
            R"({"holds":[{"id":"OLD","reason":"old","until":)" + std::to_string(now - 10) +
                R"(,"created":1},{"id":"LIVE","reason":"live","created":1},{"id":7}]})");
  launch();
  ASSERT_EQ(engine().holds().size(), 1u);
  EXPECT_EQ(engine().holds()[0].id, "LIVE");
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(readFile(folder_ + "/runtime.json").find("OLD"), std::string::npos);
}

TEST_F(EngineTest, BatteryFloorLatchesAndClearsThreePointsAbove) {
  // Given a limit of 20 % and an agent at work on battery.
  writeConfig(R"({"batteryFloor": 20})");
  work_.reason = "Codex is running a command";
  laptop().setDraw(0.0);  // hold the charge where the test puts it
  laptop().setCharge(20);
  launch();
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().blockedReason(), "Battery at 20%");
  EXPECT_TRUE(engine().blockedByFloor());
  EXPECT_EQ(engine().statusLine(), "Battery at 20%, sleeps when closed");
  EXPECT_EQ(engine().holdReason(), "Codex is running a command");

  laptop().setCharge(22);
  advance(2);
  EXPECT_EQ(engine().blockedReason(), "Battery at 22%");
  laptop().setCharge(23);
  advance(2);
  EXPECT_FALSE(engine().blockedReason());
  EXPECT_TRUE(engine().holding());

  // Back at the limit, then on power: the latch clears at once.
  laptop().setCharge(19);
  advance(2);
  EXPECT_EQ(engine().lastEndReason(), "Battery at 19%");
  laptop().setAdapter(true, true);
  advance(2);
  EXPECT_TRUE(engine().holding());

  // "Keep Going Below" switches the limit off; 0 never blocks.
  laptop().setAdapter(false, false);
  advance(2);
  EXPECT_FALSE(engine().holding());
  engine().overrideFloor(true);
  EXPECT_TRUE(engine().holding());
}

TEST_F(EngineTest, OnlyOnPowerUsesTheWeakAdapterRule) {
  writeConfig(R"({"onlyOnPower": true, "batteryFloor": 0})");
  work_.reason = "Gemini CLI is running a command";
  launch();
  EXPECT_EQ(engine().blockedReason(), "Only on power");

  // On the adapter, not charging, the battery gives 0.2 W: on power.
  laptop().setAdapter(true, false);
  laptop().setAmperage(-18);  // 0.21 W at 11.4 V
  advance(2);
  ASSERT_TRUE(engine().battery());
  EXPECT_TRUE(engine().battery()->onPower());
  EXPECT_TRUE(engine().holding());

  // An adapter too weak to stop a 0.5 W drain counts as battery.
  laptop().setAmperage(-44);  // 0.50 W
  advance(2);
  EXPECT_FALSE(engine().battery()->onPower());
  EXPECT_EQ(engine().blockedReason(), "Only on power");

  // Without a battery the power guards do not apply.
  laptop().removeBattery();
  advance(2);
  EXPECT_FALSE(engine().battery());
  EXPECT_TRUE(engine().holding());
}

TEST_F(EngineTest, HeatGuardWaitsFiveMinutesOrActsAtOnceWhenCritical) {
  work_.reason = "amp is running a command";
  launch();
  laptop().setThermalState(2);
  loop_.drainPosted();
  const Time hot = clock_.now();
  advance(298);
  engine().evaluate();
  EXPECT_LT(clock_.now() - hot, 300);
  EXPECT_TRUE(engine().holding());
  advance(300 - (clock_.now() - hot));
  engine().evaluate();
  EXPECT_EQ(engine().blockedReason(), "Too hot");
  EXPECT_TRUE(engine().heatForced());
  EXPECT_EQ(engine().lastEndReason(), "Too hot");

  // Cooling down clears the guard; critical acts without waiting.
  laptop().setThermalState(0);
  advance(2);
  EXPECT_FALSE(engine().heatForced());
  EXPECT_TRUE(engine().holding());
  laptop().setThermalState(3);
  advance(2);
  EXPECT_EQ(engine().blockedReason(), "Too hot");

  // With the heat guard off nothing blocks.
  Config c = engine().config();
  c.heatGuard = false;
  engine().apply(c, true);
  EXPECT_TRUE(engine().holding());
}

TEST_F(EngineTest, SetupNotReadyLeavesTheSwitchAloneAndComesFirstInTheStatus) {
  // Given mode Always, then a setup that breaks while the switch still works.
  writeConfig(R"({"mode": "on"})");
  launch();
  ASSERT_TRUE(engine().holding());
  laptop().setSetup(false, "The sudoers rule is missing.");
  advance(60);
  EXPECT_FALSE(engine().holding());
  EXPECT_FALSE(laptop().sleepDisabled());
  EXPECT_EQ(laptop().commandLog(), (std::vector<std::string>{"disablesleep 1", "disablesleep 0"}));
  EXPECT_EQ(std::count(notices_.begin(), notices_.end(), "Setup needs repair"), 1);
  laptop().setThermalState(3);
  advance(2);
  EXPECT_EQ(engine().statusLine(), "Needs a one-time setup");

  // Repaired and cool again: it holds once more, with one call.
  laptop().setSetup(true);
  laptop().setThermalState(0);
  advance(10);
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(count("disablesleep 1"), 2);
}

TEST_F(EngineTest, RefusedSwitchIsRetriedAtMostEveryThirtySeconds) {
  laptop().setRefusals(true, false);
  work_.reason = "Claude Code is running a command";
  launch();
  EXPECT_FALSE(engine().holding());
  EXPECT_FALSE(files().exists("hold"));
  EXPECT_EQ(engine().warning(),
            "macOS refused to switch sleep off, so closing the lid would sleep the Mac. Run Set Up again in "
            "Settings › General.");
  advance(28);
  EXPECT_EQ(count("disablesleep 1 (refused)"), 1);

  // The work stops: the refusal no longer matters, so its warning goes.
  work_.reason.reset();
  advance(2);
  EXPECT_FALSE(engine().warning());

  work_.reason = "Claude Code is running a command";
  laptop().setRefusals(false, false);
  advance(2);
  EXPECT_TRUE(engine().holding());
  EXPECT_FALSE(engine().warning());
  EXPECT_TRUE(files().exists("hold"));
}

TEST_F(EngineTest, ANewHoldTakesOverFromAPendingReleaseAndWarningsEndWithTheirCause) {
  // Given a hold whose release is refused, and then a new hold.
  writeConfig(R"({"mode": "off"})");
  launch();
  Hold a = engine().addHold("a", std::nullopt, std::nullopt, std::nullopt);
  laptop().setRefusals(false, true);
  engine().releaseHold(a.id);
  ASSERT_TRUE(engine().pendingRelease());
  engine().addHold("b", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_TRUE(engine().holding());
  EXPECT_FALSE(engine().pendingRelease());
  EXPECT_FALSE(engine().warning());
  EXPECT_TRUE(files().exists("hold"));

  // Someone switches sleep back on: warned at once, switched off again on
  // the slow beat, and the warning goes with its cause.
  laptop().setRefusals(false, false);
  laptop().setSleepDisabledExternally(false);
  advance(2);
  EXPECT_EQ(engine().warning(), "macOS didn't keep sleep switched off");
  advance(10);
  EXPECT_TRUE(laptop().sleepDisabled());
  EXPECT_FALSE(engine().warning());
  EXPECT_EQ(engine().statusLine(), "b · stays awake closed");

  // Again, while sleep can't be switched off: the warning lasts as long as
  // the hold, and a change of power source that fails says so too.
  laptop().setRefusals(true, false);
  laptop().setSleepDisabledExternally(false);
  advance(12);
  EXPECT_EQ(engine().warning(), "macOS didn't keep sleep switched off");
  laptop().setAdapter(true, true);
  advance(2);
  EXPECT_EQ(engine().warning(), "macOS didn't keep sleep switched off after the power change");
  engine().releaseHold(std::nullopt);
  EXPECT_FALSE(engine().warning());
  EXPECT_FALSE(files().exists("hold"));
}

TEST_F(EngineTest, FailedReleaseStaysPendingAndKeepsItsMarkerUntilItWorks) {
  writeConfig(R"({"mode": "off"})");
  launch();
  Hold h = engine().addHold("job", std::nullopt, std::nullopt, std::nullopt);
  laptop().setRefusals(false, true);
  engine().releaseHold(h.id);
  EXPECT_FALSE(engine().holding());
  EXPECT_TRUE(engine().pendingRelease());
  EXPECT_EQ(engine().warning(), "Couldn't switch sleep back on yet; Vigilo keeps trying.");
  advance(10);
  EXPECT_TRUE(laptop().sleepDisabled());
  EXPECT_TRUE(files().exists("hold"));

  laptop().setRefusals(false, false);
  advance(10);
  EXPECT_FALSE(engine().pendingRelease());
  EXPECT_FALSE(engine().warning());
  EXPECT_FALSE(laptop().sleepDisabled());
  EXPECT_FALSE(files().exists("hold"));
}

TEST_F(EngineTest, SleepThatWasOffBeforeIsNeverSwitchedOnByUs) {
  // Given the user switched sleep off by hand before Vigilo held.
  laptop().setSleepDisabledExternally(true);
  writeConfig(R"({"mode": "off"})");
  launch();
  engine().addHold("job", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_TRUE(files().exists("sleep-off-before"));
  engine().releaseHold(std::nullopt);
  EXPECT_EQ(count("disablesleep 0"), 0);
  EXPECT_TRUE(laptop().sleepDisabled());
  EXPECT_FALSE(files().exists("hold"));

  // The user switches it back on: the marker goes at the next check.
  laptop().setSleepDisabledExternally(false);
  advance(10);
  EXPECT_FALSE(files().exists("sleep-off-before"));
}

TEST_F(EngineTest, SleepLeftOffByMistakeIsSwitchedBackOn) {
  // Given sleep switched off without any marker of ours and no one holding.
  launch();
  advance(2);
  files().touch("hold");
  laptop().setSleepDisabledExternally(true);
  files().remove("sleep-off-before");
  advance(10);
  EXPECT_FALSE(laptop().sleepDisabled());
}

TEST_F(EngineTest, UnwritableAppFolderNeverSwitchesSleepOff) {
  // Given an app folder below a plain file, which no one can create.
  writeFile(dir_.file("plain"), "x");
  folder_ = dir_.file("plain") + "/home";
  work_.reason = "Claude Code is running a command";
  launch();
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().setupError(), "Vigilo couldn't write to its folder, so it won't switch sleep off");
  EXPECT_EQ(count("disablesleep 1"), 0);
  EXPECT_FALSE(laptop().sleepDisabled());
}

TEST_F(EngineTest, SlowJobsRunOnTheirTicks) {
  RecordingSlowJobs jobs;
  engine_ = std::make_unique<Engine>(*sim_, folder_);
  engine_->addSlowJobs(&jobs);
  engine_->launch();
  advance(2 * 10);
  EXPECT_THAT(jobs.calls, ElementsAre("refreshWatchdog", "watchdog@3", "wake@5", "approve@5", "wake@10", "approve@10"));
}

TEST_F(EngineTest, SettingsFileEditsMergeAndNeverLoosenSafety) {
  // Given a timed "Always" and a scheduled wake.
  const Time until = clock_.now() + 3600, wakeAt = clock_.now() + 7200;
  writeConfig(nlohmann::json{{"quietMinutes", 9}, {"batteryFloor", 30}, {"mode", "on"}, {"alwaysUntil", until},
                   {"modeBeforeAlways", "off"}, {"wakeAt", wakeAt}}.dump());
  launch();
  EXPECT_EQ(readFile(folder_ + "/safety.json").find("\"batteryFloor\": 30") != std::string::npos, true);

  // An edit with one key changes only that key: the end time, the mode to
  // return to and the wake stay.
  clock_.advance(1);
  writeConfig(R"({"preset": "max_battery"})");
  advance(10);
  EXPECT_EQ(engine().config().preset, Preset::MaxBattery);
  EXPECT_EQ(engine().config().quietMinutes, 9);
  EXPECT_EQ(engine().config().batteryFloor, 30);
  EXPECT_EQ(engine().config().alwaysUntil, until);
  EXPECT_EQ(engine().config().modeBeforeAlways, Mode::Off);
  EXPECT_EQ(engine().config().wakeAt, wakeAt);
  // A null clears one on purpose.
  writeConfig(R"({"wakeAt": null})");
  loop_.fileChanged(folder_ + "/config.json");
  EXPECT_FALSE(engine().config().wakeAt);
  EXPECT_EQ(engine().config().alwaysUntil, until);

  // Loosening from the file is refused and the file is put right.
  writeConfig(R"({"heatGuard": false, "batteryFloor": 10, "mode": "sideways"})");
  loop_.fileChanged(folder_ + "/config.json");
  EXPECT_TRUE(engine().config().heatGuard);
  EXPECT_EQ(engine().config().batteryFloor, 30);
  EXPECT_EQ(engine().config().mode, Mode::Auto);
  EXPECT_TRUE(sawNotice(
      "Settings file change ignored: Safety settings can only be loosened in Vigilo itself: the heat guard stays "
      "on and the battery limit stays at 30%"));
  auto onDisk = Config::decode(readFile(folder_ + "/config.json"));
  ASSERT_TRUE(onDisk);
  EXPECT_TRUE(onDisk->heatGuard);

  // Stricter is accepted and becomes the baseline; the app itself may loosen.
  writeConfig(R"({"onlyOnPower": true})");
  loop_.fileChanged(folder_ + "/config.json");
  EXPECT_TRUE(Safety::load(files())->onlyOnPower);
  Config c = engine().config();
  c.onlyOnPower = false;
  engine().apply(c, true);
  EXPECT_FALSE(Safety::load(files())->onlyOnPower);
}

TEST_F(EngineTest, BrokenSettingsFileIsKeptAsideAndDefaultsWrittenWithTheSafetyBaseline) {
  // Given a damaged file and a battery limit of 30 % set earlier in the app.
  writeConfig("this is not json {");
  writeFile(folder_ + "/safety.json", R"({"heatGuard": true, "batteryFloor": 30, "onlyOnPower": false})");
  launch();
  const std::string copy = "config.broken-" + std::to_string(static_cast<long long>(clock_.now())) + ".json";
  EXPECT_EQ(readFile(folder_ + "/" + copy), "this is not json {");
  // One alert: nothing blames an edit the person never made.
  EXPECT_THAT(notices_, ElementsAre("Settings file couldn't be read: Vigilo is using its defaults. Your file was kept as " + copy));
  Config expected;
  expected.batteryFloor = 30;
  EXPECT_EQ(Config::decode(readFile(folder_ + "/config.json")), expected);
}

TEST_F(EngineTest, DamagedRecordsAreSetAsideSaidAndWhatTheyStillTellIsPutBack) {
  // Given a paused app that only the watchdog's list still names, and each
  // record damaged in one way at a time.
  const std::int32_t paused = laptop().startProcess("/usr/bin/xcodebuild");
  std::filesystem::create_directories(folder_);
  const std::map<std::string, std::string> wrongType = {{"runtime.json", R"({"holds": {"id": 5}})"},
                                                        {"touched.json", R"({"pid": 1, "start": 2})"},
                                                        {"powermode-restore", "powermode 7\n"},
                                                        {"brightness-restore", "bright"}};
  using Plant = std::function<void(const std::string& path, const std::string& name)>;
  const std::vector<std::pair<const char*, Plant>> damages = {
      {"wrong type", [&](const std::string& p, const std::string& n) { writeFile(p, wrongType.at(n)); }},
      {"truncated", [](const std::string& p, const std::string&) { writeFile(p, "[{\"pid\": 4, \"sta"); }},
      {"binary", [](const std::string& p, const std::string&) { writeFile(p, std::string("\0\xff\xfe\x01", 4)); }},
      {"empty", [](const std::string& p, const std::string&) { writeFile(p, ""); }},
      {"huge", [](const std::string& p, const std::string&) {
         writeFile(p, "[]");
         std::filesystem::resize_file(p, 17 * 1024 * 1024);
       }},
      {"a folder", [](const std::string& p, const std::string&) { std::filesystem::create_directory(p); }},
      {"a link", [&](const std::string& p, const std::string& n) {
         writeFile(dir_.file("elsewhere-" + n), "[]");
         std::filesystem::create_symlink(dir_.file("elsewhere-" + n), p);
       }},
  };
  for (const auto& [how, plant] : damages) {
    SCOPED_TRACE(how);
    for (const auto& e : std::filesystem::directory_iterator(folder_)) std::filesystem::remove_all(e.path());
    for (const auto& [name, unused] : wrongType) plant(folder_ + "/" + name, name);
    writeFile(folder_ + "/resume-pids", std::to_string(paused) + "\t/usr/bin/xcodebuild\n");
    laptop().stop(paused);
    engine_.reset();
    notices_.clear();
    launch();
    EXPECT_FALSE(laptop().process(paused)->stopped);
    EXPECT_TRUE(engine().holds().empty());
    EXPECT_TRUE(engine().outstandingChanges().empty()) << ::testing::PrintToString(engine().outstandingChanges());
    std::vector<std::string> aside;
    for (const auto& e : std::filesystem::directory_iterator(folder_)) {
      const std::string n = e.path().filename().string();
      if (n.find(".broken-") != std::string::npos) aside.push_back(n.substr(0, n.find(".broken-")));
    }
    std::sort(aside.begin(), aside.end());
    EXPECT_THAT(aside, ElementsAre("brightness-restore", "powermode-restore", "runtime", "touched"));
    const auto said = std::count_if(notices_.begin(), notices_.end(), [](const std::string& n) {
      return n.find(") was damaged and was set aside as ") != std::string::npos;
    });
    EXPECT_EQ(said, 4) << ::testing::PrintToString(notices_);
  }
  // A dangling link where the hold marker goes is no record: a plain file
  // takes its place before sleep is switched off.
  std::filesystem::create_symlink(dir_.file("nowhere"), folder_ + "/hold");
  engine().addHold("Deploying", std::nullopt, std::nullopt, std::nullopt);
  ASSERT_TRUE(engine().holding());
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(folder_ + "/hold")));
}

TEST_F(EngineTest, CrashWhileHoldingIsAdoptedThenReleasedWithOneCall) {
  // Given a previous run that died holding with the lid shut: sleep off and
  // its marker left.
  std::filesystem::create_directories(folder_);
  files().touch("hold");
  laptop().setSleepDisabledExternally(true);
  laptop().setLidClosed(true);
  launch();
  EXPECT_TRUE(engine().adoptedHoldUntil());
  EXPECT_FALSE(files().exists("sleep-off-before"));
  advance(28);
  EXPECT_TRUE(laptop().sleepDisabled());
  // The grace ends on a slow beat (tick 15), where the check of the switch
  // runs too: still one release and one sleep.
  advance(4);
  EXPECT_FALSE(laptop().sleepDisabled());
  EXPECT_FALSE(files().exists("hold"));
  EXPECT_FALSE(engine().adoptedHoldUntil());
  EXPECT_EQ(laptop().commandLog(), (std::vector<std::string>{"disablesleep 0", "sleepnow"}));
}

TEST_F(EngineTest, CrashWhileHoldingIsKeptWhenSomethingStillWantsTheMachineAwake) {
  std::filesystem::create_directories(folder_);
  files().touch("hold");
  laptop().setSleepDisabledExternally(true);
  work_.reason = "Claude Code is running a command";
  launch();
  EXPECT_TRUE(engine().holding());
  EXPECT_FALSE(engine().adoptedHoldUntil());
  advance(60);
  EXPECT_TRUE(laptop().sleepDisabled());
  EXPECT_EQ(count("disablesleep 0"), 0);
}

TEST_F(EngineTest, RecoveryPutsBackPausedProcessesAndScreenRecords) {
  const std::int32_t paused = laptop().startProcess("/usr/bin/xcodebuild");
  const std::int32_t gone = laptop().startProcess("/usr/bin/gone");
  laptop().stop(paused);
  const std::uint64_t start = laptop().process(paused)->startMicros;
  laptop().endProcess(gone);
  std::filesystem::create_directories(folder_);
  Journal(files(), sim_->processes())
      .save({{paused, start, "/usr/bin/xcodebuild", true}, {gone, 1, "/usr/bin/gone", true}});
  writeFile(folder_ + "/brightness-restore", "0.6\n");
  files().touch("display-off");
  launch();
  EXPECT_FALSE(laptop().process(paused)->stopped);
  EXPECT_FALSE(files().exists("touched.json"));
  EXPECT_FALSE(files().exists("resume-pids"));
  EXPECT_DOUBLE_EQ(laptop().brightness(), 0.6);
  EXPECT_TRUE(laptop().builtInDisplayOn());
  EXPECT_TRUE(engine().outstandingChanges().empty());
}

// A put-back the machine refuses keeps its record, is said, and goes through
// once the machine takes it; the words of a refusal are the machine's own.
TEST_F(EngineTest, ARefusedPutBackKeepsItsRecordAndWarningsUseTheMachinesWords) {
  struct FlakyScreen final : DisplaysWrapper {
    using DisplaysWrapper::DisplaysWrapper;
    Result setBrightness(double level) override {
      return broken ? Result::fail("the backlight is busy") : DisplaysWrapper::setBrightness(level);
    }
    bool broken = true;
  };
  struct Machine final : PlatformWrapper {
    explicit Machine(Platform& p) : PlatformWrapper(p), screen(p.displays()) { words_.sleepRefusedLead = "No: "; }
    Displays& displays() override { return screen; }
    const MachineWords& words() const override { return words_; }
    FlakyScreen screen;
    MachineWords words_;
  } machine(*sim_);
  std::filesystem::create_directories(folder_);
  writeFile(folder_ + "/brightness-restore", "0.6\n");
  laptop().setRefusals(true, false);
  Engine engine(machine, folder_, EngineOptions{});
  engine.launch();
  EXPECT_TRUE(files().exists("brightness-restore"));
  engine.stayAwakeFor(std::nullopt);
  ASSERT_TRUE(engine.warning());
  EXPECT_EQ(engine.warning()->rfind("No: ", 0), 0u) << *engine.warning();
  EXPECT_THAT(engine.rescue(), testing::Contains("the screen brightness (the backlight is busy)"));
  EXPECT_TRUE(files().exists("brightness-restore"));
  machine.screen.broken = false;
  EXPECT_THAT(engine.rescue(), testing::Not(testing::Contains(testing::HasSubstr("brightness"))));
  EXPECT_FALSE(files().exists("brightness-restore"));
  EXPECT_DOUBLE_EQ(laptop().brightness(), 0.6);
}

TEST_F(EngineTest, CleanQuitRemovesHeartbeatOnlyWhenNothingIsOutstanding) {
  writeConfig(R"({"mode": "on"})");
  launch();
  advance(2);
  EXPECT_TRUE(files().exists("alive"));
  engine().shutdown();
  EXPECT_FALSE(laptop().sleepDisabled());
  EXPECT_FALSE(files().exists("hold"));
  EXPECT_FALSE(files().exists("alive"));

  // A record that the quit does not put back (the screen is still off) keeps
  // the heartbeat, so the watchdog finishes the job.
  engine_.reset();
  launch();
  advance(2);
  files().touch("display-off");
  engine().shutdown();
  EXPECT_TRUE(files().exists("alive"));
}

// The heartbeat stays open between beats: a removed or replaced "alive"
// must still get the beat, and a stray hold marker still goes.
TEST_F(EngineTest, TheHeartbeatFollowsItsFileAndAStrayHoldMarkerGoes) {
  launch();
  advance(2);
  const std::string alive = folder_ + "/alive";
  const auto beatIsRecent = [&] {
    struct stat st {};
    return ::stat(alive.c_str(), &st) == 0 && st.st_mtim.tv_sec > 1'000'000'000;
  };
  const auto makeOld = [&] {
    const timespec old[2] = {{1000, 0}, {1000, 0}};
    return ::utimensat(AT_FDCWD, alive.c_str(), old, 0) == 0;
  };
  ASSERT_TRUE(makeOld());
  advance(2);
  EXPECT_TRUE(beatIsRecent());

  std::filesystem::remove(alive);
  advance(10);
  EXPECT_TRUE(beatIsRecent()) << "a removed heartbeat is made again";

  writeFile(folder_ + "/alive.new", "");
  std::filesystem::rename(folder_ + "/alive.new", alive);
  ASSERT_TRUE(makeOld());
  advance(10);
  EXPECT_TRUE(beatIsRecent()) << "a replaced heartbeat gets the beat";

  files().touch("hold");
  advance(10);
  EXPECT_FALSE(files().exists("hold"));
}

TEST_F(EngineTest, PreviewWritesNothingAndSwitchesNothing) {
  writeConfig(R"({"mode": "on"})");
  launch(EngineOptions{true, false});
  advance(20);
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(engine().statusLine(), "Awake until you turn it off");
  EXPECT_TRUE(laptop().commandLog().empty());
  EXPECT_FALSE(files().exists("hold"));
  EXPECT_FALSE(files().exists("alive"));
  EXPECT_FALSE(files().exists("safety.json"));
}

TEST_F(EngineTest, MenuBarTitleFollowsTheSetting) {
  writeConfig(R"({"menuBarText": "battery"})");
  launch();
  EXPECT_EQ(engine().menuBarTitle(), "80%");
  Config c = engine().config();
  c.menuBarText = MenuBarText::Watts;
  engine().apply(c, false);
  EXPECT_EQ(engine().menuBarTitle(), "6.0W");
  c.menuBarText = MenuBarText::Timer;
  engine().apply(c, false);
  EXPECT_EQ(engine().menuBarTitle(), "");
  engine().stayAwakeFor(95);
  EXPECT_EQ(engine().menuBarTitle(), "1:35");
  c = engine().config();
  c.menuBarText = MenuBarText::None;
  engine().apply(c, false);
  EXPECT_EQ(engine().menuBarTitle(), "");
}

}  // namespace
}  // namespace vigilo::test
