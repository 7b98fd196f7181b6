#include <csignal>
#include <ctime>
#include <filesystem>

#include <gtest/gtest.h>

#include "commands/channel.h"
#include "e2e/sim_app.h"
#include "engine/config.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Given a running `vigilo app --simulate` in a temporary app folder, driven
// only through the real `vigilo` binary.
class CliTest : public SimAppTest {
 protected:
  void SetUp() override { startApp(); }
};

TEST_F(CliTest, HoldsWithDurationsAndReleases) {
  ToolRun first = vigilo({"hold", "--for", "1h30m", "--reason", "training"});
  ASSERT_EQ(first.status, 0) << first.err;
  const std::string id = first.out.substr(0, first.out.find('\n'));
  ASSERT_EQ(vigilo({"hold", "--for", "20000"}).status, 0);

  json s = status();
  ASSERT_EQ(s["holds"].size(), 2u);
  EXPECT_EQ(s["holds"][0]["id"], id);
  EXPECT_EQ(s["holds"][0]["reason"], "training");
  EXPECT_NEAR(s["holds"][0]["end"].get<double>() - s["holds"][0]["start"].get<double>(), 5400, 0.01);
  EXPECT_NEAR(s["holds"][1]["end"].get<double>() - s["holds"][1]["start"].get<double>(), 10080 * 60, 0.01);
  EXPECT_EQ(s["holds"][1]["reason"], "Kept awake from the terminal");

  ToolRun one = vigilo({"release", id});
  EXPECT_EQ(one.status, 0);
  ASSERT_EQ(vigilo({"hold"}).status, 0);
  EXPECT_NE(vigilo({"release"}).out.find("Released 2 holds."), std::string::npos);
  EXPECT_EQ(status()["keeping_awake"], false);

  ToolRun bad = vigilo({"hold", "--for", "soon"});
  EXPECT_EQ(bad.status, 2);
}

TEST_F(CliTest, RunKeepsAwakeExactlyAsLongAsTheCommand) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  for (const Case& c : std::vector<Case>{
           {{"run", "--reason", "tests", "--", "sh", "-c", "exit 7"}, 7, ""},
           {{"run", "--", "no-such-program"}, 127, "vigilo: couldn't start no-such-program\n"},
       }) {
    ToolRun run = vigilo(c.args);
    EXPECT_EQ(run.status, c.status) << c.args.back();
    EXPECT_EQ(run.err, c.err);
  }
  EXPECT_EQ(vigilo({"run", "false"}).status, 2);
  EXPECT_TRUE(status()["holds"].empty());
}

TEST_F(CliTest, ModesSettingsWakesAndTheStatusKeys) {
  ASSERT_EQ(vigilo({"on", "--for", "2h"}).status, 0);
  json s = status();
  EXPECT_EQ(s["mode"], "always");
  EXPECT_NEAR(s["always_until"].get<double>(), std::chrono::duration<double>(
                                                   std::chrono::system_clock::now().time_since_epoch()).count() + 7200,
              30);
  EXPECT_EQ(vigilo({"auto"}).out, "Nothing running · sleeps when closed\n");
  EXPECT_EQ(status()["mode"], "auto");

  EXPECT_EQ(vigilo({"set", "battery_floor", "5"}).status, 1);
  // The setting's own name and its value as read back, whatever was typed.
  EXPECT_EQ(vigilo({"set", "Battery-Floor", "30"}).out.substr(0, 18), "battery_floor = 30");
  EXPECT_EQ(json::parse(vigilo({"config", "--json"}).out)["config"]["batteryFloor"], 30);

  EXPECT_EQ(vigilo({"anyway", "on"}).err,
            "vigilo: going below the battery limit can only be allowed in Vigilo itself (it's the person's call)\n");
  EXPECT_EQ(vigilo({"check-in", "20"}).status, 2);

  s = status();
  for (const char* key : {"status", "mode", "keeping_awake", "lid_closed", "preset", "system_watts", "power_measured",
                          "config_path", "holds", "watch_list", "app_rules", "watching", "battery", "sessions",
                          "blocked_by", "warning", "reason"}) {
    EXPECT_TRUE(s.contains(key)) << key;
  }
  // The simulated battery drains as real seconds pass, a few on a loaded machine.
  EXPECT_NEAR(s["battery"]["percent"].get<double>(), 80, 3);

  // Wakes are looked at every tenth second of the laptop's clock.
  stopApp();
  writeFile(state_, R"({"clockSpeed": 5})");
  startApp();
  auto config = [&] {
    return Config::fromJson(nlohmann::json::parse(readFile(home_ + "/config.json"), nullptr, false));
  };
  // Three hours from now, so the wake is always more than an hour away.
  const std::time_t later = std::time(nullptr) + 3 * 3600;
  std::tm local{};
  ::localtime_r(&later, &local);
  char at3h[6];
  std::strftime(at3h, sizeof at3h, "%H:%M", &local);
  ToolRun at = vigilo({"wake-at", at3h, "--for", "45m"});
  ASSERT_EQ(at.status, 0) << at.err;
  EXPECT_EQ(at.out.rfind("Wakes at " + std::string(at3h) + ".\n", 0), 0u) << at.out;
  ASSERT_TRUE(config().wakeAt);
  EXPECT_EQ(config().wakeForMinutes, 45);
  // The simulated laptop's wake timer is armed in steps of at most an hour.
  ASSERT_TRUE(waitFor([&] { return outputHas("wakes itself in 3600 s"); }, 15s)) << app_->output();
  EXPECT_EQ(vigilo({"wake-at"}).status, 2);
  ASSERT_EQ(vigilo({"wake-at", "off"}).status, 0);
  EXPECT_FALSE(config().wakeAt);
  ASSERT_EQ(vigilo({"check-in", "15"}).status, 0);
  EXPECT_EQ(config().checkInMinutes, 15);
  EXPECT_TRUE(waitFor([&] { return outputHas("wakes itself in 900 s"); }, 15s)) << app_->output();
}

