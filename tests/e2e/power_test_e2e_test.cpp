#include <csignal>
#include <filesystem>
#include <regex>

#include <gtest/gtest.h>

#include "commands/channel.h"
#include "e2e/sim_app.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Given the real app on a simulated laptop whose clock runs 50 times faster,
// held awake with the lid shut, its battery controller reporting the whole
// draw (5 W at rest) and a chat app drawing 3 W that max_battery pauses.
class PowerTestE2E : public SimAppTest {
 protected:
  void SetUp() override {
    writeFile(state_, R"({"lid": "closed", "clockSpeed": 50, "battery": {"telemetry": true, "watts": 5},
      "apps": [{"path": "/Applications/Slack.app", "bundleId": "com.tinyspeck.slackmacgap", "name": "Slack"}],
      "processes": [{"pid": 1, "ppid": 0, "path": "/sbin/launchd"},
                    {"pid": 203, "path": "/Applications/Slack.app/Contents/MacOS/Slack", "watts": 3}]})");
    writeFile(home_ + "/config.json", R"({"mode": "on", "preset": "max_battery"})");
    startApp();
  }
};

TEST_F(PowerTestE2E, WholeTestRunsOnTheFastClockAndItsSessionLandsInStats) {
  ToolRun early = vigilo({"measure"});
  EXPECT_EQ(early.status, 1);
  EXPECT_EQ(early.err, "vigilo: Open the lid to measure\n");

  // Four readings of whole 30-second controller updates: minutes of the
  // laptop's clock, seconds of ours.
  ToolRun run = vigilo({"power", "test"});
  ASSERT_EQ(run.status, 0) << run.out << run.err << app_->output();
  EXPECT_EQ(run.out.rfind("Measuring for about 3 min…\n", 0), 0u) << run.out;
  EXPECT_NE(run.out.find("  Measuring, 4 of 4\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("Measured: Vigilo's savings are worth 3.0 W with the lid shut\n"), std::string::npos)
      << run.out;

  json power = json::parse(vigilo({"power", "--json"}).out, nullptr, false);
  EXPECT_EQ(power["power_test"], "done");
  EXPECT_NEAR(power["measured_total_saving_watts"].get<double>(), 3.0, 0.05);
  EXPECT_NEAR(power["measured_closed_watts"].get<double>(), 5.0, 0.05);
  EXPECT_EQ(status()["power_measured"], true);
  // The savings are back: the chat app is paused again.
  json laptop = json::parse(readFile(state_), nullptr, false);
  EXPECT_EQ(laptop["processes"][1]["stopped"], true);

  SystemClock clock;
  ASSERT_TRUE(editSimStateFile(state_, clock, [](SimLaptop& l) { l.setLidClosed(false); }));
  ASSERT_TRUE(waitFor([&] { return fileExists(home_ + "/stats.json"); }, 10s)) << app_->output();
  EXPECT_NE(app_->output().find("Welcome back: Stayed awake "), std::string::npos) << app_->output();
  json stats = json::parse(readFile(home_ + "/stats.json"), nullptr, false);
  ASSERT_EQ(stats["sessions"].size(), 1u) << stats.dump();
  EXPECT_EQ(stats["sessions"][0]["agent"], "Always awake");

  // With the lid open, the quick estimate pauses the chat app for a moment.
  ToolRun measured = vigilo({"measure"});
  ASSERT_EQ(measured.status, 0) << measured.err;
  // A few seconds' window on a clock fifty times too fast catches the
  // laptop's energy counters between ticks: near the 3 W the app draws.
  std::smatch saved;
  const std::regex line(R"(  Slack  \(measured: saves ([0-9.]+) W\)\n)");
  ASSERT_TRUE(std::regex_search(measured.out, saved, line)) << measured.out;
  EXPECT_NEAR(std::stod(saved[1].str()), 3.0, 0.5) << measured.out;
}

}  // namespace
}  // namespace vigilo::test
