#include <fcntl.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "engine_fixture.h"

namespace vigilo::test {
namespace {

using ::testing::ElementsAre;

TEST_F(EngineTest, ModeOffSleepsNormallyButHonoursExplicitHoldsNewestFirst) {
  writeConfig(R"({"mode": "off"})");
  launch();
  EXPECT_EQ(engine().statusLine(), "Sleeps normally");
  engine().addHold("Deploying", std::nullopt, std::nullopt, std::nullopt);

  // The newest hold gives the reason (owners are the command center's test).
  Hold later = engine().addHold("c", std::nullopt, std::nullopt, 77);
  EXPECT_EQ(engine().holdReason(), "c");
  EXPECT_EQ(engine().releaseHold(later.id), 1);
  EXPECT_EQ(engine().holdReason(), "Deploying");

  EXPECT_EQ(engine().releaseHold(std::nullopt), 1);
  EXPECT_EQ(engine().lastEndReason(), "Turned off");
}

TEST_F(EngineTest, ModeAutoFollowsWorkAndSnoozeLastsUntilTheLidOpensOrTheWake) {
  work_.reason = "Claude Code is running a command";
  work_.worker = "Claude Code";
  launch();
  ASSERT_TRUE(engine().holding());
  work_.reason.reset();
  advance(2);
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().lastEndReason(), "Claude Code finished");