TEST_F(CliTest, CommandsThatPrintDataSpeakJsonAndTheOthersRefuseIt) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"status"}, {"settings"}, {"config"}, {"approve"}, {"apps"}, {"energy"}, {"power"}, {"prompt"},
           {"doctor"}, {"release"}, {"preset", "balanced"}, {"watch", "ffmpeg"}, {"set", "quiet_minutes", "3"}}) {
    std::vector<std::string> withJson = args;
    withJson.push_back("--json");
    ToolRun run = vigilo(withJson);
    EXPECT_EQ(run.status, 0) << args[0] << ": " << run.err;
    EXPECT_TRUE(json::parse(run.out, nullptr, false).is_object()) << args[0] << ": " << run.out;
  }
  const json doctor = json::parse(vigilo({"doctor", "--json"}).out, nullptr, false);
  ASSERT_TRUE(doctor.contains("checks")) << doctor.dump();
  EXPECT_EQ(doctor["checks"][0], (json{{"name", "Vigilo folder"}, {"value", home_}, {"details", json::array()}}));

  // Refused before anything runs: rescue would otherwise stop the app.
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"rescue"}, {"run", "--json", "--", "true"}, {"mcp"}, {"connect"}, {"disconnect"}, {"setup"}}) {
    std::vector<std::string> withJson = args;
    if (args[0] != "run") withJson.push_back("--json");
    ToolRun run = vigilo(withJson);
    EXPECT_EQ(run.status, 2) << args[0];
    EXPECT_EQ(run.err, "vigilo: --json means nothing for " + args[0] + ": it prints no data. Run \"vigilo help " +
                           args[0] + "\" for its options.\n");
  }
  EXPECT_EQ(vigilo({"status", "--for", "2h"}).err,
            "vigilo: status doesn't take --for. Run \"vigilo help status\" for its options.\n");
  EXPECT_EQ(status()["mode"], "auto");
}

TEST_F(CliTest, AStoppedAppIsStartedOnceAndThenAnswers) {
  ASSERT_EQ(vigilo({"quit"}).status, 2);  // not a command of the tool
  RequestClient(home_).send("quit", json::object(), 8);
  EXPECT_EQ(app_->wait(10s), 0) << app_->output();
  app_.reset();

  // Without VIGILO_SIMULATE the tool starts the app on the machine the
  // folder belongs to: the simulated laptop, never the real one.
  ToolRun started = vigilo({"status", "--json"}, {"VIGILO_NO_AUTOSTART=", "VIGILO_SIMULATE="});
  ASSERT_EQ(started.status, 0) << started.err;
  EXPECT_EQ(json::parse(started.out)["mode"], "auto");
  EXPECT_EQ(json::parse(started.out)["platform"], "sim");
  auto pid = runningApp(home_);
  ASSERT_TRUE(pid && *pid > 0);
  ::kill(*pid, SIGTERM);
  EXPECT_TRUE(waitFor([&] { return !runningApp(home_); }, 10s));
}

}  // namespace
}  // namespace vigilo::test
