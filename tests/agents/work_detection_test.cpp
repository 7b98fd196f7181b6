#include "agents/work_detection.h"

#include <filesystem>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "agents/agent_events.h"
#include "agents/agent_work.h"
#include "agents/catalogue.h"
#include "commands/command_center.h"
#include "engine/engine.h"
#include "platform/manual_run_loop.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo {
namespace {

using json = nlohmann::json;
using Lines = std::vector<std::string>;

struct RecordedAlerts : AgentAlerts {
  void finished(const std::string& name, int minutes, bool gone, const std::string& state) override {
    lines.push_back(name + " " + state + " after " + std::to_string(minutes) + " min" + (gone ? " (closed)" : ""));
  }
  void needsYou(const std::string& name) override { lines.push_back(name + " needs you"); }
  Lines lines;
};

class NoNotifications final : public Notifications {
 public:
  Result observe(const std::string&, std::function<void(std::string)>) override { return Result::ok(); }
  void stopObserving() override {}
  Result post(const std::string&, const std::string&) override { return Result::ok(); }
};

// The engine in mode auto with the real agent detection on a simulated
// laptop; Claude Code's hooks recorded as `vigilo event` records them.
class AgentScenarioTest : public ::testing::Test {
 protected:
  AgentScenarioTest() : loop_(clock_) {
    sim_ = makeSimPlatform(clock_, loop_, SimPlatformOptions{"", folder_});
  }
  ~AgentScenarioTest() override {
    engine_.reset();
    work_.reset();
  }
  void launch(const std::string& config = R"({"mode": "auto", "quietMinutes": 1})") {
    std::filesystem::create_directories(folder_);
    test::writeFile(folder_ + "/config.json", config);
    engine_ = std::make_unique<Engine>(*sim_, folder_);
    work_ = std::make_unique<AgentWork>(*sim_, folder_, dir_.file("home"), &alerts_);
    engine_->setWorkSource(work_.get());
    engine_->setNoticeHandler([this](const Notice& n) {
      if (n.kind == Notice::Kind::Announcement) ended_.push_back(n.text);
    });
    engine_->launch();
  }
  std::int32_t start(const std::string& path = "/usr/local/bin/claude", const std::string& cwd = "/home/me/vigilo",
                     std::optional<std::int32_t> pid = std::nullopt) {
    const std::int32_t p = laptop().startProcess(path, {path}, 1, pid);
    laptop().setProcessCwd(p, cwd);
    return p;
  }
  // One hook of Claude Code session "s1", sent from below process `agent`;
  // a running app folds it in at once, as on the hook's notification.
  void hook(std::int32_t agent, const std::string& event, json extra = json::object()) {
    json input = {{"session_id", "s1"}, {"hook_event_name", event}};
    input.update(extra);
    NoNotifications none;
    AgentEvents::record(folder_, "claude-code", input.dump(), clock_.now(), &sim_->processes(), agent, &none);
    if (!engine_) return;
    work_->eventsChanged();
    work_->sample(*engine_);
    engine_->evaluate();
  }
  void permission(std::int32_t agent) {
    hook(agent, "Notification", {{"notification_type", "permission_prompt"}, {"message", "Allow Bash?"}});
  }
  void advance(double seconds) { loop_.advance(seconds); }
  std::string status() const { return engine_->statusLine(); }
  Lines alerts() { return std::exchange(alerts_.lines, {}); }
  Lines ended() { return std::exchange(ended_, {}); }
  SimLaptop& laptop() { return sim_->laptop(); }