  // Snoozed, work no longer counts, through the wake with the lid open; an
  // explicit hold still does.
  work_.reason = "Claude Code is running a command";
  engine().sleepNow();
  advance(2);
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().statusLine(), "Sleeping until the lid opens");
  Hold h = engine().addHold("Uploading", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(engine().holdReason(), "Uploading");
  engine().releaseHold(h.id);
  laptop().setLidClosed(true);
  advance(2);
  laptop().setLidClosed(false);
  advance(2);
  EXPECT_FALSE(engine().snoozed());
  EXPECT_TRUE(engine().holding());

  // Choosing a mode again ends it too; without a lid, the wake does.
  engine().sleepNow();
  engine().setMode(Mode::Off);
  engine().setMode(Mode::Auto);
  EXPECT_TRUE(engine().holding());
  laptop().removeLid();
  engine().sleepNow();
  advance(2);
  EXPECT_FALSE(engine().snoozed());
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(count("sleepnow"), 3);
}

TEST_F(EngineTest, ModeAlwaysWithAndWithoutEndTime) {
  launch();
  engine().stayAwakeFor(std::nullopt);
  engine().addHold("Later hold", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(engine().holdReason(), "Always awake");

  engine().releaseHold(std::nullopt);
  engine().stayAwakeFor(80);
  const Time until = clock_.now() + 80 * 60;
  // A moment later the time left still reads in whole minutes, rounded up.
  clock_.advance(0.3);
  EXPECT_EQ(engine().statusLine(), "Awake until " + formatShortTime(until) + " · 1h 20m left");
  EXPECT_EQ(engine().config().modeBeforeAlways, Mode::Auto);
  // Past the end (as after a long sleep) but not yet evaluated: never negative.
  clock_.advance(80 * 60 + 60);
  EXPECT_EQ(engine().statusLine(), "Awake until " + formatShortTime(until) + " · 0m left");

  advance(2);
  EXPECT_EQ(engine().config().mode, Mode::Auto);
  EXPECT_FALSE(engine().config().alwaysUntil);
  EXPECT_FALSE(engine().holding());
}

TEST(ShortTimeTest, TwelveHourLocalesKeepTheirClock) {
  // Time formats (nl_langinfo T_FMT) as locales give them.
  const struct Row {
    const char* localeFormat;
    const char* shortFormat;
  } rows[] = {{"%r", "%l:%M %p"},     {"%I:%M:%S %p %Z", "%l:%M %p"}, {"%H\u6642%M\u5206", "%H:%M"},
              {"%%I %H:%M", "%H:%M"}, {"%", "%H:%M"}};
  for (const Row& r : rows) EXPECT_EQ(shortTimeFormat(r.localeFormat), r.shortFormat) << r.localeFormat;
}

TEST_F(EngineTest, HoldsEndWithTheirTimeOrTheirProcessAndSurviveARestart) {
  writeConfig(R"({"mode": "off"})");
  launch();
  engine().addHold("Build", 90, std::nullopt, std::nullopt);
  EXPECT_TRUE(sawNotice("Staying awake for 1h 30m"));
  // A part of a minute is announced as a whole one, never "0m".
  engine().releaseHold(engine().addHold("Quick", 0.2, std::nullopt, std::nullopt).id);
  EXPECT_TRUE(sawNotice("Staying awake for 1m"));
  const std::int32_t pid = laptop().startProcess("/usr/bin/make", {"make", "-j8"});
  ASSERT_EQ(engine().addHold("make", std::nullopt, pid, std::nullopt).pid, pid);
  EXPECT_FALSE(engine().addHold("ghost", std::nullopt, 999999, std::nullopt).pid) << "no such process";
  engine().addHold("Live", std::nullopt, std::nullopt, std::nullopt);

  // A restart keeps them all; the process ends and another takes its id.
  engine_.reset();
  launch();
  EXPECT_EQ(engine().holds().size(), 4u);
  laptop().endProcess(pid);
  advance(1);
  laptop().startProcess("/usr/bin/other", {}, 1, pid);
  advance(5398);
  EXPECT_EQ(engine().holds().size(), 3u);
  advance(4);
  EXPECT_EQ(engine().holds().size(), 2u);

  // One that expired while the app was away is dropped at launch.
  engine_.reset();
  writeFile(folder_ + "/runtime.json", R"({"holds":[{"id":"OLD","reason":"old","until":)" +
                                           std::to_string(clock_.now() - 10) + R"(,"created":1},{"id":7}]})");
  launch();
  EXPECT_TRUE(engine().holds().empty());
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(readFile(folder_ + "/runtime.json").find("OLD"), std::string::npos);
}

TEST_F(EngineTest, BatteryFloorLatchesAndClearsThreePointsAbove) {
  writeConfig(R"({"batteryFloor": 20})");
  work_.reason = "Codex is running a command";
  laptop().setDraw(0.0);  // hold the charge where the test puts it
  laptop().setCharge(20);
  launch();
  EXPECT_TRUE(engine().blockedByFloor());
  EXPECT_EQ(engine().statusLine(), "Battery at 20%, sleeps when closed");
  EXPECT_EQ(engine().holdReason(), "Codex is running a command");

  laptop().setCharge(22);
  advance(2);
  EXPECT_EQ(engine().blockedReason(), "Battery at 22%");
  laptop().setCharge(23);
  advance(2);
  EXPECT_TRUE(engine().holding());

  // Back at the limit, then on power: the latch clears at once.
  laptop().setCharge(19);
  advance(2);
  EXPECT_EQ(engine().lastEndReason(), "Battery at 19%");
  laptop().setAdapter(true, true);
  advance(2);
  EXPECT_TRUE(engine().holding());

  // "Keep Going Below" switches the limit off.
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
  laptop().setAmperage(-18);
  advance(2);
  EXPECT_TRUE(engine().holding());
  // Without a battery the power guards do not apply.
  laptop().removeBattery();
  advance(2);
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
  EXPECT_TRUE(engine().heatForced());
  EXPECT_EQ(engine().lastEndReason(), "Too hot");

  // Cooling down clears the guard; critical acts without waiting.
  laptop().setThermalState(0);
  advance(2);
  EXPECT_TRUE(engine().holding());
  laptop().setThermalState(3);
  advance(2);
  EXPECT_EQ(engine().blockedReason(), "Too hot");
  Config c = engine().config();
  c.heatGuard = false;
  engine().apply(c, true);
  EXPECT_TRUE(engine().holding());
}

TEST_F(EngineTest, SetupNotReadyLeavesTheSwitchAloneUntilRepaired) {
  // Given mode Always, then a setup that breaks while the switch still works.
  writeConfig(R"({"mode": "on"})");
  launch();
  ASSERT_TRUE(engine().holding());
  laptop().setSetup(false, "The sudoers rule is missing.");
  advance(60);
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(laptop().commandLog(), (std::vector<std::string>{"disablesleep 1", "disablesleep 0"}));
  EXPECT_EQ(std::count(notices_.begin(), notices_.end(), "Setup needs repair"), 1);
  laptop().setSetup(true);
  advance(10);
  EXPECT_TRUE(engine().holding());
  EXPECT_EQ(count("disablesleep 1"), 2);
}

// Given a switch that refuses one way or the other: every refusal is said,
// retried on its own beat, and its warning goes with its cause.
TEST_F(EngineTest, RefusedSwitchesAreRetriedAndWarnedAboutWhileTheyMatter) {
  refuse(true, false);
  work_.reason = "Claude Code is running a command";
  launch();
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().warning(),
            "macOS refused to switch sleep off, so closing the lid would sleep the Mac. Run Set Up again in "
            "Settings › General.");
  advance(28);
  EXPECT_EQ(machine().refusedOff, 1) << "retried at most every 30 seconds";
  refuse(false, false);
  advance(2);
  EXPECT_TRUE(engine().holding());

  // A refused release stays pending with its marker and is retried; a new
  // hold takes over from it.
  refuse(false, true);
  work_.reason.reset();
  advance(2);
  EXPECT_TRUE(engine().pendingRelease());
  EXPECT_EQ(engine().warning(), "Couldn't switch sleep back on yet; Vigilo keeps trying.");
  advance(10);
  EXPECT_TRUE(laptop().sleepDisabled());
  EXPECT_TRUE(files().exists("hold"));
  refuse(false, false);
  advance(10);
  EXPECT_FALSE(engine().pendingRelease());
  Hold a = engine().addHold("a", std::nullopt, std::nullopt, std::nullopt);
  refuse(false, true);
  engine().releaseHold(a.id);
  ASSERT_TRUE(engine().pendingRelease());
  engine().addHold("b", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_FALSE(engine().pendingRelease());

  // Someone switches sleep back on: warned at once, switched off again on
  // the slow beat, and the warning goes with its cause.
  refuse(false, false);
  laptop().setSleepDisabledExternally(false);
  advance(2);
  EXPECT_EQ(engine().warning(), "macOS didn't keep sleep switched off");
  advance(10);
  EXPECT_TRUE(laptop().sleepDisabled());

  // Again, while sleep can't be switched off: the warning lasts as long as
  // the hold, and a change of power source that fails says so too.
  refuse(true, false);
  laptop().setSleepDisabledExternally(false);
  advance(12);
  EXPECT_EQ(engine().warning(), "macOS didn't keep sleep switched off");
  laptop().setAdapter(true, true);
  advance(2);
  EXPECT_EQ(engine().warning(), "macOS didn't keep sleep switched off after the power change");
}

// The marker going once the person switches sleep on, and sleep left off by
// mistake being switched on, are the random walk's checks.
TEST_F(EngineTest, SleepSwitchedOffByHandIsLeftOff) {
  laptop().setSleepDisabledExternally(true);
  writeConfig(R"({"mode": "off"})");
  launch();
  engine().addHold("job", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_TRUE(files().exists("sleep-off-before"));
  engine().releaseHold(std::nullopt);
  EXPECT_EQ(count("disablesleep 0"), 0);
  EXPECT_TRUE(laptop().sleepDisabled());
  EXPECT_FALSE(files().exists("hold"));
}

TEST_F(EngineTest, UnwritableAppFolderNeverSwitchesSleepOff) {
  // Given an app folder below a plain file, which no one can create.
  writeFile(dir_.file("plain"), "x");
  folder_ = dir_.file("plain") + "/home";
  work_.reason = "Claude Code is running a command";
  launch();
  EXPECT_FALSE(engine().holding());
  EXPECT_EQ(engine().setupError(), "Vigilo couldn't write to its folder, so it won't switch sleep off");
  EXPECT_TRUE(laptop().commandLog().empty());
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
  const Time until = clock_.now() + 3600, wakeAt = clock_.now() + 7200;
  writeConfig(nlohmann::json{{"quietMinutes", 9}, {"batteryFloor", 30}, {"mode", "on"}, {"alwaysUntil", until},
                             {"modeBeforeAlways", "off"}, {"wakeAt", wakeAt}}
                  .dump());
  launch();
  EXPECT_EQ(Safety::load(files())->batteryFloor, 30);

  // An edit with one key changes only that key; a null clears one on purpose.
  Config expected = engine().config();
  expected.preset = Preset::MaxBattery;
  clock_.advance(1);
  writeConfig(R"({"preset": "max_battery"})");
  advance(10);
  EXPECT_EQ(engine().config(), expected);
  EXPECT_EQ(expected.wakeAt, wakeAt);
  writeConfig(R"({"wakeAt": null})");
  loop_.fileChanged(folder_ + "/config.json");
  EXPECT_FALSE(engine().config().wakeAt);
  EXPECT_EQ(engine().config().alwaysUntil, until);

  // Loosening from the file is refused and the file is put right.
  writeConfig(R"({"heatGuard": false, "batteryFloor": 10})");
  loop_.fileChanged(folder_ + "/config.json");
  EXPECT_TRUE(engine().config().heatGuard);
  EXPECT_EQ(engine().config().batteryFloor, 30);
  ASSERT_FALSE(notices_.empty());
  EXPECT_THAT(notices_.back(), testing::StartsWith("Settings file change ignored: Safety settings can only"));
  EXPECT_TRUE(Config::decode(readFile(folder_ + "/config.json"))->heatGuard);

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
  writeConfig("this is not json {");
  writeFile(folder_ + "/safety.json", R"({"heatGuard": true, "batteryFloor": 30, "onlyOnPower": false})");
  launch();
  const std::string copy = "config.broken-" + std::to_string(static_cast<long long>(clock_.now())) + ".json";
  EXPECT_EQ(readFile(folder_ + "/" + copy), "this is not json {");
  // One alert: nothing blames an edit the person never made.
  EXPECT_THAT(notices_, ElementsAre("Settings file couldn't be read: Vigilo is using its defaults. Your file was "
                                    "kept as " + copy));
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
  const std::pair<std::string, std::string> damages[] = {
      {"wrong type", ""}, {"truncated", "[{\"pid\": 4, \"sta"}, {"huge", "[]"}, {"a folder", ""}, {"a link", ""}};
  for (const auto& [how, content] : damages) {
    SCOPED_TRACE(how);
    for (const auto& e : std::filesystem::directory_iterator(folder_)) std::filesystem::remove_all(e.path());
    for (const auto& [name, wrong] : wrongType) {
      const std::string path = folder_ + "/" + name;
      if (how == "a folder") {
        std::filesystem::create_directory(path);
      } else if (how == "a link") {
        writeFile(dir_.file("elsewhere-" + name), "[]");
        std::filesystem::create_symlink(dir_.file("elsewhere-" + name), path);
      } else {
        writeFile(path, how == "wrong type" ? wrong : content);
      }
      if (how == "huge") std::filesystem::resize_file(path, 17 * 1024 * 1024);
    }
    writeFile(folder_ + "/resume-pids", std::to_string(paused) + "\t/usr/bin/xcodebuild\n");
    laptop().stop(paused);
    engine_.reset();
    notices_.clear();
    launch();
    EXPECT_FALSE(laptop().process(paused)->stopped);
    EXPECT_TRUE(engine().holds().empty());
    EXPECT_TRUE(engine().outstandingChanges().empty()) << ::testing::PrintToString(engine().outstandingChanges());
    const auto aside = std::count_if(std::filesystem::directory_iterator(folder_), {}, [](const auto& e) {
      return e.path().filename().string().find(".broken-") != std::string::npos;
    });
    EXPECT_EQ(aside, 4);
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

// Given a previous run that died holding: sleep off and its marker left. It
// is adopted for the grace and then released, unless something still wants
// the machine awake.
TEST_F(EngineTest, CrashWhileHoldingIsAdoptedThenReleasedWithOneCallOrKept) {
  for (const bool working : {false, true}) {
    SCOPED_TRACE(working ? "working" : "idle");
    std::filesystem::create_directories(folder_);
    files().touch("hold");
    laptop().setSleepDisabledExternally(true);
    laptop().setLidClosed(true);
    if (working) work_.reason = "Claude Code is running a command";
    const long releases = count("disablesleep 0");
    launch();
    EXPECT_EQ(engine().adoptedHoldUntil().has_value(), !working);
    advance(28);
    EXPECT_TRUE(laptop().sleepDisabled());
    // The grace ends on a slow beat (tick 15), where the check of the switch
    // runs too: still one release and one sleep.
    advance(4);
    EXPECT_EQ(laptop().sleepDisabled(), working);
    EXPECT_FALSE(engine().adoptedHoldUntil());
    if (!working) {
      EXPECT_EQ(laptop().commandLog(), (std::vector<std::string>{"disablesleep 0", "sleepnow"}));
    }
    EXPECT_EQ(count("disablesleep 0") - releases, working ? 0 : 1);
    engine().shutdown();
    engine_.reset();
  }
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
    explicit Machine(Platform& p) : PlatformWrapper(p), screen(p.displays()) {}
    Displays& displays() override { return screen; }
    FlakyScreen screen;
  } flaky(machine());
  MachineWords words;
  words.sleepRefusedLead = "No: ";
  speak(words);
  refuse(true, false);
  std::filesystem::create_directories(folder_);
  writeFile(folder_ + "/brightness-restore", "0.6\n");
  Engine engine(flaky, folder_, EngineOptions{});
  engine.launch();
  engine.stayAwakeFor(std::nullopt);
  EXPECT_EQ(engine.warning(), "No: The switch refused.");
  EXPECT_THAT(engine.rescue(), testing::Contains("the screen brightness (the backlight is busy)"));
  EXPECT_TRUE(files().exists("brightness-restore"));
  flaky.screen.broken = false;
  EXPECT_THAT(engine.rescue(), testing::Not(testing::Contains(testing::HasSubstr("brightness"))));
  EXPECT_FALSE(files().exists("brightness-restore"));
  EXPECT_DOUBLE_EQ(laptop().brightness(), 0.6);
}

// The heartbeat goes at a clean quit unless a record is still outstanding,
// and a replaced "alive" still gets the beat (nothing holds the old one open).
TEST_F(EngineTest, TheHeartbeatFollowsItsFileAndGoesAtACleanQuit) {
  writeConfig(R"({"mode": "on"})");
  launch();
  const std::string alive = folder_ + "/alive";
  const auto beatIsRecent = [&] {
    struct stat st {};
    return ::stat(alive.c_str(), &st) == 0 && st.st_mtim.tv_sec > 1'000'000'000;
  };
  const auto makeOld = [&] {
    const timespec old[2] = {{1000, 0}, {1000, 0}};
    return ::utimensat(AT_FDCWD, alive.c_str(), old, 0) == 0;
  };
  advance(2);
  writeFile(folder_ + "/alive.new", "");
  std::filesystem::rename(folder_ + "/alive.new", alive);
  ASSERT_TRUE(makeOld());
  advance(10);
  EXPECT_TRUE(beatIsRecent()) << "a replaced heartbeat gets the beat";

  engine().shutdown();
  writeConfig(R"({"mode": "off"})");
  engine_.reset();
  launch();
  // The screen is still off: the heartbeat stays, so the watchdog finishes.
  files().touch("display-off");
  engine().shutdown();
  EXPECT_TRUE(files().exists("alive"));
}

TEST_F(EngineTest, PreviewWritesNothingAndSwitchesNothing) {
  writeConfig(R"({"mode": "on"})");
  launch(EngineOptions{true, false});
  advance(20);
  EXPECT_EQ(engine().statusLine(), "Awake until you turn it off");
  EXPECT_TRUE(laptop().commandLog().empty());
  const auto written = std::distance(std::filesystem::directory_iterator(folder_), {});
  EXPECT_EQ(written, 1) << "only the config.json written here";
}

TEST_F(EngineTest, MenuBarTitleFollowsTheSetting) {
  launch();
  engine().stayAwakeFor(95);
  const std::pair<MenuBarText, const char*> rows[] = {
      {MenuBarText::Watts, "6.0W"}, {MenuBarText::Timer, "1:35"}};
  for (const auto& [setting, title] : rows) {
    Config c = engine().config();
    c.menuBarText = setting;
    engine().apply(c, false);
    EXPECT_EQ(engine().menuBarTitle(), title);
  }
}

}  // namespace
}  // namespace vigilo::test
