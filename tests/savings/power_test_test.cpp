#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>
#include <utility>

#include "closedlid/closed_lid.h"
#include "commands/command_center.h"
#include "engine/engine_fixture.h"
#include "savings/power_watch.h"
#include "savings/savings.h"
#include "savings/savings_stats.h"

namespace vigilo::test {
namespace {

// Given a laptop whose battery controller reports its whole draw (6 W at
// rest) with a chat app drawing 4 W that max_battery pauses, held awake
// with the lid shut, savings counted by `Savings`.
class PowerTestTest : public EngineTest {
 protected:
  PowerTestTest() { addChat(); }
  void addChat() {
    laptop().installApp(AppBundle{"/Applications/Slack.app", "com.tinyspeck.slackmacgap", "Slack"});
    chat = laptop().startProcess("/Applications/Slack.app/Contents/MacOS/Slack");
    laptop().setProcessWatts(chat, 4.0);
    laptop().setTelemetry(true);
  }
  ~PowerTestTest() override { stop(); }
  void stop() {
    savings_.reset();
    closedLid_.reset();
    power_.reset();
    engine_.reset();
  }
  // The app's wiring with the lid as it is; `withPower` adds the energy rows
  // and the apps' baseline.
  void build(const std::string& config, bool withPower = false) {
    writeConfig(config);
    engine_ = std::make_unique<Engine>(*sim_, folder_);
    closedLid_ = std::make_unique<ClosedLid>(*engine_, [this] { return protection_; });
    if (withPower) {
      power_ = std::make_unique<PowerWatch>(folder_, nullptr);
      power_->setPlan([this] { return closedLid_->plan(); });
      engine_->setPowerMeter(power_.get());
    }
    savings_ = std::make_unique<Savings>(*engine_, *closedLid_, power_.get());
    engine_->setWorkSource(&work_);
    engine_->setClosedLidSavings(savings_.get());
    engine_->launch();
  }
  void start() {
    build(R"({"mode": "on", "preset": "max_battery"})");
    laptop().setLidClosed(true);
    advance(2);
  }
  void fresh() {
    stop();
    laptop().fromJson(nlohmann::json::object());
    addChat();
  }
  bool chatPaused() { return laptop().process(chat)->stopped; }
  PowerTest& test() { return savings_->test(); }
  void runTest(double limit = 900) {
    for (double t = 0; t < limit && test().running(); t += 1) advance(1);
  }

