#include <functional>

#include "closedlid/closed_lid.h"
#include "commands/command_center.h"
#include "engine/engine_fixture.h"
#include "savings/savings.h"
#include "savings/savings_stats.h"

namespace vigilo::test {
namespace {

// Given a laptop whose battery controller reports its whole draw (6 W at
// rest) with a chat app drawing 4 W that max_battery pauses, held awake
// with the lid shut, savings counted by `Savings`.
class PowerTestTest : public EngineTest {
 protected:
  PowerTestTest() {
    laptop().installApp(AppBundle{"/Applications/Slack.app", "com.tinyspeck.slackmacgap", "Slack"});
    chat = laptop().startProcess("/Applications/Slack.app/Contents/MacOS/Slack");
    laptop().setProcessWatts(chat, 4.0);
    laptop().setTelemetry(true);
  }
  ~PowerTestTest() override {
    savings_.reset();
    closedLid_.reset();
    engine_.reset();
  }
  void start() {
    writeConfig(R"({"mode": "on", "preset": "max_battery"})");
    engine_ = std::make_unique<Engine>(*sim_, folder_);
    closedLid_ = std::make_unique<ClosedLid>(*engine_);
    savings_ = std::make_unique<Savings>(*engine_, *closedLid_, nullptr);
    engine_->setWorkSource(&work_);
    engine_->setClosedLidSavings(savings_.get());
    closedLid_->setNoticeHandler([this](const Notice& n) { notices_.push_back(n.title + ": " + n.text); });
    engine_->launch();
    laptop().setLidClosed(true);
    advance(2);
  }
  bool chatPaused() { return laptop().process(chat)->stopped; }
  PowerTest& test() { return savings_->test(); }
  // Runs the loop until the test ends, at most `limit` seconds.
  void runTest(double limit = 900) {
    for (double t = 0; t < limit && test().running(); t += 1) advance(1);
  }