  static constexpr const char* kIdle = "Nothing running · sleeps when closed";
  test::TempDir dir_;
  std::string folder_ = dir_.file("app");
  ManualClock clock_;
  ManualRunLoop loop_;
  std::unique_ptr<SimPlatform> sim_;
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<AgentWork> work_;
  RecordedAlerts alerts_;
  Lines ended_;
};

std::string awake(const std::string& reason) { return reason + " · stays awake closed"; }

TEST_F(AgentScenarioTest, AfterAStopTheLaptopSleepsTheQuietMinutesLaterUnlessTheAgentGoesOn) {
  const auto claude = start();
  launch();
  // Background work the agent left running after its Stop keeps it awake,
  // and the quiet minute runs from the last of it.
  hook(claude, "UserPromptSubmit");
  advance(30);
  hook(claude, "Stop");
  EXPECT_EQ(status(), awake("Claude Code stopped · sleeps in 1 min"));
  advance(10);
  laptop().setProcessWatts(claude, 3.0);
  advance(4);
  EXPECT_EQ(status(), awake("Claude Code is working in vigilo"));
  advance(200);
  EXPECT_EQ(status(), awake("Claude Code is working in vigilo"));
  laptop().setProcessWatts(claude, 0.0);
  advance(30);
  EXPECT_EQ(status(), awake("Claude Code stopped · sleeps in 1 min"));
  advance(26);
  EXPECT_TRUE(engine_->holding());
  advance(6);
  EXPECT_EQ(status(), kIdle);
  ended();
  EXPECT_EQ(alerts(), Lines{"Claude Code finished after 4 min"});
}

TEST_F(AgentScenarioTest, EveryQuestionIsAnnouncedAndAnAnsweredOneIsWorkOnlyWhileItLasts) {
  const auto claude = start();
  launch(R"({"mode": "auto", "quietMinutes": 5})");
  hook(claude, "UserPromptSubmit");
  advance(60);
  permission(claude);
  EXPECT_EQ(status(), awake("Claude Code is waiting for you"));
  EXPECT_EQ(alerts(), Lines{"Claude Code needs you"});

  // Answered: the agent goes on.
  advance(10);
  laptop().setProcessWatts(claude, 2.0);
  advance(10);
  EXPECT_EQ(status(), awake("Claude Code is working in vigilo"));
  permission(claude);
  EXPECT_EQ(status(), awake("Claude Code is waiting for you"));
  advance(10);
  work_->eventsChanged();  // the files are read again: no second announcement
  advance(2);
  EXPECT_EQ(alerts(), Lines{"Claude Code needs you"});

  // Answered again, then nothing: not "working" for ever, but the quiet
  // minutes from the last activity.
  laptop().setProcessWatts(claude, 0.0);
  advance(10);
  laptop().setProcessWatts(claude, 2.0);
  advance(10);
  laptop().setProcessWatts(claude, 0.0);
  advance(22);
  EXPECT_EQ(status(), awake("Claude Code stopped · sleeps in 5 min"));
  advance(300);
  EXPECT_EQ(status(), kIdle);
  EXPECT_EQ(ended(), (Lines{"Claude Code is working in vigilo", "Claude Code finished"}));
  EXPECT_EQ(alerts(), Lines{"Claude Code went idle after 1 min"});

  // A question nobody answers counts down from when it was asked.
  hook(claude, "UserPromptSubmit");
  advance(90);
  permission(claude);
  advance(22);
  EXPECT_EQ(status(), awake("Claude Code stopped · sleeps in 5 min"));
  advance(276);
  EXPECT_TRUE(engine_->holding());
  advance(4);
  EXPECT_FALSE(engine_->holding());
  EXPECT_EQ(alerts(), (Lines{"Claude Code needs you", "Claude Code is still waiting after 1 min"}));
}

TEST_F(AgentScenarioTest, AnEventBelongsToTheProcessThatSentItAndNoOther) {
  const auto first = start();
  launch();
  hook(first, "UserPromptSubmit");
  advance(70);
  hook(first, "Stop");
  // The agent exits without SessionEnd: its leftover "finished" is nobody's.
  laptop().endProcess(first);
  advance(2);
  EXPECT_EQ(status(), kIdle);
  EXPECT_EQ(ended(), (Lines{"Claude Code is working in vigilo", "Claude Code finished"}));
  EXPECT_EQ(alerts(), Lines{"Claude Code finished after 1 min (closed)"});

  // A new agent elsewhere, even under the same pid, works on its own.
  const auto second = start("/usr/local/bin/claude", "/home/me/other", first);
  advance(4);
  EXPECT_EQ(status(), kIdle);
  EXPECT_EQ(WorkDetection::describe(work_->sessions().at(0), clock_.now()), "Claude Code is idle");
  laptop().setProcessWatts(second, 2.0);
  advance(6);
  EXPECT_EQ(status(), awake("Claude Code is working in other"));
}

TEST_F(AgentScenarioTest, TheNewestSessionOfAProcessIsItsOwnAndANestedAgentIsAnother) {
  // Given Claude Code resumed on one process: the session it left ("s0",
  // sorting first) ended without SessionEnd; the new one ("s1") works.
  const auto claude = start();
  launch();
  hook(claude, "Stop", {{"session_id", "s0"}});
  advance(10);
  hook(claude, "UserPromptSubmit");
  advance(120);
  EXPECT_EQ(status(), awake("Claude Code is working in vigilo"));

  // Its shell tool runs `claude -p` ("s00"), which stops: that is a session
  // of its own, and the outer one works on past the quiet minute.
  const auto shell = laptop().startProcess("/bin/bash", {"bash", "-c", "claude -p review"}, claude);
  const auto nested = laptop().startProcess("/usr/local/bin/claude", {"claude", "-p", "review"}, shell);
  hook(nested, "UserPromptSubmit", {{"session_id", "s00"}});
  hook(nested, "Stop", {{"session_id", "s00"}});
  advance(120);
  std::vector<std::tuple<std::string, std::vector<std::int32_t>, std::optional<AgentState>>> seen;
  for (const AgentSession& s : work_->sessions()) seen.emplace_back(s.id, s.pids, s.state);
  EXPECT_EQ(seen, (decltype(seen){{"s1", {claude}, AgentState::Working}, {"s00", {nested}, AgentState::Finished}}));
  EXPECT_TRUE(engine_->holding());
}

TEST_F(AgentScenarioTest, TheHoldEndsWithTheNameOfTheAgentThatWorkedLast) {
  const auto claude = start();
  const auto bot = start("/opt/bot/bin/bot", "/home/me/bot");
  launch(R"({"mode": "auto", "quietMinutes": 1, "customAgents": [{"name": "Bot", "executables": ["bot"]}]})");
  laptop().setProcessWatts(bot, 1.0);
  hook(claude, "UserPromptSubmit");
  advance(70);
  hook(claude, "Stop");
  advance(60);
  EXPECT_EQ(status(), awake("Bot is working in bot"));
  advance(70);
  EXPECT_EQ(alerts(), Lines{"Claude Code finished after 1 min"});

  // Bot exits mid-work: the hold ends at once, with its name.
  laptop().endProcess(bot);
  advance(2);
  EXPECT_EQ(status(), kIdle);
  EXPECT_EQ(ended(), (Lines{"Claude Code is working in vigilo", "Bot finished"}));
  EXPECT_EQ(alerts(), Lines{"Bot went idle after 3 min (closed)"});
}

TEST_F(AgentScenarioTest, TrackingOnlyChangesWhetherTheAgentKeepsTheLaptopAwake) {
  const auto claude = start();
  launch();
  CommandCenter center(*engine_, [] {});
  center.setAgents(work_.get(), nullptr);
  hook(claude, "UserPromptSubmit");
  advance(60);

  json reply = center.handle("track", {{"agent", "Claude Code"}, {"keeps", false}});
  EXPECT_EQ(reply.value("status", ""), kIdle) << reply.dump();
  EXPECT_EQ(ended(), (Lines{"Claude Code is working in vigilo", "Nothing left to wait for"}));
  advance(200);
  EXPECT_TRUE(alerts().empty()) << "it still works: nothing finished";

  permission(claude);
  advance(30);
  hook(claude, "Stop");
  advance(130);
  EXPECT_EQ(alerts(), (Lines{"Claude Code needs you", "Claude Code finished after 4 min"}));
  EXPECT_EQ(status(), kIdle);
}

TEST_F(AgentScenarioTest, AnAppStartedAfterAStopStillWaitsTheQuietMinutesFromIt) {
  hook(start(), "Stop");
  // A damaged event from the future would never go stale: it counts for nothing.
  test::writeFile(folder_ + "/agent-events/s2.json",
                  json{{"agent", "claude-code"}, {"session", "s2"}, {"state", "working"}, {"at", 1e12}}.dump());
  clock_.advance(20);
  launch();
  EXPECT_EQ(status(), awake("Claude Code stopped · sleeps in 1 min"));
  advance(38);
  EXPECT_TRUE(engine_->holding());
  advance(4);
  EXPECT_EQ(status(), kIdle);
  EXPECT_EQ(ended(), (Lines{"Claude Code stopped · sleeps in 1 min", "Claude Code finished"}));
  EXPECT_TRUE(alerts().empty()) << "no work was seen";
}

TEST(WorkDetectionTest, WatchedAppsRequestsAndSettings) {
  AgentSession aider;
  aider.id = "aider";
  aider.kind = builtInAgents()[5];
  aider.lastActive = 0;
  AgentSession xcode;
  xcode.id = "app:Xcode";
  xcode.kind = kindFor(WatchedApp{"Xcode"});
  AgentSession request;
  request.id = "request:caffeinate";
  request.kind.name = "caffeinate";
  Config config;
  WorkDetection d;
  auto at = [&](Time t, std::vector<AgentSession> sessions) {
    d.update(sessions, config, t, nullptr);
    return d.workReason();
  };

  EXPECT_EQ(at(1000, {xcode}), "Xcode is open");
  EXPECT_EQ(at(1000, {}), std::nullopt);
  EXPECT_EQ(d.lastWorker(), "Xcode");
  at(1030, {});
  EXPECT_EQ(d.lastWorker(), std::nullopt) << "ended long before: not why it may sleep now";
  EXPECT_EQ(at(1000, {request}), "caffeinate asked to stay awake");
  config.trackOnly = {"Xcode"};
  EXPECT_EQ(at(1000, {xcode}), std::nullopt);
  // Without sleeping when done, an idle agent keeps the machine awake.
  config.sleepWhenDone = false;
  EXPECT_EQ(at(1000, {aider}), "Aider is idle");
  config.trackOnly = {"aider"};
  EXPECT_EQ(at(1000, {aider}), std::nullopt);
}

}  // namespace
}  // namespace vigilo