  std::int32_t chat = 0;
  AgentProtection protection_;
  std::unique_ptr<PowerWatch> power_;
  std::unique_ptr<ClosedLid> closedLid_;
  std::unique_ptr<Savings> savings_;
};

TEST_F(PowerTestTest, DetailedTestMeasuresEachSavingAndPutsTheMapBack) {
  start();
  ASSERT_TRUE(chatPaused());
  // The person had switched Low Power Mode off as a saving before.
  closedLid_->setSavingsOff({"low_power"});

  ASSERT_EQ(test().start(false, true), std::nullopt);
  EXPECT_FALSE(chatPaused()) << "all savings off for the first reading";
  EXPECT_EQ(test().start(false, false), "A power test is already running");

  std::vector<std::string> seen;
  for (int t = 0; t < 900 && test().running(); ++t) {
    if (test().progress() && (seen.empty() || seen.back() != *test().progress())) seen.push_back(*test().progress());
    advance(1);
  }
  ASSERT_FALSE(test().running());
  // No simulator and nothing holding the speakers: those steps are skipped.
  EXPECT_EQ(seen, (std::vector<std::string>{"Measuring, 1 of 4", "Measuring, 2 of 4", "Measuring, 3 of 4",
                                            "Measuring, 4 of 4", "Measuring apps, 1 of 2", "Measuring apps, 2 of 2",
                                            "Measuring Low Power Mode, 1 of 2", "Measuring Low Power Mode, 2 of 2"}));
  EXPECT_EQ(test().aborted(), std::nullopt);
  EXPECT_NEAR(test().effects().at("total"), 4.0, 0.01);
  EXPECT_NEAR(test().effects().at("apps"), 4.0, 0.01);
  EXPECT_EQ(test().resultText(), "Measured: Vigilo's savings are worth 4.0 W with the lid shut");
  EXPECT_EQ(closedLid_->savingsOff(), (std::set<std::string>{"low_power"}));
  EXPECT_TRUE(chatPaused()) << "the savings are back on after the test";

  // The measured total now counts as saved while the lid stays shut.
  advance(1800);
  laptop().setLidClosed(false);
  advance(2);
  // The panel carries the week's figures: 4 W for the half hour after the test.
  CommandCenter center(engine(), nullptr);
  center.setSavings(savings_.get());
  const nlohmann::json panel = center.handle("panel", nlohmann::json::object());
  EXPECT_NEAR(panel["estimated_savings_this_week"].get<double>(), 2.0, 0.1);
  EXPECT_NEAR(panel["full_charges_equivalent"].get<double>(), 2.0 / kDefaultFullWh, 0.01);
  EXPECT_EQ(panel["saving_now_watts"], 0.0) << "the lid is open";
  EXPECT_EQ(panel["power_measured"], true);
}

TEST_F(PowerTestTest, EveryAbortReasonStopsTheTestAndPutsTheSavingsBack) {
  struct Case {
    const char* reason;
    std::function<void()> cause;
    bool stillSaving;  // lid shut and held after it
  };
  const Case cases[] = {
      {"the lid was opened", [this] { laptop().setLidClosed(false); }, false},
      {"the power adapter was plugged in or out", [this] { laptop().setAdapter(true, true); }, true},
      {"it was stopped on request", [this] { test().stop(); }, true},
      {"Vigilo stopped keeping the Mac awake", [this] { engine().setMode(Mode::Off); }, false},
      {"the battery controller stopped reporting power", [this] { laptop().removeBattery(); }, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    fresh();
    start();
    ASSERT_EQ(test().start(false, false), std::nullopt);
    advance(40);
    ASSERT_TRUE(test().running());
    c.cause();
    runTest(200);
    EXPECT_FALSE(test().running());
    EXPECT_EQ(test().aborted(), c.reason);
    EXPECT_EQ(savings_->powerKeys()["power_test"], "aborted");
    EXPECT_TRUE(closedLid_->savingsOff().empty());
    if (c.stillSaving && engine().holding() && engine().lidClosed()) {
      EXPECT_TRUE(chatPaused());
    } else if (!c.stillSaving) {
      EXPECT_FALSE(chatPaused()) << "nothing stays paused once the session is over";
    }
  }
}

// The quick estimate with the lid open; the power test refuses what it
// can't measure.
TEST_F(PowerTestTest, QuickEstimateComparesTheTargetedAppsAndThePowerTestRefusesWhatItCannotMeasure) {
  start();
  laptop().setLidClosed(false);
  advance(2);
  EXPECT_EQ(test().start(false, false),
            "Close the lid first (with Vigilo keeping the Mac awake): the test measures lid-closed savings");
  std::optional<nlohmann::json> reply;
  savings_->measureSavings([&](nlohmann::json r, std::optional<std::string> e) {
    ASSERT_FALSE(e);
    reply = r;
  });
  advance(3.5);
  EXPECT_TRUE(chatPaused()) << "paused for the second window, although the lid is open";
  advance(5);
  ASSERT_TRUE(reply);
  EXPECT_FALSE(chatPaused()) << "put back afterwards";
  EXPECT_NEAR((*reply)["measured_saving_watts"].get<double>(), 4.0, 0.1);
  ASSERT_EQ((*reply)["measured_apps"].size(), 1u);
  EXPECT_EQ((*reply)["measured_apps"][0]["name"], "Slack");

  // On the charger without telemetry the battery says nothing of the draw.
  laptop().setTelemetry(false);
  laptop().setAdapter(true, true);
  laptop().setLidClosed(true);
  advance(2);
  ASSERT_TRUE(engine().holding());
  EXPECT_EQ(test().start(false, false), "This Mac doesn't report whole-system power, so savings can't be measured");
  EXPECT_EQ(savings_->powerKeys()["power_test"], "not available");
  std::optional<std::string> error;
  savings_->measureSavings([&](nlohmann::json, std::optional<std::string> e) { error = e; });
  EXPECT_EQ(error, "Open the lid to measure");
}

TEST_F(PowerTestTest, QuittingAtAnyMomentOfAMeasurementPutsEveryAppBack) {
  struct Case {
    const char* what;
    bool powerTest;
    std::optional<double> quitAfter;  // seconds after the start; none: no quit
    bool lidShutAt3 = false;          // with nothing holding the machine awake
  };
  const Case cases[] = {
      {"estimate, apps changed", false, 3.5},
      {"estimate, lid shut meanwhile", false, 5.0, true},
      {"estimate, lid shut meanwhile, no quit", false, std::nullopt, true},
      {"power test, savings on", true, 70.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    fresh();
    laptop().installApp(AppBundle{"/Applications/Docker.app", "com.docker.docker", "Docker"});
    const std::int32_t docker = laptop().startProcess("/Applications/Docker.app/Contents/MacOS/Docker");
    std::optional<std::string> error;
    bool answered = false;
    if (c.powerTest) {
      start();
      ASSERT_EQ(test().start(false, false), std::nullopt);
    } else {
      build(R"({"mode": "off", "preset": "max_battery"})");
      savings_->measureSavings([&](nlohmann::json, std::optional<std::string> e) {
        answered = true;
        error = e;
      });
    }
    if (c.lidShutAt3) {
      advance(3.5);
      ASSERT_TRUE(chatPaused());
      laptop().setLidClosed(true);
      advance(c.quitAfter.value_or(8.0) - 3.5);
    } else {
      advance(*c.quitAfter);
    }
    if (c.quitAfter) engine().shutdown();
    for (const char* when : {"at once", "once pending steps ran"}) {
      SCOPED_TRACE(when);
      EXPECT_FALSE(chatPaused());
      EXPECT_FALSE(laptop().process(docker)->slowed);
      EXPECT_TRUE(engine().outstandingChanges().empty());
      advance(10);
    }
    if (!c.powerTest) {
      EXPECT_TRUE(answered) << "the tool waiting for the estimate gets an answer";
      if (c.quitAfter) {
        EXPECT_EQ(error, "Vigilo quit during the measurement; every app is back as it was");
      }
    }
  }
}

// Given a laptop with 16 processes: a chat app with helpers (paused), a
// container app (an agent service), a music app holding the speakers, the
// window server, and Claude Code in a terminal running a build. Preset
// max_battery, builds slowed.
TEST_F(PowerTestTest, SavingsEstimateReceiptAndStatsAgreeWithTheHandComputation) {
  fresh();
  laptop().endProcess(chat);
  struct App {
    const char* bundle;
    const char* id;
    const char* name;
    std::vector<double> watts;  // the main process, then its helpers
  };
  const App apps[] = {
      {"/Applications/Slack.app", "com.tinyspeck.slackmacgap", "Slack", {1.0, 1.0, 1.0}},
      {"/Applications/Spotify.app", "com.spotify.client", "Spotify", {1.5, 0.5}},
      {"/Applications/Docker.app", "com.docker.docker", "Docker", {1.0, 2.0}},
  };
  std::map<std::string, std::int32_t> main;
  for (const App& a : apps) {
    laptop().installApp(AppBundle{a.bundle, std::string(a.id), a.name});
    const std::string exe = std::string(a.bundle) + "/Contents/MacOS/" + a.name;
    main[a.name] = laptop().startProcess(exe);
    laptop().setProcessWatts(main[a.name], a.watts[0]);
    for (std::size_t h = 1; h < a.watts.size(); ++h) {
      const std::string helper = std::string(a.bundle) + "/Contents/Frameworks/" + a.name + " Helper " +
                                 std::to_string(h) + ".app/Contents/MacOS/" + a.name + " Helper";
      laptop().setProcessWatts(laptop().startProcess(helper, {}, main[a.name]), a.watts[h]);
    }
  }
  auto run = [&](const std::string& path, double watts, std::int32_t ppid = 1) {
    const std::int32_t pid = laptop().startProcess(path, {}, ppid);
    laptop().setProcessWatts(pid, watts);
    return pid;
  };
  run("/System/Library/PrivateFrameworks/SkyLight.framework/Resources/WindowServer", 1.0);
  const std::int32_t terminal = run("/System/Applications/Utilities/Terminal.app/Contents/MacOS/Terminal", 0.5);
  const std::int32_t shell = run("/bin/zsh", 0.0, terminal);
  const std::int32_t claude = run("/usr/local/bin/claude", 1.5, shell);
  const std::int32_t make = run("/usr/bin/make", 0.2, claude);
  std::vector<std::int32_t> compilers;
  for (int i = 0; i < 3; ++i) compilers.push_back(run("/usr/bin/cc", 2.0, make));
  const PowerAssertion music{main["Spotify"], "", "PreventUserIdleSystemSleep", "Playing", {}, {}, {"audio-out"}};
  ASSERT_TRUE(laptop().addPowerAssertion(music).isOk());
  ASSERT_EQ(laptop().processes().size(), 16u);
  // What agent detection protects: the agent's whole tree.
  protection_.pids = {claude, make, compilers[0], compilers[1], compilers[2]};
  protection_.activeAgent = "Claude Code";
  laptop().setTelemetry(true);
  build(R"({"mode": "on", "preset": "max_battery", "slowBuildsWhileClosed": true})", true);
  advance(60);

  // By hand, in watts (a slowed process draws a quarter, so saves 3/4):
  //   paused:  Slack 3.0 (max_battery)                        -> saves 3.0
  //   slowed:  Docker 3.0 (agent service), make 0.2 and cc 3 x 2.0 (the
  //            agent's build) = 9.2                            -> saves 6.9
  //   left:    Spotify 2.0 (music), Terminal 0.5 and zsh 0 (the agent runs
  //            in them), claude 1.5, WindowServer 1.0, launchd 0 = 5.0
  //   saving = 3.0 + 6.9 = 9.9 W
  //   whole draw, lid open: 6 (base) + 3.0 + 9.2 + 5.0       = 23.2 W
  //   with the lid shut:    23.2 - 9.9                       = 13.3 W
  //   lid-closed estimate:  1.6 + 5.0 + 9.2 / 4              = 8.9 W
  //   one hour shut from 80.48 % of 57 Wh: 80.48 - 13.3 / 0.57 = 57.1 -> 57 %
  const double saving = 9.9;
  CommandCenter center(engine(), nullptr);
  center.setAgents(nullptr, power_.get());
  center.setSavings(savings_.get());
  EXPECT_NEAR(power_->closedEstimate(engine()), 8.9, 0.01);

  std::optional<nlohmann::json> estimate;
  savings_->measureSavings([&](nlohmann::json r, std::optional<std::string>) { estimate = r; });
  advance(8);
  ASSERT_TRUE(estimate);
  EXPECT_NEAR((*estimate)["measured_saving_watts"].get<double>(), saving, 0.02);
  std::map<std::string, double> saves;
  for (const auto& a : (*estimate)["measured_apps"]) saves[a["name"].get<std::string>()] = a["saves_watts"].get<double>();
  EXPECT_EQ(saves.size(), 4u) << estimate->dump();
  EXPECT_NEAR(saves["Slack"], 3.0, 0.01) << "one app, three processes";
  EXPECT_FALSE(laptop().process(main["Slack"])->stopped) << "put back after the estimate";

  // An hour with the lid shut, counted from the apps' usual draw.
  advance(30);
  laptop().setCharge(80.5);
  advance(2);
  laptop().setLidClosed(true);
  advance(2);
  EXPECT_TRUE(laptop().process(compilers[0])->slowed) << "the agent's own build is slowed";
  EXPECT_FALSE(laptop().process(claude)->slowed || laptop().process(claude)->stopped);
  EXPECT_NEAR(savings_->liveSavingW(), saving, 0.01);
  advance(3600);
  laptop().setLidClosed(false);
  advance(2);
  const nlohmann::json stats = nlohmann::json::parse(readFile(folder_ + "/stats.json"));
  ASSERT_EQ(stats["sessions"].size(), 1u);
  const nlohmann::json& session = stats["sessions"][0];
  EXPECT_NEAR(session["whSaved"].get<double>(), saving, 0.05) << session.dump();
  EXPECT_EQ(std::tuple(session["startPercent"], session["endPercent"], session["agent"]),
            std::tuple(nlohmann::json(80), nlohmann::json(57), nlohmann::json("Claude Code")));
  EXPECT_NEAR(center.handle("panel", nlohmann::json::object())["by_slowing_apps_wh"].get<double>(), saving, 0.05);

  // The power test measures the same from the whole machine's draw.
  laptop().setLidClosed(true);
  advance(2);
  ASSERT_EQ(test().start(false, false), std::nullopt);
  runTest();
  ASSERT_EQ(test().aborted(), std::nullopt);
  const double measured = test().effects().at("total");
  EXPECT_NEAR(measured, (*estimate)["measured_saving_watts"].get<double>(), 0.05 * measured);
  EXPECT_NEAR(measured, saving, 0.05 * saving);
}

TEST(FastSimClockTest, SpeedIsKeptInTheFileClampedAndScalesTheClock) {
  TempDir dir;
  ManualClock base;
  SimLaptop laptop(base);
  struct Case {
    const char* file;
    double speed;
  };
  for (Case c : {Case{R"({"clockSpeed": 50})", 50}, Case{R"({"clockSpeed": 5000})", 100},
                 Case{R"({"clockSpeed": 0.1})", 1}, Case{"{broken", 1}}) {
    writeFile(dir.file("laptop.json"), c.file);
    EXPECT_EQ(simClockSpeed(dir.file("laptop.json")), c.speed) << c.file;
  }
  laptop.fromJson(nlohmann::json::parse(R"({"clockSpeed": 50})"));
  EXPECT_EQ(laptop.toJson()["clockSpeed"], 50) << "the app writing the file back keeps the setting";

  ScaledClock fast(base, 50);
  const Time start = fast.now();
  base.advance(2);
  EXPECT_DOUBLE_EQ(fast.now() - start, 100);
}

}  // namespace
}  // namespace vigilo::test