  std::int32_t chat = 0;
  std::unique_ptr<ClosedLid> closedLid_;
  std::unique_ptr<Savings> savings_;
};

TEST_F(PowerTestTest, DetailedTestMeasuresEachSavingAndPutsTheMapBack) {
  start();
  ASSERT_TRUE(chatPaused());
  // The person had switched Low Power Mode off as a saving before.
  closedLid_->setSavingsOff({"low_power"});

  ASSERT_EQ(test().start(false, true), std::nullopt);
  EXPECT_EQ(test().progress(), "Measuring, 1 of 4");
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
  EXPECT_NEAR(test().effects().at("low_power"), 0.0, 0.01) << "the simulated laptop's draw ignores the power mode";
  EXPECT_NEAR(*test().closedWith(), 6.0, 0.01);
  EXPECT_EQ(test().resultText(), "Measured: Vigilo's savings are worth 4.0 W with the lid shut");
  EXPECT_EQ(closedLid_->savingsOff(), (std::set<std::string>{"low_power"}));
  EXPECT_TRUE(chatPaused()) << "the savings are back on after the test";

  // The measured total now counts as saved while the lid stays shut, and
  // the session's receipt lands in stats.json when the lid opens.
  advance(1800);
  laptop().setLidClosed(false);
  advance(2);
  ASSERT_FALSE(notices_.empty());
  EXPECT_EQ(notices_.back().rfind("Welcome back: Stayed awake 3", 0), 0u) << notices_.back();
  const SavingsStats stats = StatsStore(folder_).load();
  ASSERT_EQ(stats.sessions.size(), 1u);
  EXPECT_NEAR(stats.sessions[0].whSaved, 2.0, 0.1) << "4 W for the half hour after the test";
  EXPECT_GT(stats.sessions[0].closedMinutes, 30.0);
  // The panel and power replies carry the week's figures and the results.
  CommandCenter center(engine(), nullptr);
  center.setSavings(savings_.get());
  const nlohmann::json panel = center.handle("panel", nlohmann::json::object());
  EXPECT_NEAR(panel["estimated_savings_this_week"].get<double>(), 2.0, 0.1);
  EXPECT_NEAR(panel["by_slowing_apps_wh"].get<double>(), 2.0, 0.1);
  EXPECT_EQ(panel["by_sleeping_when_done_wh"], 0.0);
  EXPECT_NEAR(panel["full_charges_equivalent"].get<double>(), 2.0 / kDefaultFullWh, 0.01);
  EXPECT_EQ(panel["saving_now_watts"], 0.0) << "the lid is open";
  EXPECT_EQ(panel["power_measured"], true);
  EXPECT_TRUE(panel.contains("vs_lid_open_wh"));
  const nlohmann::json stop = center.handle("power_test", {{"stop", true}});
  EXPECT_EQ(stop["error"], "No power test is running");
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
      {"the Mac got too hot", [this] { laptop().setThermalState(2); }, true},
      {"it was stopped on request", [this] { test().stop(); }, true},
      {"Vigilo stopped keeping the Mac awake", [this] { engine().setMode(Mode::Off); }, false},
      {"the battery controller stopped reporting power", [this] { laptop().removeBattery(); }, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    savings_.reset();
    closedLid_.reset();
    engine_.reset();
    laptop().fromJson(nlohmann::json::object());
    laptop().installApp(AppBundle{"/Applications/Slack.app", "com.tinyspeck.slackmacgap", "Slack"});
    chat = laptop().startProcess("/Applications/Slack.app/Contents/MacOS/Slack");
    laptop().setTelemetry(true);
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

TEST_F(PowerTestTest, RefusesWhenItCannotMeasure) {
  start();
  laptop().setLidClosed(false);
  advance(2);
  EXPECT_EQ(test().start(false, false),
            "Close the lid first (with Vigilo keeping the Mac awake): the test measures lid-closed savings");
  // On the charger without telemetry the battery says nothing of the draw.
  laptop().setTelemetry(false);
  laptop().setAdapter(true, true);
  laptop().setLidClosed(true);
  advance(2);
  ASSERT_TRUE(engine().holding());
  EXPECT_EQ(test().start(false, false), "This Mac doesn't report whole-system power, so savings can't be measured");
  EXPECT_EQ(savings_->powerKeys()["power_test"], "not available");
  // The quick estimate wants the lid open.
  std::optional<std::string> error;
  savings_->measureSavings([&](nlohmann::json, std::optional<std::string> e) { error = e; });
  EXPECT_EQ(error, "Open the lid to measure");
}

TEST_F(PowerTestTest, QuickEstimateComparesTheTargetedAppsBeforeAndAfter) {
  start();
  laptop().setLidClosed(false);
  advance(2);
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
}

}  // namespace
}  // namespace vigilo::test

namespace vigilo::test {
namespace {

TEST(FastSimClockTest, SpeedIsKeptInTheFileClampedAndScalesTheClock) {
  TempDir dir;
  ManualClock base;
  SimLaptop laptop(base);
  struct Case {
    const char* file;
    double speed;
  };
  for (Case c : {Case{R"({"clockSpeed": 50})", 50}, Case{R"({"clockSpeed": 5000})", 100},
                 Case{R"({"clockSpeed": 0.1})", 1}, Case{R"({"clockSpeed": "fast"})", 1}, Case{"{broken", 1}}) {
    writeFile(dir.file("laptop.json"), c.file);
    EXPECT_EQ(simClockSpeed(dir.file("laptop.json")), c.speed) << c.file;
  }
  EXPECT_EQ(simClockSpeed(dir.file("missing.json")), 1);
  laptop.fromJson(nlohmann::json::parse(R"({"clockSpeed": 50})"));
  EXPECT_EQ(laptop.toJson()["clockSpeed"], 50) << "the app writing the file back keeps the setting";

  ScaledClock fast(base, 50);
  const Time start = fast.now();
  base.advance(2);
  EXPECT_DOUBLE_EQ(fast.now() - start, 100);
  EXPECT_DOUBLE_EQ(fast.rate(), 50);
}

}  // namespace
}  // namespace vigilo::test
