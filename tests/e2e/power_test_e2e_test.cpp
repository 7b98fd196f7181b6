#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <regex>
#include <vector>

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
  EXPECT_EQ(vigilo({"measure"}).status, 1);  // only with the lid open

  // Four readings of whole 30-second controller updates: minutes of the
  // laptop's clock, seconds of ours.
  ToolRun run = vigilo({"power", "test"});
  ASSERT_EQ(run.status, 0) << run.out << run.err << app_->output();
  EXPECT_NE(run.out.find("  Measuring, 4 of 4\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("Measured: Vigilo's savings are worth 3.0 W with the lid shut\n"), std::string::npos)
      << run.out;

  json power = json::parse(vigilo({"power", "--json"}).out, nullptr, false);
  EXPECT_NEAR(power["measured_total_saving_watts"].get<double>(), 3.0, 0.05);
  EXPECT_NEAR(power["measured_closed_watts"].get<double>(), 5.0, 0.05);
  // The savings are back: the chat app is paused again.
  EXPECT_EQ(json::parse(readFile(state_), nullptr, false)["processes"][1]["stopped"], true);

  ASSERT_TRUE(editSimStateFile(state_, SystemClock(), [](SimLaptop& l) { l.setLidClosed(false); }));
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

// Given the app on a fast-clock laptop with the lid open, a chat app with a
// helper (paused by max_battery) and a container app (slowed): a quit at each
// step of `vigilo measure` the laptop shows, by SIGTERM, SIGINT or the
// request the tray's Quit sends in turn, leaves every app as it was and no
// record behind.
TEST_F(PowerTestE2E, QuitsAtEveryStepOfMeasureLeaveNothingChanged) {
  stopApp();
  const auto anyProcess = [this](const char* flag) {
    const json l = json::parse(readFile(state_), nullptr, false);
    if (!l.is_object() || !l.contains("processes")) return false;
    return std::any_of(l["processes"].begin(), l["processes"].end(),
                       [&](const json& p) { return p.value(flag, false); });
  };
  struct Step {
    const char* what;
    std::function<bool(AppProcess& measure)> reached;
  };
  const std::vector<Step> steps = {
      {"before the request arrives", [](AppProcess&) { return true; }},
      {"with an app paused", [&](AppProcess&) { return anyProcess("stopped"); }},
      {"with an app slowed", [&](AppProcess&) { return anyProcess("slowed"); }},
      {"after the answer", [](AppProcess& m) { return m.wait(0ms) >= 0; }},
  };
  for (std::size_t round = 0; round < steps.size(); ++round) {
    const Step& step = steps[round];
    SCOPED_TRACE(std::string(step.what) + ", round " + std::to_string(round));
    writeFile(state_, R"({"lid": "open", "clockSpeed": 50, "battery": {"telemetry": true, "watts": 5},
      "apps": [{"path": "/Applications/Slack.app", "bundleId": "com.tinyspeck.slackmacgap", "name": "Slack"},
               {"path": "/Applications/Docker.app", "bundleId": "com.docker.docker", "name": "Docker"}],
      "processes": [{"pid": 1, "ppid": 0, "path": "/sbin/launchd"},
                    {"pid": 203, "path": "/Applications/Slack.app/Contents/MacOS/Slack", "watts": 2},
                    {"pid": 204, "ppid": 203, "watts": 1,
                     "path": "/Applications/Slack.app/Contents/Frameworks/Slack Helper.app/Contents/MacOS/Slack Helper"},
                    {"pid": 205, "path": "/Applications/Docker.app/Contents/MacOS/Docker", "watts": 2}]})");
    startApp();
    AppProcess measure({"measure"}, home_, dir_.file("measure.txt"));
    // The estimate takes 7 s of the laptop's clock, 140 ms of ours.
    ASSERT_TRUE(waitFor([&] { return step.reached(measure); }, 10s)) << app_->output();
    switch (round % 3) {
      case 0: app_->signal(SIGTERM); break;
      case 1: app_->signal(SIGINT); break;
      default: RequestClient(home_).send("quit", json::object(), 8); break;
    }
    ASSERT_EQ(app_->wait(15s), 0) << app_->output();
    app_.reset();
    measure.wait(2s);  // ended by now, unless its request never got in; then killed

    const json laptop = json::parse(readFile(state_), nullptr, false);
    ASSERT_TRUE(laptop.is_object());
    for (const json& p : laptop["processes"]) {
      EXPECT_FALSE(p.value("stopped", false) || p.value("slowed", false)) << p.dump();
    }
    EXPECT_FALSE(inHome("touched.json") || inHome("resume-pids")) << "records of paused or slowed apps";
  }
}

}  // namespace
}  // namespace vigilo::test
