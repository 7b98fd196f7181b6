#include "engine/work_detection.h"

#include <gtest/gtest.h>

#include "agents/catalogue.h"

namespace vigilo {
namespace {

struct RecordedAlerts : AgentAlerts {
  void finished(const std::string& name, int minutes, bool gone, const std::string& state) override {
    done.push_back(name + " " + std::to_string(minutes) + (gone ? " gone " : " ") + state);
  }
  void needsYou(const std::string& name) override { needs.push_back(name); }
  std::vector<std::string> done;
  std::vector<std::string> needs;
};

// Given one Claude Code session driven by the test, and a clock in seconds.
class WorkDetectionTest : public ::testing::Test {
 protected:
  WorkDetectionTest() {
    claude.id = "claude-code";
    claude.kind = builtInAgents()[0];
    claude.project = "vigilo";
  }
  std::optional<std::string> at(Time t, std::vector<AgentSession> sessions = {}) {
    if (sessions.empty() && present) sessions = {claude};
    detection.update(sessions, config, t, &alerts);
    return detection.workReason();
  }
  AgentSession claude;
  bool present = true;
  Config config;
  WorkDetection detection;
  RecordedAlerts alerts;
};

TEST_F(WorkDetectionTest, ActivityThenQuietCountsDownTheQuietMinutes) {
  for (Time t = 0; t <= 600; t += 2) {
    claude.lastActive = t;
    EXPECT_EQ(at(t), "Claude Code is working in vigilo");
  }
  EXPECT_EQ(at(619), "Claude Code is working in vigilo");
  EXPECT_EQ(at(620), "Claude Code stopped · sleeps in 5 min");
  EXPECT_EQ(at(600 + 241), "Claude Code stopped · sleeps in 1 min");
  EXPECT_EQ(at(600 + 299), "Claude Code stopped · sleeps in 1 min");
  EXPECT_EQ(at(600 + 300), std::nullopt);
  EXPECT_EQ(detection.lastWorker(), "Claude Code");
  // Ten minutes of work, settled two minutes after the stop was noticed.
  EXPECT_EQ(alerts.done, std::vector<std::string>{"Claude Code 10 went idle"});

  // Work again cancels the countdown.
  claude.lastActive = 1000;
  EXPECT_EQ(at(1000), "Claude Code is working in vigilo");
}

TEST_F(WorkDetectionTest, HookStatesDecideOverProcessActivity) {
  claude.state = AgentState::Working;
  claude.stateSince = 0;
  EXPECT_EQ(at(100), "Claude Code is working in vigilo");

  claude.toolRunning = true;
  claude.toolSince = 95;
  EXPECT_EQ(at(100), "Claude Code is running a command");
  EXPECT_EQ(at(116), "Claude Code is working in vigilo");

  claude.toolRunning = false;
  claude.state = AgentState::Waiting;
  claude.stateSince = 200;
  claude.lastActive = 205;  // still busy on its own, but it asked the person
  EXPECT_EQ(at(201), "Claude Code is waiting for you");
  EXPECT_EQ(at(210), "Claude Code is waiting for you");
  EXPECT_EQ(alerts.needs, std::vector<std::string>{"Claude Code"});
  EXPECT_EQ(at(221), "Claude Code stopped · sleeps in 5 min");
  at(221 + 120);
  EXPECT_EQ(alerts.done, std::vector<std::string>{"Claude Code 3 is still waiting"});

  // The quiet minutes run from the last work, whatever the agent reports.
  claude.state = AgentState::Finished;
  claude.stateSince = 400;
  EXPECT_EQ(at(400), "Claude Code stopped · sleeps in 2 min");
  EXPECT_EQ(at(205 + 300), std::nullopt);
  EXPECT_EQ(alerts.needs, std::vector<std::string>{"Claude Code"});
}

TEST_F(WorkDetectionTest, ShortWorkRaisesNoAlertAndAGoneAgentStopsAtOnce) {
  claude.lastActive = 0;
  at(0);
  claude.lastActive = 30;
  at(30);
  present = false;
  EXPECT_EQ(at(32), std::nullopt);
  at(32 + 120);
  EXPECT_TRUE(alerts.done.empty());
  EXPECT_EQ(detection.lastWorker(), "Claude Code");

  present = true;
  claude.lastActive = 1000;
  at(1000);
  claude.lastActive = 1200;
  at(1200);
  present = false;
  at(1201);
  at(1201 + 120);
  EXPECT_EQ(alerts.done, std::vector<std::string>{"Claude Code 3 gone went idle"});
}

TEST_F(WorkDetectionTest, WatchedAppsRequestsAndSettings) {
  AgentSession xcode;
  xcode.id = "app:Xcode";
  xcode.kind = kindFor(WatchedApp{"Xcode"});
  AgentSession request;
  request.id = "request:caffeinate";
  request.kind.name = "caffeinate";

  EXPECT_EQ(at(0, {xcode}), "Xcode is open");
  EXPECT_EQ(at(0, {request}), "caffeinate asked to stay awake");
  config.trackOnly = {"Xcode"};
  EXPECT_EQ(at(0, {xcode}), std::nullopt);

  // Without sleeping when done, an idle agent keeps the machine awake.
  claude.lastActive = 0;
  EXPECT_EQ(at(100), std::nullopt);
  config.sleepWhenDone = false;
  EXPECT_EQ(at(100), "Claude Code is idle");
  config.trackOnly = {"Claude Code"};
  EXPECT_EQ(at(100), std::nullopt);
}

}  // namespace
}  // namespace vigilo
